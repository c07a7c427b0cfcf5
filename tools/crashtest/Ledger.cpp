#include "crashtest/Ledger.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <fstream>
#include <system_error>

namespace rovalis::crashtest {

namespace {

constexpr std::string_view markerPrefix = "crash ";

// "<round> <index>" and nothing else.
std::optional<Marker> parsePair(std::string_view text) {
    Marker marker;
    const char* const end = text.data() + text.size();
    auto [afterRound, roundError] = std::from_chars(text.data(), end, marker.round);
    if (roundError != std::errc{} || afterRound == end || *afterRound != ' ') return std::nullopt;
    auto [afterIndex, indexError] = std::from_chars(afterRound + 1, end, marker.index);
    if (indexError != std::errc{} || afterIndex != end || marker.round < 0 || marker.index < 0) return std::nullopt;
    return marker;
}

}  // namespace

std::string markerText(const Marker& marker) {
    return std::string(markerPrefix) + std::to_string(marker.round) + " " + std::to_string(marker.index);
}

std::optional<Marker> parseMarker(std::string_view comment) {
    if (!comment.starts_with(markerPrefix)) return std::nullopt;
    return parsePair(comment.substr(markerPrefix.size()));
}

LedgerWriter::LedgerWriter(const std::filesystem::path& file)
    : fd_(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "cannot open " + file.string());
}

LedgerWriter::~LedgerWriter() { ::close(fd_); }

void LedgerWriter::append(int round, std::int64_t lastIndex) {
    const std::string line = std::to_string(round) + " " + std::to_string(lastIndex) + "\n";
    if (::write(fd_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        throw std::system_error(errno, std::generic_category(), "cannot append to a ledger");
    }
}

std::map<int, std::int64_t> readLedger(const std::filesystem::path& file) {
    std::map<int, std::int64_t> highest;
    std::ifstream in(file, std::ios::binary);
    std::string line;
    // getline also hands over a last line without its end; eof() tells it apart.
    while (std::getline(in, line) && !in.eof()) {
        const auto entry = parsePair(line);
        if (!entry) continue;
        auto [found, inserted] = highest.try_emplace(entry->round, entry->index);
        if (!inserted && found->second < entry->index) found->second = entry->index;
    }
    return highest;
}

Tally tally(const std::map<int, std::int64_t>& recorded, const std::map<int, std::int64_t>& acknowledged,
            const std::map<Marker, int>& deliveries) {
    Tally result;
    for (const auto& [round, lastIndex] : recorded) result.recorded += lastIndex + 1;
    for (const auto& [round, lastIndex] : acknowledged) {
        result.acknowledged += lastIndex + 1;
        for (std::int64_t index = 0; index <= lastIndex; ++index) {
            if (!deliveries.contains(Marker{round, index})) ++result.lost;
        }
    }
    for (const auto& [marker, times] : deliveries) {
        ++result.delivered;
        if (times > 1) ++result.twice;
    }
    return result;
}

}  // namespace rovalis::crashtest

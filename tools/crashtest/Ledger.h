#pragma once

// What the killed processes recorded and what their store acknowledged, and the count of it
// against what the collection service stored.
//
// Every event a process records is a Debug event whose comment is a marker
// "crash <round> <index>"; a round's indices count up from 0 without gaps. A process appends
// "<round> <last index>" to the recorded ledger before it inserts a group of events, and to
// the acknowledged ledger once the store has committed them, so one line covers every index
// up to it. The ledgers are plain files beside the data root, appended one write(2) a line:
// the page cache outlives a SIGKILL, so whole lines survive it without an fsync.

#include <compare>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace rovalis::crashtest {

// The files of one run, all in one directory: the data root that every process shares, the
// ledgers, the SDK's console lines and the collection service's database.
struct RunFiles {
    std::filesystem::path directory;

    static RunFiles aroundDataRoot(const std::filesystem::path& dataRoot) { return {dataRoot.parent_path()}; }

    std::filesystem::path dataRoot() const { return directory / "device"; }
    std::filesystem::path recordedLedger() const { return directory / "recorded.log"; }
    std::filesystem::path acknowledgedLedger() const { return directory / "acknowledged.log"; }
    std::filesystem::path consoleLog() const { return directory / "console.log"; }
    std::filesystem::path collectorDatabase() const { return directory / "collector.sqlite"; }
};

struct Marker {
    int round = 0;
    std::int64_t index = 0;

    friend auto operator<=>(const Marker&, const Marker&) = default;
};

std::string markerText(const Marker& marker);
// The marker a Debug comment carries; none for any other text (the SDK's own Debug events).
std::optional<Marker> parseMarker(std::string_view comment);

class LedgerWriter {
public:
    // Opens the file for appending, creating it if needed; throws std::system_error when it cannot.
    explicit LedgerWriter(const std::filesystem::path& file);
    ~LedgerWriter();
    LedgerWriter(const LedgerWriter&) = delete;
    LedgerWriter& operator=(const LedgerWriter&) = delete;

    // Every index of the round up to lastIndex.
    void append(int round, std::int64_t lastIndex);

private:
    int fd_ = -1;
};

// The highest index of each round in a ledger (none when the file is missing). A line
// without its end, as a kill may leave, is skipped.
std::map<int, std::int64_t> readLedger(const std::filesystem::path& file);

struct Tally {
    std::int64_t recorded = 0;
    std::int64_t acknowledged = 0;
    std::int64_t delivered = 0;  // distinct markers the service stored
    std::int64_t lost = 0;       // acknowledged, never stored
    std::int64_t twice = 0;      // stored more than once
};

// deliveries: how often the service stored each marker.
Tally tally(const std::map<int, std::int64_t>& recorded, const std::map<int, std::int64_t>& acknowledged,
            const std::map<Marker, int>& deliveries);

}  // namespace rovalis::crashtest

#include "upload/BackgroundTaskJournal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>

#include "rovalis/Console.h"

namespace rovalis {

namespace {

constexpr int kJournalVersion = 1;

std::string hexEncoded(const std::string& text) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string result;
    result.reserve(text.size() * 2);
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        result += digits[c >> 4];
        result += digits[c & 0x0F];
    }
    return result;
}

bool isCredentialHeader(const std::string& name) {
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower == "authorization" || lower == "proxy-authorization";
}

bool writeAll(int fd, const std::string& bytes) {
    const char* data = bytes.data();
    std::size_t left = bytes.size();
    while (left > 0) {
        const ssize_t written = ::write(fd, data, left);
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
    return true;
}

bool syncDirectory(const std::filesystem::path& directory) {
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool synced = ::fsync(fd) == 0;
    ::close(fd);
    return synced;
}

nlohmann::json encode(const JournaledTask& task) {
    nlohmann::json headers = nlohmann::json::array();
    for (const auto& [name, value] : task.request.headers) {
        if (!isCredentialHeader(name)) headers.push_back(nlohmann::json::array({name, value}));
    }
    nlohmann::json properties = nlohmann::json::object();
    for (const auto& [name, date] : task.request.properties) properties[name] = date.secondsSince1970;
    return {{"taskIdentifier", task.taskIdentifier},
            {"url", task.request.url},
            {"httpMethod", task.request.httpMethod},
            {"headers", std::move(headers)},
            {"properties", std::move(properties)},
            {"textProperties", task.request.textProperties},
            {"bodyFile", task.bodyFile.string()},
            {"created", task.created.secondsSince1970}};
}

// Throws nlohmann's exceptions on entries of the wrong shape.
JournaledTask decode(const nlohmann::json& entry) {
    JournaledTask task;
    // Only what store() writes: converting another number (1e30, -1) would be undefined or wrap.
    const auto& identifier = entry.at("taskIdentifier");
    if (!identifier.is_number_unsigned()) throw std::invalid_argument("taskIdentifier");
    task.taskIdentifier = identifier.get<std::uint64_t>();
    task.request.url = entry.at("url").get<std::string>();
    task.request.httpMethod = entry.at("httpMethod").get<std::string>();
    for (const auto& header : entry.at("headers")) {
        if (!header.is_array() || header.size() != 2) throw std::invalid_argument("header");
        task.request.headers.emplace_back(header.at(0).get<std::string>(), header.at(1).get<std::string>());
    }
    for (const auto& [name, seconds] : entry.at("properties").items()) {
        task.request.properties[name] = Date{seconds.get<double>()};
    }
    // Journals written before text properties existed have none.
    if (const auto found = entry.find("textProperties"); found != entry.end()) {
        task.request.textProperties = found->get<std::map<std::string, std::string>>();
    }
    task.bodyFile = entry.at("bodyFile").get<std::string>();
    task.created = Date{entry.at("created").get<double>()};
    if (task.taskIdentifier == 0 || task.bodyFile.empty() || !std::isfinite(task.created.secondsSince1970)) {
        throw std::invalid_argument("entry");
    }
    return task;
}

}  // namespace

BackgroundTaskJournal::BackgroundTaskJournal(std::filesystem::path directory, const std::string& sessionIdentifier)
    : directory_(std::move(directory)), file_(directory_ / (hexEncoded(sessionIdentifier) + ".journal")) {}

UrlRequest BackgroundTaskJournal::withoutCredentials(const UrlRequest& request) {
    UrlRequest copy = request;
    std::erase_if(copy.headers, [](const auto& header) { return isCredentialHeader(header.first); });
    return copy;
}

std::vector<JournaledTask> BackgroundTaskJournal::load() const {
    std::error_code ec;
    if (!std::filesystem::exists(file_, ec)) return {};
    std::ifstream in(file_, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto dropFile = [&](const std::string& why) {
        Console::log("Dropped the background session journal " + file_.string() + ": " + why);
        std::error_code ignored;
        std::filesystem::remove(file_, ignored);
        return std::vector<JournaledTask>{};
    };
    if (!in.good() && !in.eof()) return dropFile("it could not be read");
    const nlohmann::json document = nlohmann::json::parse(text, nullptr, false);
    if (document.is_discarded() || !document.is_object() || !document.contains("tasks") ||
        !document["tasks"].is_array() || document.value("version", nlohmann::json()) != kJournalVersion) {
        return dropFile("it is not a journal");
    }
    std::vector<JournaledTask> tasks;
    for (const auto& entry : document["tasks"]) {
        try {
            tasks.push_back(decode(entry));
        } catch (const std::exception&) {
            Console::log("Dropped an unreadable task from the background session journal " + file_.string());
        }
    }
    return tasks;
}

bool BackgroundTaskJournal::store(const std::vector<JournaledTask>& tasks) const {
    std::error_code ec;
    if (tasks.empty()) {
        std::filesystem::remove(file_, ec);
        if (ec) {
            Console::log("Could not remove the background session journal " + file_.string() + ": " + ec.message());
            return false;
        }
        syncDirectory(directory_);
        return true;
    }
    const auto fail = [&](const std::string& why) {
        Console::log("Could not write the background session journal " + file_.string() + ": " + why);
        return false;
    };
    std::filesystem::create_directories(directory_, ec);
    if (ec) return fail(ec.message());
    ::chmod(directory_.c_str(), 0700);

    nlohmann::json entries = nlohmann::json::array();
    for (const auto& task : tasks) entries.push_back(encode(task));
    const std::string bytes = nlohmann::json{{"version", kJournalVersion}, {"tasks", std::move(entries)}}.dump();

    const std::filesystem::path temporary = file_.string() + ".tmp";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return fail(std::strerror(errno));
    const bool written = writeAll(fd, bytes) && ::fsync(fd) == 0;
    const int savedErrno = errno;
    ::close(fd);
    if (!written || ::rename(temporary.c_str(), file_.c_str()) != 0) {
        const std::string why = std::strerror(written ? errno : savedErrno);
        std::filesystem::remove(temporary, ec);
        return fail(why);
    }
    if (!syncDirectory(directory_)) return fail("the directory could not be synced");
    return true;
}

}  // namespace rovalis

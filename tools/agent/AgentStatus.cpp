#include "AgentStatus.h"

#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

namespace rovalis::agent {

namespace fs = std::filesystem;
using json = nlohmann::json;

namespace {

// The keys and kinds the SDK's key-value state uses (a Date is kind 1, stored as seconds).
constexpr const char* trackingStatusKey = "IZSettings14";
constexpr const char* interruptedReasonKey = "RVL_TRACKING_INTERRUPTED_REASON";
constexpr const char* lastUploadKey = "RVLLastSuccessfulEventTransmissionDate";
constexpr int dateKind = 1;

struct ReadOnlyDatabase {
    explicit ReadOnlyDatabase(const fs::path& file) {
        if (!fs::exists(file)) return;
        // Read-only and without creating anything; the running agent may be writing (WAL).
        if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
            sqlite3_close(db);
            db = nullptr;
        } else {
            sqlite3_busy_timeout(db, 2000);
        }
    }
    ~ReadOnlyDatabase() { sqlite3_close(db); }
    ReadOnlyDatabase(const ReadOnlyDatabase&) = delete;
    ReadOnlyDatabase& operator=(const ReadOnlyDatabase&) = delete;

    // Runs the query with one text parameter (or none) and hands each row to `row`.
    template <typename Row>
    bool query(const char* sql, const char* parameter, Row&& row) const {
        if (!db) return false;
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK) return false;
        const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> owner(statement, &sqlite3_finalize);
        if (parameter) sqlite3_bind_text(statement, 1, parameter, -1, SQLITE_STATIC);
        int result;
        while ((result = sqlite3_step(statement)) == SQLITE_ROW) row(statement);
        return result == SQLITE_DONE;
    }

    sqlite3* db = nullptr;
};

std::optional<double> number(const ReadOnlyDatabase& defaults, const char* key, std::optional<int> kind = {}) {
    std::optional<double> value;
    defaults.query("SELECT kind, value FROM defaults WHERE key = ?1", key, [&](sqlite3_stmt* row) {
        if (!kind || sqlite3_column_int(row, 0) == *kind) value = sqlite3_column_double(row, 1);
    });
    return value;
}

std::string utc(double seconds) {
    const std::time_t whole = static_cast<std::time_t>(seconds);
    std::tm parts{};
    gmtime_r(&whole, &parts);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

std::string trackingText(std::optional<double> status, std::optional<double> reason) {
    if (!status || *status == 0) return "off (stopped by the host)";
    if (*status == 1) return "on";
    static const char* const reasons[] = {"stopped", "location services off", "location denied",
                                          "permission not \"always\"", "imprecise location", "app update"};
    const int index = reason && *reason >= 0 && *reason <= 5 ? static_cast<int>(*reason) : 1;
    return std::string("off (interrupted by the SDK: ") + reasons[index] + ")";
}

}  // namespace

fs::path agentStateFile(const fs::path& dataRoot) { return dataRoot / "agent-state.json"; }

void writeAgentState(const fs::path& dataRoot, const AgentState& state) {
    json document{{"pid", state.processId}};
    if (state.asleep) document["asleep"] = *state.asleep;
    if (state.lastFixTime) {
        document["last_fix"] = {{"time", *state.lastFixTime},
                                {"latitude", state.lastFixLatitude},
                                {"longitude", state.lastFixLongitude},
                                {"accuracy", state.lastFixAccuracy}};
    }
    const fs::path file = agentStateFile(dataRoot);
    const fs::path temporary = file.string() + ".tmp";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return;
    const std::string text = document.dump() + "\n";
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    if (written) std::rename(temporary.c_str(), file.c_str());
}

std::optional<AgentState> readAgentState(const fs::path& dataRoot) {
    std::ifstream in(agentStateFile(dataRoot));
    if (!in) return std::nullopt;
    const json document = json::parse(in, nullptr, false);
    if (!document.is_object()) return std::nullopt;
    AgentState state;
    state.processId = document.value("pid", 0L);
    if (document.contains("asleep") && document["asleep"].is_boolean()) state.asleep = document["asleep"].get<bool>();
    if (document.contains("last_fix") && document["last_fix"].is_object()) {
        const json& fix = document["last_fix"];
        state.lastFixTime = fix.value("time", 0.0);
        state.lastFixLatitude = fix.value("latitude", 0.0);
        state.lastFixLongitude = fix.value("longitude", 0.0);
        state.lastFixAccuracy = fix.value("accuracy", 0.0);
    }
    return state;
}

std::optional<std::string> statusReport(const fs::path& dataRoot) {
    const ReadOnlyDatabase defaults(dataRoot / "Preferences.sqlite");
    if (!defaults.db) return std::nullopt;
    const ReadOnlyDatabase store(dataRoot / "Store" / "RovalisSDK.sqlite");

    long waiting = 0;
    store.query("SELECT count(*) FROM EventEntity", nullptr,
                [&](sqlite3_stmt* row) { waiting = static_cast<long>(sqlite3_column_int64(row, 0)); });
    std::optional<AgentState> agentState = readAgentState(dataRoot);
    AgentState lastFix = agentState.value_or(AgentState{});
    store.query("SELECT tracked_at_ms, payload FROM EventEntity WHERE type = 'Waypoint' ORDER BY id DESC LIMIT 1",
                nullptr, [&](sqlite3_stmt* row) {
                    const double time = sqlite3_column_double(row, 0);
                    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(row, 1));
                    std::string text(bytes, static_cast<std::size_t>(sqlite3_column_bytes(row, 1)));
                    // The store may keep an event without its time and type at the end (its
                    // columns hold them): the position before them reads as an object once closed.
                    if (text.ends_with(',')) text.back() = '}';
                    const json payload = json::parse(text, nullptr, false);
                    if (!payload.is_object() || (lastFix.lastFixTime && *lastFix.lastFixTime >= time)) return;
                    lastFix.lastFixTime = time;
                    lastFix.lastFixLatitude = payload.value("latitude", 0.0);
                    lastFix.lastFixLongitude = payload.value("longitude", 0.0);
                    lastFix.lastFixAccuracy = payload.value("accuracy", 0.0);
                });

    const bool running = agentState && agentState->processId > 0 &&
                         (::kill(static_cast<pid_t>(agentState->processId), 0) == 0 || errno == EPERM);
    std::ostringstream out;
    out << "tracking:       "
        << trackingText(number(defaults, trackingStatusKey), number(defaults, interruptedReasonKey)) << "\n";
    out << "sleep:          "
        << (!agentState || !agentState->asleep ? "unknown" : *agentState->asleep ? "asleep" : "awake") << "\n";
    out << "last fix:       ";
    if (lastFix.lastFixTime) {
        char position[96];
        std::snprintf(position, sizeof(position), "%.6f,%.6f ±%.0f m", lastFix.lastFixLatitude,
                      lastFix.lastFixLongitude, lastFix.lastFixAccuracy);
        out << utc(*lastFix.lastFixTime) << " " << position << "\n";
    } else {
        out << "none\n";
    }
    out << "events waiting: " << waiting << "\n";
    const auto lastUpload = number(defaults, lastUploadKey, dateKind);
    // The SDK's "never" is the distant past.
    out << "last upload:    " << (lastUpload && *lastUpload > 0 ? utc(*lastUpload) : std::string("never")) << "\n";
    out << "agent:          ";
    if (running) {
        out << "running (pid " << agentState->processId << ")\n";
    } else {
        out << "not running\n";
    }
    return out.str();
}

}  // namespace rovalis::agent

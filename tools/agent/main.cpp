// rovalis-agent: the SDK as a Linux service. It tracks the machine's position from gpsd and
// delivers it to the collection service until it is stopped, and reports what its data root
// holds (`rovalis-agent status`).

#include <CLI/CLI.hpp>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <mutex>
#include <string>
#include <vector>

#include "AgentStatus.h"
#include "rovalis/Console.h"
#include "rovalis/NotificationCenter.h"
#include "rovalis/Rovalis.h"

namespace {

using namespace rovalis;

constexpr const char* agentIdentifier = "io.rovalis.agent";
constexpr const char* tokenVariable = "ROVALIS_TOKEN";

enum class Level { error = 0, warning = 1, info = 2, debug = 3 };

// Log lines to standard error. Under journald (JOURNAL_STREAM set) each line starts with its
// syslog priority, which journald takes as the line's level; on a terminal with a time.
class Log {
public:
    static void setThreshold(Level level) { threshold_ = level; }
    static void line(Level level, std::string_view text) {
        if (level > threshold_) return;
        static const char* const names[] = {"error", "warning", "info", "debug"};
        static const int priorities[] = {3, 4, 6, 7};
        const auto index = static_cast<int>(level);
        std::string out;
        if (std::getenv("JOURNAL_STREAM")) {
            out = "<" + std::to_string(priorities[index]) + ">";
        } else {
            char stamp[32];
            const std::time_t now = std::time(nullptr);
            std::tm parts{};
            gmtime_r(&now, &parts);
            std::strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%SZ ", &parts);
            out = stamp;
        }
        out.append(names[index]).append(": ").append(text).append("\n");
        std::lock_guard lock(mutex_);
        std::fwrite(out.data(), 1, out.size(), stderr);
        std::fflush(stderr);
    }

private:
    static inline std::atomic<Level> threshold_{Level::info};
    static inline std::mutex mutex_;
};

struct Settings {
    std::string serviceURL;
    std::string tokenFile;
    std::string dataRoot;
    std::string gpsdHost = LinuxPlatformSettings{}.gpsdHost;
    std::uint16_t gpsdPort = LinuxPlatformSettings{}.gpsdPort;
    std::string powerSupplyRoot = LinuxPlatformSettings{}.powerSupplyRoot.string();
    std::vector<std::string> cellularInterfaces;
    bool wifiOnly = false;
    double stayLimit = 600.0;
    double uploadInterval = UploadSchedule{}.interval;
    double uploadMinimumInterval = UploadSchedule{}.minimumInterval;
    std::string logLevel = "info";
};

// The data root: the one given, else systemd's StateDirectory, else the SDK's default.
std::filesystem::path dataRootOf(const Settings& settings) {
    if (!settings.dataRoot.empty()) return settings.dataRoot;
    if (const char* state = std::getenv("STATE_DIRECTORY"); state && *state) {
        const std::string first(state, std::string_view(state).find(':') == std::string_view::npos
                                           ? std::string_view(state).size()
                                           : std::string_view(state).find(':'));
        return first;
    }
    const char* xdg = std::getenv("XDG_DATA_HOME");
    const char* home = std::getenv("HOME");
    const std::filesystem::path base = xdg && *xdg ? std::filesystem::path(xdg)
                                                   : std::filesystem::path(home ? home : ".") / ".local/share";
    return base / "rovalis" / agentIdentifier;
}

// The token from its file (first line) or the environment; never from the command line,
// where every user of the machine could read it.
std::optional<std::string> readToken(const Settings& settings) {
    std::string token;
    if (!settings.tokenFile.empty()) {
        std::ifstream in(settings.tokenFile);
        if (!in) {
            Log::line(Level::error, "cannot read the token file " + settings.tokenFile);
            return std::nullopt;
        }
        std::getline(in, token);
    } else if (const char* variable = std::getenv(tokenVariable)) {
        token = variable;
    }
    while (!token.empty() && std::isspace(static_cast<unsigned char>(token.back()))) token.pop_back();
    if (token.empty()) {
        Log::line(Level::error, std::string("no token: set token-file or ") + tokenVariable);
        return std::nullopt;
    }
    return token;
}

// The host side of the SDK: logs what it hears, keeps the state file for `status`, and asks
// the main thread to start again when permission comes back while tracking is off.
class AgentHost final : public RovalisDelegate, public RovalisLocationDelegate, public RovalisDataUploadDelegate {
public:
    explicit AgentHost(std::filesystem::path dataRoot) : dataRoot_(std::move(dataRoot)) {
        state_.processId = static_cast<long>(::getpid());
        save();
    }

    void trackingStatusChanged(bool isTracking) override {
        Log::line(Level::info, isTracking ? "tracking on" : "tracking off");
    }
    void locationAuthorizationStatusDidChange(std::int32_t status, bool precise) override {
        Log::line(Level::info, "location permission " + std::to_string(status) + (precise ? ", precise" : ""));
        startWanted = true;
    }
    void didTrackLocation(const Location& location) override {
        Log::line(Level::debug, "fix " + std::to_string(location.coordinate.latitude) + "," +
                                    std::to_string(location.coordinate.longitude));
        std::lock_guard lock(mutex_);
        state_.lastFixTime = location.timestamp.secondsSince1970;
        state_.lastFixLatitude = location.coordinate.latitude;
        state_.lastFixLongitude = location.coordinate.longitude;
        state_.lastFixAccuracy = location.horizontalAccuracy;
        // At most one write a minute for fixes; sleep changes are written at once.
        if (location.timestamp.secondsSince1970 - lastFixSaved_ >= 60.0) {
            lastFixSaved_ = location.timestamp.secondsSince1970;
            saveLocked();
        }
    }
    void dataUploadWithTrackedFrom(Date from, Date to, const std::optional<Error>& error) override {
        if (error) {
            Log::line(Level::warning, "upload failed: " + error->localizedDescription);
        } else {
            Log::line(Level::info, "uploaded events tracked from " + std::to_string(from.secondsSince1970) + " to " +
                                       std::to_string(to.secondsSince1970));
        }
    }
    void sleepStateChanged(bool asleep) {
        Log::line(Level::info, asleep ? "asleep" : "awake");
        std::lock_guard lock(mutex_);
        state_.asleep = asleep;
        saveLocked();
    }
    void save() {
        std::lock_guard lock(mutex_);
        saveLocked();
    }

    std::atomic<bool> startWanted{false};

private:
    void saveLocked() { agent::writeAgentState(dataRoot_, state_); }

    const std::filesystem::path dataRoot_;
    std::mutex mutex_;
    agent::AgentState state_;
    double lastFixSaved_ = 0.0;
};

int run(const Settings& settings) {
    const std::filesystem::path root = dataRootOf(settings);
    const auto token = readToken(settings);
    if (!token) return 1;
    if (settings.serviceURL.empty()) {
        Log::line(Level::error, "no service-url set");
        return 1;
    }

    // SIGTERM and SIGINT (stop) and SIGUSR1 (upload now) are taken by sigtimedwait on this
    // thread: blocked here before any SDK thread exists, so that every thread inherits the mask and the SDK is stopped from an
    // ordinary thread rather than from a handler.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    Console::setSink([](std::string_view line) { Log::line(Level::info, line); });

    RovalisConfiguration configuration;
    configuration.host = {"rovalis-agent", ROVALIS_AGENT_VERSION, "1", agentIdentifier, {}};
    configuration.dataRoot = root;
    configuration.serviceBaseURL = settings.serviceURL;
    configuration.stayTimeLimit = settings.stayLimit;
    configuration.uploadSchedule = {settings.uploadInterval, settings.uploadMinimumInterval};
    configuration.linuxPlatform.gpsdHost = settings.gpsdHost;
    configuration.linuxPlatform.gpsdPort = settings.gpsdPort;
    configuration.linuxPlatform.powerSupplyRoot = settings.powerSupplyRoot;
    configuration.linuxPlatform.cellularInterfaces = settings.cellularInterfaces;

    std::filesystem::create_directories(root);
    const auto host = std::make_shared<AgentHost>(root);
    const auto center = NotificationCenter::defaultCenter();
    const auto sleepObserver = center->addObserver(RVLGeneralNotification, [host](const Notification& note) {
        if (!note.userInfo) return;
        const auto paused = note.userInfo->find("paused");
        if (paused != note.userInfo->end()) {
            if (const bool* asleep = std::get_if<bool>(&paused->second)) host->sleepStateChanged(*asleep);
        }
    });

    Log::line(Level::info, "starting: data root " + root.string() + ", gpsd " + settings.gpsdHost + ":" +
                               std::to_string(settings.gpsdPort) + ", service " + settings.serviceURL);
    auto sdk = RovalisCore::makeInstance(configuration);
    sdk->initializeUsing(host, std::nullopt);
    sdk->setUserToken(*token);
    sdk->setWifiOnlyDataTransfer(settings.wifiOnly);
    sdk->start();

    int signal = 0;
    while (signal != SIGTERM && signal != SIGINT) {
        const timespec second{1, 0};
        signal = sigtimedwait(&stopSignals, nullptr, &second);
        if (signal == SIGUSR1) {
            // Upload now, as when an app comes to the front.
            Log::line(Level::info, "SIGUSR1: uploading");
            center->post(UIApplicationDidBecomeActiveNotification);
        }
        // The agent wants tracking whenever the machine allows it: a start refused while gpsd
        // had no receiver is made again once one appears.
        if (host->startWanted.exchange(false) && !sdk->isTrackingActive() && sdk->hasRequiredPermissions()) {
            sdk->start();
        }
    }
    Log::line(Level::info, std::string("stopping on ") + (signal == SIGINT ? "SIGINT" : "SIGTERM"));
    center->post(UIApplicationWillTerminateNotification);
    center->removeObserver(sleepObserver);
    // Ending the instance writes what is buffered; tracking stays on for the next start.
    sdk.reset();
    host->save();
    Log::line(Level::info, "stopped");
    Console::setSink(nullptr);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"rovalis-agent: records this machine's movement from gpsd and delivers it to a collection service.\n"
                 "The token comes from token-file or the " +
                 std::string(tokenVariable) + " environment variable."};
    app.set_config("--config", "", "Configuration file (INI or TOML; keys are the long option names)");
    Settings settings;
    app.add_option("--service-url", settings.serviceURL, "Collection service base URL");
    app.add_option("--token-file", settings.tokenFile, "File whose first line is the user token")
        ->envname("ROVALIS_TOKEN_FILE");
    app.add_option("--data-root", settings.dataRoot,
                   "Where the SDK keeps its state (default: $STATE_DIRECTORY, else the SDK's)");
    app.add_option("--gpsd-host", settings.gpsdHost, "gpsd host")->capture_default_str();
    app.add_option("--gpsd-port", settings.gpsdPort, "gpsd port")->capture_default_str();
    app.add_option("--power-supply-root", settings.powerSupplyRoot, "sysfs power supply class directory")
        ->capture_default_str();
    app.add_option("--cellular-interface", settings.cellularInterfaces,
                   "An interface that counts as cellular (name, or prefix with '*'); repeatable");
    app.add_flag("--wifi-only", settings.wifiOnly, "Send nothing over a cellular link");
    app.add_option("--stay-limit", settings.stayLimit, "Seconds at one place before the SDK sleeps")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--upload-interval", settings.uploadInterval,
                   "Upload on a new fix once the last upload is this many seconds old")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--upload-min-interval", settings.uploadMinimumInterval,
                   "Seconds at least between two upload starts")
        ->capture_default_str()
        ->check(CLI::NonNegativeNumber);
    app.add_option("--log-level", settings.logLevel, "error, warning, info or debug")
        ->capture_default_str()
        ->check(CLI::IsMember({"error", "warning", "info", "debug"}));
    auto* status = app.add_subcommand("status", "Print what the data root holds (tracking, sleep, last fix, "
                                                "events waiting, last upload) and exit");
    status->fallthrough();
    CLI11_PARSE(app, argc, argv);

    const std::string& level = settings.logLevel;
    Log::setThreshold(level == "error" ? Level::error
                      : level == "warning" ? Level::warning
                      : level == "debug" ? Level::debug
                                         : Level::info);
    if (status->parsed()) {
        const auto report = agent::statusReport(dataRootOf(settings));
        if (!report) {
            std::cerr << "no SDK state in " << dataRootOf(settings).string() << "\n";
            return 1;
        }
        std::cout << *report;
        return 0;
    }
    try {
        return run(settings);
    } catch (const std::exception& error) {
        Log::line(Level::error, error.what());
        return 1;
    }
}

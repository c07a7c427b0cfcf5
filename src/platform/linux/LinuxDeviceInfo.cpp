#include "platform/linux/LinuxDeviceInfo.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "util/Fatal.h"

namespace rovalis {

namespace fs = std::filesystem;

namespace linuxpower {

namespace {

// A sysfs attribute without its trailing newline; empty when it cannot be read.
std::string attribute(const fs::path& supply, const char* name) {
    std::ifstream in(supply / name);
    std::string text;
    if (!in || !std::getline(in, text)) return {};
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) text.pop_back();
    return text;
}

// A whole attribute that is a non-negative integer, and nothing else.
std::optional<long long> number(const fs::path& supply, const char* name) {
    const std::string text = attribute(supply, name);
    long long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() || value < 0) return std::nullopt;
    return value;
}

std::optional<float> ratio(const fs::path& supply, const char* now, const char* full) {
    const auto current = number(supply, now);
    const auto capacity = number(supply, full);
    if (!current || !capacity || *capacity == 0) return std::nullopt;
    return static_cast<float>(static_cast<double>(*current) / static_cast<double>(*capacity));
}

std::optional<float> levelOf(const fs::path& supply) {
    std::optional<float> level;
    if (const auto percent = number(supply, "capacity")) {
        level = static_cast<float>(*percent) / 100.0f;
    } else if (!(level = ratio(supply, "energy_now", "energy_full"))) {
        level = ratio(supply, "charge_now", "charge_full");
    }
    // A worn battery may hold more than its last full charge suggested.
    if (level) level = std::min(*level, 1.0f);
    return level;
}

BatteryState stateOf(const fs::path& supply) {
    const std::string status = attribute(supply, "status");
    if (status == "Charging") return BatteryState::charging;
    if (status == "Discharging" || status == "Not charging") return BatteryState::unplugged;
    if (status == "Full") return BatteryState::full;
    return BatteryState::unknown;
}

}  // namespace

BatteryReading readBattery(const fs::path& powerSupplyRoot) {
    std::error_code error;
    std::vector<fs::path> supplies;
    for (fs::directory_iterator it(powerSupplyRoot, error), end; !error && it != end; it.increment(error)) {
        supplies.push_back(it->path());
    }
    std::sort(supplies.begin(), supplies.end());
    for (const fs::path& supply : supplies) {
        if (attribute(supply, "type") != "Battery") continue;
        if (attribute(supply, "scope") == "Device") continue;
        if (attribute(supply, "present") == "0") continue;
        return BatteryReading{levelOf(supply).value_or(-1.0f), stateOf(supply)};
    }
    return {};
}

}  // namespace linuxpower

namespace {

long percentOf(float level) { return level < 0.0f ? -1 : std::lround(level * 100.0f); }

}  // namespace

LinuxDeviceInfo::LinuxDeviceInfo(fs::path powerSupplyRoot, std::shared_ptr<RunLoop> mainRunLoop,
                                 std::shared_ptr<NotificationCenter> notificationCenter)
    : root_(std::move(powerSupplyRoot)),
      mainRunLoop_(std::move(mainRunLoop)),
      notificationCenter_(std::move(notificationCenter)) {}

LinuxDeviceInfo::~LinuxDeviceInfo() {
    std::lock_guard lock(mutex_);
    if (timer_) timer_->invalidate();
}

void LinuxDeviceInfo::enableBatteryMonitoring() {
    std::weak_ptr<LinuxDeviceInfo> weakSelf = weak_from_this();
    if (weakSelf.expired()) fatalError("LinuxDeviceInfo must be owned by a std::shared_ptr");
    std::lock_guard lock(mutex_);
    if (timer_) return;
    const linuxpower::BatteryReading reading = linuxpower::readBattery(root_);
    lastPercent_ = percentOf(reading.level);
    lastState_ = reading.state;
    timer_ = mainRunLoop_->scheduleTimer(pollIntervalSeconds, true, [weakSelf] {
        if (const auto self = weakSelf.lock()) self->poll();
    });
}

float LinuxDeviceInfo::batteryLevel() const { return linuxpower::readBattery(root_).level; }

BatteryState LinuxDeviceInfo::batteryState() const { return linuxpower::readBattery(root_).state; }

void LinuxDeviceInfo::poll() {
    const linuxpower::BatteryReading reading = linuxpower::readBattery(root_);
    const long percent = percentOf(reading.level);
    bool levelChanged = false;
    bool stateChanged = false;
    {
        std::lock_guard lock(mutex_);
        levelChanged = percent != lastPercent_;
        stateChanged = reading.state != lastState_;
        lastPercent_ = percent;
        lastState_ = reading.state;
    }
    // Posted without the lock: observers read the battery again.
    if (levelChanged) notificationCenter_->post(UIDeviceBatteryLevelDidChangeNotification);
    if (stateChanged) notificationCenter_->post(UIDeviceBatteryStateDidChangeNotification);
}

}  // namespace rovalis

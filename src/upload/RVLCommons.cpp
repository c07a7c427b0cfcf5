#include "upload/RVLCommons.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <limits>
#include <system_error>
#include <utility>

#include "rovalis/Console.h"
#include "util/DataRoot.h"
#include "util/DeviceUtil.h"
#include "rovalis/Uuid.h"

namespace rovalis {

namespace fs = std::filesystem;

namespace {

constexpr const char* kBackgroundTasksFolderName = "RovalisSDKBackgroundTasks";

// A value the host did not give is written the way the platform formats an absent object.
std::string orNull(const std::string& value) { return value.empty() ? std::string("(null)") : value; }

bool writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t written = ::write(fd, data.data(), data.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

void syncDirectory(const fs::path& directory) {
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

}  // namespace

std::uint64_t RVLCommons::millisecondsFor(Date date) {
    const double milliseconds = date.secondsSince1970 * 1000.0;
    // Times before 1970 (or not a number) have no unsigned name; they share the name 0.
    if (!(milliseconds >= 0.0)) return 0;
    if (milliseconds >= 18446744073709551615.0) return std::numeric_limits<std::uint64_t>::max();
    return static_cast<std::uint64_t>(milliseconds);
}

bool RVLCommons::writeFileAtomically(const fs::path& file, std::string_view data) {
    const fs::path directory = file.parent_path();
    // The temporary file sits beside the target so that the rename stays on one file system.
    fs::path temporary = file;
    static std::atomic<std::uint64_t> counter{0};
    temporary += ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(counter.fetch_add(1));
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return false;
    bool ok = ::fchmod(fd, 0600) == 0 && writeAll(fd, data) && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (ok) ok = ::rename(temporary.c_str(), file.c_str()) == 0;
    if (!ok) {
        ::unlink(temporary.c_str());
        return false;
    }
    syncDirectory(directory.empty() ? fs::path(".") : directory);
    return true;
}

RVLCommons::RVLCommons(fs::path documentsDirectory, HostInfo host, std::string systemVersion)
    : documents_(std::move(documentsDirectory)), host_(std::move(host)), systemVersion_(std::move(systemVersion)) {}

fs::path RVLCommons::backgroundTasksFolder() const { return documents_ / kBackgroundTasksFolderName; }

fs::path RVLCommons::backgroundTaskFilePathWithTimestamp(Date date) const {
    char name[32];
    std::snprintf(name, sizeof name, "%" PRIu64, millisecondsFor(date));
    return backgroundTasksFolder() / name;
}

std::optional<fs::path> RVLCommons::writeBackgroundTaskFileWithData(std::string_view data,
                                                                    Date lastEventTimestamp) const {
    if (!ensurePrivateDirectory(backgroundTasksFolder())) return std::nullopt;
    const fs::path file = backgroundTaskFilePathWithTimestamp(lastEventTimestamp);
    if (!writeFileAtomically(file, data)) return std::nullopt;
    return file;
}

fs::path RVLCommons::largeBatchFile() const { return documents_ / "RovalisSDKLargeBatch"; }

void RVLCommons::removeBackgroundTaskFolder() const {
    std::error_code ignored;
    fs::remove_all(backgroundTasksFolder(), ignored);
}

bool RVLCommons::fileExistsAt(const fs::path& file) {
    std::error_code error;
    return fs::exists(file, error);
}

std::uint32_t RVLCommons::fileSizeFor(const fs::path& file) {
    std::error_code error;
    const std::uintmax_t size = fs::file_size(file, error);
    if (error) return 0;
    return static_cast<std::uint32_t>(size);
}

bool RVLCommons::writeData(std::string_view data, const std::string& name) const {
    const fs::path file = documents_ / name;
    if (ensurePrivateDirectory(file.parent_path()) && writeFileAtomically(file, data)) {
        Console::log("Data was successfully written to the file: " + file.string());
        return true;
    }
    Console::log("Failed to write data to the file.");
    return false;
}

std::string RVLCommons::sdkVersion() { return ROVALIS_SDK_VERSION; }

std::string RVLCommons::sdkBuildNumber() { return ROVALIS_SDK_BUILD; }

std::string RVLCommons::appVersion() const {
    return orNull(host_.displayName) + " " + orNull(host_.version) + " (" + orNull(host_.build) + ")";
}

std::string RVLCommons::iOSVersion() const { return "iOS " + orNull(systemVersion_); }

std::string RVLCommons::appInfo() const { return appVersion() + iOSVersion(); }

std::string RVLCommons::deviceType() { return RVL_DeviceUtil::hardwareString(); }

std::string RVLCommons::getUUID() { return Uuid::random().uuidString(); }

AccelerationVector RVLCommons::fromGToMs2(const AccelerationVector& acceleration) {
    return {acceleration.x * standardGravity, acceleration.y * standardGravity, acceleration.z * standardGravity};
}

std::optional<Decimal> RVLCommons::calculateMagnitude(const AccelerationVector& acceleration) {
    constexpr int decimalPlaces = 2;
    // The sum can overflow to infinity for huge components; such a sample is dropped with
    // the non-finite ones.
    const double length = std::sqrt(acceleration.x * acceleration.x + acceleration.y * acceleration.y +
                                    acceleration.z * acceleration.z);
    if (!std::isfinite(length)) return std::nullopt;

    // The shortest scientific text that reads back as `length`, such as "2.675e+00": its
    // digits are the decimal the double stands for, which is what is rounded.
    char text[32];
    const auto written = std::to_chars(text, text + sizeof text, length, std::chars_format::scientific);
    if (written.ec != std::errc()) return std::nullopt;
    const std::string_view all(text, static_cast<std::size_t>(written.ptr - text));
    const std::size_t exponentAt = all.find('e');
    if (exponentAt == std::string_view::npos) return std::nullopt;
    std::string digits;
    for (const char c : all.substr(0, exponentAt)) {
        if (c >= '0' && c <= '9') digits.push_back(c);
    }
    int exponent = 0;
    const std::string_view exponentText = all.substr(exponentAt + 1);
    const char* exponentBegin = exponentText.data() + (exponentText.front() == '+' ? 1 : 0);
    if (std::from_chars(exponentBegin, exponentText.data() + exponentText.size(), exponent).ec != std::errc()) {
        return std::nullopt;
    }

    // The value is 0.d1d2... x 10^(exponent + 1); scaled to hundredths, the first `kept`
    // digits form the whole part and the digit after them decides the rounding.
    const int kept = exponent + 1 + decimalPlaces;
    // 18 digits and a carry still fit a signed 64-bit count of hundredths.
    if (kept > 18) return std::nullopt;
    std::int64_t units = 0;
    for (int i = 0; i < kept; ++i) {
        units = units * 10 + (i < static_cast<int>(digits.size()) ? digits[static_cast<std::size_t>(i)] - '0' : 0);
    }
    // The length is never negative, so half away from zero is half up.
    if (kept >= 0 && kept < static_cast<int>(digits.size()) && digits[static_cast<std::size_t>(kept)] >= '5') {
        ++units;
    }
    return Decimal{units, decimalPlaces};
}

}  // namespace rovalis

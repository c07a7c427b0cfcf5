#pragma once

// The SDK's small file and identity routines: the one folder of background batch files in
// the Documents directory, the SDK's own version, and the application description used by
// the user agent and by app-update detection; and the arithmetic of acceleration samples.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "events/EventRecords.h"
#include "rovalis/Date.h"
#include "rovalis/HostInfo.h"

namespace rovalis {

// An acceleration along the device's three axes.
struct AccelerationVector {
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;

    friend bool operator==(const AccelerationVector&, const AccelerationVector&) = default;
};

class RVLCommons {
public:
    // documentsDirectory: <data root>/Documents. systemVersion: the operating system's
    // version text.
    RVLCommons(std::filesystem::path documentsDirectory, HostInfo host, std::string systemVersion);

    // <Documents>/RovalisSDKBackgroundTasks
    std::filesystem::path backgroundTasksFolder() const;
    // <folder>/<milliseconds of the date, truncated>
    std::filesystem::path backgroundTaskFilePathWithTimestamp(Date date) const;
    // Creates the folder (private to the user) and writes the data atomically; the file's
    // path, or none on any failure.
    std::optional<std::filesystem::path> writeBackgroundTaskFileWithData(std::string_view data,
                                                                         Date lastEventTimestamp) const;
    // Removes the folder with everything in it; errors are ignored.
    void removeBackgroundTaskFolder() const;
    // <Documents>/RovalisSDKLargeBatch: a pending batch too large to hold in memory, while a
    // foreground send uploads it.
    std::filesystem::path largeBatchFile() const;
    static bool fileExistsAt(const std::filesystem::path& file);
    // The size cut to 32 bits; 0 when it cannot be read.
    static std::uint32_t fileSizeFor(const std::filesystem::path& file);
    // Writes the data atomically to the named file in the Documents directory and logs the
    // outcome.
    bool writeData(std::string_view data, const std::string& name) const;

    static std::string sdkVersion();
    static std::string sdkBuildNumber();
    // "<display name> <version> (<build>)"
    std::string appVersion() const;
    // "iOS <system version>"
    std::string iOSVersion() const;
    // appVersion directly followed by iOSVersion.
    std::string appInfo() const;
    // The device's hardware string.
    static std::string deviceType();
    // A new random UUID, upper case.
    static std::string getUUID();

    // The milliseconds since 1970 that name a batch file: truncated, 0 for times before 1970.
    static std::uint64_t millisecondsFor(Date date);
    // Writes the file private to the user (0600) through a temporary file beside it, synced
    // and renamed over it, so a reader sees the old contents or the new ones, never a part.
    static bool writeFileAtomically(const std::filesystem::path& file, std::string_view data);

    // Standard gravity, in metres per second squared.
    static constexpr double standardGravity = 9.80665;
    // Units of g to metres per second squared, axis by axis.
    static AccelerationVector fromGToMs2(const AccelerationVector& acceleration);
    // The length of the vector, rounded to two decimal places with ties away from zero. The
    // rounding is done on the shortest decimal text that reads back as the same double, so
    // a length that prints as 2.675 gives 2.68, although the double lies just below 2.675.
    // None when the length is not finite or too large for a decimal: no event can hold it.
    static std::optional<Decimal> calculateMagnitude(const AccelerationVector& acceleration);

    const HostInfo& host() const { return host_; }
    const std::string& systemVersion() const { return systemVersion_; }

private:
    std::filesystem::path documents_;
    HostInfo host_;
    std::string systemVersion_;
};

}  // namespace rovalis

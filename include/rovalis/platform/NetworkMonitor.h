#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "rovalis/Export.h"

namespace rovalis {

class Executor;

// The reachability flag bits of the platform, one to one.
namespace ReachabilityFlags {
inline constexpr std::uint32_t transientConnection = 1u << 0;
inline constexpr std::uint32_t reachable = 1u << 1;
inline constexpr std::uint32_t connectionRequired = 1u << 2;
inline constexpr std::uint32_t connectionOnTraffic = 1u << 3;
inline constexpr std::uint32_t interventionRequired = 1u << 4;
inline constexpr std::uint32_t connectionOnDemand = 1u << 5;
inline constexpr std::uint32_t isLocalAddress = 1u << 16;
inline constexpr std::uint32_t isDirect = 1u << 17;
inline constexpr std::uint32_t isWWAN = 1u << 18;
}  // namespace ReachabilityFlags

// Whether one target (a host name, or the zero address that stands for "any network") can
// be reached, as reachability flags.
class ROVALIS_EXPORT NetworkReachabilityTarget {
public:
    virtual ~NetworkReachabilityTarget() = default;

    // The current flags, or none when they cannot be determined.
    virtual std::optional<std::uint32_t> flags() const = 0;

    // Calls callback on queue with the new flags whenever they may have changed. An empty
    // callback (or a null queue) stops the reports. Answers whether registration succeeded.
    // The queue must outlive the registration.
    virtual bool setCallback(std::function<void(std::uint32_t flags)> callback, Executor* queue) = 0;
};

// The device's network as the reachability service sees it.
class ROVALIS_EXPORT NetworkMonitor {
public:
    virtual ~NetworkMonitor() = default;

    // None when the target cannot be made.
    virtual std::unique_ptr<NetworkReachabilityTarget> reachabilityForHost(const std::string& host) = 0;
    virtual std::unique_ptr<NetworkReachabilityTarget> reachabilityForZeroAddress() = 0;
};

}  // namespace rovalis

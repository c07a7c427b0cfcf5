#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "rovalis/platform/NetworkMonitor.h"

namespace rovalis {

namespace linuxnet {

enum class InterfaceKind { other, loopback, wireless, wwan };

struct InterfaceState {
    bool upAndRunning = false;
    InterfaceKind kind = InterfaceKind::other;
};

// A default route (IPv4 or IPv6) and the interface it leaves through.
struct DefaultRoute {
    std::string interface;
    std::uint32_t metric = 0;

    friend bool operator==(const DefaultRoute&, const DefaultRoute&) = default;
};

// Default routes in the text of /proc/net/route; unusable and rejecting routes are left out.
std::vector<DefaultRoute> parseProcNetRoute(std::string_view text);
// Default routes in the text of /proc/net/ipv6_route.
std::vector<DefaultRoute> parseProcNetIpv6Route(std::string_view text);

// What marks an interface as cellular beyond what the kernel says of it: the host's list of
// names (exact, or a prefix followed by '*'), and the udev property ROVALIS_CELLULAR=1 in
// the interface's record under udevData (normally /run/udev/data, file n<ifindex>).
struct CellularMarks {
    std::vector<std::string> names;
    std::filesystem::path udevData = "/run/udev/data";
};

// Whether the name is one of the marked names.
bool matchesInterfaceName(const std::vector<std::string>& patterns, std::string_view name);

// The state of one interface as sysfs describes it under sysClassNet (normally
// /sys/class/net). An interface that is not there is down. Cellular are: WWAN devices
// (DEVTYPE=wwan, names wwan*), interfaces of modem drivers (qmi_wwan, cdc_mbim and the like),
// PPP links, cdc_ncm interfaces of a USB device that also has a modem control port
// (cdc-wdm or a tty, as ModemManager drives them), and what the marks name.
InterfaceState interfaceState(const std::filesystem::path& sysClassNet, const std::string& name,
                              const CellularMarks& marks = {});

// The flags of "any network": reachable when the preferred (lowest-metric) default route
// through an interface that is up and running exists, with the WWAN bit when that interface
// is a mobile broadband device.
std::uint32_t reachabilityFlagsFor(const std::vector<DefaultRoute>& routes,
                                   const std::function<InterfaceState(const std::string&)>& interfaceState);

// Flags that stand for a host on this machine itself.
inline constexpr std::uint32_t loopbackFlags =
    ReachabilityFlags::reachable | ReachabilityFlags::isLocalAddress | ReachabilityFlags::isDirect;

// Whether the host name is this machine: "localhost" (and names under it), 127.0.0.0/8, ::1.
// No name is looked up.
bool isLoopbackHost(std::string_view host);

// The default routes of the main routing tables, by a netlink dump; none when netlink is
// not available.
std::optional<std::vector<DefaultRoute>> dumpDefaultRoutes();

// Where a route dump stands after one buffer of the kernel's answer.
enum class RouteDumpProgress { more, done, failed };

// Adds the default routes of the RTM_NEWROUTE messages in one buffer received from the kernel
// (aligned as a netlink message header) and says whether the dump ended or failed there.
RouteDumpProgress readRouteDump(const void* buffer, std::size_t size, std::vector<DefaultRoute>& routes);

}  // namespace linuxnet

// Reachability on Linux. A thread of its own watches the kernel's link, address and route
// changes on a netlink socket; each burst of changes is reported once to every target with
// a callback. Flags are read afresh from the routing table and sysfs on every request.
class LinuxNetworkMonitor final : public NetworkMonitor {
public:
    explicit LinuxNetworkMonitor(linuxnet::CellularMarks cellularMarks = {});
    // Stops and joins the watching thread. Targets may outlive the monitor; they then no
    // longer report changes.
    ~LinuxNetworkMonitor() override;

    LinuxNetworkMonitor(const LinuxNetworkMonitor&) = delete;
    LinuxNetworkMonitor& operator=(const LinuxNetworkMonitor&) = delete;

    // Whether changes are being watched (the netlink socket could be opened).
    bool isWatching() const { return watcher_.joinable(); }

    // Any host name that is not a loopback address depends on the default route.
    std::unique_ptr<NetworkReachabilityTarget> reachabilityForHost(const std::string& host) override;
    std::unique_ptr<NetworkReachabilityTarget> reachabilityForZeroAddress() override;

    // The current flags of "any network".
    static std::uint32_t currentFlags(const linuxnet::CellularMarks& cellularMarks);

private:
    class Target;
    struct Registry;

    void watch();
    void notifyTargets();

    const std::shared_ptr<Registry> registry_;
    int netlinkSocket_ = -1;
    int wakePipe_[2] = {-1, -1};
    std::thread watcher_;
};

}  // namespace rovalis

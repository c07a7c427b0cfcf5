// The network monitor's readers of the kernel's routing table: a netlink route dump, and the
// text of /proc/net/route and /proc/net/ipv6_route where netlink is not available. The kernel
// is trusted more than a stranger, but a reader that goes past its buffer on a message it did
// not expect is a fault all the same.
//
// The first byte chooses: 0 a buffer of netlink messages, 1 /proc/net/route, 2 /proc/net/ipv6_route.

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "FuzzSupport.h"
#include "platform/linux/LinuxNetworkMonitor.h"

namespace {

using rovalis::fuzz::require;
namespace linuxnet = rovalis::linuxnet;

void requireNamed(const std::vector<linuxnet::DefaultRoute>& routes) {
    for (const auto& route : routes) require(!route.interface.empty(), "a default route without an interface");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const auto text = rovalis::fuzz::asText(data + 1, size - 1);
    switch (data[0] % 3) {
        case 0: {
            // As recv() fills it: a buffer aligned for the message header.
            std::vector<nlmsghdr> buffer((size - 1) / sizeof(nlmsghdr) + 1);
            std::memcpy(buffer.data(), data + 1, size - 1);
            std::vector<linuxnet::DefaultRoute> routes;
            (void)linuxnet::readRouteDump(buffer.data(), size - 1, routes);
            requireNamed(routes);
            break;
        }
        case 1: requireNamed(linuxnet::parseProcNetRoute(text)); break;
        default: requireNamed(linuxnet::parseProcNetIpv6Route(text)); break;
    }
    return 0;
}

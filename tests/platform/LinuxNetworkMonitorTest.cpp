#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "platform/linux/LinuxNetworkMonitor.h"
#include "support/TestSupport.h"
#include "util/SerialExecutor.h"

namespace rovalis {
namespace {

using linuxnet::DefaultRoute;
using linuxnet::InterfaceKind;
using linuxnet::InterfaceState;
namespace F = ReachabilityFlags;

TEST(LinuxNetworkRoutes, DefaultRoutesAreReadFromProcText) {
    const std::string v4 =
        "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n"
        "eth0\t00000000\t0102A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
        "eth0\t0002A8C0\t00000000\t0001\t0\t0\t100\t00FFFFFF\t0\t0\t0\n"   // a subnet
        "wlan0\t00000000\t0100A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n"
        "eth1\t00000000\t00000000\t0201\t0\t0\t0\t00000000\t0\t0\t0\n"     // reject
        "eth2\t00000000\t0100A8C0\t0002\t0\t0\t0\t00000000\t0\t0\t0\n"     // not up
        "eth3\t00000000\t0100A8C0\t0003\t0\t0\t0\t000000FF\t0\t0\t0\n"     // masked
        "broken line\n"
        "eth4\tZZZZZZZZ\t0100A8C0\t0003\t0\t0\t0\t00000000\t0\t0\t0";
    EXPECT_EQ(linuxnet::parseProcNetRoute(v4), (std::vector<DefaultRoute>{{"eth0", 100}, {"wlan0", 600}}));
    // A header alone, or nothing, is no route; the header is never taken for one.
    EXPECT_TRUE(linuxnet::parseProcNetRoute("Iface\tDestination\n").empty());
    EXPECT_TRUE(linuxnet::parseProcNetRoute("eth0\t00000000\t0102A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n").empty());

    const std::string v6 =
        "fd000000000000000000000000000000 40 00000000000000000000000000000000 00 "
        "00000000000000000000000000000000 00000100 00000001 00000000 00000001     eth0\n"
        "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
        "fd000000000000000000000000000001 00000400 00000002 00000000 00000003     eth0\n"
        "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
        "00000000000000000000000000000000 ffffffff 00000001 00000000 00200200       lo\n"
        "00000000000000000000000000000001 80 00000000000000000000000000000000 00 "
        "00000000000000000000000000000000 00000000 00000002 00000000 80200001       lo\n"
        "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
        "fe800000000000000000000000000001 00000064 00000002 00000000 00000003 wwan0\n"
        "00000000000000000000000000000000 00 truncated\n";
    EXPECT_EQ(linuxnet::parseProcNetIpv6Route(v6), (std::vector<DefaultRoute>{{"eth0", 0x400}, {"wwan0", 100}}));
}

// Cellular links that carry no WWAN device type: PPP, modems on cdc_ncm (told from USB
// Ethernet adapters by their control port), and what the user marks.
TEST(LinuxNetworkRoutes, PppModemsAndMarkedInterfacesAreCellular) {
    test::TempDir sys;
    test::TempDir udev;
    const auto addInterface = [&](const std::string& name, const std::string& type, const std::string& index) {
        std::filesystem::create_directories(sys / name);
        test::writeFile(sys / name / "flags", "0x1091\n");
        test::writeFile(sys / name / "operstate", "unknown\n");
        test::writeFile(sys / name / "carrier", "1\n");
        test::writeFile(sys / name / "type", type + "\n");
        test::writeFile(sys / name / "ifindex", index + "\n");
    };
    // A USB device (its interfaces side by side) whose network interface cdc_ncm drives.
    const auto addNcmInterface = [&](const std::string& name, const std::string& controlPort) {
        addInterface(name, "1", "9");
        const auto usbDevice = sys / ("usb-" + name);
        std::filesystem::create_directories(usbDevice / "1-1:1.0");
        std::filesystem::create_directories(sys / "drivers" / "cdc_ncm");
        std::filesystem::create_directory_symlink(sys / "drivers" / "cdc_ncm", usbDevice / "1-1:1.0" / "driver");
        std::filesystem::create_directory_symlink(usbDevice / "1-1:1.0", sys / name / "device");
        if (!controlPort.empty()) std::filesystem::create_directories(usbDevice / "1-1:1.2" / controlPort);
    };
    addInterface("ppp0", "512", "5");
    addInterface("usb0", "1", "6");
    addInterface("eth7", "1", "7");
    addInterface("tun3", "65534", "8");
    addNcmInterface("enx1", "usbmisc");
    addNcmInterface("enx2", "tty");
    addNcmInterface("enx3", "");
    test::writeFile(udev / "n7", "I:123\nE:ID_NET_NAME=eth7\nE:ROVALIS_CELLULAR=1\n");

    const linuxnet::CellularMarks marks{{"usb*", "tun9"}, udev.path()};
    const auto kindOf = [&](const std::string& name) { return linuxnet::interfaceState(sys.path(), name, marks).kind; };
    EXPECT_EQ(kindOf("ppp0"), InterfaceKind::wwan);
    EXPECT_EQ(kindOf("usb0"), InterfaceKind::wwan) << "named by a pattern of the setting";
    EXPECT_EQ(kindOf("eth7"), InterfaceKind::wwan) << "marked by udev";
    EXPECT_EQ(kindOf("tun3"), InterfaceKind::other);
    EXPECT_EQ(kindOf("enx1"), InterfaceKind::wwan) << "an MBIM modem's data interface";
    EXPECT_EQ(kindOf("enx2"), InterfaceKind::wwan) << "an NCM modem with an AT port";
    EXPECT_EQ(kindOf("enx3"), InterfaceKind::other) << "a USB Ethernet adapter";
    EXPECT_EQ(linuxnet::interfaceState(sys.path(), "usb0").kind, InterfaceKind::other) << "unmarked";
    EXPECT_TRUE(linuxnet::interfaceState(sys.path(), "ppp0").upAndRunning);
}

TEST(LinuxNetworkRoutes, InterfaceKindAndStateComeFromSysfs) {
    const struct {
        std::string name, flags, uevent, operstate, carrier;
        bool upAndRunning;
        InterfaceKind kind;
    } rows[] = {
        {"eth0", "0x1003", "", "up", "1", true, InterfaceKind::other},
        {"eth1", "0x1003", "", "down", "0", false, InterfaceKind::other},  // up, no carrier
        {"eth2", "0x1002", "", "up", "1", false, InterfaceKind::other},    // down by the administrator
        {"tun0", "0x1091", "", "unknown", "1", true, InterfaceKind::other},
        {"tun1", "0x1091", "", "unknown", "0", false, InterfaceKind::other},
        {"wlan2", "0x1003", "DEVTYPE=wlan\n", "dormant", "1", false, InterfaceKind::wireless},
        {"wlp2s0", "0x1043", "", "up", "1", true, InterfaceKind::wireless},  // has a wireless folder
        {"wlan1", "0x1043", "DEVTYPE=wlan\n", "up", "1", true, InterfaceKind::wireless},
        {"wwan0", "0x1090", "", "up", "1", false, InterfaceKind::wwan},  // named so, not up
        {"usb0", "0x1043", "DEVTYPE=wwan\n", "up", "1", true, InterfaceKind::wwan},
        {"enx0", "0x1043", "", "up", "1", true, InterfaceKind::wwan},  // driven by a modem driver
        {"lo", "0x9", "", "up", "1", false, InterfaceKind::loopback},
        {"dummy", "garbage", "", "up", "1", false, InterfaceKind::other},
        // Names of nothing, or outside the folder, are no interface.
        {"missing", "", "", "", "", false, InterfaceKind::other}, {"..", "", "", "", "", false, InterfaceKind::other},
        {"../eth0", "", "", "", "", false, InterfaceKind::other},
    };
    test::TempDir sys;
    for (const auto& row : rows) {
        if (row.flags.empty()) continue;
        std::filesystem::create_directories(sys / row.name);
        test::writeFile(sys / row.name / "flags", row.flags + "\n");
        test::writeFile(sys / row.name / "operstate", row.operstate + "\n");
        test::writeFile(sys / row.name / "carrier", row.carrier + "\n");
        test::writeFile(sys / row.name / "uevent", "INTERFACE=" + row.name + "\nIFINDEX=3\n" + row.uevent);
    }
    std::filesystem::create_directories(sys / "wlp2s0" / "wireless");
    std::filesystem::create_directories(sys / "drivers" / "qmi_wwan");
    std::filesystem::create_directories(sys / "enx0" / "device");
    std::filesystem::create_directory_symlink(sys / "drivers" / "qmi_wwan", sys / "enx0" / "device" / "driver");

    for (const auto& row : rows) {
        const InterfaceState state = linuxnet::interfaceState(sys.path(), row.name);
        EXPECT_EQ(state.upAndRunning, row.upAndRunning) << row.name;
        EXPECT_EQ(state.kind, row.kind) << row.name;
    }
}

TEST(LinuxNetworkRoutes, FlagsFollowThePreferredUsableDefaultRoute) {
    const std::map<std::string, InterfaceState> interfaces = {
        {"eth0", {true, InterfaceKind::other}},   {"wlan0", {true, InterfaceKind::wireless}},
        {"wwan0", {true, InterfaceKind::wwan}},   {"down0", {false, InterfaceKind::other}},
        {"lo", {true, InterfaceKind::loopback}},
    };
    const auto stateOf = [&](const std::string& name) {
        const auto found = interfaces.find(name);
        return found == interfaces.end() ? InterfaceState{} : found->second;
    };
    const struct {
        std::vector<DefaultRoute> routes;
        std::uint32_t expected;
    } rows[] = {
        {{}, 0}, {{{"down0", 0}}, 0}, {{{"lo", 0}}, 0}, {{{"gone0", 0}}, 0},
        {{{"eth0", 100}}, F::reachable}, {{{"wlan0", 600}}, F::reachable}, {{{"wwan0", 700}}, F::reachable | F::isWWAN},
        // The kernel takes the lowest metric; routes through unusable interfaces do not count.
        {{{"wwan0", 700}, {"wlan0", 600}}, F::reachable},
        {{{"wlan0", 600}, {"wwan0", 50}}, F::reachable | F::isWWAN},
        {{{"down0", 0}, {"wwan0", 700}, {"wlan0", 800}}, F::reachable | F::isWWAN},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        EXPECT_EQ(linuxnet::reachabilityFlagsFor(rows[i].routes, stateOf), rows[i].expected) << "row " << i;
    }
}

TEST(LinuxNetworkRoutes, LoopbackHostsAreRecognisedWithoutLookups) {
    for (const char* host : {"localhost", "LocalHost.", "api.localhost", "127.0.0.1", "127.255.0.9", "::1", "[::1]",
                             "0:0:0:0:0:0:0:1"}) {
        EXPECT_TRUE(linuxnet::isLoopbackHost(host)) << host;
    }
    for (const char* host : {"", "localhost.example.com", "notlocalhost", "128.0.0.1", "10.0.0.1", "::2",
                             "collector.invalid", "127.0.0.1.example"}) {
        EXPECT_FALSE(linuxnet::isLoopbackHost(host)) << host;
    }
}

TEST(LinuxNetworkMonitor, ReportsFlagsAndStopsCleanly) {
    std::unique_ptr<NetworkReachabilityTarget> anyNetwork;
    std::unique_ptr<NetworkReachabilityTarget> local;
    SerialExecutor queue("test.linux.network");
    {
        LinuxNetworkMonitor monitor;
        anyNetwork = monitor.reachabilityForZeroAddress();
        local = monitor.reachabilityForHost("localhost");
        ASSERT_TRUE(anyNetwork && local);
        EXPECT_EQ(local->flags(), linuxnet::loopbackFlags);
        const auto flags = anyNetwork->flags();
        ASSERT_TRUE(flags.has_value());
        EXPECT_EQ(*flags & ~(F::reachable | F::isWWAN), 0u);
        EXPECT_EQ(monitor.reachabilityForHost("collector.invalid")->flags(), flags);

        EXPECT_EQ(anyNetwork->setCallback([](std::uint32_t) {}, &queue), monitor.isWatching());
        EXPECT_TRUE(local->setCallback([](std::uint32_t) {}, &queue));

        // Every default route of the kernel's text tables is in the route dump too (the dump
        // may hold more: routes of policy tables the text does not show).
        if (const auto dumped = linuxnet::dumpDefaultRoutes()) {
            auto fromProc = linuxnet::parseProcNetRoute(test::readFile("/proc/net/route"));
            const auto v6 = linuxnet::parseProcNetIpv6Route(test::readFile("/proc/net/ipv6_route"));
            fromProc.insert(fromProc.end(), v6.begin(), v6.end());
            for (const DefaultRoute& route : fromProc) {
                EXPECT_NE(std::find(dumped->begin(), dumped->end(), route), dumped->end())
                    << route.interface << " metric " << route.metric;
            }
        }
    }
    // Targets outlive the monitor: they still answer, and report nothing more.
    EXPECT_EQ(local->flags(), linuxnet::loopbackFlags);
    EXPECT_TRUE(anyNetwork->flags().has_value());
    EXPECT_TRUE(anyNetwork->setCallback({}, nullptr));
}

}  // namespace
}  // namespace rovalis

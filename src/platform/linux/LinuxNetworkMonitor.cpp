#include "platform/linux/LinuxNetworkMonitor.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "rovalis/Executor.h"

namespace rovalis {

namespace linuxnet {

namespace {

// Route flags of /proc/net/route and /proc/net/ipv6_route.
constexpr unsigned long routeUp = 0x0001;
constexpr unsigned long routeReject = 0x0200;

// Interface flags of /sys/class/net/<if>/flags.
constexpr unsigned long interfaceUp = 0x1;
constexpr unsigned long interfaceLoopback = 0x8;

std::vector<std::string_view> fields(std::string_view line) {
    std::vector<std::string_view> out;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r')) ++i;
        const std::size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r') ++i;
        if (i > start) out.push_back(line.substr(start, i - start));
    }
    return out;
}

template <typename Fn>
void forEachLine(std::string_view text, Fn&& fn) {
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        fn(text.substr(0, end));
        if (end == std::string_view::npos) break;
        text.remove_prefix(end + 1);
    }
}

std::optional<unsigned long> hex(std::string_view text) {
    if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
    unsigned long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (error != std::errc{} || end != text.data() + text.size() || text.empty()) return std::nullopt;
    return value;
}

std::optional<unsigned long> decimal(std::string_view text) {
    unsigned long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 10);
    if (error != std::errc{} || end != text.data() + text.size() || text.empty()) return std::nullopt;
    return value;
}

std::string readSmallFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return {};
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '\r')) text.pop_back();
    return text;
}

bool isAllZeroHex(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c == '0'; });
}

// Drivers of USB mobile broadband modems whose network interfaces carry no device type.
bool isWwanDriver(std::string_view driver) {
    static constexpr std::string_view drivers[] = {"qmi_wwan", "cdc_mbim", "sierra_net", "huawei_cdc_ncm",
                                                   "mhi_net", "ipa", "rmnet"};
    return std::find(std::begin(drivers), std::end(drivers), driver) != std::end(drivers);
}

// ARPHRD_PPP in /sys/class/net/<if>/type.
constexpr unsigned long pppLinkType = 512;

// A cdc_ncm interface is a modem's (rather than a USB Ethernet adapter's) when its USB device
// also offers a control port: a cdc-wdm device (MBIM, QMI) or a serial AT port.
bool usbDeviceHasModemControlPort(const std::filesystem::path& interfaceDir) {
    std::error_code ec;
    const auto usbDevice = std::filesystem::canonical(interfaceDir / "device", ec).parent_path();
    if (ec) return false;
    for (const auto& entry : std::filesystem::directory_iterator(usbDevice, ec)) {
        std::error_code inner;
        if (!entry.is_directory(inner)) continue;
        if (std::filesystem::exists(entry.path() / "usbmisc", inner) ||
            std::filesystem::exists(entry.path() / "tty", inner)) {
            return true;
        }
    }
    return false;
}

bool markedCellularByUdev(const std::filesystem::path& interfaceDir, const std::filesystem::path& udevData) {
    const std::string index = trimmed(readSmallFile(interfaceDir / "ifindex"));
    if (index.empty() || udevData.empty()) return false;
    bool marked = false;
    forEachLine(readSmallFile(udevData / ("n" + index)), [&](std::string_view line) {
        if (line == "E:ROVALIS_CELLULAR=1") marked = true;
    });
    return marked;
}

}  // namespace

bool matchesInterfaceName(const std::vector<std::string>& patterns, std::string_view name) {
    return std::any_of(patterns.begin(), patterns.end(), [name](const std::string& pattern) {
        if (!pattern.empty() && pattern.back() == '*') {
            return name.starts_with(std::string_view(pattern).substr(0, pattern.size() - 1));
        }
        return name == pattern;
    });
}

std::vector<DefaultRoute> parseProcNetRoute(std::string_view text) {
    std::vector<DefaultRoute> routes;
    bool header = true;
    forEachLine(text, [&](std::string_view line) {
        if (header) {  // "Iface Destination Gateway Flags ..."
            header = false;
            return;
        }
        const auto f = fields(line);
        if (f.size() < 8) return;
        const auto destination = hex(f[1]);
        const auto flags = hex(f[3]);
        const auto metric = decimal(f[6]);
        const auto mask = hex(f[7]);
        if (!destination || !flags || !metric || !mask) return;
        if (*destination != 0 || *mask != 0) return;
        if ((*flags & routeUp) == 0 || (*flags & routeReject) != 0) return;
        routes.push_back({std::string(f[0]), static_cast<std::uint32_t>(*metric)});
    });
    return routes;
}

std::vector<DefaultRoute> parseProcNetIpv6Route(std::string_view text) {
    // destination, prefix length, source, source prefix length, next hop, metric, reference
    // count, use, flags, device: all hexadecimal but the device.
    std::vector<DefaultRoute> routes;
    forEachLine(text, [&](std::string_view line) {
        const auto f = fields(line);
        if (f.size() < 10) return;
        const auto prefixLength = hex(f[1]);
        const auto metric = hex(f[5]);
        const auto flags = hex(f[8]);
        if (f[0].size() != 32 || !prefixLength || !metric || !flags) return;
        if (!isAllZeroHex(f[0]) || *prefixLength != 0) return;
        if ((*flags & routeUp) == 0 || (*flags & routeReject) != 0) return;
        routes.push_back({std::string(f[9]), static_cast<std::uint32_t>(*metric)});
    });
    return routes;
}

InterfaceState interfaceState(const std::filesystem::path& sysClassNet, const std::string& name,
                              const CellularMarks& marks) {
    InterfaceState state;
    // A name that could step out of the directory is no interface.
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) return state;
    const std::filesystem::path dir = sysClassNet / name;
    std::error_code ec;
    if (!std::filesystem::exists(dir, ec)) return state;

    const auto flags = hex(trimmed(readSmallFile(dir / "flags")));
    if (flags && (*flags & interfaceLoopback)) {
        state.kind = InterfaceKind::loopback;
        return state;
    }
    // sysfs gives the administrative flags only; whether the link runs is in its
    // operational state, or in its carrier where that state is not kept by the driver.
    const std::string operstate = trimmed(readSmallFile(dir / "operstate"));
    const bool running =
        operstate == "up" || (operstate == "unknown" && trimmed(readSmallFile(dir / "carrier")) == "1");
    state.upAndRunning = flags && (*flags & interfaceUp) != 0 && running;
    if (name == "lo") {
        state.kind = InterfaceKind::loopback;
        return state;
    }

    const std::string uevent = readSmallFile(dir / "uevent");
    bool wwanType = false;
    bool wlanType = false;
    forEachLine(uevent, [&](std::string_view line) {
        if (line == "DEVTYPE=wwan") wwanType = true;
        if (line == "DEVTYPE=wlan") wlanType = true;
    });
    const std::string driver = std::filesystem::read_symlink(dir / "device" / "driver", ec).filename().string();
    const bool modemDriver = !ec && (isWwanDriver(driver) || (driver == "cdc_ncm" && usbDeviceHasModemControlPort(dir)));
    const bool pppLink = decimal(trimmed(readSmallFile(dir / "type"))) == pppLinkType;
    if (wwanType || name.starts_with("wwan") || modemDriver || pppLink || matchesInterfaceName(marks.names, name) ||
        markedCellularByUdev(dir, marks.udevData)) {
        state.kind = InterfaceKind::wwan;
    } else if (wlanType || std::filesystem::exists(dir / "wireless", ec) ||
               std::filesystem::exists(dir / "phy80211", ec)) {
        state.kind = InterfaceKind::wireless;
    }
    return state;
}

std::uint32_t reachabilityFlagsFor(const std::vector<DefaultRoute>& routes,
                                   const std::function<InterfaceState(const std::string&)>& stateOf) {
    std::optional<std::pair<std::uint32_t, InterfaceKind>> best;
    for (const DefaultRoute& route : routes) {
        const InterfaceState state = stateOf(route.interface);
        if (!state.upAndRunning || state.kind == InterfaceKind::loopback) continue;
        if (!best || route.metric < best->first) best.emplace(route.metric, state.kind);
    }
    if (!best) return 0;
    return ReachabilityFlags::reachable | (best->second == InterfaceKind::wwan ? ReachabilityFlags::isWWAN : 0u);
}

bool isLoopbackHost(std::string_view host) {
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    std::string lower(host);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    if (!lower.empty() && lower.back() == '.') lower.pop_back();
    if (lower == "localhost" || lower.ends_with(".localhost")) return true;

    in_addr v4{};
    if (::inet_pton(AF_INET, lower.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
    in6_addr v6{};
    if (::inet_pton(AF_INET6, lower.c_str(), &v6) == 1) return IN6_IS_ADDR_LOOPBACK(&v6);
    return false;
}

namespace {

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

std::string interfaceName(int index) {
    char name[IF_NAMESIZE] = {};
    if (index <= 0 || ::if_indextoname(static_cast<unsigned>(index), name) == nullptr) return {};
    return name;
}

// NLMSG_OK without its comparison of the unsigned message length with the signed byte count.
bool messageFits(const nlmsghdr* message, int length) {
    return length >= static_cast<int>(sizeof(nlmsghdr)) && message->nlmsg_len >= sizeof(nlmsghdr) &&
           message->nlmsg_len <= static_cast<unsigned>(length);
}

// Adds the default routes of one RTM_NEWROUTE message.
void collectDefaultRoutes(const nlmsghdr* message, std::vector<DefaultRoute>& routes) {
    if (message->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) return;
    const auto* route = static_cast<const rtmsg*>(NLMSG_DATA(message));
    if (route->rtm_family != AF_INET && route->rtm_family != AF_INET6) return;
    if (route->rtm_dst_len != 0 || route->rtm_type != RTN_UNICAST) return;

    std::uint32_t table = route->rtm_table;
    std::uint32_t metric = 0;
    std::vector<int> interfaces;
    int length = static_cast<int>(RTM_PAYLOAD(message));
    for (auto* attribute = RTM_RTA(route); RTA_OK(attribute, length); attribute = RTA_NEXT(attribute, length)) {
        const std::size_t size = RTA_PAYLOAD(attribute);
        switch (attribute->rta_type) {
            case RTA_TABLE:
                if (size >= sizeof(std::uint32_t)) table = *static_cast<const std::uint32_t*>(RTA_DATA(attribute));
                break;
            case RTA_PRIORITY:
                if (size >= sizeof(std::uint32_t)) metric = *static_cast<const std::uint32_t*>(RTA_DATA(attribute));
                break;
            case RTA_OIF:
                if (size >= sizeof(int)) interfaces.push_back(*static_cast<const int*>(RTA_DATA(attribute)));
                break;
            case RTA_MULTIPATH: {
                const auto* hop = static_cast<const rtnexthop*>(RTA_DATA(attribute));
                int remaining = static_cast<int>(size);
                while (remaining >= static_cast<int>(sizeof(rtnexthop)) && hop->rtnh_len >= sizeof(rtnexthop) &&
                       hop->rtnh_len <= remaining) {
                    interfaces.push_back(hop->rtnh_ifindex);
                    remaining -= RTNH_ALIGN(hop->rtnh_len);
                    hop = RTNH_NEXT(hop);
                }
                break;
            }
            default:
                break;
        }
    }
    if (table == RT_TABLE_LOCAL) return;
    for (const int index : interfaces) {
        std::string name = interfaceName(index);
        if (!name.empty()) routes.push_back({std::move(name), metric});
    }
}

std::vector<DefaultRoute> defaultRoutesFromProc() {
    auto routes = parseProcNetRoute(readSmallFile("/proc/net/route"));
    auto v6 = parseProcNetIpv6Route(readSmallFile("/proc/net/ipv6_route"));
    routes.insert(routes.end(), v6.begin(), v6.end());
    return routes;
}

}  // namespace

std::optional<std::vector<DefaultRoute>> dumpDefaultRoutes() {
    FileDescriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (socket.get() < 0) return std::nullopt;
    // The kernel answers a dump at once; the time-out only guards against a stuck socket.
    timeval timeout{2, 0};
    ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    if (::bind(socket.get(), reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0) return std::nullopt;

    struct {
        nlmsghdr header;
        rtmsg route;
    } request{};
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
    request.header.nlmsg_type = RTM_GETROUTE;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = 1;
    request.route.rtm_family = AF_UNSPEC;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(socket.get(), &request, request.header.nlmsg_len, 0, reinterpret_cast<sockaddr*>(&kernel),
                 sizeof(kernel)) < 0) {
        return std::nullopt;
    }

    std::vector<DefaultRoute> routes;
    alignas(nlmsghdr) char buffer[32768];
    for (;;) {
        const ssize_t received = ::recv(socket.get(), buffer, sizeof(buffer), 0);
        if (received < 0 && errno == EINTR) continue;
        if (received <= 0) return std::nullopt;
        switch (readRouteDump(buffer, static_cast<std::size_t>(received), routes)) {
            case RouteDumpProgress::done: return routes;
            case RouteDumpProgress::failed: return std::nullopt;
            case RouteDumpProgress::more: break;
        }
    }
}

RouteDumpProgress readRouteDump(const void* buffer, std::size_t size, std::vector<DefaultRoute>& routes) {
    int length = static_cast<int>(std::min<std::size_t>(size, std::numeric_limits<int>::max()));
    for (auto* message = static_cast<const nlmsghdr*>(buffer); messageFits(message, length);
         message = NLMSG_NEXT(message, length)) {
        if (message->nlmsg_type == NLMSG_DONE) return RouteDumpProgress::done;
        if (message->nlmsg_type == NLMSG_ERROR) return RouteDumpProgress::failed;
        if (message->nlmsg_type == RTM_NEWROUTE) collectDefaultRoutes(message, routes);
    }
    return RouteDumpProgress::more;
}

}  // namespace linuxnet

// ---------------------------------------------------------------------------------------

struct LinuxNetworkMonitor::Registry {
    std::mutex mutex;
    std::set<Target*> targets;
    bool watching = false;
    linuxnet::CellularMarks cellularMarks;  // set once, before any target exists
};

class LinuxNetworkMonitor::Target final : public NetworkReachabilityTarget {
public:
    Target(std::shared_ptr<Registry> registry, bool loopback) : registry_(std::move(registry)), loopback_(loopback) {
        std::lock_guard lock(registry_->mutex);
        registry_->targets.insert(this);
    }
    ~Target() override {
        std::lock_guard lock(registry_->mutex);
        registry_->targets.erase(this);
    }

    std::optional<std::uint32_t> flags() const override {
        return loopback_ ? linuxnet::loopbackFlags : LinuxNetworkMonitor::currentFlags(registry_->cellularMarks);
    }

    bool setCallback(std::function<void(std::uint32_t)> callback, Executor* queue) override {
        std::lock_guard lock(registry_->mutex);
        if (callback && queue) {
            callback_ = std::move(callback);
            queue_ = queue;
            return registry_->watching;
        }
        callback_ = nullptr;
        queue_ = nullptr;
        return true;
    }

    // With the registry's mutex held, so a cleared callback's queue is never touched again.
    void deliverLocked(std::uint32_t anyNetworkFlags) {
        if (!callback_ || !queue_) return;
        const std::uint32_t flags = loopback_ ? linuxnet::loopbackFlags : anyNetworkFlags;
        queue_->async([callback = callback_, flags] { callback(flags); });
    }

private:
    const std::shared_ptr<Registry> registry_;
    const bool loopback_;
    std::function<void(std::uint32_t)> callback_;
    Executor* queue_ = nullptr;
};

std::uint32_t LinuxNetworkMonitor::currentFlags(const linuxnet::CellularMarks& cellularMarks) {
    auto routes = linuxnet::dumpDefaultRoutes();
    if (!routes) routes = linuxnet::defaultRoutesFromProc();
    return linuxnet::reachabilityFlagsFor(*routes, [&cellularMarks](const std::string& name) {
        return linuxnet::interfaceState("/sys/class/net", name, cellularMarks);
    });
}

LinuxNetworkMonitor::LinuxNetworkMonitor(linuxnet::CellularMarks cellularMarks)
    : registry_(std::make_shared<Registry>()) {
    registry_->cellularMarks = std::move(cellularMarks);
    netlinkSocket_ = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    if (netlinkSocket_ < 0) return;
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (::bind(netlinkSocket_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::pipe2(wakePipe_, O_CLOEXEC | O_NONBLOCK) != 0) {
        ::close(netlinkSocket_);
        netlinkSocket_ = -1;
        return;
    }
    {
        std::lock_guard lock(registry_->mutex);
        registry_->watching = true;
    }
    watcher_ = std::thread([this] { watch(); });
}

LinuxNetworkMonitor::~LinuxNetworkMonitor() {
    if (watcher_.joinable()) {
        const char stop = 1;
        while (::write(wakePipe_[1], &stop, 1) < 0 && errno == EINTR) {
        }
        watcher_.join();
    }
    {
        std::lock_guard lock(registry_->mutex);
        registry_->watching = false;
    }
    for (const int fd : {netlinkSocket_, wakePipe_[0], wakePipe_[1]}) {
        if (fd >= 0) ::close(fd);
    }
}

std::unique_ptr<NetworkReachabilityTarget> LinuxNetworkMonitor::reachabilityForHost(const std::string& host) {
    return std::make_unique<Target>(registry_, linuxnet::isLoopbackHost(host));
}

std::unique_ptr<NetworkReachabilityTarget> LinuxNetworkMonitor::reachabilityForZeroAddress() {
    return std::make_unique<Target>(registry_, false);
}

void LinuxNetworkMonitor::watch() {
    // A change usually comes as a burst (link, addresses, routes); it is reported once the
    // socket has been quiet for a moment, or after a bounded number of rounds.
    constexpr int quietMilliseconds = 100;
    constexpr int maxRoundsPerReport = 20;
    pollfd fds[2] = {{netlinkSocket_, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
    int pendingRounds = 0;
    alignas(nlmsghdr) char buffer[16384];
    for (;;) {
        const int ready = ::poll(fds, 2, pendingRounds > 0 ? quietMilliseconds : -1);
        if (ready < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents != 0) return;
        if (ready == 0 || pendingRounds >= maxRoundsPerReport) {
            pendingRounds = 0;
            notifyTargets();
            if (ready == 0) continue;
        }
        if (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) {
            // An overrun (ENOBUFS) means changes were lost: report afresh.
            int error = 0;
            socklen_t length = sizeof(error);
            ::getsockopt(netlinkSocket_, SOL_SOCKET, SO_ERROR, &error, &length);
            if (fds[0].revents & POLLNVAL) return;
            ++pendingRounds;
        }
        if (fds[0].revents & POLLIN) {
            // What changed does not matter: the flags are read afresh.
            while (::recv(netlinkSocket_, buffer, sizeof(buffer), MSG_DONTWAIT) > 0) {
            }
            ++pendingRounds;
        }
    }
}

void LinuxNetworkMonitor::notifyTargets() {
    const std::uint32_t flags = currentFlags(registry_->cellularMarks);
    std::lock_guard lock(registry_->mutex);
    for (Target* target : registry_->targets) target->deliverLocked(flags);
}

}  // namespace rovalis

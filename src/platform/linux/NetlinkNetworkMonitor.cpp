#include "platform/linux/NetlinkNetworkMonitor.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sstream>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/Log.h"

namespace sprelio::platform {

namespace {

constexpr unsigned kRouteUp = 0x0001;     // RTF_UP
constexpr unsigned kRouteReject = 0x0200; // RTF_REJECT

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace

bool hasDefaultRoute(std::string_view ipv4Table, std::string_view ipv6Table) {
    // Iface Destination Gateway Flags RefCnt Use Metric Mask ... (one header line, hexadecimal fields)
    std::istringstream v4{std::string(ipv4Table)};
    std::string line;
    bool header = true;
    while (std::getline(v4, line)) {
        if (header) {
            header = false;
            continue;
        }
        std::istringstream fields(line);
        std::string iface, destination, gateway, flags, refcnt, use, metric, mask;
        if (!(fields >> iface >> destination >> gateway >> flags >> refcnt >> use >> metric >> mask)) continue;
        const unsigned f = static_cast<unsigned>(std::strtoul(flags.c_str(), nullptr, 16));
        if (destination == "00000000" && mask == "00000000" && (f & kRouteUp) && !(f & kRouteReject) && iface != "lo")
            return true;
    }
    // dest dest_prefixlen src src_prefixlen next_hop metric refcnt use flags iface (no header)
    std::istringstream v6{std::string(ipv6Table)};
    while (std::getline(v6, line)) {
        std::istringstream fields(line);
        std::string destination, prefix, source, sourcePrefix, nextHop, metric, refcnt, use, flags, iface;
        if (!(fields >> destination >> prefix >> source >> sourcePrefix >> nextHop >> metric >> refcnt >> use >> flags >>
              iface))
            continue;
        const unsigned f = static_cast<unsigned>(std::strtoul(flags.c_str(), nullptr, 16));
        if (destination == std::string(32, '0') && prefix == "00" && (f & kRouteUp) && !(f & kRouteReject) &&
            iface != "lo")
            return true;
    }
    return false;
}

NetlinkNetworkMonitor::NetlinkNetworkMonitor(std::filesystem::path procNet) : procNet_(std::move(procNet)) {}

NetlinkNetworkMonitor::~NetlinkNetworkMonitor() { cancel(); }

void NetlinkNetworkMonitor::setPathUpdateHandler(PathUpdateHandler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

bool NetlinkNetworkMonitor::readSatisfied() const {
    return hasDefaultRoute(readFile(procNet_ / "route"), readFile(procNet_ / "ipv6_route"));
}

void NetlinkNetworkMonitor::start() {
    if (thread_.joinable()) return;
    int sock = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (sock >= 0) {
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE | RTMGRP_LINK;
        if (bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            logError(std::string("NetlinkNetworkMonitor: bind failed: ") + std::strerror(errno) +
                     "; the network state is read once and not followed");
            close(sock);
            sock = -1;
        }
    } else {
        logError(std::string("NetlinkNetworkMonitor: no netlink socket: ") + std::strerror(errno) +
                 "; the network state is read once and not followed");
    }
    wakeFd_ = eventfd(0, EFD_CLOEXEC);
    thread_ = std::thread([this, sock] { run(sock, wakeFd_); });
}

void NetlinkNetworkMonitor::cancel() {
    if (!thread_.joinable()) return;
    const std::uint64_t one = 1;
    if (write(wakeFd_, &one, sizeof one) < 0) logError("NetlinkNetworkMonitor: could not wake the monitor thread");
    thread_.join();
    close(wakeFd_);
    wakeFd_ = -1;
}

void NetlinkNetworkMonitor::run(int sock, int wakeFd) {
    auto report = [this](bool satisfied) {
        PathUpdateHandler handler;
        {
            std::lock_guard lock(mutex_);
            handler = handler_;
        }
        if (handler) handler(satisfied);
    };
    bool last = readSatisfied();
    report(last);
    while (true) {
        pollfd fds[2] = {{wakeFd, POLLIN, 0}, {sock, POLLIN, 0}};
        const int ready = poll(fds, sock >= 0 ? 2 : 1, -1);
        if (ready < 0) {
            if (errno == EINTR) continue;
            logError(std::string("NetlinkNetworkMonitor: poll failed: ") + std::strerror(errno));
            break;
        }
        if (fds[0].revents) break;
        if (sock >= 0 && fds[1].revents) {
            char buffer[16384];
            // Drain everything queued: one route change often comes as several messages.
            while (recv(sock, buffer, sizeof buffer, MSG_DONTWAIT) > 0) {
            }
            const bool now = readSatisfied();
            if (now != last) {
                last = now;
                report(now);
            }
        }
    }
    if (sock >= 0) close(sock);
}

} // namespace sprelio::platform

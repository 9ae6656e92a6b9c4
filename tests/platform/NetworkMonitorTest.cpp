#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "platform/linux/NetlinkNetworkMonitor.h"

using sprelio::platform::hasDefaultRoute;
using sprelio::platform::NetlinkNetworkMonitor;

namespace {
const char* kV4Header = "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";
}

TEST(DefaultRoute, ReadFromTheKernelTables) {
    const std::string lan = std::string(kV4Header) +
                            "eth0\t0001A8C0\t00000000\t0001\t0\t0\t100\t00FFFFFF\t0\t0\t0\n";
    EXPECT_FALSE(hasDefaultRoute(lan, "")) << "a local subnet alone is no way out";
    EXPECT_TRUE(hasDefaultRoute(lan + "eth0\t00000000\t0101A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n", ""));
    EXPECT_FALSE(hasDefaultRoute(lan + "eth0\t00000000\t0101A8C0\t0002\t0\t0\t100\t00000000\t0\t0\t0\n", ""))
        << "a route that is not up";
    EXPECT_FALSE(hasDefaultRoute(std::string(kV4Header) + "lo\t00000000\t0100007F\t0003\t0\t0\t0\t00000000\t0\t0\t0\n",
                                 ""))
        << "loopback leads nowhere";
    // The kernel keeps an unreachable IPv6 default on lo; only a real one counts.
    const std::string v6Reject = "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
                                 "00000000000000000000000000000000 ffffffff 00000001 00000000 00200200       lo\n";
    EXPECT_FALSE(hasDefaultRoute(kV4Header, v6Reject));
    const std::string v6 = "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
                           "fe800000000000000000000000000001 00000400 00000001 00000000 00450003     eth0\n";
    EXPECT_TRUE(hasDefaultRoute(kV4Header, v6Reject + v6));
    EXPECT_FALSE(hasDefaultRoute("garbage", "more garbage\n\n"));
}

// A network namespace of the test's own, where routes can come and go without touching the machine's.
TEST(NetlinkNetworkMonitor, FollowsADefaultRouteComingAndGoing) {
    if (geteuid() != 0 || access("/dev/net/tun", R_OK | W_OK) != 0 || system("command -v ip >/dev/null") != 0)
        GTEST_SKIP() << "needs root, /dev/net/tun and iproute2 to make a network namespace";
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (unshare(CLONE_NEWNET) != 0) _exit(10);
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<bool> reports;
        NetlinkNetworkMonitor monitor;
        monitor.setPathUpdateHandler([&](bool satisfied) {
            std::lock_guard lock(mutex);
            reports.push_back(satisfied);
            changed.notify_all();
        });
        monitor.start();
        auto waitFor = [&](std::size_t count) {
            std::unique_lock lock(mutex);
            return changed.wait_for(lock, std::chrono::seconds(10), [&] { return reports.size() >= count; });
        };
        if (!waitFor(1) || reports[0]) _exit(11);
        if (system("ip tuntap add mode tun name sprt0 && ip link set sprt0 up && ip route add default dev sprt0") != 0)
            _exit(12);
        if (!waitFor(2) || !reports[1]) _exit(13);
        if (system("ip route del default dev sprt0") != 0) _exit(14);
        if (!waitFor(3) || reports[2]) _exit(15);
        monitor.cancel();
        _exit(reports.size() == 3 ? 0 : 16);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "10 unshare, 11 first report, 12 route added, 13 no satisfied report, "
                                         "14 route deleted, 15 no unsatisfied report, 16 extra reports";
}

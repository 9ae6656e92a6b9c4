#pragma once
// Watches the kernel's routing tables over rtnetlink and reads the default routes from /proc: no daemon and no
// extra library needed, and it works the same under NetworkManager, systemd-networkd or a hand-made setup.
#include <atomic>
#include <filesystem>
#include <mutex>
#include <string_view>
#include <thread>

#include "platform/NetworkPathMonitor.h"

namespace sprelio::platform {

// Whether the tables in the formats of /proc/net/route and /proc/net/ipv6_route hold a usable default route
// (up, not a reject route, not on the loopback device).
bool hasDefaultRoute(std::string_view ipv4Table, std::string_view ipv6Table);

class NetlinkNetworkMonitor final : public NetworkPathMonitor {
public:
    // `procNet` is where the route tables are read (the folder /proc/net, replaceable for tests).
    explicit NetlinkNetworkMonitor(std::filesystem::path procNet = "/proc/net");
    ~NetlinkNetworkMonitor() override;

    void setPathUpdateHandler(PathUpdateHandler handler) override;
    void start() override;
    void cancel() override;

private:
    void run(int netlinkSocket, int wakeFd);
    bool readSatisfied() const;

    const std::filesystem::path procNet_;
    std::mutex mutex_;
    PathUpdateHandler handler_;
    std::thread thread_;
    int wakeFd_ = -1;
};

} // namespace sprelio::platform

#include "TimingRelay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace sprelio::server::bench {

namespace {

void noDelay(int fd) {
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

bool writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        auto written = ::send(fd, data, size, MSG_NOSIGNAL);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

} // namespace

TimingRelay::TimingRelay(int targetPort) : targetPort_(targetPort) {
    if (::pipe(stopPipe_) != 0) throw std::runtime_error("TimingRelay: pipe failed");
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto address = loopback(0);
    socklen_t length = sizeof address;
    if (listenFd_ < 0 || ::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listenFd_, 64) != 0 || ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::runtime_error("TimingRelay: cannot listen on loopback");
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { acceptLoop(); });
}

TimingRelay::~TimingRelay() {
    char stop = 1;
    [[maybe_unused]] auto ignored = ::write(stopPipe_[1], &stop, 1);
    acceptor_.join();
    for (auto& pumpThread : pumps_) pumpThread.join();
    ::close(listenFd_);
    ::close(stopPipe_[0]);
    ::close(stopPipe_[1]);
}

void TimingRelay::clear() {
    std::lock_guard lock(mutex_);
    pieces_.clear();
}

void TimingRelay::acceptLoop() {
    int next = 0;
    for (;;) {
        pollfd fds[2] = {{listenFd_, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents) return;
        int client = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;
        noDelay(client);
        int connection = ++next;
        std::lock_guard lock(mutex_);
        pumps_.emplace_back([this, connection, client] { pump(connection, client); });
    }
}

void TimingRelay::pump(int connection, int clientFd) {
    int serverFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto target = loopback(targetPort_);
    if (serverFd < 0 || ::connect(serverFd, reinterpret_cast<sockaddr*>(&target), sizeof target) != 0) {
        if (serverFd >= 0) ::close(serverFd);
        ::close(clientFd);
        return;
    }
    noDelay(serverFd);
    char buffer[64 * 1024];
    for (;;) {
        pollfd fds[3] = {{clientFd, POLLIN, 0}, {serverFd, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
        if (::poll(fds, 3, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[2].revents) break;
        bool closed = false;
        for (int side = 0; side < 2 && !closed; ++side) {
            if (!fds[side].revents) continue;
            auto got = ::recv(fds[side].fd, buffer, sizeof buffer, 0);
            if (got <= 0) {
                closed = got == 0 || errno != EINTR;
                continue;
            }
            note(connection, side == 0, buffer, static_cast<std::size_t>(got));
            closed = !writeAll(side == 0 ? serverFd : clientFd, buffer, static_cast<std::size_t>(got));
        }
        if (closed) break;
    }
    ::close(serverFd);
    ::close(clientFd);
}

void TimingRelay::note(int connection, bool fromClient, const char* data, std::size_t size) {
    Piece piece{connection, fromClient, Clock::now(), size, std::string(data, std::min<std::size_t>(size, 32))};
    std::lock_guard lock(mutex_);
    pieces_.push_back(std::move(piece));
}

std::optional<TimingRelay::Exchange> TimingRelay::find(const std::string& requestLinePrefix,
                                                       Clock::time_point after) const {
    std::lock_guard lock(mutex_);
    std::size_t start = pieces_.size();
    for (std::size_t i = 0; i < pieces_.size(); ++i) {
        const auto& piece = pieces_[i];
        if (piece.fromClient && piece.at >= after && piece.head.rfind(requestLinePrefix, 0) == 0) {
            start = i;
            break;
        }
    }
    if (start == pieces_.size()) return std::nullopt;
    const int connection = pieces_[start].connection;
    Exchange exchange;
    exchange.requestFirstByte = exchange.requestLastByte = pieces_[start].at;
    bool answering = false;
    for (std::size_t i = start + 1; i < pieces_.size(); ++i) {
        const auto& piece = pieces_[i];
        if (piece.connection != connection) continue;
        if (piece.fromClient) {
            if (answering) break; // the next request on a kept-alive connection
            exchange.requestLastByte = piece.at;
            continue;
        }
        // An interim "100 Continue" is not the answer.
        if (!answering && piece.head.rfind("HTTP/1.1 100", 0) == 0) continue;
        if (!answering) exchange.answerFirstByte = piece.at;
        answering = true;
        exchange.answerLastByte = piece.at;
    }
    if (!answering) return std::nullopt;
    return exchange;
}

} // namespace sprelio::server::bench

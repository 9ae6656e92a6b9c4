#include "server/ConnectionGate.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "base/Log.h"
#include "server/ApiError.h"

namespace sprelio::server {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// httplib asks its task queue to run each accepted connection; here that only hands the socket to the waiting
// room, which is quick and never blocks the accepting thread.
class InlineQueue final : public httplib::TaskQueue {
public:
    void enqueue(std::function<void()> fn) override { fn(); }
    void shutdown() override {}
};

// What a client that is done with may still send is read and dropped for this long, at most this much, so
// that it reads our answer instead of a reset.
constexpr milliseconds kLingerTime{1000};
constexpr std::size_t kLingerBytes = 1024 * 1024;

int pollFor(int fd, short events, Clock::time_point until) {
    for (;;) {
        auto left = std::chrono::duration_cast<milliseconds>(until - Clock::now()).count();
        if (left < 0) left = 0;
        pollfd entry{fd, events, 0};
        int rc = ::poll(&entry, 1, static_cast<int>(std::min<long long>(left, 60 * 60 * 1000)));
        if (rc < 0 && errno == EINTR) continue;
        if (rc <= 0) return rc;
        return entry.revents;
    }
}

std::string peerAddress(int fd, int* port) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return {};
    char text[INET6_ADDRSTRLEN] = {};
    if (address.ss_family == AF_INET) {
        auto* in = reinterpret_cast<sockaddr_in*>(&address);
        ::inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
        if (port) *port = ntohs(in->sin_port);
    } else if (address.ss_family == AF_INET6) {
        auto* in = reinterpret_cast<sockaddr_in6*>(&address);
        ::inet_ntop(AF_INET6, &in->sin6_addr, text, sizeof text);
        if (port) *port = ntohs(in->sin6_port);
    }
    return text;
}

// The key connections are counted under: the IPv4 address, or the /64 of an IPv6 address, which one host
// usually has whole.
std::string clientKey(int fd) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return "?";
    if (address.ss_family == AF_INET6) {
        auto* in = reinterpret_cast<sockaddr_in6*>(&address);
        if (!IN6_IS_ADDR_V4MAPPED(&in->sin6_addr)) {
            std::memset(reinterpret_cast<unsigned char*>(&in->sin6_addr) + 8, 0, 8);
            char text[INET6_ADDRSTRLEN] = {};
            ::inet_ntop(AF_INET6, &in->sin6_addr, text, sizeof text);
            return std::string(text) + "/64";
        }
    }
    return peerAddress(fd, nullptr);
}

// An answer the gate gives itself, before or instead of httplib: small enough for one send.
void answerAndForget(int fd, int status, const char* reason, const ApiError& error) {
    auto body = error.json();
    std::string text = "HTTP/1.1 " + std::to_string(status) + " " + reason +
                       "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
                       "\r\nConnection: close\r\n\r\n" + body;
    (void)::send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

// A socket stream for httplib that serves the head from what the waiting room saw arrive, then reads the body
// within its allowance and deadline.
class RequestStream final : public httplib::Stream {
public:
    RequestStream(int fd, const ConnectionLimits& limits, std::uint64_t allowance)
        : fd_(fd), limits_(limits), allowance_(allowance) {}

    // Reads the head, which has arrived already.
    bool takeHead(std::size_t bytes) {
        head_.resize(bytes);
        std::size_t got = 0;
        auto until = Clock::now() + limits_.stallTime;
        while (got < bytes) {
            ssize_t n = ::recv(fd_, head_.data() + got, bytes - got, MSG_DONTWAIT);
            if (n > 0) {
                got += static_cast<std::size_t>(n);
            } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
                if (pollFor(fd_, POLLIN, until) <= 0) return false;
            } else {
                return false;
            }
        }
        return true;
    }
    void headParsed() {
        headDone_ = true;
        bodyStart_ = Clock::now();
    }
    void allow(std::uint64_t bytes, bool unhurried) {
        allowance_ = bytes;
        unhurried_ = unhurried;
    }
    bool overAllowance() const { return over_; }
    bool broken() const { return broken_; }
    bool headWasParsed() const { return headDone_; }

    bool is_readable() const override {
        if (headAt_ < head_.size()) return true;
        return pollFor(fd_, POLLIN, readUntil()) > 0;
    }
    bool is_writable() const override {
        int events = pollFor(fd_, POLLOUT, Clock::now() + limits_.stallTime);
        if (events <= 0 || (events & (POLLERR | POLLHUP))) return false;
        // A peer that has closed its end is gone even though the socket still takes bytes.
        char byte;
        return ::recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) != 0;
    }

    ssize_t read(char* ptr, size_t size) override {
        if (headAt_ < head_.size()) {
            auto count = std::min(size, head_.size() - headAt_);
            std::memcpy(ptr, head_.data() + headAt_, count);
            headAt_ += count;
            return static_cast<ssize_t>(count);
        }
        // httplib wants more head than the blank line the waiting room found: nothing well-formed.
        if (!headDone_) return fail();
        if (bodyRead_ >= allowance_) {
            over_ = true;
            return fail();
        }
        size = static_cast<size_t>(std::min<std::uint64_t>(size, allowance_ - bodyRead_));
        for (;;) {
            ssize_t n = ::recv(fd_, ptr, size, MSG_DONTWAIT);
            if (n > 0) {
                bodyRead_ += static_cast<std::uint64_t>(n);
                return n;
            }
            if (n == 0) return fail();
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) return fail();
            if (pollFor(fd_, POLLIN, readUntil()) <= 0) {
                if (!unhurried_ && Clock::now() >= bodyDeadline())
                    log(LogLevel::warning, "ConnectionGate - a request body arrived too slowly (" +
                                               std::to_string(bodyRead_) + " bytes); connection closed");
                return fail();
            }
        }
    }

    ssize_t write(const char* ptr, size_t size) override {
        noteResponseHead(std::string_view(ptr, size));
        auto until = Clock::now() + limits_.stallTime;
        for (;;) {
            ssize_t n = ::send(fd_, ptr, size, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n >= 0) return n;
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) return fail();
            if (pollFor(fd_, POLLOUT, until) <= 0) return fail();
        }
    }

    void get_remote_ip_and_port(std::string& ip, int& port) const override { ip = peerAddress(fd_, &port); }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        ip.clear();
        port = 0;
        if (::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) return;
        char text[INET6_ADDRSTRLEN] = {};
        if (address.ss_family == AF_INET) {
            auto* in = reinterpret_cast<sockaddr_in*>(&address);
            ::inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
            port = ntohs(in->sin_port);
        } else if (address.ss_family == AF_INET6) {
            auto* in = reinterpret_cast<sockaddr_in6*>(&address);
            ::inet_ntop(AF_INET6, &in->sin6_addr, text, sizeof text);
            port = ntohs(in->sin6_port);
        }
        ip = text;
    }
    socket_t socket() const override { return fd_; }

    // The answer said "Connection: close" (a handler that refused a body it left unread): httplib keeps the
    // connection regardless, and would read that body as the next request.
    bool closeRequested() const { return closeRequested_; }

private:
    void noteResponseHead(std::string_view bytes) {
        if (answered_ || bytes.substr(0, 7) != "HTTP/1.") return;
        auto head = bytes.substr(0, bytes.find("\r\n\r\n"));
        if (head.substr(9, 3) != "100") answered_ = true;
        for (std::size_t at = head.find("\r\n"); at != std::string_view::npos; at = head.find("\r\n", at + 2)) {
            auto line = head.substr(at + 2, head.find("\r\n", at + 2) - (at + 2));
            if (line.size() == 17 && std::equal(line.begin(), line.end(), "connection: close",
                                                [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; }))
                closeRequested_ = true;
        }
    }
    ssize_t fail() {
        broken_ = true;
        return -1;
    }
    Clock::time_point bodyDeadline() const {
        auto earned = milliseconds(limits_.minBodyBytesPerSecond == 0
                                       ? 0
                                       : static_cast<long long>(bodyRead_ * 1000 / limits_.minBodyBytesPerSecond));
        return bodyStart_ + limits_.bodyTime + earned;
    }
    Clock::time_point readUntil() const {
        auto until = Clock::now() + limits_.stallTime;
        if (headDone_ && !unhurried_) until = std::min(until, bodyDeadline());
        return until;
    }

    int fd_;
    const ConnectionLimits& limits_;
    std::string head_;
    std::size_t headAt_ = 0;
    bool headDone_ = false;
    Clock::time_point bodyStart_{};

    std::uint64_t bodyRead_ = 0;
    std::uint64_t allowance_;
    bool unhurried_ = false;
    bool over_ = false;
    bool broken_ = false;
    bool answered_ = false;
    bool closeRequested_ = false;
};

thread_local RequestStream* tStream = nullptr;

} // namespace

GuardedHttpServer::GuardedHttpServer(ConnectionLimits limits) : limits_(limits) {
    // Each connection holds a descriptor; leave room for the database, uploads and the engines.
    rlimit files{};
    if (::getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur != RLIM_INFINITY && files.rlim_cur > 256)
        limits_.maxConnections = std::min<std::size_t>(limits_.maxConnections, files.rlim_cur - 128);
    limits_.workers = std::max<std::size_t>(1, limits_.workers);
    new_task_queue = [] { return new InlineQueue; };
    epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (epoll_ < 0 || wakeFd_ < 0) throw std::runtime_error("GuardedHttpServer: no epoll or eventfd");
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = wakeFd_;
    ::epoll_ctl(epoll_, EPOLL_CTL_ADD, wakeFd_, &event);
    room_thread_ = std::thread([this] { roomLoop(); });
    for (std::size_t i = 0; i < limits_.workers; ++i) workers_.emplace_back([this] { workerLoop(); });
}

GuardedHttpServer::~GuardedHttpServer() {
    shutdownGate();
    if (epoll_ >= 0) ::close(epoll_);
    if (wakeFd_ >= 0) ::close(wakeFd_);
}

void GuardedHttpServer::setListenBacklog(int connections) {
    if (svr_sock_ != INVALID_SOCKET) ::listen(svr_sock_, connections);
}

void GuardedHttpServer::allowBody(std::uint64_t bytes, bool unhurried) {
    if (tStream) tStream->allow(bytes, unhurried);
}

bool GuardedHttpServer::bodyOverAllowance() { return tStream && tStream->overAllowance(); }

std::size_t GuardedHttpServer::openConnections() const {
    std::lock_guard lock(mutex_);
    return open_;
}

void GuardedHttpServer::wake() {
    std::uint64_t one = 1;
    (void)::write(wakeFd_, &one, sizeof one);
}

bool GuardedHttpServer::process_and_close_socket(socket_t sock) {
    admit(sock);
    return true;
}

void GuardedHttpServer::admit(int fd) {
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    auto client = clientKey(fd);
    std::unique_lock lock(mutex_);
    bool full = open_ >= limits_.maxConnections;
    bool greedy = perClient_[client] >= limits_.maxConnectionsPerClient;
    if (stopping_ || full || greedy) {
        if (perClient_[client] == 0) perClient_.erase(client);
        lock.unlock();
        if (!stopping_) {
            log(LogLevel::warning, std::string("ConnectionGate - connection refused: ") +
                                       (full ? "too many connections" : "too many connections from one client"));
            answerAndForget(fd, 503, "Service Unavailable",
                            {503, "TooManyConnections", "The server has too many open connections; please try again.",
                             false});
        }
        ::shutdown(fd, SHUT_RDWR);
        ::close(fd);
        return;
    }
    ++open_;
    ++perClient_[client];
    auto now = Clock::now();
    room_[fd] = Waiting{Phase::head, client, 0, now, now + limits_.headTime};
    watch(fd);
    lock.unlock();
    wake();
}

void GuardedHttpServer::toRoom(int fd, const std::string& client, int served, bool closing) {
    std::unique_lock lock(mutex_);
    if (stopping_ && !closing) closing = true;
    auto now = Clock::now();
    if (closing) {
        ::shutdown(fd, SHUT_WR);
        room_[fd] = Waiting{Phase::closing, client, served, now, now + kLingerTime};
    } else {
        room_[fd] = Waiting{Phase::idle, client, served, now, now + limits_.idleTime};
    }
    // Under the lock, so that the room never sees an entry whose socket is not watched yet.
    watch(fd);
    lock.unlock();
    wake();
}

void GuardedHttpServer::watch(int fd) {
    // Edge-triggered: the room peeks without reading, so a level-triggered socket would wake it for ever.
    epoll_event event{};
    event.events = EPOLLIN | EPOLLRDHUP | EPOLLET;
    event.data.fd = fd;
    ::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
}

void GuardedHttpServer::closeNow(int fd, const std::string& client) {
    ::epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
    ::close(fd);
    std::lock_guard lock(mutex_);
    --open_;
    if (auto it = perClient_.find(client); it != perClient_.end() && --it->second == 0) perClient_.erase(it);
}

void GuardedHttpServer::roomLoop() {
    std::vector<char> peek(limits_.maxHeadBytes + 1);
    std::vector<char> scratch(64 * 1024);
    epoll_event events[64];
    constexpr std::string_view kEndOfHead = "\r\n\r\n";

    for (;;) {
        int timeout = 1000;
        {
            std::lock_guard lock(mutex_);
            if (stopping_) break;
            auto now = Clock::now();
            for (const auto& [fd, waiting] : room_) {
                auto left = std::chrono::duration_cast<milliseconds>(waiting.deadline - now).count() + 1;
                timeout = static_cast<int>(std::clamp<long long>(left, 0, timeout));
            }
        }
        int count = ::epoll_wait(epoll_, events, 64, timeout);
        if (count < 0 && errno != EINTR) {
            log(LogLevel::error, std::string("ConnectionGate - epoll_wait failed: ") + std::strerror(errno));
            break;
        }
        std::vector<std::pair<int, std::string>> toClose;
        std::unique_lock lock(mutex_);
        auto now = Clock::now();
        for (int i = 0; i < std::max(count, 0); ++i) {
            int fd = events[i].data.fd;
            if (fd == wakeFd_) {
                std::uint64_t value;
                while (::read(wakeFd_, &value, sizeof value) > 0) {
                }
                continue;
            }
            auto it = room_.find(fd);
            if (it == room_.end()) continue;
            auto& waiting = it->second;
            if (waiting.phase == Phase::closing) {
                for (;;) {
                    ssize_t n = ::recv(fd, scratch.data(), scratch.size(), MSG_DONTWAIT);
                    if (n > 0) {
                        waiting.drained += static_cast<std::size_t>(n);
                        if (waiting.drained <= kLingerBytes) continue;
                    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                        break;
                    } else if (n < 0 && errno == EINTR) {
                        continue;
                    }
                    toClose.emplace_back(fd, waiting.client);
                    room_.erase(it);
                    break;
                }
                continue;
            }
            ssize_t n = ::recv(fd, peek.data(), peek.size(), MSG_PEEK | MSG_DONTWAIT);
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) continue;
            if (n <= 0) {
                toClose.emplace_back(fd, waiting.client);
                room_.erase(it);
                continue;
            }
            if (waiting.phase == Phase::idle) {
                waiting.phase = Phase::head;
                waiting.since = now;
                waiting.deadline = now + limits_.headTime;
            }
            std::string_view seen(peek.data(), static_cast<std::size_t>(n));
            auto end = seen.find(kEndOfHead);
            if (end != std::string_view::npos && end + kEndOfHead.size() <= limits_.maxHeadBytes) {
                ::epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
                ready_.push_back(Ready{fd, end + kEndOfHead.size(), waiting.since, waiting.client, waiting.served});
                room_.erase(it);
                hasReady_.notify_one();
                continue;
            }
            if (static_cast<std::size_t>(n) > limits_.maxHeadBytes) {
                log(LogLevel::warning, "ConnectionGate - request head larger than " +
                                           std::to_string(limits_.maxHeadBytes) + " bytes refused");
                answerAndForget(fd, 431, "Request Header Fields Too Large",
                                {431, "HeadersTooLarge", "The request's header lines are larger than this server accepts.",
                                 true});
                ::shutdown(fd, SHUT_WR);
                waiting = Waiting{Phase::closing, waiting.client, waiting.served, now, now + kLingerTime};
                continue;
            }
            // A client that has stopped sending before its head ended never completes it.
            if (events[i].events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) {
                toClose.emplace_back(fd, waiting.client);
                room_.erase(it);
            }
        }
        for (auto it = room_.begin(); it != room_.end();) {
            auto& waiting = it->second;
            if (waiting.deadline > now) {
                ++it;
                continue;
            }
            if (waiting.phase == Phase::head) {
                log(LogLevel::warning, "ConnectionGate - a request head did not arrive in time; connection closed");
                answerAndForget(it->first, 408, "Request Timeout",
                                {408, "RequestTimeout", "The request did not arrive in time.", false});
                ::shutdown(it->first, SHUT_WR);
                waiting = Waiting{Phase::closing, waiting.client, waiting.served, now, now + kLingerTime};
                ++it;
                continue;
            }
            toClose.emplace_back(it->first, waiting.client);
            it = room_.erase(it);
        }
        lock.unlock();
        for (const auto& [fd, client] : toClose) closeNow(fd, client);
    }

    // Stopping: whatever waits here has no request under way.
    std::vector<std::pair<int, std::string>> rest;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [fd, waiting] : room_) rest.emplace_back(fd, waiting.client);
        room_.clear();
    }
    for (const auto& [fd, client] : rest) closeNow(fd, client);
}

void GuardedHttpServer::workerLoop() {
    for (;;) {
        Ready ready;
        {
            std::unique_lock lock(mutex_);
            hasReady_.wait(lock, [this] { return !ready_.empty() || stopping_; });
            if (ready_.empty()) return;
            ready = std::move(ready_.front());
            ready_.pop_front();
        }
        try {
            serve(std::move(ready));
        } catch (const std::exception& e) {
            log(LogLevel::error, std::string("ConnectionGate - a connection ended with an exception: ") + e.what());
        } catch (...) {
            log(LogLevel::error, "ConnectionGate - a connection ended with an unknown exception");
        }
    }
}

void GuardedHttpServer::serve(Ready ready) {
    RequestStream stream(ready.fd, limits_, defaultBodyAllowance_);
    if (!stream.takeHead(ready.headBytes)) {
        toRoom(ready.fd, ready.client, ready.served, true);
        return;
    }
    bool stopping;
    {
        std::lock_guard lock(mutex_);
        stopping = stopping_;
    }
    bool last = stopping || ready.served + 1 >= static_cast<int>(limits_.requestsPerConnection);
    bool closed = false;
    tStream = &stream;
    bool ok = false;
    try {
        ok = process_request(stream, last, closed, [&stream](httplib::Request&) { stream.headParsed(); });
    } catch (...) {
        tStream = nullptr;
        toRoom(ready.fd, ready.client, ready.served + 1, true);
        throw;
    }
    tStream = nullptr;
    toRoom(ready.fd, ready.client, ready.served + 1,
           !ok || closed || last || stream.broken() || !stream.headWasParsed() || stream.closeRequested());
}

void GuardedHttpServer::shutdownGate() {
    std::call_once(shutdownOnce_, [this] {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake();
        hasReady_.notify_all();
        if (room_thread_.joinable()) room_thread_.join();
        // Workers serve what is ready to its end (as the last request of its connection), then stop.
        for (auto& worker : workers_)
            if (worker.joinable()) worker.join();
        workers_.clear();
        std::vector<std::pair<int, std::string>> rest;
        {
            std::lock_guard lock(mutex_);
            for (const auto& [fd, waiting] : room_) rest.emplace_back(fd, waiting.client);
            room_.clear();
        }
        for (const auto& [fd, client] : rest) closeNow(fd, client);
    });
}

} // namespace sprelio::server

#pragma once
// An HTTP/1.1 server on 127.0.0.1 for the transport tests: it records every request byte for byte (request line,
// headers in their order, raw body) and answers as the test scripts it: whole bodies, chunked streams with
// pauses and gates the test opens, connections closed mid-stream, bodies that never end.
//
// It speaks HTTP on plain sockets rather than through an HTTP library because a library parses a multipart
// body into its parts, and the tests need the body exactly as it came off the wire.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace sprelio::backendtest {

struct RecordedRequest {
    std::string method;
    std::string target; // path with the query as sent
    std::vector<std::pair<std::string, std::string>> headers;
    std::string head;   // request line and headers, raw, up to and including the empty line
    std::string body;   // raw body (empty when the script discards it)
    std::size_t bodySize = 0;
    std::chrono::steady_clock::time_point firstByteAt; // when the first byte of the request arrived
    std::chrono::steady_clock::time_point lastByteAt;  // when the last byte of the body arrived
    std::chrono::steady_clock::time_point answeredAt;  // when the last byte of a whole answer was sent

    std::string header(const std::string& name) const {
        for (const auto& [key, value] : headers) {
            if (key.size() == name.size() &&
                std::equal(key.begin(), key.end(), name.begin(),
                           [](char a, char b) { return std::tolower(a) == std::tolower(b); })) {
                return value;
            }
        }
        return {};
    }
};

// One step of a streamed (chunked) answer.
struct StreamStep {
    enum class Kind { write, pause, gate, close, hang };
    Kind kind = Kind::write;
    std::string data;
    std::chrono::milliseconds pause{0};
    std::string gate;

    static StreamStep write(std::string data) { return {Kind::write, std::move(data), {}, {}}; }
    static StreamStep sleep(std::chrono::milliseconds ms) { return {Kind::pause, {}, ms, {}}; }
    // Waits until the test opens the gate (or the server stops).
    static StreamStep waitFor(std::string gate) { return {Kind::gate, {}, {}, std::move(gate)}; }
    // Closes the connection without the last chunk: the body ends mid-stream.
    static StreamStep closeConnection() { return {Kind::close, {}, {}, {}}; }
    // Never sends another byte until the server stops.
    static StreamStep hangForever() { return {Kind::hang, {}, {}, {}}; }
};

struct Script {
    int status = 200;
    std::string reason = "OK";
    std::vector<std::pair<std::string, std::string>> headers{{"Content-Type", "application/json"}};
    std::string body = "{}";
    // When not empty, the answer is chunked and made of these steps; `body` is not used.
    std::vector<StreamStep> stream;
    // Before the status line: a gate to wait for, then a pause.
    std::string gateBeforeHead;
    std::chrono::milliseconds delayBeforeHead{0};
    // Reads the request body and counts it without keeping it (large uploads).
    bool discardBody = false;
    // Writes the first body bytes and then repeats `trickle` every `trickleEvery` until the server stops.
    std::string trickle;
    std::chrono::milliseconds trickleEvery{50};
};

class ScriptedServer {
public:
    ScriptedServer() {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int yes = 1;
        ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = 0;
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, 64) != 0) {
            throw std::runtime_error("ScriptedServer: can't listen on 127.0.0.1");
        }
        socklen_t length = sizeof address;
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        // The socket listens once listen() has returned: connections queue up before accept runs.
        acceptor_ = std::thread([this] { acceptLoop(); });
    }

    ~ScriptedServer() { stop(); }
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    int port() const { return port_; }
    std::string url(const std::string& target = "/") const {
        return "http://127.0.0.1:" + std::to_string(port_) + target;
    }

    // The answer for a path (without query). Unscripted paths answer the default script.
    void script(const std::string& path, Script script) {
        std::lock_guard lock(mutex_);
        scripts_[path] = std::move(script);
    }
    void scriptDefault(Script script) {
        std::lock_guard lock(mutex_);
        defaultScript_ = std::move(script);
    }

    void openGate(const std::string& gate) {
        std::lock_guard lock(mutex_);
        openGates_.insert(gate);
        changed_.notify_all();
    }

    std::vector<RecordedRequest> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }
    std::size_t requestCount() const {
        std::lock_guard lock(mutex_);
        return requests_.size();
    }
    // Requests whose head has arrived (their body may still be coming).
    std::size_t headsReceived() const { return heads_.load(); }

    void stop() {
        {
            std::lock_guard lock(mutex_);
            if (stopping_) return;
            stopping_ = true;
            changed_.notify_all();
            for (int fd : connections_) ::shutdown(fd, SHUT_RDWR);
        }
        ::shutdown(listener_, SHUT_RDWR);
        if (acceptor_.joinable()) acceptor_.join();
        ::close(listener_);
        std::vector<std::thread> workers;
        {
            std::lock_guard lock(mutex_);
            workers.swap(workers_);
        }
        for (auto& worker : workers) worker.join();
    }

private:
    void acceptLoop() {
        for (;;) {
            const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            std::lock_guard lock(mutex_);
            if (stopping_) {
                if (fd >= 0) ::close(fd);
                return;
            }
            if (fd < 0) continue;
            int yes = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
            connections_.insert(fd);
            workers_.emplace_back([this, fd] { serve(fd); });
        }
    }

    bool stopping() const {
        std::lock_guard lock(mutex_);
        return stopping_;
    }

    // Reads into `buffer`; false when the peer closed or the server stops.
    bool readMore(int fd, std::string& buffer) {
        char chunk[65536];
        for (;;) {
            const ssize_t got = ::recv(fd, chunk, sizeof chunk, 0);
            if (got > 0) {
                buffer.append(chunk, static_cast<std::size_t>(got));
                return true;
            }
            if (got < 0 && errno == EINTR) continue;
            return false;
        }
    }

    bool sendAll(int fd, std::string_view data) {
        while (!data.empty()) {
            const ssize_t sent = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
            if (sent < 0 && errno == EINTR) continue;
            if (sent <= 0) return false;
            data.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }

    // Waits for a gate or a pause; false when the server stops meanwhile.
    bool wait(const std::string& gate, std::chrono::milliseconds pause) {
        std::unique_lock lock(mutex_);
        if (!gate.empty()) {
            changed_.wait(lock, [&] { return stopping_ || openGates_.count(gate) > 0; });
        } else if (pause.count() > 0) {
            changed_.wait_for(lock, pause, [&] { return stopping_; });
        }
        return !stopping_;
    }

    bool hang() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return stopping_; });
        return false;
    }

    void serve(int fd) {
        std::string buffer;
        while (!stopping()) {
            RecordedRequest request;
            std::size_t headEnd;
            while ((headEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
                const bool first = buffer.empty();
                if (!readMore(fd, buffer)) return finishConnection(fd);
                if (first) request.firstByteAt = std::chrono::steady_clock::now();
            }
            ++heads_;
            request.head = buffer.substr(0, headEnd + 4);
            buffer.erase(0, headEnd + 4);
            parseHead(request);
            Script script = scriptFor(request.target);
            std::size_t expected = 0;
            const std::string length = request.header("Content-Length");
            if (!length.empty()) expected = std::stoull(length);
            while (request.bodySize < expected) {
                if (buffer.empty() && !readMore(fd, buffer)) return finishConnection(fd);
                const std::size_t take = std::min(buffer.size(), expected - request.bodySize);
                if (!script.discardBody) request.body.append(buffer, 0, take);
                request.bodySize += take;
                buffer.erase(0, take);
            }
            request.lastByteAt = std::chrono::steady_clock::now();
            std::size_t index;
            {
                std::lock_guard lock(mutex_);
                index = requests_.size();
                requests_.push_back(request);
                changed_.notify_all();
            }
            if (!answer(fd, script)) return finishConnection(fd);
            {
                std::lock_guard lock(mutex_);
                requests_[index].answeredAt = std::chrono::steady_clock::now();
            }
        }
        finishConnection(fd);
    }

    void finishConnection(int fd) {
        std::lock_guard lock(mutex_);
        connections_.erase(fd);
        ::close(fd);
    }

    static void parseHead(RecordedRequest& request) {
        const std::string& head = request.head;
        std::size_t lineEnd = head.find("\r\n");
        const std::string line = head.substr(0, lineEnd);
        const auto firstSpace = line.find(' ');
        const auto secondSpace = line.find(' ', firstSpace + 1);
        request.method = line.substr(0, firstSpace);
        request.target = line.substr(firstSpace + 1, secondSpace - firstSpace - 1);
        std::size_t at = lineEnd + 2;
        while (at < head.size()) {
            const auto end = head.find("\r\n", at);
            if (end == std::string::npos || end == at) break;
            const std::string field = head.substr(at, end - at);
            const auto colon = field.find(':');
            std::string value = colon == std::string::npos ? std::string() : field.substr(colon + 1);
            value.erase(0, value.find_first_not_of(' '));
            request.headers.emplace_back(field.substr(0, colon), value);
            at = end + 2;
        }
    }

    Script scriptFor(const std::string& target) {
        const std::string path = target.substr(0, target.find('?'));
        std::lock_guard lock(mutex_);
        auto it = scripts_.find(path);
        return it != scripts_.end() ? it->second : defaultScript_;
    }

    // False when the connection must be closed afterwards.
    bool answer(int fd, const Script& script) {
        if (!wait(script.gateBeforeHead, {})) return false;
        if (!wait({}, script.delayBeforeHead)) return false;
        std::string head = "HTTP/1.1 " + std::to_string(script.status) + " " + script.reason + "\r\n";
        for (const auto& [name, value] : script.headers) head += name + ": " + value + "\r\n";
        const bool chunked = !script.stream.empty() || !script.trickle.empty();
        if (chunked) {
            head += "Transfer-Encoding: chunked\r\n\r\n";
        } else {
            head += "Content-Length: " + std::to_string(script.body.size()) + "\r\n\r\n";
            return sendAll(fd, head + script.body);
        }
        if (!sendAll(fd, head)) return false;
        auto chunk = [](const std::string& data) {
            char size[32];
            std::snprintf(size, sizeof size, "%zx\r\n", data.size());
            return std::string(size) + data + "\r\n";
        };
        if (!script.trickle.empty()) {
            if (!script.body.empty() && !sendAll(fd, chunk(script.body))) return false;
            while (wait({}, script.trickleEvery)) {
                if (!sendAll(fd, chunk(script.trickle))) return false;
            }
            return false;
        }
        for (const auto& step : script.stream) {
            switch (step.kind) {
            case StreamStep::Kind::write:
                if (!step.data.empty() && !sendAll(fd, chunk(step.data))) return false;
                break;
            case StreamStep::Kind::pause:
                if (!wait({}, step.pause)) return false;
                break;
            case StreamStep::Kind::gate:
                if (!wait(step.gate, {})) return false;
                break;
            case StreamStep::Kind::close:
                return false;
            case StreamStep::Kind::hang:
                return hang();
            }
        }
        return sendAll(fd, "0\r\n\r\n");
    }

    int listener_ = -1;
    int port_ = 0;
    std::thread acceptor_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool stopping_ = false;
    std::set<int> connections_;
    std::vector<std::thread> workers_;
    std::map<std::string, Script> scripts_;
    Script defaultScript_;
    std::set<std::string> openGates_;
    std::vector<RecordedRequest> requests_;
    std::atomic<std::size_t> heads_{0};
};

} // namespace sprelio::backendtest

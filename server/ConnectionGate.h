#pragma once
// The HTTP listener of BackendServer, hardened against clients that send slowly, send too much or never finish.
//
// httplib gives each connection a worker thread from accept to close, so eight clients trickling a header line
// every few seconds would hold eight workers. Here a connection reaches a worker only once its whole request head
// has arrived: until then, and between the requests of a kept-alive connection, it waits in one epoll thread
// (the waiting room) that costs no worker. The waiting room also bounds the head: its size, and the time it may
// take to arrive. The body is read on the worker, through a stream that holds it to a byte allowance (chunked
// bodies included, whatever their Content-Length says) and to a deadline that grows with the bytes received, so
// a body that trickles or never ends is cut after a bounded time. Connections refused or answered early leave
// through the waiting room too, which reads and drops what the client still sends for a moment, so that the
// answer reaches it before the socket is closed.
#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace sprelio::server {

struct ConnectionLimits {
    std::size_t workers = 8;
    // Connections open at once, waiting or served; one more is answered 503 and closed.
    std::size_t maxConnections = 512;
    // Of those, from one client address (IPv6: one /64).
    std::size_t maxConnectionsPerClient = 128;
    // The request line and all header lines together.
    std::size_t maxHeadBytes = 32 * 1024;
    // The whole head must arrive within this from its first byte.
    std::chrono::milliseconds headTime{10000};
    // The body must arrive within bodyTime plus one second per minBodyBytesPerSecond received.
    std::chrono::milliseconds bodyTime{30000};
    std::uint64_t minBodyBytesPerSecond = 16 * 1024;
    // A kept-alive connection with no new request is closed after this.
    std::chrono::milliseconds idleTime{2000};
    // One read or write that makes no progress for this long ends the connection.
    std::chrono::milliseconds stallTime{30000};
    std::size_t requestsPerConnection = 100;
};

class GuardedHttpServer : public httplib::Server {
public:
    explicit GuardedHttpServer(ConnectionLimits limits);
    ~GuardedHttpServer() override;

    // After stop() has ended the accept loop: closes the waiting connections, lets the running requests finish
    // and answer, and joins the threads. Safe to call more than once.
    void shutdownGate();
    // After binding: the kernel's queue of connections not yet accepted. httplib's own is 5, which a burst of
    // clients on a busy machine overflows, and each overflow costs a client a SYN retry of a second or more.
    void setListenBacklog(int connections);

    // The body of the request routed on the calling worker may hold this many bytes (transfer coding included).
    // `unhurried`: no deadline for the whole body, only the stall time per read (a live stream paced by a
    // speaker). A pre-routing handler sets it; without one a body may hold 100 MiB.
    static void allowBody(std::uint64_t bytes, bool unhurried = false);
    // Whether the body of the request on the calling worker was cut at its allowance.
    static bool bodyOverAllowance();

    std::size_t openConnections() const;

private:
    enum class Phase { head, idle, closing };
    struct Waiting {
        Phase phase;
        std::string client;
        int served;
        std::chrono::steady_clock::time_point since;
        std::chrono::steady_clock::time_point deadline;
        std::size_t drained = 0;
    };
    struct Ready {
        int fd;
        std::size_t headBytes;
        std::chrono::steady_clock::time_point headStart;
        std::string client;
        int served;
    };

    bool process_and_close_socket(socket_t sock) override;

    void admit(int fd);
    void roomLoop();
    void workerLoop();
    void serve(Ready ready);
    // Hands a connection to the waiting room: for its next request (`idle`) or to be closed gently.
    void toRoom(int fd, const std::string& client, int served, bool closing);
    void watch(int fd);
    void closeNow(int fd, const std::string& client);
    void wake();

    ConnectionLimits limits_;
    std::uint64_t defaultBodyAllowance_ = 100 * 1024 * 1024;
    int epoll_ = -1;
    int wakeFd_ = -1;

    mutable std::mutex mutex_;
    std::map<int, Waiting> room_;          // by fd, under mutex_
    std::deque<Ready> ready_;               // heads complete, waiting for a worker
    std::map<std::string, std::size_t> perClient_;
    std::size_t open_ = 0;
    std::condition_variable hasReady_;
    bool stopping_ = false;
    std::thread room_thread_;
    std::vector<std::thread> workers_;
    std::once_flag shutdownOnce_;
};

} // namespace sprelio::server

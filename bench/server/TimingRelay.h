#pragma once
// A TCP relay on loopback that passes bytes unchanged between a client and a server and notes when each piece went
// by, so that the time of one HTTP exchange can be cut into: before the first request byte (the client), the
// request on the wire, the server, the answer on the wire, after the last answer byte (the client again).
// Its own cost (one more loopback hop each way) is a few tens of microseconds.
#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace sprelio::server::bench {

class TimingRelay {
public:
    using Clock = std::chrono::steady_clock;

    struct Piece {
        int connection = 0;
        bool fromClient = false;
        Clock::time_point at;
        std::size_t bytes = 0;
        std::string head; // the first bytes of the piece, to find request lines and interim answers
    };

    // The moments of one request/answer exchange, found among the pieces.
    struct Exchange {
        Clock::time_point requestFirstByte;
        Clock::time_point requestLastByte;
        Clock::time_point answerFirstByte;
        Clock::time_point answerLastByte;
    };

    explicit TimingRelay(int targetPort);
    ~TimingRelay();
    TimingRelay(const TimingRelay&) = delete;
    TimingRelay& operator=(const TimingRelay&) = delete;

    int port() const { return port_; }
    void clear();
    // The first exchange whose request begins with `requestLinePrefix` at or after `after`.
    std::optional<Exchange> find(const std::string& requestLinePrefix, Clock::time_point after) const;

private:
    void acceptLoop();
    void pump(int connection, int clientFd);
    void note(int connection, bool fromClient, const char* data, std::size_t size);

    int targetPort_;
    int listenFd_ = -1;
    int port_ = 0;
    int stopPipe_[2] = {-1, -1};
    std::thread acceptor_;
    std::vector<std::thread> pumps_;
    mutable std::mutex mutex_;
    std::vector<Piece> pieces_;
};

} // namespace sprelio::server::bench

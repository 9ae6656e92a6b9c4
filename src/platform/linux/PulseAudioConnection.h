#pragma once
// One connection to the PulseAudio server (or pipewire-pulse) on its own thread. When the server goes away the
// connection retries in the background, so that the next recording works as soon as the server is back.
#include <pulse/pulseaudio.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace sprelio::platform {

class PulseAudioConnection {
public:
    explicit PulseAudioConnection(std::string applicationName = "Sprelio");
    ~PulseAudioConnection();
    PulseAudioConnection(const PulseAudioConnection&) = delete;
    PulseAudioConnection& operator=(const PulseAudioConnection&) = delete;

    // Holds the connection thread's lock: every pa_* call on the context and its streams runs under it.
    class Lock {
    public:
        explicit Lock(PulseAudioConnection& connection) : loop_(connection.loop_) { pa_threaded_mainloop_lock(loop_); }
        ~Lock() { pa_threaded_mainloop_unlock(loop_); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        pa_threaded_mainloop* loop_;
    };

    // Waits until the context is ready, starting a connection attempt at once when there is none under way.
    // Not on the connection's thread.
    bool waitUntilReady(std::chrono::milliseconds timeout);
    // Under the lock: the ready context, or nullptr.
    pa_context* readyContext() const;
    // Under the lock: counts the contexts made ready so far, so that holders of streams notice a new connection.
    std::uint64_t generation() const { return generation_; }
    bool onConnectionThread() const;
    pa_threaded_mainloop* mainloop() const { return loop_; }

    // Called on the connection's thread, under the lock, when the context becomes ready (true) or is lost (false).
    using StateListener = std::function<void(bool ready)>;
    int addStateListener(StateListener listener);
    void removeStateListener(int token);

    // Runs one operation that `issue` starts (under the lock, on the ready context) and waits, bounded, until
    // `isDone` holds. The operation's callback must set what isDone tests and call notify(). Returns false on a
    // time-out, a lost connection or an operation that couldn't start; the operation is then cancelled, so its
    // callback never runs later.
    bool runOperation(const std::function<pa_operation*(pa_context*)>& issue, const std::function<bool()>& isDone,
                      std::chrono::milliseconds timeout);
    // Waits until `isDone` (called under the lock) holds or the deadline passes; wakes on notify().
    bool waitUntil(const std::function<bool()>& isDone, std::chrono::steady_clock::time_point deadline);
    // Wakes runOperation() and waitUntil(); for callbacks on the connection's thread.
    void notify();

private:
    static void contextStateCallback(pa_context* context, void* userdata);
    static void retryCallback(pa_mainloop_api* api, pa_time_event* event, const struct timeval* tv, void* userdata);
    void connectLocked();
    void scheduleRetryLocked();
    void setState(bool ready, bool connecting);

    std::string applicationName_;
    pa_threaded_mainloop* loop_ = nullptr;
    pa_context* context_ = nullptr;
    pa_time_event* retryEvent_ = nullptr;
    std::uint64_t generation_ = 0;
    std::map<int, StateListener> listeners_;
    int nextToken_ = 1;

    mutable std::mutex stateMutex_;
    std::condition_variable stateChanged_;
    bool ready_ = false;
    bool connecting_ = false;
    std::uint64_t notifications_ = 0;
};

} // namespace sprelio::platform

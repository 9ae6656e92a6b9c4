#include "platform/linux/PulseAudioConnection.h"

#include <sys/time.h>

#include <stdexcept>
#include <vector>

#include "base/Log.h"

namespace sprelio::platform {

namespace {
// A local server that is down refuses at once, so a short pause between attempts costs nothing and brings the
// connection back soon after the server.
constexpr pa_usec_t kRetryMicroseconds = 200 * 1000;
} // namespace

PulseAudioConnection::PulseAudioConnection(std::string applicationName) : applicationName_(std::move(applicationName)) {
    loop_ = pa_threaded_mainloop_new();
    if (!loop_) throw std::runtime_error("pa_threaded_mainloop_new failed");
    pa_threaded_mainloop_set_name(loop_, "sprelio-pulse");
    if (pa_threaded_mainloop_start(loop_) < 0) {
        pa_threaded_mainloop_free(loop_);
        throw std::runtime_error("pa_threaded_mainloop_start failed");
    }
    Lock lock(*this);
    connectLocked();
}

PulseAudioConnection::~PulseAudioConnection() {
    {
        Lock lock(*this);
        listeners_.clear();
        if (retryEvent_) pa_threaded_mainloop_get_api(loop_)->time_free(retryEvent_);
        retryEvent_ = nullptr;
        if (context_) {
            pa_context_set_state_callback(context_, nullptr, nullptr);
            pa_context_disconnect(context_);
            pa_context_unref(context_);
            context_ = nullptr;
        }
    }
    pa_threaded_mainloop_stop(loop_);
    pa_threaded_mainloop_free(loop_);
}

bool PulseAudioConnection::onConnectionThread() const { return pa_threaded_mainloop_in_thread(loop_) != 0; }

pa_context* PulseAudioConnection::readyContext() const {
    if (context_ && pa_context_get_state(context_) == PA_CONTEXT_READY) return context_;
    return nullptr;
}

void PulseAudioConnection::setState(bool ready, bool connecting) {
    {
        std::lock_guard guard(stateMutex_);
        ready_ = ready;
        connecting_ = connecting;
    }
    stateChanged_.notify_all();
}

void PulseAudioConnection::connectLocked() {
    if (context_) return;
    pa_proplist* props = pa_proplist_new();
    pa_proplist_sets(props, PA_PROP_APPLICATION_NAME, applicationName_.c_str());
    pa_proplist_sets(props, PA_PROP_APPLICATION_ID, "sprelio");
    context_ = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(loop_), applicationName_.c_str(), props);
    pa_proplist_free(props);
    if (!context_) {
        scheduleRetryLocked();
        return;
    }
    pa_context_set_state_callback(context_, &PulseAudioConnection::contextStateCallback, this);
    setState(false, true);
    if (pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        // The state callback has seen FAILED already in most cases; make sure the attempt ends either way.
        if (context_) {
            pa_context_set_state_callback(context_, nullptr, nullptr);
            pa_context_unref(context_);
            context_ = nullptr;
        }
        setState(false, false);
        scheduleRetryLocked();
    }
}

void PulseAudioConnection::scheduleRetryLocked() {
    pa_mainloop_api* api = pa_threaded_mainloop_get_api(loop_);
    timeval when{};
    gettimeofday(&when, nullptr);
    pa_timeval_add(&when, kRetryMicroseconds);
    if (retryEvent_) {
        api->time_restart(retryEvent_, &when);
    } else {
        retryEvent_ = api->time_new(api, &when, &PulseAudioConnection::retryCallback, this);
    }
}

void PulseAudioConnection::retryCallback(pa_mainloop_api* api, pa_time_event* event, const struct timeval*,
                                         void* userdata) {
    auto* self = static_cast<PulseAudioConnection*>(userdata);
    api->time_free(event);
    self->retryEvent_ = nullptr;
    self->connectLocked();
}

void PulseAudioConnection::contextStateCallback(pa_context* context, void* userdata) {
    auto* self = static_cast<PulseAudioConnection*>(userdata);
    if (context != self->context_) return;
    switch (pa_context_get_state(context)) {
    case PA_CONTEXT_READY: {
        ++self->generation_;
        self->setState(true, false);
        logInfo("PulseAudioConnection - connected to " +
                std::string(pa_context_get_server(context) ? pa_context_get_server(context) : "(unknown)"));
        auto listeners = self->listeners_;
        for (auto& [token, listener] : listeners) listener(true);
        break;
    }
    case PA_CONTEXT_FAILED:
    case PA_CONTEXT_TERMINATED: {
        const bool wasReady = [&] {
            std::lock_guard guard(self->stateMutex_);
            return self->ready_;
        }();
        if (wasReady) {
            logWarning(std::string("PulseAudioConnection - connection lost: ") +
                       pa_strerror(pa_context_errno(context)));
        }
        pa_context_set_state_callback(context, nullptr, nullptr);
        pa_context_disconnect(context);
        pa_context_unref(context);
        self->context_ = nullptr;
        self->setState(false, false);
        if (wasReady) {
            auto listeners = self->listeners_;
            for (auto& [token, listener] : listeners) listener(false);
        }
        self->scheduleRetryLocked();
        break;
    }
    default:
        break;
    }
}

bool PulseAudioConnection::waitUntilReady(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    {
        std::lock_guard guard(stateMutex_);
        if (ready_) return true;
    }
    {
        // Between attempts: try now rather than wait for the retry timer.
        Lock lock(*this);
        if (!context_) {
            if (retryEvent_) {
                pa_threaded_mainloop_get_api(loop_)->time_free(retryEvent_);
                retryEvent_ = nullptr;
            }
            connectLocked();
        }
    }
    std::unique_lock guard(stateMutex_);
    // A refused attempt ends with connecting_ false; then waiting longer gains nothing.
    stateChanged_.wait_until(guard, deadline, [&] { return ready_ || !connecting_; });
    return ready_;
}

int PulseAudioConnection::addStateListener(StateListener listener) {
    Lock lock(*this);
    const int token = nextToken_++;
    listeners_[token] = std::move(listener);
    return token;
}

void PulseAudioConnection::removeStateListener(int token) {
    Lock lock(*this);
    listeners_.erase(token);
}

void PulseAudioConnection::notify() {
    {
        std::lock_guard guard(stateMutex_);
        ++notifications_;
    }
    stateChanged_.notify_all();
}

bool PulseAudioConnection::waitUntil(const std::function<bool()>& isDone,
                                     std::chrono::steady_clock::time_point deadline) {
    if (onConnectionThread()) return false;
    for (;;) {
        std::uint64_t seen = 0;
        {
            std::lock_guard guard(stateMutex_);
            seen = notifications_;
        }
        {
            Lock lock(*this);
            if (isDone()) return true;
        }
        std::unique_lock guard(stateMutex_);
        if (!stateChanged_.wait_until(guard, deadline, [&] { return notifications_ != seen; })) {
            guard.unlock();
            Lock lock(*this);
            return isDone();
        }
    }
}

bool PulseAudioConnection::runOperation(const std::function<pa_operation*(pa_context*)>& issue,
                                        const std::function<bool()>& isDone, std::chrono::milliseconds timeout) {
    if (onConnectionThread()) return false;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    if (!waitUntilReady(timeout)) return false;
    pa_operation* operation = nullptr;
    {
        Lock lock(*this);
        pa_context* context = readyContext();
        if (!context) return false;
        operation = issue(context);
        if (!operation) return false;
    }
    bool done = false;
    for (;;) {
        std::uint64_t seen = 0;
        {
            std::lock_guard guard(stateMutex_);
            seen = notifications_;
        }
        bool running = true;
        {
            Lock lock(*this);
            done = isDone();
            running = pa_operation_get_state(operation) == PA_OPERATION_RUNNING;
        }
        if (done || !running) break;
        std::unique_lock guard(stateMutex_);
        if (!stateChanged_.wait_until(guard, deadline, [&] { return notifications_ != seen || !ready_; })) break;
    }
    Lock lock(*this);
    if (!done) {
        done = isDone();
        if (!done) pa_operation_cancel(operation);
    }
    pa_operation_unref(operation);
    return done;
}

} // namespace sprelio::platform

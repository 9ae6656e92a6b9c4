#pragma once
// One connection to the X server for one adapter, with a reader thread that hands every event to the adapter.
//
// Every Xlib call on the connection happens under its lock, from whichever thread. A round trip made by another
// thread can read events off the socket into Xlib's own queue, where poll() would never see them; releasing the
// lock therefore wakes the reader, and the reader drains Xlib's queue before it waits on the socket again.
#include <X11/Xlib.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/X11Atoms.h"

namespace sprelio::platform::x11 {

class Connection {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    class Client {
    public:
        virtual ~Client() = default;
        // On the reader thread, with the connection locked.
        virtual void handleEvent(XEvent& event) = 0;
        // When handleDeadline() is next due; none for no deadline. Asked with the connection locked.
        virtual std::optional<TimePoint> nextDeadline() const { return std::nullopt; }
        virtual void handleDeadline(TimePoint /*now*/) {}
    };

    // Connects to the display named (empty: $DISPLAY); `adapterName` starts the log lines.
    Connection(const std::string& displayName, std::string adapterName);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Open and not lost.
    bool isOpen() const { return display_ && !dead_; }
    // Only under lock().
    Display* display() const { return display_; }
    Window root() const { return root_; }
    // Only under lock(), on an open connection. Interned on first use, once for the connection.
    const Atoms& atoms() const;

    // Starts the reader thread. `client` must stay alive until stop() (or the destructor) returns.
    void start(Client& client);
    // Stops and joins the reader thread. Idempotent.
    void stop();

    class Lock {
    public:
        explicit Lock(Connection& connection) : connection_(connection), lock_(connection.mutex_) {}
        ~Lock() {
            if (lock_.owns_lock()) unlock();
        }
        // Lets other threads in for a while (a long burst, a pause).
        void unlock() {
            lock_.unlock();
            connection_.wake();
        }
        void relock() { lock_.lock(); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        Connection& connection_;
        std::unique_lock<std::mutex> lock_;
    };
    Lock lock() { return Lock(*this); }
    // Makes the reader look at Xlib's queue and its client's deadline again.
    void wake() const;

    // Called once, on whichever thread noticed, when the server goes away. Not locked.
    void setConnectionLostHandler(std::function<void()> handler) { lostHandler_ = std::move(handler); }

private:
    void readerLoop(Client& client);
    static void onConnectionLost(Display*, void* self);

    std::string name_;
    Display* display_ = nullptr;
    Window root_ = 0;
    mutable std::optional<Atoms> atoms_;
    std::mutex mutex_;
    std::atomic<bool> dead_{false};
    std::atomic<bool> stopping_{false};
    int wakePipe_[2] = {-1, -1};
    std::thread reader_;
    std::function<void()> lostHandler_;
};

// Reads a whole property; the data comes back as bytes (format 8), longs (format 32, as `long` per item, the Xlib
// convention) or shorts. Nothing when the property does not exist, the window is gone, or the property holds data
// of another type than the one asked for.
struct Property {
    Atom type = None;
    int format = 0;
    unsigned long items = 0;
    std::string bytes; // format 8
    std::vector<long> longs; // format 32
};
std::optional<Property> readProperty(Display* display, Window window, Atom property, bool remove = false,
                                     Atom type = AnyPropertyType);
// A UTF-8 or Latin-1 text property (UTF8_STRING, STRING, COMPOUND_TEXT of Latin-1) as UTF-8.
std::optional<std::string> readTextProperty(Display* display, Window window, Atom property);
std::optional<unsigned long> readCardinal(Display* display, Window window, Atom property);
// Whether the server answers clientProcess(): the X-Resource extension, 1.2 or later.
bool hasClientProcesses(Display* display);
// The process of the client that created the window, from the X-Resource extension (which the caller has checked
// with hasClientProcesses); nothing for a remote client or a window that is gone.
std::optional<pid_t> clientProcess(Display* display, Window window);

std::string latin1ToUtf8(const std::string& latin1);
// Characters outside Latin-1 become '?'.
std::string utf8ToLatin1(const std::string& utf8);

} // namespace sprelio::platform::x11

#include "platform/linux/X11Connection.h"

#include <X11/Xatom.h>
// XRes.h uses Xlib types without including Xlib.h.
#include <X11/Xlib.h>
#include <X11/extensions/XRes.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>

#include "base/Log.h"
#include "platform/linux/X11Errors.h"

namespace sprelio::platform::x11 {

Connection::Connection(const std::string& displayName, std::string adapterName) : name_(std::move(adapterName)) {
    installErrorHandlers();
    display_ = XOpenDisplay(displayName.empty() ? nullptr : displayName.c_str());
    if (!display_) {
        dead_ = true;
        logError(name_ + " - cannot open the X display " + (displayName.empty() ? "$DISPLAY" : displayName));
        return;
    }
    XSetIOErrorExitHandler(display_, &Connection::onConnectionLost, this);
    root_ = DefaultRootWindow(display_);
    if (::pipe2(wakePipe_, O_CLOEXEC | O_NONBLOCK) != 0) {
        logError(name_ + " - cannot create the wake-up pipe");
        wakePipe_[0] = wakePipe_[1] = -1;
    }
}

Connection::~Connection() {
    stop();
    // A connection that died stays open: Xlib must not touch its socket again.
    if (display_ && !dead_) XCloseDisplay(display_);
    for (int fd : wakePipe_)
        if (fd >= 0) ::close(fd);
}

const Atoms& Connection::atoms() const {
    if (!atoms_) atoms_ = Atoms::intern(display_);
    return *atoms_;
}

void Connection::start(Client& client) {
    if (!isOpen() || wakePipe_[0] < 0 || reader_.joinable()) return;
    reader_ = std::thread([this, &client] { readerLoop(client); });
}

void Connection::stop() {
    stopping_ = true;
    wake();
    if (reader_.joinable()) reader_.join();
}

void Connection::wake() const {
    if (wakePipe_[1] >= 0) {
        const char byte = 1;
        [[maybe_unused]] auto written = ::write(wakePipe_[1], &byte, 1);
    }
}

void Connection::readerLoop(Client& client) {
    while (!stopping_ && !dead_) {
        int timeoutMs = -1;
        {
            std::lock_guard lock(mutex_);
            while (!dead_ && !stopping_ && XPending(display_) > 0) {
                XEvent event;
                XNextEvent(display_, &event);
                client.handleEvent(event);
            }
            if (dead_ || stopping_) break;
            const auto now = std::chrono::steady_clock::now();
            if (auto due = client.nextDeadline(); due && *due <= now) {
                client.handleDeadline(now);
                continue; // the deadline's work may have queued events or set a new deadline
            }
            // Events a round trip of the handlers read into Xlib's queue are not on the socket any more.
            if (XEventsQueued(display_, QueuedAlready) > 0) continue;
            if (auto due = client.nextDeadline()) {
                const auto left = std::chrono::ceil<std::chrono::milliseconds>(*due - now).count();
                timeoutMs = static_cast<int>(std::clamp<long long>(left, 0, 60'000));
            }
        }
        pollfd fds[2] = {{ConnectionNumber(display_), POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
        if (::poll(fds, 2, timeoutMs) < 0) continue;
        if (fds[1].revents & POLLIN) {
            char buffer[64];
            while (::read(wakePipe_[0], buffer, sizeof buffer) > 0) {
            }
        }
    }
}

void Connection::onConnectionLost(Display*, void* self) {
    auto* connection = static_cast<Connection*>(self);
    if (connection->dead_.exchange(true)) return;
    logError(connection->name_ + " - the connection to the X server was lost");
    if (connection->lostHandler_) connection->lostHandler_();
}

std::optional<Property> readProperty(Display* display, Window window, Atom property, bool remove, Atom type) {
    Property result;
    std::string bytes;
    long offset = 0;
    for (;;) {
        Atom actualType = None;
        int actualFormat = 0;
        unsigned long items = 0, after = 0;
        unsigned char* data = nullptr;
        // Read in slices so that a large property never needs one giant reply buffer.
        constexpr long kSliceLongs = 1 << 20;
        auto errors = checked(display, [&] {
            XGetWindowProperty(display, window, property, offset, kSliceLongs, False, type, &actualType,
                               &actualFormat, &items, &after, &data);
        });
        if (!errors.empty() || actualType == None) {
            if (data) XFree(data);
            return std::nullopt;
        }
        result.type = actualType;
        result.format = actualFormat;
        result.items += items;
        if (data) {
            if (actualFormat == 8) {
                result.bytes.append(reinterpret_cast<const char*>(data), items);
            } else if (actualFormat == 32) {
                const long* values = reinterpret_cast<const long*>(data);
                result.longs.insert(result.longs.end(), values, values + items);
            } else if (actualFormat == 16) {
                const short* values = reinterpret_cast<const short*>(data);
                for (unsigned long i = 0; i < items; ++i) result.longs.push_back(values[i]);
            }
            XFree(data);
        }
        if (after == 0) break;
        // A property of another type than the one asked for answers with its length and no data, and would answer
        // the same again and again.
        if (items == 0) return std::nullopt;
        offset += static_cast<long>(items * static_cast<unsigned long>(actualFormat) / 32);
    }
    if (remove) XDeleteProperty(display, window, property);
    return result;
}

std::optional<std::string> readTextProperty(Display* display, Window window, Atom property) {
    auto value = readProperty(display, window, property);
    if (!value || value->format != 8) return std::nullopt;
    if (value->type == XA_STRING) return latin1ToUtf8(value->bytes);
    return value->bytes;
}

std::optional<unsigned long> readCardinal(Display* display, Window window, Atom property) {
    auto value = readProperty(display, window, property, false, XA_CARDINAL);
    if (!value || value->format != 32 || value->longs.empty()) return std::nullopt;
    return static_cast<unsigned long>(value->longs.front());
}

bool hasClientProcesses(Display* display) {
    int event = 0, error = 0, major = 1, minor = 2;
    return XResQueryExtension(display, &event, &error) && XResQueryVersion(display, &major, &minor) &&
           (major > 1 || (major == 1 && minor >= 2));
}

std::optional<pid_t> clientProcess(Display* display, Window window) {
    XResClientIdSpec query{window, XRES_CLIENT_ID_PID_MASK};
    long count = 0;
    XResClientIdValue* values = nullptr;
    checked(display, [&] {
        if (XResQueryClientIds(display, 1, &query, &count, &values) != Success) values = nullptr;
    });
    std::optional<pid_t> pid;
    if (values) {
        for (long i = 0; i < count; ++i)
            if (pid_t p = XResGetClientPid(&values[i]); p > 0) pid = p;
        XResClientIdsDestroy(count, values);
    }
    return pid;
}

std::string latin1ToUtf8(const std::string& latin1) {
    std::string out;
    out.reserve(latin1.size());
    for (unsigned char c : latin1) {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::string utf8ToLatin1(const std::string& utf8) {
    std::string out;
    out.reserve(utf8.size());
    for (std::size_t i = 0; i < utf8.size();) {
        const auto c = static_cast<unsigned char>(utf8[i]);
        if (c < 0x80) {
            out += static_cast<char>(c);
            ++i;
            continue;
        }
        std::size_t length = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 1;
        if (length == 2 && i + 1 < utf8.size()) {
            const unsigned value = ((c & 0x1Fu) << 6) | (static_cast<unsigned char>(utf8[i + 1]) & 0x3Fu);
            out += value <= 0xFF ? static_cast<char>(value) : '?';
        } else {
            out += '?';
        }
        i += std::min(length, utf8.size() - i);
    }
    return out;
}

} // namespace sprelio::platform::x11

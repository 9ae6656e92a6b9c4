#pragma once
// A private X server for a test: Xvfb on a free display number, openbox when the test needs a window manager
// (the active window, activation requests), commands such as xdotool and setxkbmap against it, and our own test
// application (tests/helpers/TestXClient.cpp) that records what it receives. Everything is stopped and removed
// when the objects go; waits are on conditions with a deadline.
#include <X11/Xatom.h>
#include <X11/Xlib.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/loop/RealTimeLoop.h"
#include "platform/test/TemporaryFolder.h"

namespace sprelio::x11test {

using namespace std::chrono_literals;

// Polls a condition until it holds or the deadline passes.
template <typename F>
bool waitFor(F&& condition, std::chrono::milliseconds timeout = 5000ms) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

// Runs the loop until a condition on the world outside it holds (a file, another process): the loop is woken every
// few milliseconds to look, since nothing it runs would tell.
inline bool spinUntil(platform::RealTimeLoop& loop, const std::function<bool()>& condition,
                      std::chrono::milliseconds timeout = 10000ms) {
    auto active = std::make_shared<bool>(true);
    auto tick = std::make_shared<std::function<void()>>();
    std::weak_ptr<std::function<void()>> weak = tick;
    *tick = [&loop, active, weak] {
        if (!*active) return;
        if (auto self = weak.lock()) loop.postAfter(std::chrono::milliseconds(5), [self] { (*self)(); });
    };
    (*tick)();
    const bool held = loop.runUntil(condition, timeout);
    *active = false;
    return held;
}

inline bool pathExists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// Starts a program with its output thrown away; the pid, or -1.
inline pid_t spawn(const std::vector<std::string>& arguments, const std::string& display, int stdinFd = -1) {
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    const int devnull = ::open("/dev/null", O_RDWR);
    if (stdinFd >= 0) ::dup2(stdinFd, 0);
    else if (devnull >= 0) ::dup2(devnull, 0);
    if (devnull >= 0) {
        ::dup2(devnull, 1);
        ::dup2(devnull, 2);
    }
    if (!display.empty()) ::setenv("DISPLAY", display.c_str(), 1);
    std::vector<char*> argv;
    for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
}

inline void stopProcess(pid_t& pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGTERM);
    int status = 0;
    ::waitpid(pid, &status, 0);
    pid = -1;
}

class XServer {
public:
    XServer() {
        XInitThreads(); // before the first connection of the process, as the adapters' own threads need
        // Xvfb picks a free display number itself and writes it to the pipe once it listens: tests that run in
        // parallel never race for the same number.
        int fds[2];
        if (::pipe(fds) != 0) return;
        ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
        xvfb_ = spawn({"Xvfb", "-displayfd", std::to_string(fds[1]), "-nolisten", "tcp", "-screen", "0",
                       "1280x800x24"},
                      "");
        ::close(fds[1]);
        std::string number;
        waitFor([&] {
            pollfd pfd{fds[0], POLLIN, 0};
            if (::poll(&pfd, 1, 0) <= 0) return false;
            char c = 0;
            while (::read(fds[0], &c, 1) == 1) {
                if (c == '\n') return true;
                number += c;
            }
            return true; // the end of the pipe: Xvfb is gone or done writing
        }, 10000ms);
        ::close(fds[0]);
        if (number.empty()) return;
        number_ = std::stoi(number);
        name_ = ":" + number;
        ready_ = waitFor([&] {
            if (!pathExists("/tmp/.X11-unix/X" + std::to_string(number_))) return false;
            // The connection stays open: Xvfb resets itself when its last client leaves, and refuses connections
            // while it does.
            keeper_ = XOpenDisplay(name_.c_str());
            return keeper_ != nullptr;
        }, 10000ms);
    }
    ~XServer() { stop(); }
    XServer(const XServer&) = delete;
    XServer& operator=(const XServer&) = delete;

    bool ready() const { return ready_; }
    const std::string& name() const { return name_; }

    // openbox, up once it has announced itself on the root window and manages new windows (it holds the root
    // window's redirection), so that a window mapped from then on is framed and can be activated.
    bool startWindowManager() {
        windowManager_ = spawn({"openbox", "--sm-disable"}, name_);
        return waitFor([&] { return windowManagerRuns(); }, 10000ms) && windowManagerMapsWindows();
    }
    // openbox announces itself before it has finished starting, and a window mapped in between may never be
    // managed: a probe window is mapped (again if need be) until openbox has put it on the screen.
    bool windowManagerMapsWindows() {
        Display* d = XOpenDisplay(name_.c_str());
        if (!d) return false;
        const Window probe = XCreateSimpleWindow(d, DefaultRootWindow(d), 0, 0, 10, 10, 0, 0, 0);
        XSelectInput(d, probe, StructureNotifyMask);
        bool mapped = false;
        for (int attempt = 0; attempt < 10 && !mapped; ++attempt) {
            XMapWindow(d, probe);
            XFlush(d);
            mapped = waitFor([&] {
                while (XPending(d)) {
                    XEvent event;
                    XNextEvent(d, &event);
                    if (event.type == MapNotify) return true;
                }
                return false;
            }, 1000ms);
            if (!mapped) {
                XUnmapWindow(d, probe);
                XSync(d, False);
            }
        }
        XDestroyWindow(d, probe);
        XCloseDisplay(d);
        return mapped;
    }
    bool windowManagerRuns() {
        Display* d = XOpenDisplay(name_.c_str());
        if (!d) return false;
        Atom type = None;
        int format = 0;
        unsigned long items = 0, after = 0;
        unsigned char* data = nullptr;
        XGetWindowProperty(d, DefaultRootWindow(d), XInternAtom(d, "_NET_SUPPORTING_WM_CHECK", False), 0, 1, False,
                           XA_WINDOW, &type, &format, &items, &after, &data);
        XWindowAttributes root{};
        XGetWindowAttributes(d, DefaultRootWindow(d), &root);
        const bool runs = data && items == 1 && (root.all_event_masks & SubstructureRedirectMask);
        if (data) XFree(data);
        XCloseDisplay(d);
        return runs;
    }

    void stop() {
        stopProcess(windowManager_);
        if (keeper_) {
            XCloseDisplay(keeper_);
            keeper_ = nullptr;
        }
        stopProcess(xvfb_);
    }

    // Runs a shell command against this display; true when it exited with 0.
    bool run(const std::string& command) const {
        const std::string line = "DISPLAY=" + name_ + " " + command + " >/dev/null 2>&1";
        return std::system(line.c_str()) == 0;
    }
    // The same, with its standard output.
    std::string output(const std::string& command) const {
        std::string result;
        const std::string line = "DISPLAY=" + name_ + " " + command + " 2>/dev/null";
        if (FILE* pipe = ::popen(line.c_str(), "r")) {
            char buffer[4096];
            std::size_t n;
            while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) result.append(buffer, n);
            ::pclose(pipe);
        }
        return result;
    }

private:
    int number_ = -1;
    pid_t xvfb_ = -1;
    pid_t windowManager_ = -1;
    bool ready_ = false;
    std::string name_;
    Display* keeper_ = nullptr;
};

#ifdef SPRELIO_TEST_XCLIENT // the binaries that start our test application have its path
// Our test application, on its own process. See tests/helpers/TestXClient.cpp.
class TestClient {
public:
    struct Options {
        std::string className = "sprelio-test-client";
        std::string title = "Sprelio test client";
        std::string applicationId;
        bool terminal = false;
        std::string primary;
    };

    TestClient(const XServer& server, Options options) : folder_("sprelio-xclient") {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) return;
        commands_ = fds[1];
        std::vector<std::string> args = {SPRELIO_TEST_XCLIENT, "--display", server.name(), "--out",
                                         folder_.path().string(), "--class", options.className, "--title",
                                         options.title};
        if (!options.applicationId.empty()) args.insert(args.end(), {"--application-id", options.applicationId});
        if (options.terminal) args.push_back("--terminal");
        if (!options.primary.empty()) args.insert(args.end(), {"--primary", options.primary});
        pid_ = spawn(args, server.name(), fds[0]);
        ::close(fds[0]);
    }
    ~TestClient() {
        if (commands_ >= 0) ::close(commands_); // end of input ends the client as "quit" would
        if (pid_ > 0) {
            if (!waitFor([&] { return ::waitpid(pid_, nullptr, WNOHANG) == pid_; }, 2000ms)) stopProcess(pid_);
            pid_ = -1;
        }
    }
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    pid_t pid() const { return pid_; }
    // Mapped and focused.
    bool waitUntilFocused(std::chrono::milliseconds timeout = 10000ms) const {
        return waitFor([&] { return pathExists((folder_.path() / "ready").string()); }, timeout);
    }
    // Its log so far, for failure messages.
    std::string describe() const { return readFile(folder_.path() / "keys"); }
    void command(const std::string& line) {
        const std::string text = line + "\n";
        [[maybe_unused]] auto written = ::write(commands_, text.data(), text.size());
    }
    void clearFocusMark() { std::filesystem::remove(folder_.path() / "ready"); }
    // Everything typed or pasted into it so far, and its size in bytes (cheap to ask often).
    std::string text() const { return readFile(folder_.path() / "text"); }
    std::uintmax_t textSize() const {
        std::error_code error;
        const auto size = std::filesystem::file_size(folder_.path() / "text", error);
        return error ? 0 : size;
    }
    bool waitForText(const std::string& expected, std::chrono::milliseconds timeout = 10000ms) const {
        return waitFor([&] { return text() == expected; }, timeout);
    }
    // The key log, one event per line: "press <keycode> <keysym> <state hex> <text hex>".
    std::vector<std::string> keyLines() const {
        std::vector<std::string> lines;
        std::istringstream in(readFile(folder_.path() / "keys"));
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }
    // The presses of a keysym, as their modifier state.
    std::vector<unsigned> pressStates(const std::string& keysym) const {
        std::vector<unsigned> states;
        for (const auto& line : keyLines()) {
            std::istringstream in(line);
            std::string kind, name, state;
            unsigned keycode = 0;
            if (!(in >> kind >> keycode >> name >> state) || kind != "press" || name != keysym) continue;
            states.push_back(static_cast<unsigned>(std::stoul(state, nullptr, 16)));
        }
        return states;
    }

private:
    platform::test::TemporaryFolder folder_;
    pid_t pid_ = -1;
    int commands_ = -1;
};
#endif

} // namespace sprelio::x11test

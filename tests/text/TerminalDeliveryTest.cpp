// A dictation into each real terminal emulator, as a user has it: the Debian program on its own X server with a
// window manager, a private session bus, software GL, default settings (an empty home), and a program inside
// that writes every byte it receives to a file. The text must arrive whole, and the clipboard and the primary
// selection must hold the user's own texts afterwards. A terminal that is not installed is skipped.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <X11/Xutil.h>

#include "platform/X11TestSupport.h"
#include "text/RecordingMessages.h"
#include "text/TerminalPasteRoutes.h"
#include "text/X11TextDeliveryStack.h"

using namespace std::chrono_literals;
using namespace sprelio;
using x11test::XServer;

namespace {

const std::string kDictated = "naïve café — 東京";
constexpr const char* kReaderMark = "{reader}";

struct Terminal {
    std::string program; // the executable, looked up on PATH
    std::string package; // the Debian package that has it
    std::string windowClass;
    // The command line; the argument kReaderMark is the shell command that records what arrives, and an argument
    // that only contains it is quoted into it.
    std::vector<std::string> command;
};

void PrintTo(const Terminal& terminal, std::ostream* out) { *out << terminal.program; }

const std::vector<Terminal> kTerminals = {
    {"xterm", "xterm", "XTerm", {"xterm", "-e", "sh", "-c", kReaderMark}},
    {"uxterm", "xterm", "UXTerm", {"uxterm", "-e", "sh", "-c", kReaderMark}},
    {"urxvt", "rxvt-unicode", "URxvt", {"urxvt", "-e", "sh", "-c", kReaderMark}},
    {"mlterm", "mlterm", "mlterm", {"mlterm", "-e", "sh", "-c", kReaderMark}},
    {"stterm", "stterm", "st-256color", {"stterm", "-e", "sh", "-c", kReaderMark}},
    {"kitty", "kitty", "kitty", {"kitty", "sh", "-c", kReaderMark}},
    {"alacritty", "alacritty", "Alacritty", {"alacritty", "-e", "sh", "-c", kReaderMark}},
    {"qterminal", "qterminal", "qterminal", {"qterminal", "-e", "sh -c '{reader}'"}},
    {"konsole", "konsole", "konsole", {"konsole", "--separate", "-e", "sh", "-c", kReaderMark}},
    {"gnome-terminal", "gnome-terminal", "Gnome-terminal", {"gnome-terminal", "--wait", "--", "sh", "-c", kReaderMark}},
    {"tilix", "tilix", "Tilix", {"tilix", "-e", "sh -c '{reader}'"}},
    {"terminator", "terminator", "Terminator", {"terminator", "-x", "sh", "-c", kReaderMark}},
    {"xfce4-terminal", "xfce4-terminal", "Xfce4-terminal",
     {"xfce4-terminal", "--disable-server", "-x", "sh", "-c", kReaderMark}},
    {"mate-terminal", "mate-terminal", "Mate-terminal",
     {"mate-terminal", "--disable-factory", "-x", "sh", "-c", kReaderMark}},
    {"lxterminal", "lxterminal", "Lxterminal", {"lxterminal", "--no-remote", "-e", "sh -c '{reader}'"}},
    {"sakura", "sakura", "Sakura", {"sakura", "-x", "sh -c '{reader}'"}},
    {"kgx", "gnome-console", "kgx", {"kgx", "-e", "sh -c '{reader}'"}},
};

bool onPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::istringstream folders(path ? path : "/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (!folder.empty() && ::access((folder + "/" + program).c_str(), X_OK) == 0) return true;
    return false;
}

// One terminal on its own process group, under a private session bus; everything in the group goes with it.
class RunningTerminal {
public:
    RunningTerminal(const Terminal& terminal, const std::string& display, const std::filesystem::path& folder)
        : output_(folder / "received"), log_(folder / "terminal.log") {
        const std::string reader = "stty raw -echo; exec cat > " + output_.string();
        std::vector<std::string> arguments = {"dbus-run-session", "--"};
        for (auto argument : terminal.command) {
            if (const auto at = argument.find(kReaderMark); at != std::string::npos)
                argument.replace(at, std::string(kReaderMark).size(), reader);
            arguments.push_back(argument);
        }
        const auto home = folder / "home";
        std::filesystem::create_directories(home);
        std::filesystem::permissions(home, std::filesystem::perms::owner_all);
        // The program's defaults, not a user's settings: an empty home; software GL for the GL terminals.
        const std::map<std::string, std::string> overrides = {
            {"DISPLAY", display},
            {"HOME", home.string()},
            {"XDG_CONFIG_HOME", (home / ".config").string()},
            {"XDG_CACHE_HOME", (home / ".cache").string()},
            {"XDG_DATA_HOME", (home / ".local/share").string()},
            {"XDG_RUNTIME_DIR", home.string()},
            {"LANG", "C.UTF-8"},
            {"LC_ALL", "C.UTF-8"},
            {"LIBGL_ALWAYS_SOFTWARE", "1"},
            {"NO_AT_BRIDGE", "1"},
        };
        std::vector<std::string> environment;
        for (char** e = environ; *e; ++e) {
            const std::string entry = *e;
            const std::string name = entry.substr(0, entry.find('='));
            if (!overrides.count(name) && name != "DBUS_SESSION_BUS_ADDRESS" && name != "WAYLAND_DISPLAY")
                environment.push_back(entry);
        }
        for (const auto& [name, value] : overrides) environment.push_back(name + "=" + value);
        std::vector<char*> argv, envp;
        for (auto& a : arguments) argv.push_back(a.data());
        argv.push_back(nullptr);
        for (auto& e : environment) envp.push_back(e.data());
        envp.push_back(nullptr);
        // Only async-signal-safe calls after the fork: the test process has threads.
        pid_ = ::fork();
        if (pid_ != 0) return;
        ::setsid();
        const int logFd = ::open(log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int devnull = ::open("/dev/null", O_RDONLY);
        ::dup2(devnull, 0);
        ::dup2(logFd, 1);
        ::dup2(logFd, 2);
        ::execvpe(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    ~RunningTerminal() {
        if (pid_ <= 0) return;
        ::kill(-pid_, SIGTERM);
        if (!x11test::waitFor([&] { return ::waitpid(pid_, nullptr, WNOHANG) == pid_; }, 3000ms)) {
            ::kill(-pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        // Whatever of the group outlived its leader (a bus-activated server) goes too.
        if (!x11test::waitFor([&] { return ::kill(-pid_, 0) != 0; }, 2000ms)) ::kill(-pid_, SIGKILL);
    }
    RunningTerminal(const RunningTerminal&) = delete;
    RunningTerminal& operator=(const RunningTerminal&) = delete;

    // The program inside has started and reads raw bytes.
    bool readerRuns() const { return x11test::pathExists(output_.string()); }
    std::string received() const { return x11test::readFile(output_); }
    std::string log() const { return x11test::readFile(log_); }

private:
    std::filesystem::path output_, log_;
    pid_t pid_ = -1;
};

class TerminalDeliveryTest : public ::testing::TestWithParam<Terminal> {
protected:
    void SetUp() override {
        if (!onPath(GetParam().program))
            GTEST_SKIP() << GetParam().program << " is not installed (Debian package " << GetParam().package << ")";
        if (!onPath("dbus-run-session")) GTEST_SKIP() << "dbus-run-session is not installed (package dbus-daemon)";
        ASSERT_TRUE(server.ready()) << "Xvfb did not start";
        ASSERT_TRUE(server.startWindowManager()) << "openbox did not start";
        delivery.start(server.name());
    }

    bool spinUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
        return x11test::spinUntil(delivery.loop, condition, timeout);
    }
    // The window class of the window that has the keyboard focus (the window manager marks a window active a
    // moment before the focus is in it).
    std::string focusedClass() {
        Display* d = XOpenDisplay(server.name().c_str());
        if (!d) return {};
        Window window = None;
        int revert = 0;
        XGetInputFocus(d, &window, &revert);
        std::string found;
        while (window != None && window != PointerRoot && found.empty()) {
            XClassHint hint{};
            if (XGetClassHint(d, window, &hint)) {
                if (hint.res_class) found = hint.res_class;
                if (hint.res_name) XFree(hint.res_name);
                if (hint.res_class) XFree(hint.res_class);
            }
            Window root = None, parent = None, *children = nullptr;
            unsigned count = 0;
            if (!XQueryTree(d, window, &root, &parent, &children, &count)) break;
            if (children) XFree(children);
            window = parent == root ? None : parent;
        }
        XCloseDisplay(d);
        return found;
    }
    std::string selection(const std::string& name) {
        return server.output("xclip -selection " + name + " -o -t UTF8_STRING");
    }
    // Another program holds the selection with this text.
    bool otherProgramSelects(const std::string& name, const std::string& text) {
        const auto file = files.path() / name;
        std::ofstream(file, std::ios::binary) << text;
        return server.run("xclip -selection " + name + " -i " + file.string()) &&
               spinUntil([&] { return selection(name) == text; }, 5000ms);
    }

    XServer server;
    texttest::X11TextDeliveryStack delivery;
    platform::test::TemporaryFolder files{"sprelio-terminal"};
};

TEST_P(TerminalDeliveryTest, DictationArrivesWholeAndTheUsersSelectionsAreLeftAsTheyWere) {
    const Terminal& terminal = GetParam();
    const auto rule = terminalPasteRule(terminal.windowClass);
    ASSERT_TRUE(rule) << terminal.windowClass << " is not known as a terminal";
    texttest::RecordingMessages messages;
    delivery.controller->setMessages(&messages);

    RunningTerminal running(terminal, server.name(), files.path());
    ASSERT_TRUE(spinUntil([&] { return running.readerRuns(); }, 60000ms)) << running.log();
    ASSERT_TRUE(spinUntil(
        [&] {
            const auto front = delivery.workspace->frontmostApplication();
            return front && front->localizedName == terminal.windowClass;
        },
        30000ms))
        << "in front: " << (delivery.workspace->frontmostApplication() ? delivery.workspace->frontmostApplication()->description() : "")
        << "\n" << running.log();
    ASSERT_TRUE(spinUntil([&] { return focusedClass() == terminal.windowClass; }, 10000ms)) << focusedClass();
    // A terminal can drop the first keys it is sent while its new window settles: a harmless key is sent until
    // one reaches the program inside. What arrives after that is the dictation.
    auto nextProbe = std::chrono::steady_clock::now();
    ASSERT_TRUE(spinUntil(
        [&] {
            if (!running.received().empty()) return true;
            if (std::chrono::steady_clock::now() >= nextProbe) {
                server.run("xdotool key period");
                nextProbe = std::chrono::steady_clock::now() + 1s;
            }
            return false;
        },
        20000ms))
        << "no key reached the program inside\n" << running.log();
    ASSERT_TRUE(otherProgramSelects("clipboard", "the user's clipboard: Grüße"));
    ASSERT_TRUE(otherProgramSelects("primary", "the user's selection: 日本"));

    delivery.controller->injectTextViaPaste(kDictated, std::nullopt);

    // The probe keys, then the dictation whole.
    const auto dictationArrived = [&] {
        const std::string received = running.received();
        const auto probes = received.find_first_not_of('.');
        return probes != std::string::npos && probes > 0 && received.substr(probes) == kDictated;
    };
    if (rule->confirmed) {
        EXPECT_TRUE(spinUntil(dictationArrived, 20000ms))
            << "received: \"" << running.received() << "\"\n" << running.log();
        EXPECT_TRUE(spinUntil([&] { return selection("clipboard") == "the user's clipboard: Grüße"; }, 5000ms))
            << selection("clipboard");
        // Nothing more arrived while the clipboard was put back (a second paste, a stray ^V).
        EXPECT_TRUE(dictationArrived()) << running.received();
        EXPECT_TRUE(messages.shown.empty());
    } else {
        // Not counted on: the user is told, and the text is on the clipboard to paste by hand.
        EXPECT_TRUE(spinUntil([&] { return !messages.shown.empty(); }, 5000ms));
        EXPECT_EQ(selection("clipboard"), kDictated);
    }
    EXPECT_EQ(selection("primary"), "the user's selection: 日本");
}

INSTANTIATE_TEST_SUITE_P(Terminals, TerminalDeliveryTest, ::testing::ValuesIn(kTerminals),
                         [](const ::testing::TestParamInfo<Terminal>& row) {
                             std::string name = row.param.program;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

} // namespace

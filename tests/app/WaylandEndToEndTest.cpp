// Dictation into a native Wayland application, as a user of sway has it: a headless sway (run, like everything of
// the user's, as an unprivileged user), Sprelio started from sway's configuration with its windows on sway's
// Xwayland, its own PulseAudio daemon fed festival speech and the embedded server. A sway key binding runs
// `sprelio shortcuts tap`; the words arrive in a Qt line edit on Qt's Wayland platform, pasted through wl-copy and
// wtype, and the clipboard holds the user's own text again afterwards.
#include <gtest/gtest.h>

#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>

#include "SprelioAppProcess.h"
#include "helpers/WordAccuracy.h"
#include "platform/X11TestSupport.h"
#include "platform/test/TemporaryFolder.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using audio_test::FifoFeeder;
using audio_test::PulseDaemon;

constexpr const char* kSentence = "hello this is a test of dictation";
constexpr const char* kRecordingStarted = "- preparing finished in";
constexpr const char* kFormerClipboard = "the user's own clipboard text";
constexpr const char* kUser = "nobody";

std::string quoted(const std::string& text) { return audio_test::shellQuoted(text); }

void giveTo(const fs::path& root, uid_t uid, gid_t gid) {
    ::chown(root.c_str(), uid, gid);
    for (const auto& entry : fs::recursive_directory_iterator(root)) ::lchown(entry.path().c_str(), uid, gid);
}

class WaylandEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        const passwd* user = ::getpwnam(kUser);
        ASSERT_NE(user, nullptr) << "no user \"" << kUser << "\" to run the session as";
        ASSERT_NO_THROW(pulse.start());
        // The session's user reaches the daemon's socket, as a user's own daemon would be reachable.
        for (auto dir = pulse.socket().parent_path(); dir != dir.root_path() && dir != fs::temp_directory_path();
             dir = dir.parent_path())
            ::chmod(dir.c_str(), 0755);
        ::chmod(pulse.socket().c_str(), 0777);
        speech = apptest::festivalSentence(kSentence);
        ASSERT_FALSE(speech.empty()) << "festival's text2wave or ffmpeg could not make speech";
        feeder = std::make_unique<FifoFeeder>(pulse.fifo());

        apptest::storeRightAltShortcut(home.path(), hold);
        fs::create_directories(home.path() / "run");
        fs::permissions(home.path() / "run", fs::perms::owner_all, fs::perm_options::replace);
        std::ofstream(home.path() / "sway.config")
            << "xwayland enable\n"
            << "output HEADLESS-1 resolution 1280x800\n"
            << "bindsym --no-repeat F12 exec sprelio shortcuts tap\n"
            // The lines the editor shows for a held shortcut.
            << "bindsym --no-repeat F11 exec sprelio shortcuts press\n"
            << "bindsym --release F11 exec sprelio shortcuts release\n"
            // Started by the session, as an autostart entry would: it gets WAYLAND_DISPLAY, SWAYSOCK and the
            // Xwayland DISPLAY from sway.
            << "exec sh -c 'echo $$ > " << (home.path() / "app.pid").string() << "; exec sprelio > "
            << (home.path() / "sprelio.out").string() << " 2>&1'\n";
        giveTo(home.path(), user->pw_uid, user->pw_gid);

        const std::string binDir = fs::path(SPRELIO_BINARY).parent_path().string();
        const std::string line =
            "runuser -u " + std::string(kUser) + " -- env -i PATH=" + binDir + ":/usr/bin:/bin HOME=" +
            home.path().string() + " XDG_RUNTIME_DIR=" + (home.path() / "run").string() +
            " PULSE_SERVER=" + pulse.serverAddress() + " LANG=C.UTF-8 XDG_CURRENT_DESKTOP=sway "
            "WLR_BACKENDS=headless WLR_RENDERER=pixman WLR_LIBINPUT_NO_DEVICES=1 sway -c " +
            (home.path() / "sway.config").string() + " > " + (home.path() / "sway.log").string() + " 2>&1 & echo $!";
        sway = static_cast<pid_t>(std::strtol(x11test::readFile(runToFile(line)).c_str(), nullptr, 10));
        ASSERT_GT(sway, 0);
        ASSERT_TRUE(x11test::waitFor([&] { return !waylandDisplay().empty(); }, 10000ms)) << swayLog();
        // The user's keyboard, which a headless compositor lacks: a virtual one that stays for the whole session
        // and never presses a key. Without it each short-lived keyboard (a binding's key, Sprelio's paste) would
        // be the seat's only one, and with its end the seat would lose its keyboard: the focused application
        // drops its keyboard and clipboard offer each time, which no user's desktop does.
        keyboard = static_cast<pid_t>(std::strtol(
            x11test::readFile(runToFile("runuser -u " + std::string(kUser) + " -- env -i PATH=/usr/bin:/bin "
                                        "XDG_RUNTIME_DIR=" + (home.path() / "run").string() + " WAYLAND_DISPLAY=" +
                                        waylandDisplay() + " wtype -s 86400000 > /dev/null 2>&1 & echo $!"))
                .c_str(),
            nullptr, 10));
        ASSERT_GT(keyboard, 0);
        ASSERT_TRUE(x11test::waitFor([&] { return log().find("Desktop.launch() - ready: the hotkeys are live") !=
                                                  std::string::npos; }, 40000ms))
            << swayLog() << x11test::readFile(home.path() / "sprelio.out") << log();
    }
    void TearDown() override {
        if (HasFailure()) {
            fs::create_directories(apptest::screenshotFolder());
            std::ofstream(apptest::screenshotFolder() / "e2e-wayland.log")
                << log() << "\n---- sway\n" << swayLog() << "\n---- sprelio\n"
                << x11test::readFile(home.path() / "sprelio.out") << "\n---- field\n"
                << x11test::readFile(home.path() / "field.log") << "\n---- in front now: " << swayWindows().focusedAppId;
        }
        // Sprelio first, as at log-out, then the session.
        if (const auto pid = appPid(); pid > 0) {
            ::kill(pid, SIGTERM);
            EXPECT_TRUE(x11test::waitFor([&] { return ::kill(pid, 0) != 0; }, 15000ms)) << "Sprelio did not end";
        }
        if (field > 0) ::kill(field, SIGTERM);
        if (keyboard > 0) ::kill(keyboard, SIGTERM);
        if (sway > 0) {
            ::kill(sway, SIGTERM);
            x11test::waitFor([&] { return ::kill(sway, 0) != 0; }, 10000ms);
        }
        pulse.kill();
        feeder.reset();
    }

    fs::path runToFile(const std::string& line) {
        const auto out = home.path() / "command.out";
        [[maybe_unused]] const int status = std::system((line + " > " + out.string()).c_str());
        return out;
    }
    // A program of the session's user inside the session; its exit status and output.
    int inSession(const std::string& command, std::string* output = nullptr) {
        const auto out = home.path() / "session.out";
        const std::string line = "runuser -u " + std::string(kUser) + " -- env -i PATH=/usr/bin:/bin HOME=" +
                                 home.path().string() + " XDG_RUNTIME_DIR=" + (home.path() / "run").string() +
                                 " WAYLAND_DISPLAY=" + waylandDisplay() + " " + command + " > " + out.string() +
                                 " 2>&1";
        const int raw = std::system(line.c_str());
        if (output) *output = x11test::readFile(out);
        return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    }
    std::string waylandDisplay() const {
        std::error_code ec;
        for (const auto& entry : fs::directory_iterator(home.path() / "run", ec)) {
            const auto name = entry.path().filename().string();
            if (name.rfind("wayland-", 0) == 0 && entry.is_socket()) return name;
        }
        return {};
    }
    pid_t appPid() const {
        const auto text = x11test::readFile(home.path() / "app.pid");
        const long pid = std::strtol(text.c_str(), nullptr, 10);
        return pid > 0 ? static_cast<pid_t>(pid) : -1;
    }
    std::string log() const { return x11test::readFile(home.path() / ".local/share/Sprelio/logs/app_log.txt"); }
    std::string swayLog() const { return x11test::readFile(home.path() / "sway.log"); }
    std::size_t count(const std::string& needle) const { return apptest::SprelioApp::countIn(log(), needle); }
    std::string fieldText() const { return x11test::readFile(home.path() / "field.txt"); }
    // Why a paste did not arrive: the keys and clipboard changes the field saw, and the window sway has in front.
    std::string fieldReport() {
        return "the field shows: " + fieldText() + "\nit saw:\n" + x11test::readFile(home.path() / "field.log") +
               "in front: " + swayWindows().focusedAppId + "\n";
    }

    // The windows sway manages: each one's app id (or X class) and title, and the one with the focus.
    struct SwayWindows {
        std::vector<std::string> titles;
        std::string focusedAppId;
    };
    SwayWindows swayWindows() {
        std::string socket;
        std::error_code ec;
        for (const auto& entry : fs::directory_iterator(home.path() / "run", ec))
            if (entry.path().filename().string().rfind("sway-ipc.", 0) == 0) socket = entry.path().string();
        std::string answer;
        SwayWindows windows;
        if (inSession("env SWAYSOCK=" + socket + " swaymsg -t get_tree -r", &answer) != 0) return windows;
        const auto tree = nlohmann::json::parse(answer, nullptr, false);
        const std::function<void(const nlohmann::json&)> walk = [&](const nlohmann::json& node) {
            if (node.contains("pid")) {
                windows.titles.push_back(node.value("name", ""));
                if (node.value("focused", false))
                    windows.focusedAppId = node["app_id"].is_string() ? node["app_id"].get<std::string>() : "";
            }
            for (const char* children : {"nodes", "floating_nodes"})
                if (node.contains(children))
                    for (const auto& child : node[children]) walk(child);
        };
        if (!tree.is_discarded()) walk(tree);
        return windows;
    }

    void openField() {
        // Sprelio opens its Settings window at each start; the field comes after it, as the user's next window.
        ASSERT_TRUE(x11test::waitFor([&] {
            const auto titles = swayWindows().titles;
            return std::find(titles.begin(), titles.end(), "Sprelio Settings") != titles.end();
        }, 20000ms)) << "Sprelio's Settings window did not appear on Xwayland\n" << swayLog();
        const std::string line = "runuser -u " + std::string(kUser) + " -- env -i PATH=/usr/bin:/bin HOME=" +
                                 home.path().string() + " XDG_RUNTIME_DIR=" + (home.path() / "run").string() +
                                 " WAYLAND_DISPLAY=" + waylandDisplay() + " QT_QPA_PLATFORM=wayland " +
                                 SPRELIO_TEST_WAYLAND_FIELD + " " + quoted((home.path() / "field.txt").string()) +
                                 " > " + (home.path() / "field.log").string() + " 2>&1 & echo $!";
        field = static_cast<pid_t>(std::strtol(x11test::readFile(runToFile(line)).c_str(), nullptr, 10));
        ASSERT_GT(field, 0);
        ASSERT_TRUE(x11test::waitFor([&] { return fs::exists(home.path() / "field.txt"); }, 15000ms))
            << x11test::readFile(home.path() / "field.log");
        ASSERT_TRUE(x11test::waitFor([&] { return swayWindows().focusedAppId == "sprelio-test-field"; }, 10000ms))
            << "the field did not get the focus";
    }
    void speak() {
        const std::int64_t at = feeder->play(speech);
        const std::int64_t end = at + static_cast<std::int64_t>(speech.size()) + 16000 * 3 / 10;
        ASSERT_TRUE(x11test::waitFor([&] { return feeder->framesWritten() >= end; }, 15000ms));
    }

    // Whether the dictation shortcut is held (else tapped).
    bool hold = false;
    platform::test::TemporaryFolder home{"sprelio-e2e-wayland"};
    PulseDaemon pulse;
    std::vector<float> speech;
    std::unique_ptr<FifoFeeder> feeder;
    pid_t sway = -1;
    pid_t field = -1;
    pid_t keyboard = -1;
};

TEST_F(WaylandEndToEnd, ASwayBindingTapsDictationIntoANativeFieldAndTheClipboardComesBack) {
    // What the desktop offers, as the application read it.
    EXPECT_NE(log().find("virtual keyboard yes, data control yes"), std::string::npos) << log();
    openField();
    std::string said;
    ASSERT_EQ(inSession("wl-copy " + quoted(kFormerClipboard), &said), 0) << said;

    ASSERT_EQ(inSession("wtype -k F12", &said), 0) << said;
    ASSERT_TRUE(x11test::waitFor([&] { return count(kRecordingStarted) >= 1; }, 20000ms)) << "no recording\n" << log();
    speak();
    ASSERT_EQ(inSession("wtype -k F12", &said), 0) << said;
    ASSERT_TRUE(x11test::waitFor([&] { return testhelpers::wordAccuracy(kSentence, fieldText()) >= 0.8; }, 30000ms))
        << fieldReport() << log();
    // The paste went to the native field, which sway reports in front (the log is written behind the events).
    EXPECT_TRUE(x11test::waitFor([&] { return log().find("target app 'sprelio-test-field'") != std::string::npos; }));
    // The user's text is back on the clipboard once the restore has run.
    EXPECT_TRUE(x11test::waitFor([&] {
        return inSession("wl-paste --no-newline", &said) == 0 && said == kFormerClipboard;
    }, 10000ms)) << "the clipboard holds: " << said;
}

class WaylandHoldEndToEnd : public WaylandEndToEnd {
protected:
    WaylandHoldEndToEnd() { hold = true; }
};

TEST_F(WaylandHoldEndToEnd, ASwayReleaseBindingEndsAHeldDictation) {
    openField();

    // F11 held down for as long as the speech lasts: a virtual keyboard of its own that presses it and waits.
    // When it goes, sway releases its keys, and the --release binding runs.
    const std::string line = "runuser -u " + std::string(kUser) + " -- env -i PATH=/usr/bin:/bin XDG_RUNTIME_DIR=" +
                             (home.path() / "run").string() + " WAYLAND_DISPLAY=" + waylandDisplay() +
                             " wtype -P F11 -s 600000 > /dev/null 2>&1 & echo $!";
    const pid_t holding = static_cast<pid_t>(std::strtol(x11test::readFile(runToFile(line)).c_str(), nullptr, 10));
    ASSERT_GT(holding, 0);
    ASSERT_TRUE(x11test::waitFor([&] { return count(kRecordingStarted) >= 1; }, 20000ms)) << "no recording\n" << log();
    speak();
    EXPECT_EQ(count("isKeyDown: false"), 0u) << "the dictation ended before the key was let go";
    ::kill(holding, SIGTERM);
    ASSERT_TRUE(x11test::waitFor([&] { return testhelpers::wordAccuracy(kSentence, fieldText()) >= 0.8; }, 30000ms))
        << fieldReport() << log();
}

} // namespace
} // namespace sprelio

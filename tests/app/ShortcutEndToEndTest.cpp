// Hotkeys changed while `sprelio` runs, as a user has it: the application on a private X desktop with its own
// PulseAudio daemon fed festival speech and the embedded server; `sprelio shortcuts` typed in a terminal reaches it
// and the new key dictates into our test application at once. The editor of the Settings tab is shown and
// photographed.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "SprelioAppProcess.h"
#include "helpers/WordAccuracy.h"
#include "platform/X11TestSupport.h"
#include "platform/test/TemporaryFolder.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using apptest::SprelioApp;
using audio_test::FifoFeeder;
using audio_test::PulseDaemon;
using x11test::TestClient;
using x11test::XServer;

constexpr const char* kSentence = "hello this is a test of dictation";
constexpr const char* kRecordingStarted = "- preparing finished in";

class ShortcutEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.ready()) << "Xvfb did not start";
        ASSERT_TRUE(server.startWindowManager()) << "openbox did not start";
        ASSERT_NO_THROW(pulse.start());
        speech = apptest::festivalSentence(kSentence);
        ASSERT_FALSE(speech.empty()) << "festival's text2wave or ffmpeg could not make speech";
        feeder = std::make_unique<FifoFeeder>(pulse.fifo());
        app = std::make_unique<SprelioApp>(server, pulse, home.path());
        ASSERT_TRUE(app->waitForCount("Desktop.launch() - ready: the hotkeys are live", 1, 30000ms))
            << app->output() << "\n" << app->log();
    }
    void TearDown() override {
        if (HasFailure() && app) {
            fs::create_directories(apptest::screenshotFolder());
            const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
            std::ofstream(apptest::screenshotFolder() / (std::string("e2e-") + info->name() + ".log")) << app->log();
        }
        if (app) {
            EXPECT_EQ(app->stop(), 0) << "the application did not end cleanly:\n" << app->output();
        }
        app.reset();
        client.reset();
        pulse.kill();
        feeder.reset();
        server.stop();
    }
    // `sprelio` typed in a terminal of the same session: its exit status and output.
    int cli(const std::string& arguments, std::string* output = nullptr) {
        const auto out = home.path() / "cli.out";
        const std::string line = "env -i PATH=/usr/bin:/bin HOME=" + home.path().string() +
                                 " XDG_RUNTIME_DIR=" + (home.path() / "run").string() + " DISPLAY=" + server.name() +
                                 " LANG=C.UTF-8 " + SPRELIO_BINARY + " " + arguments + " >" + out.string() + " 2>&1";
        const int raw = std::system(line.c_str());
        if (output) *output = x11test::readFile(out);
        return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    }
    std::string idOf(const std::string& keys) {
        std::string listing;
        EXPECT_EQ(cli("shortcuts list", &listing), 0) << listing;
        std::istringstream in(listing);
        for (std::string line; std::getline(in, line);)
            if (line.find("\t" + keys + "\t") != std::string::npos) return line.substr(0, 8);
        ADD_FAILURE() << "no shortcut on " << keys << " in\n" << listing;
        return {};
    }
    void bringClientForward() {
        client = std::make_unique<TestClient>(server, TestClient::Options{});
        ASSERT_TRUE(client->waitUntilFocused()) << client->describe();
    }
    void speak() {
        const std::int64_t at = feeder->play(speech);
        const std::int64_t end = at + static_cast<std::int64_t>(speech.size()) + 16000 * 3 / 10;
        ASSERT_TRUE(x11test::waitFor([&] { return feeder->framesWritten() >= end; }, 15000ms));
    }
    bool waitForDictation() const {
        return x11test::waitFor([&] { return testhelpers::wordAccuracy(kSentence, client->text()) >= 0.8; }, 30000ms);
    }
    // A dictation on a held key or button: `press` and `release` are xdotool actions.
    void dictateHolding(const std::string& press, const std::string& release, std::size_t recordings) {
        ASSERT_TRUE(server.run("xdotool " + press));
        ASSERT_TRUE(app->waitForCount(kRecordingStarted, recordings)) << "the recording did not start";
        speak();
        ASSERT_TRUE(server.run("xdotool " + release));
        ASSERT_TRUE(waitForDictation()) << "the test application shows: " << client->text();
    }

    XServer server;
    PulseDaemon pulse;
    std::vector<float> speech;
    std::unique_ptr<FifoFeeder> feeder;
    platform::test::TemporaryFolder home{"sprelio-e2e-keys"};
    std::unique_ptr<SprelioApp> app;
    std::unique_ptr<TestClient> client;
};

TEST_F(ShortcutEndToEnd, RightCtrlSetWhileRunningDictatesAndRightAltNoLonger) {
    std::string said;
    ASSERT_EQ(cli("shortcuts set " + idOf("Right Alt") + " --key 'Right Ctrl' --hold", &said), 0) << said;
    ASSERT_TRUE(app->waitForCount("updateKeysSetFromUserShortcuts() - keysSet: [62]", 1)) << "not live";
    bringClientForward();

    // Right Alt is an ordinary key now: nothing acts on it.
    ASSERT_TRUE(server.run("xdotool keydown Alt_R keyup Alt_R"));
    dictateHolding("keydown Control_R", "keyup Control_R", 1);
    EXPECT_EQ(app->count("executeActionForKeyCode() - keyCode: 61"), 0u) << "right Alt still acted";
    EXPECT_EQ(app->count(kRecordingStarted), 1u);
    EXPECT_EQ(app->count("executeActionForKeyCode() - keyCode: 62, isKeyDown: true"), 1u);
}

TEST_F(ShortcutEndToEnd, MouseButtonEightAddedWhileRunningDictatesWhileHeld) {
    std::string said;
    ASSERT_EQ(cli("shortcuts add recordAndTranscribe --key 'Button 8' --hold", &said), 0) << said;
    std::string listing;
    ASSERT_EQ(cli("shortcuts list", &listing), 0);
    EXPECT_NE(listing.find(said.substr(0, 8) + "\tButton 8\trecordAndTranscribe\t-\thold"), std::string::npos)
        << listing;
    bringClientForward();
    dictateHolding("mousedown 8", "mouseup 8", 1);
}

TEST_F(ShortcutEndToEnd, ACombinationTakenByAnotherProgramIsRefusedByTheRunningApplication) {
    // Another program holds Alt+Shift+D (any modifier lock state).
    Display* other = XOpenDisplay(server.name().c_str());
    ASSERT_NE(other, nullptr);
    const int keycode = XKeysymToKeycode(other, XStringToKeysym("d"));
    for (unsigned locks : {0u, unsigned(LockMask), unsigned(Mod2Mask), unsigned(LockMask | Mod2Mask)})
        XGrabKey(other, keycode, Mod1Mask | ShiftMask | locks, DefaultRootWindow(other), False, GrabModeAsync,
                 GrabModeAsync);
    XSync(other, False);
    const std::string emoji = idOf("Alt+S");
    std::string said;
    EXPECT_EQ(cli("shortcuts set " + emoji + " --key Alt+Shift+D", &said), 1);
    EXPECT_NE(said.find("Alt+Shift+D is taken by another application, so the shortcut keeps Alt+S."),
              std::string::npos)
        << said;
    EXPECT_EQ(idOf("Alt+S"), emoji);
    XCloseDisplay(other);
    // Once the other program has gone, the same command goes through.
    EXPECT_EQ(cli("shortcuts set " + emoji + " --key Alt+Shift+D", &said), 0) << said;
    EXPECT_EQ(idOf("Alt+Shift+D"), emoji);
}

TEST_F(ShortcutEndToEnd, TheSettingsTabShowsTheEditor) {
    // A second start brings the main window forward; the editor is at the top of its Settings tab.
    SprelioApp second(server, pulse, home.path());
    ASSERT_TRUE(x11test::waitFor([&] { return !second.running(); }, 20000ms));
    ASSERT_TRUE(x11test::waitFor([&] {
        return server.output("xdotool getactivewindow getwindowname") == "Sprelio Settings\n";
    }, 10000ms));
    fs::create_directories(apptest::screenshotFolder());
    ASSERT_TRUE(server.run("ffmpeg -nostdin -loglevel error -y -f x11grab -video_size 1280x800 -i " + server.name() +
                           " -frames:v 1 " + (apptest::screenshotFolder() / "e2e-hotkey-editor.png").string()));
}

} // namespace
} // namespace sprelio

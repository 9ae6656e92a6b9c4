// A shortcut pressed from the command line, as a compositor's key binding does where no client may watch the
// keyboard: `sprelio shortcuts tap|press|release` reaches the running application on a private X desktop (its own
// PulseAudio daemon fed festival speech, the embedded server) and dictates into our test application as the key
// itself would.
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

// `sprelio` typed in a terminal with the given home and X display: its exit status and output.
int runCli(const fs::path& home, const std::string& display, const std::string& arguments, std::string* output) {
    const auto out = home / "cli.out";
    const std::string line = "env -i PATH=/usr/bin:/bin HOME=" + home.string() + " XDG_RUNTIME_DIR=" +
                             (home / "run").string() + " DISPLAY=" + display + " LANG=C.UTF-8 " + SPRELIO_BINARY +
                             " " + arguments + " >" + out.string() + " 2>&1";
    const int raw = std::system(line.c_str());
    if (output) *output = x11test::readFile(out);
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

struct TriggerCase {
    const char* name;
    bool hold;
    const char* start; // the command that starts the dictation
    const char* stop;  // and the one that ends it
};

class ShortcutTriggerEndToEnd : public ::testing::TestWithParam<TriggerCase> {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.ready()) << "Xvfb did not start";
        ASSERT_TRUE(server.startWindowManager()) << "openbox did not start";
        ASSERT_NO_THROW(pulse.start());
        speech = apptest::festivalSentence(kSentence);
        ASSERT_FALSE(speech.empty()) << "festival's text2wave or ffmpeg could not make speech";
        feeder = std::make_unique<FifoFeeder>(pulse.fifo());
        apptest::storeRightAltShortcut(home.path(), GetParam().hold);
        app = std::make_unique<SprelioApp>(server, pulse, home.path());
        ASSERT_TRUE(app->waitForCount("Desktop.launch() - ready: the hotkeys are live", 1, 30000ms))
            << app->output() << "\n" << app->log();
    }
    void TearDown() override {
        if (HasFailure() && app) {
            fs::create_directories(apptest::screenshotFolder());
            std::ofstream(apptest::screenshotFolder() / (std::string("e2e-trigger-") + GetParam().name + ".log"))
                << app->log();
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
    int cli(const std::string& arguments, std::string* output = nullptr) {
        return runCli(home.path(), server.name(), arguments, output);
    }
    std::string rightAltId() {
        std::string listing;
        EXPECT_EQ(cli("shortcuts list", &listing), 0) << listing;
        std::istringstream in(listing);
        for (std::string line; std::getline(in, line);)
            if (line.find("\tRight Alt\t") != std::string::npos) return line.substr(0, 8);
        ADD_FAILURE() << "no shortcut on Right Alt in\n" << listing;
        return {};
    }
    void speak() {
        const std::int64_t at = feeder->play(speech);
        const std::int64_t end = at + static_cast<std::int64_t>(speech.size()) + 16000 * 3 / 10;
        ASSERT_TRUE(x11test::waitFor([&] { return feeder->framesWritten() >= end; }, 15000ms));
    }

    XServer server;
    PulseDaemon pulse;
    std::vector<float> speech;
    std::unique_ptr<FifoFeeder> feeder;
    platform::test::TemporaryFolder home{"sprelio-e2e-trigger"};
    std::unique_ptr<SprelioApp> app;
    std::unique_ptr<TestClient> client;
};

TEST_P(ShortcutTriggerEndToEnd, TheCommandLineDictatesAsTheKeyWould) {
    std::string command = GetParam().start;
    std::string stop = GetParam().stop;
    // "%" stands for the shortcut's ID; without one the command means the dictation shortcut.
    if (const auto at = command.find('%'); at != std::string::npos) command.replace(at, 1, rightAltId());
    if (const auto at = stop.find('%'); at != std::string::npos) stop.replace(at, 1, rightAltId());
    client = std::make_unique<TestClient>(server, TestClient::Options{});
    ASSERT_TRUE(client->waitUntilFocused()) << client->describe();

    std::string said;
    ASSERT_EQ(cli(command, &said), 0) << said;
    ASSERT_TRUE(app->waitForCount(kRecordingStarted, 1)) << "the recording did not start";
    speak();
    ASSERT_EQ(cli(stop, &said), 0) << said;
    ASSERT_TRUE(x11test::waitFor([&] { return testhelpers::wordAccuracy(kSentence, client->text()) >= 0.8; }, 30000ms))
        << "the test application shows: " << client->text();
    // The edges went in where the key's own events go.
    EXPECT_EQ(app->count("executeActionForKeyCode() - keyCode: 61, isKeyDown: true"), GetParam().hold ? 1u : 2u);
    EXPECT_EQ(app->count(kRecordingStarted), 1u);
}

INSTANTIATE_TEST_SUITE_P(Edges, ShortcutTriggerEndToEnd,
                         ::testing::Values(TriggerCase{"TapTwiceOnTheDictationShortcut", false, "shortcuts tap",
                                                       "shortcuts tap"},
                                           TriggerCase{"PressAndReleaseByID", true, "shortcuts press %",
                                                       "shortcuts release %"}),
                         [](const ::testing::TestParamInfo<TriggerCase>& row) { return std::string(row.param.name); });

TEST(ShortcutTriggerCli, WithoutARunningApplicationThePressIsRefused) {
    platform::test::TemporaryFolder home{"sprelio-trigger-cli"};
    fs::create_directories(home.path() / "run");
    std::string said;
    EXPECT_EQ(runCli(home.path(), ":0", "shortcuts tap", &said), 3);
    EXPECT_NE(said.find("Sprelio is not running"), std::string::npos) << said;
    EXPECT_FALSE(fs::exists(home.path() / ".local/share/Sprelio")) << "a press without the application made a store";
}

} // namespace
} // namespace sprelio

#pragma once
// The desktop that the end-to-end tests give `sprelio`: a private X server with openbox, a PulseAudio daemon of its
// own whose microphone plays what a test feeds it, and a home of its own. On it the application is started, our test
// application takes the front, and what they leave behind (history, log, screenshots) is read back. Each suite's
// fixture derives from this one and keeps only what is its own.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "SprelioAppProcess.h"
#include "helpers/WordAccuracy.h"
#include "platform/X11TestSupport.h"
#include "platform/test/TemporaryFolder.h"
#include "store/Entities.h"
#include "store/Persistence.h"

namespace sprelio::apptest {

using audio_test::FifoFeeder;
using x11test::TestClient;

inline constexpr const char* kSentence = "hello this is a test of dictation";
// The microphone's frames a second.
inline constexpr std::int64_t kRate = 16000;
inline constexpr const char* kReady = "Desktop.launch() - ready: the hotkeys are live";
inline constexpr const char* kRecordingStarted = "- preparing finished in";
inline constexpr const char* kRightAltDown =
    "KeyboardShortcutManager.executeActionForKeyCode() - keyCode: 61, isKeyDown: true";

// Festival's speech of a text, made once per text and test run (it takes seconds); empty when festival failed.
inline const std::vector<float>& spokenText(const std::string& text) {
    static std::map<std::string, std::vector<float>> made;
    auto found = made.find(text);
    if (found == made.end()) found = made.emplace(text, festivalSentence(text)).first;
    return found->second;
}

// `sprelio ARGUMENTS` as typed in a terminal of the user's session on `display`: nothing of this process's
// environment reaches it.
inline std::string terminalCommand(const fs::path& home, const std::string& display, const std::string& arguments) {
    return "env -i PATH=/usr/bin:/bin HOME=" + audio_test::shellQuoted(home.string()) +
           " XDG_RUNTIME_DIR=" + audio_test::shellQuoted((home / "run").string()) + " DISPLAY=" + display +
           " LANG=C.UTF-8 " + audio_test::shellQuoted(SPRELIO_BINARY) + " " + arguments;
}

// The same run to its end: its exit status, and in `output` what it printed on either stream.
inline int runCli(const fs::path& home, const std::string& display, const std::string& arguments,
                  std::string* output = nullptr) {
    const auto out = home / "cli.out";
    const std::string line =
        terminalCommand(home, display, arguments) + " >" + audio_test::shellQuoted(out.string()) + " 2>&1";
    const int raw = std::system(line.c_str());
    if (output) *output = x11test::readFile(out);
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

class DesktopFixture : public ::testing::Test {
protected:
    // `homePrefix` names the temporary home, so that one left behind tells which suite it was.
    explicit DesktopFixture(const std::string& homePrefix) : home(homePrefix) {}

    void SetUp() override {
        ASSERT_TRUE(server.ready()) << "Xvfb did not start";
        ASSERT_TRUE(server.startWindowManager()) << "openbox did not start";
        ASSERT_NO_THROW(pulse.start());
        feeder = std::make_unique<FifoFeeder>(pulse.fifo());
    }
    void TearDown() override {
        // A failed run leaves the application's log next to the screenshots, for whoever looks into it.
        if (HasFailure() && app) {
            fs::create_directories(screenshotFolder());
            std::ofstream(screenshotFolder() / (failureLogName() + ".log")) << app->log();
        }
        if (app) {
            EXPECT_EQ(app->stop(), 0) << "the application did not end cleanly:\n" << app->output();
        }
        app.reset();
        client.reset();
        // The daemon goes first: a feeder blocked on a full FIFO that nobody reads is freed by its end.
        pulse.kill();
        feeder.reset();
        server.stop();
    }
    // A parameterised test's name holds a '/', so those suites name their logs by their row.
    virtual std::string failureLogName() const {
        return std::string("e2e-") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    }

    // Sprelio started on this desktop (or on `x`), ready once its hotkeys are live. `environment`: further
    // NAME=value entries.
    void launch(bool offline = false, const std::vector<std::string>& environment = {}) {
        launchOn(server, offline, environment);
    }
    void launchOn(const XServer& x, bool offline = false, const std::vector<std::string>& environment = {}) {
        app = std::make_unique<SprelioApp>(x, pulse, home.path(), offline, environment);
        ASSERT_TRUE(app->waitForCount(kReady, 1, 30000ms)) << app->output() << "\n" << app->log();
    }
    // Our test application, mapped and focused.
    void focusClient(TestClient::Options options = {}) {
        client = std::make_unique<TestClient>(server, std::move(options));
        ASSERT_TRUE(client->waitUntilFocused()) << client->describe();
    }
    // A press of the right Alt key that lasts until Sprelio has taken it as one (a modifier is judged 10 ms after
    // it changes, so a release within that time would be the only thing seen).
    void tap() {
        ASSERT_TRUE(server.run("xdotool keydown Alt_R"));
        ASSERT_TRUE(app->waitForCount(kRightAltDown, ++presses_)) << "the press was not taken";
        ASSERT_TRUE(server.run("xdotool keyup Alt_R"));
    }
    // `samples` into the microphone, and a wait of up to `timeout` until all of them and `silenceAfter` have been
    // fed; halfway through, `midway` runs (a screenshot of the meter while it moves).
    void play(const std::vector<float>& samples, std::chrono::milliseconds timeout = 15000ms,
              std::chrono::milliseconds silenceAfter = 0ms, const std::function<void()>& midway = {}) {
        const std::int64_t at = feeder->play(samples);
        const std::int64_t end = at + static_cast<std::int64_t>(samples.size()) + kRate * silenceAfter.count() / 1000;
        if (midway) {
            const std::int64_t half = at + static_cast<std::int64_t>(samples.size()) / 2;
            ASSERT_TRUE(x11test::waitFor([&] { return feeder->framesWritten() >= half; }, timeout));
            midway();
        }
        ASSERT_TRUE(x11test::waitFor([&] { return feeder->framesWritten() >= end; }, timeout));
    }
    // The test sentence, and a short silence after it for the end of speech to be heard.
    void speak(const std::function<void()>& midway = {}) { play(spokenText(kSentence), 15000ms, 300ms, midway); }
    // The dictated sentence as our application got it.
    bool waitForDictation() const {
        return x11test::waitFor([&] { return testhelpers::wordAccuracy(kSentence, client->text()) >= 0.8; }, 30000ms);
    }
    bool screenshot(const std::string& name) const {
        fs::create_directories(screenshotFolder());
        return server.run("ffmpeg -nostdin -loglevel error -y -f x11grab -video_size 1280x800 -i " + server.name() +
                          " -frames:v 1 " + (screenshotFolder() / (name + ".png")).string());
    }
    // The history in the order it was made, read from the store as another process would.
    std::vector<std::shared_ptr<store::LogEntry>> history() const {
        store::PersistentContainer other("Persistence",
                                         app->dataFolder() / store::PersistenceController::kStoreFileName);
        if (other.loadPersistentStores()) return {};
        auto entries = other.viewContext().fetchAll<store::LogEntry>();
        std::stable_sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
            return a->timestamp().value_or(0) < b->timestamp().value_or(0);
        });
        return entries;
    }
    // `sprelio ARGUMENTS` typed in a terminal of this session.
    int cli(const std::string& arguments, std::string* output = nullptr) const {
        return runCli(home.path(), server.name(), arguments, output);
    }

    XServer server;
    PulseDaemon pulse;
    std::unique_ptr<FifoFeeder> feeder;
    platform::test::TemporaryFolder home;
    std::unique_ptr<SprelioApp> app;
    std::unique_ptr<TestClient> client;
    std::size_t presses_ = 0;
};

} // namespace sprelio::apptest

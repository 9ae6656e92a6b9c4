// The desktop application as a user has it: `sprelio` started on a private X desktop with openbox, its own
// PulseAudio daemon whose microphone is fed festival speech, the embedded server, and our test application in
// front. Keys and clicks are real X input (xdotool). Every wait is on a condition with a deadline; screenshots of
// the overlays go to <build>/screenshots.
#include <gtest/gtest.h>


#include <algorithm>
#include <fstream>
#include <map>
#include <regex>

// Before the X headers, whose macros (None, Success) clash with the HTTP library's names.
#include "server/ScriptedOpenAiService.h"
#include "backend/ScriptedServer.h"

#include "DesktopTestFixture.h"
#include "base/Digest.h"
#include "audio/AudioFileDuration.h"
#include "helpers/WordAccuracy.h"
#include "platform/X11TestSupport.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/Persistence.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using apptest::kRecordingStarted;
using apptest::kSentence;
using apptest::SprelioApp;
using x11test::TestClient;
using x11test::XServer;

constexpr int kScreenHeight = 800;

class DesktopEndToEnd : public apptest::DesktopFixture {
protected:
    DesktopEndToEnd() : DesktopFixture("sprelio-e2e") {}
    void SetUp() override {
        DesktopFixture::SetUp();
        if (HasFatalFailure()) return;
        ASSERT_FALSE(apptest::spokenText(kSentence).empty()) << "festival's text2wave or ffmpeg could not make speech";
    }

    // Our application takes the front, as the window manager sees it.
    void bringClientForward(TestClient::Options options = {}) {
        ASSERT_NO_FATAL_FAILURE(focusClient(std::move(options)));
        ASSERT_TRUE(x11test::waitFor([&] { return activePid() == client->pid(); }, 10000ms));
    }
    pid_t activePid() const {
        const std::string out = server.output("xdotool getactivewindow getwindowpid");
        return out.empty() ? -1 : static_cast<pid_t>(std::atoi(out.c_str()));
    }
    std::string clipboard() const { return server.output("xclip -selection clipboard -o"); }
    void copyByAnotherProgram(const std::string& text) {
        const auto file = home.path() / "copied.txt";
        std::ofstream(file, std::ios::binary) << text;
        ASSERT_TRUE(server.run("xclip -selection clipboard -i " + file.string()));
        ASSERT_TRUE(x11test::waitFor([&] { return clipboard() == text; }));
    }
    bool key(const std::string& action) { return server.run("xdotool " + action + " Alt_R"); }
    // What a dictation must leave behind: one successful history entry whose recording plays, and a log without
    // a word of what was said.
    void expectDictationRecorded() {
        ASSERT_TRUE(x11test::waitFor([&] { return history().size() == 1; }));
        const auto entries = history();
        EXPECT_EQ(entries[0]->level(), 4) << "success";
        ASSERT_TRUE(entries[0]->fileURL().has_value());
        const fs::path recording = store::AppConstants::pathFromFileURLOrPath(*entries[0]->fileURL());
        EXPECT_EQ(recording.extension(), ".caf");
        const auto seconds = audioFileDurationSeconds(recording);
        ASSERT_TRUE(seconds.has_value()) << recording;
        EXPECT_GT(*seconds, 2.0);
        const auto decoded = audio_test::runCommand("ffmpeg -nostdin -loglevel error -i " +
                                                    audio_test::shellQuoted(recording.string()) + " -f null - 2>&1");
        EXPECT_EQ(decoded.exitCode, 0) << decoded.out;
        const std::string log = app->log();
        for (const char* word : {"hello", "dictation"})
            EXPECT_EQ(log.find(word), std::string::npos) << "the log holds the dictated word " << word;
    }
};

TEST_F(DesktopEndToEnd, HeldKeyDictatesIntoTheApplicationInFront) {
    apptest::storeRightAltShortcut(home.path(), true);
    launch();
    bringClientForward();
    copyByAnotherProgram("what the user had copied");

    ASSERT_TRUE(key("keydown"));
    ASSERT_TRUE(app->waitForCount(kRecordingStarted, 1)) << "the recording did not start";
    speak([&] { screenshot("e2e-recording"); });
    ASSERT_TRUE(key("keyup"));
    if (app->waitForCount("showOverlay() - Called with overlayType: transcribing", 1, 5000ms))
        screenshot("e2e-transcribing");

    ASSERT_TRUE(waitForDictation()) << "the test application shows: " << client->text();
    EXPECT_EQ(activePid(), client->pid()) << "the dictated application keeps the front";
    // The user's clipboard comes back after the paste.
    EXPECT_TRUE(x11test::waitFor([&] { return clipboard() == "what the user had copied"; }, 10000ms)) << clipboard();
    expectDictationRecorded();
}

TEST_F(DesktopEndToEnd, AnAIItemOnTheKeyPastesTheServicesResultOnce) {
    // The AI service of the user: an OpenAI-compatible chat service on loopback, named in the settings.
    server::test::ScriptedOpenAiService chat;
    chat.onChat([](const httplib::Request&, httplib::Response& response) {
        server::test::ScriptedOpenAiService::chatAnswer(response, "Hello, this is a test of dictation! 🎙");
    });
    apptest::storeAiService(home.path(), chat.url(), "chat-test");
    apptest::storeRightAltShortcut(home.path(), true, md5Hex("improveWriting"));
    launch();
    bringClientForward();

    ASSERT_TRUE(key("keydown"));
    ASSERT_TRUE(app->waitForCount(kRecordingStarted, 1)) << "the recording did not start";
    speak();
    ASSERT_TRUE(key("keyup"));
    ASSERT_TRUE(x11test::waitFor([&] { return client->text().find("🎙") != std::string::npos; }, 30000ms))
        << "the test application shows: " << client->text() << "\n" << app->log();
    // Exactly the result, once: the transcript of the TEXT line before it is not pasted.
    EXPECT_EQ(client->text(), "Hello, this is a test of dictation! 🎙");
    ASSERT_EQ(chat.chats().size(), 1u);
    // The service gets the transcript to work on, inside the server's own instructions.
    const std::string asked = chat.chats()[0].message("user");
    const auto spoken = testhelpers::words(kSentence);
    const auto found = std::count_if(spoken.begin(), spoken.end(),
                                     [&](const std::string& word) { return asked.find(word) != std::string::npos; });
    EXPECT_GE(found, static_cast<long>(spoken.size()) - 1) << asked;
    EXPECT_EQ(app->log().find("Hello, this is a test"), std::string::npos) << "the result stays out of the log";
}

TEST_F(DesktopEndToEnd, TappedKeyStartsAndASecondTapStops) {
    launch(); // the default set: right Alt, tapped
    bringClientForward();
    tap();
    ASSERT_TRUE(app->waitForCount(kRecordingStarted, 1)) << "the recording did not start";
    speak();
    EXPECT_EQ(app->count("onRecordingShortcut() - will start transcribing"), 0u) << "the release stopped it";
    tap();
    ASSERT_TRUE(waitForDictation()) << "the test application shows: " << client->text();
    expectDictationRecorded();
}

TEST_F(DesktopEndToEnd, TheOverlaysCancelCircleEndsTheRecordingWithoutText) {
    launch();
    bringClientForward();
    tap();
    ASSERT_TRUE(app->waitForCount(kRecordingStarted, 1));
    // Where the overlay put its cancel circle, in its own coordinates (origin at the bottom left).
    ASSERT_TRUE(app->waitForCount("HitTestManager.addRegion() - OverlayHitRegion(id: cancel", 1));
    std::smatch found;
    const std::string log = app->log();
    ASSERT_TRUE(std::regex_search(log, found, std::regex(R"(OverlayHitRegion\(id: cancel, center: \(([0-9.]+), ([0-9.]+)\))")));
    const double x = std::stod(found[1]), y = std::stod(found[2]) + 3.0; // stored 3 points lower than drawn
    speak();
    screenshot("e2e-cancel-circle");
    ASSERT_TRUE(server.run("xdotool mousemove " + std::to_string(static_cast<int>(x)) + " " +
                           std::to_string(static_cast<int>(kScreenHeight - y)) + " click 1"));
    ASSERT_TRUE(app->waitForCount("HitTestManager.action() - Triggered CANCEL button overlay region.", 1));
    EXPECT_EQ(activePid(), client->pid()) << "a click on the overlay takes no focus";

    // Idle again: the next press dictates. Nothing of the cancelled recording arrives before or with it.
    tap();
    ASSERT_TRUE(app->waitForCount(kRecordingStarted, 2));
    speak();
    tap();
    ASSERT_TRUE(waitForDictation()) << client->text();
    EXPECT_EQ(testhelpers::words(client->text()).size(), testhelpers::words(kSentence).size())
        << "only the second dictation arrived: " << client->text();
    // The cancel is on record too, with its recording.
    ASSERT_TRUE(x11test::waitFor([&] { return history().size() == 2; }));
    std::map<std::int64_t, int> levels;
    for (const auto& entry : history()) {
        ++levels[entry->level()];
        if (entry->level() == 2) {
            EXPECT_TRUE(entry->fileURL().has_value()) << "the cancelled recording is kept";
        }
    }
    EXPECT_EQ(levels, (std::map<std::int64_t, int>{{2, 1}, {4, 1}})) << "one cancel (error), one success";
}

TEST_F(DesktopEndToEnd, ASecondStartBringsTheFirstForwardAndEnds) {
    launch();
    bringClientForward();
    SprelioApp second(server, pulse, home.path());
    ASSERT_TRUE(x11test::waitFor([&] { return !second.running(); }, 20000ms)) << "the second start did not end";
    EXPECT_EQ(second.stop(), 0);
    ASSERT_TRUE(app->waitForCount("applicationShouldHandleReopen() - hasVisibleWindows:", 1));
    // The first one's main window is in front now, on the tab it had.
    ASSERT_TRUE(x11test::waitFor([&] { return activePid() == app->pid(); }, 10000ms)) << "active: " << activePid();
    EXPECT_EQ(server.output("xdotool getactivewindow getwindowname"), "Sprelio Settings\n");
    EXPECT_EQ(app->count("Desktop.launch() - ready"), 1u) << "only one instance ever launched";
}

TEST_F(DesktopEndToEnd, OfflineTheKeySaysSoAndSprelioIsIdleAgain) {
    const auto probe = audio_test::runCommand("unshare -n true 2>&1");
    if (probe.exitCode != 0) GTEST_SKIP() << "no network namespace can be made here: " << probe.out;
    launch(true);
    bringClientForward();
    ASSERT_TRUE(app->waitForCount("AppDelegate: Network path is not satisfied. (no internet connection)", 1));
    tap();
    ASSERT_TRUE(app->waitForCount("- error: networkError", 1));
    ASSERT_TRUE(app->waitForCount("showSPRToast()", 1));
    screenshot("e2e-offline");
    EXPECT_EQ(app->count(kRecordingStarted), 0u) << "nothing is recorded offline";
    // An error brings Sprelio forward with its message; the user goes back to the application and tries again.
    // Idle again, the press is judged afresh and refused the same way.
    client->clearFocusMark();
    client->command("focus");
    ASSERT_TRUE(client->waitUntilFocused()) << client->describe();
    ASSERT_TRUE(x11test::waitFor([&] { return activePid() == client->pid(); }, 10000ms));
    tap();
    ASSERT_TRUE(app->waitForCount("- error: networkError", 2));
    EXPECT_TRUE(client->text().empty());
    EXPECT_TRUE(history().empty());
}

// Killed by a crash: at the next start the recording is a finished file in the history, from where Retry
// transcribes it (on the embedded server), and the store is sound.
class DesktopFaults : public DesktopEndToEnd {
protected:
    // A dictation on the held right Alt key, the sentence said and the key still down.
    void speakHoldingTheKey() {
        apptest::storeRightAltShortcut(home.path(), true);
        launch();
        bringClientForward();
        ASSERT_TRUE(key("keydown"));
        ASSERT_TRUE(app->waitForCount(kRecordingStarted, 1)) << app->log();
        speak();
    }
    // FFmpeg's reading of a recording's length, as another program would play it.
    static audio_test::ProcessOutput playedLength(const fs::path& recording) {
        return audio_test::runCommand("ffprobe -v error -show_entries format=duration -of csv=p=0 " +
                                      audio_test::shellQuoted(recording.string()));
    }
    fs::path onlyRecording() const {
        std::vector<fs::path> recordings;
        for (const auto& entry : fs::recursive_directory_iterator(app->dataFolder() / "recordings"))
            if (entry.path().extension() == ".caf") recordings.push_back(entry.path());
        EXPECT_EQ(recordings.size(), 1u);
        return recordings.empty() ? fs::path() : recordings[0];
    }
    // The next start on `x`, which is the test's X server unless that one is gone.
    void expectKeptForRetryAfterTheNextStart(const fs::path& recording, const std::string& name,
                                             const XServer* x = nullptr) {
        EXPECT_TRUE(history().empty());
        launchOn(x ? *x : server);
        ASSERT_TRUE(x11test::waitFor([&] { return history().size() == 1; })) << app->log();
        const auto entries = history();
        EXPECT_EQ(entries[0]->level(), 2) << "an error entry, to be retried";
        EXPECT_NE(entries[0]->message().value_or("").find("stopped before this recording was transcribed"),
                  std::string::npos);
        ASSERT_TRUE(entries[0]->recordingPath().has_value());
        EXPECT_EQ(*entries[0]->recordingPath(), recording);
        const auto seconds = audioFileDurationSeconds(recording);
        ASSERT_TRUE(seconds.has_value());
        EXPECT_GT(*seconds, 2.0);
        ASSERT_TRUE(app->waitForCount("showSPRToast()", 1)) << "the user hears of it";
        screenshot("e2e-" + name);
        EXPECT_EQ(app->stop(), 0);
        app.reset();

        const auto integrity = audio_test::runCommand(
            "sqlite3 " + audio_test::shellQuoted((home.path() / ".local/share/Sprelio/Persistence.sqlite").string()) +
            " 'PRAGMA integrity_check'");
        EXPECT_EQ(integrity.out, "ok\n");
        const std::string cli = "env -i PATH=/usr/bin:/bin LANG=C.UTF-8 HOME=" +
                                audio_test::shellQuoted(home.path().string()) + " " + SPRELIO_BINARY;
        ASSERT_EQ(audio_test::runCommand(cli + " settings set apiBaseURL embedded").exitCode, 0);
        const auto retried =
            audio_test::runCommand(cli + " history retry " + std::to_string(entries[0]->primaryKey()) + " 2>/dev/null");
        ASSERT_EQ(retried.exitCode, 0) << retried.out;
        EXPECT_GE(testhelpers::wordAccuracy(kSentence, retried.out), 0.8) << retried.out;
    }
};

TEST_F(DesktopFaults, KilledWhileTheUserSpeaks) {
    ASSERT_NO_FATAL_FAILURE(speakHoldingTheKey());
    app->kill();
    ASSERT_TRUE(key("keyup"));
    // Other programs play what was said before any recovery.
    const auto recording = onlyRecording();
    const auto played = playedLength(recording);
    ASSERT_EQ(played.exitCode, 0) << played.out;
    EXPECT_GT(std::atof(played.out.c_str()), 2.0) << "FFmpeg plays the cut recording: " << played.out;
    expectKeptForRetryAfterTheNextStart(recording, "killed-while-speaking");
}

// Without its X server the application can do nothing for the user: it ends at once rather than hang, and what
// was being said is kept for the next start.
TEST_F(DesktopFaults, TheXServerGoneWhileTheUserSpeaks) {
    ASSERT_NO_FATAL_FAILURE(speakHoldingTheKey());
    client.reset();
    server.stop();
    ASSERT_TRUE(x11test::waitFor([&] { return !app->running(); }, 20000ms))
        << "the application hangs without its X server\n" << app->log();
    // An exit of its own, saying why, not a signal (a write to the dead socket once ended it without a word).
    EXPECT_GE(app->stop(), 0) << app->output();
    EXPECT_NE(app->output().find("X11 connection broke"), std::string::npos) << app->output();
    const auto recording = onlyRecording();
    const auto played = playedLength(recording);
    EXPECT_GT(std::atof(played.out.c_str()), 2.0) << "FFmpeg plays the cut recording: " << played.out;

    XServer second;
    ASSERT_TRUE(second.ready());
    ASSERT_TRUE(second.startWindowManager());
    expectKeptForRetryAfterTheNextStart(recording, "x-server-gone", &second);
}

// A recordings folder on a file system that fills up while the user speaks: what reached the disk is kept and
// read to its last packet, and the dictation still ends with a word to the user, never silently.
TEST_F(DesktopFaults, TheDiskFullWhileTheUserSpeaks) {
    const auto small = home.path() / "small";
    fs::create_directories(small);
    // One page: about two seconds of a recording, less than the sentence.
    ASSERT_EQ(audio_test::runCommand("mount -t tmpfs -o size=4k tmpfs " + audio_test::shellQuoted(small.string()) +
                                     " 2>&1")
                  .exitCode,
              0)
        << "a small file system is needed (root, or a container that allows mounts)";
    struct Unmount {
        fs::path at;
        ~Unmount() { audio_test::runCommand("umount -l " + audio_test::shellQuoted(at.string())); }
    } unmount{small};
    store::JsonFileSettingsStore(home.path() / ".config/Sprelio/settings.json")
        .set("saveRecordingsFolder", small.string());
    ASSERT_NO_FATAL_FAILURE(speakHoldingTheKey());
    ASSERT_TRUE(key("keyup"));
    ASSERT_TRUE(app->waitForCount("No space left on device", 1)) << app->log();
    // The beginning is transcribed and delivered as usual, and the user hears that the end is missing.
    ASSERT_TRUE(x11test::waitFor([&] { return history().size() == 1; })) << app->log();
    EXPECT_TRUE(x11test::waitFor([&] { return client->text().find("hello") != std::string::npos; }))
        << client->text();
    ASSERT_TRUE(app->waitForCount("showSPRToast()", 1)) << "the user hears nothing\n" << app->log();
    EXPECT_EQ(activePid(), client->pid()) << "the message leaves the front to the application";
    screenshot("e2e-disk-full");

    std::vector<fs::path> recordings;
    for (const auto& entry : fs::recursive_directory_iterator(small))
        if (entry.path().extension() == ".caf") recordings.push_back(entry.path());
    ASSERT_EQ(recordings.size(), 1u);
    const auto played = playedLength(recordings[0]);
    EXPECT_GT(std::atof(played.out.c_str()), 1.0) << "what fitted is kept and plays: " << played.out;
    std::printf("[ measured ] disk full after %.2f s of the sentence; delivered: \"%s\"\n", std::atof(played.out.c_str()),
                client->text().c_str());
}

TEST_F(DesktopFaults, KilledWhileTheUploadWaitsForItsAnswer) {
    backendtest::ScriptedServer backendServer;
    backendtest::Script info;
    info.body = nlohmann::json{{"flags", nlohmann::json::object()},
                               {"ai", {{"models", nlohmann::json::array()}, {"servers", nlohmann::json::array()}}},
                               {"balancers", nlohmann::json::array({{{"uuid", "B1"}, {"name", "slow"},
                                                                     {"url", backendServer.url("")}}})},
                               {"user", {{"user", {{"email", "ann@example.org"}}}, {"requests", 3}, {"token", "t"}}}}
                    .dump();
    backendServer.script("/users/info", info);
    backendtest::Script never;
    never.gateBeforeHead = "never";
    never.discardBody = true;
    backendServer.script("/transcribe", never);
    store::JsonFileSettingsStore(home.path() / ".config/Sprelio/settings.json").set("apiBaseURL", backendServer.url(""));
    apptest::storeRightAltShortcut(home.path(), false);
    launch();
    bringClientForward();
    tap();
    ASSERT_TRUE(app->waitForCount(kRecordingStarted, 1)) << app->log();
    speak();
    tap();
    ASSERT_TRUE(x11test::waitFor([&] {
        for (const auto& request : backendServer.requests())
            if (request.method == "POST" && request.target.rfind("/transcribe", 0) == 0) return true;
        return false;
    })) << "the upload did not reach the backend\n" << app->log();
    app->kill();
    expectKeptForRetryAfterTheNextStart(onlyRecording(), "killed-while-uploading");
}

// The AI shortcuts of the default set, each through the user's chat service: the one on a selection (Alt+Shift+S
// copies it, asks, and pastes the answer over it) and the translation of a dictation (Alt+T, into Spanish).
class DesktopAiShortcuts : public DesktopEndToEnd {
protected:
    void SetUp() override {
        DesktopEndToEnd::SetUp();
        if (HasFatalFailure()) return;
        chat.onChat([this](const httplib::Request&, httplib::Response& response) {
            server::test::ScriptedOpenAiService::chatAnswer(response, answer);
        });
        apptest::storeAiService(home.path(), chat.url(), "chat-test");
    }
    std::string answer;
    server::test::ScriptedOpenAiService chat;
};

// A chat service on loopback answers within milliseconds, while the S of the hotkey is still down and its grab still
// sends every key to Sprelio: the paste must wait for the key to come up.
TEST_F(DesktopAiShortcuts, AltShiftSReplacesTheSelectionWithTheAnswer) {
    answer = "the quick brown fox 🦊";
    launch(); // the default set
    TestClient::Options options;
    options.primary = "the quick brown fox";
    bringClientForward(options);
    copyByAnotherProgram("what the user had copied");

    ASSERT_TRUE(server.run("xdotool key alt+shift+s"));
    ASSERT_TRUE(x11test::waitFor([&] { return client->text().find("🦊") != std::string::npos; }, 30000ms))
        << "the test application shows: " << client->text() << "\n" << ::testing::PrintToString(client->keyLines());
    EXPECT_EQ(client->text(), "the quick brown fox 🦊") << "pasted once, over the selection";
    ASSERT_EQ(chat.chats().size(), 1u);
    EXPECT_NE(chat.chats()[0].message("user").find("the quick brown fox"), std::string::npos)
        << "the selection is what the service works on: " << chat.chats()[0].message("user");
    EXPECT_TRUE(x11test::waitFor([&] { return clipboard() == "what the user had copied"; }, 10000ms)) << clipboard();
    EXPECT_EQ(activePid(), client->pid());
}

TEST_F(DesktopAiShortcuts, AltTTranslatesADictationIntoSpanish) {
    answer = "Hola, esto es una prueba de dictado";
    launch();
    bringClientForward();
    ASSERT_TRUE(server.run("xdotool key alt+t"));
    ASSERT_TRUE(app->waitForCount(kRecordingStarted, 1)) << "the recording did not start";
    speak();
    ASSERT_TRUE(server.run("xdotool key alt+t"));
    ASSERT_TRUE(x11test::waitFor([&] { return client->text().find("Hola") != std::string::npos; }, 30000ms))
        << "the test application shows: " << client->text() << "\n" << app->log();
    EXPECT_EQ(client->text(), answer) << "the translation alone, once";
    const auto chats = chat.chats(); // a copy: the list is made afresh at each call
    ASSERT_EQ(chats.size(), 1u);
    const std::string asked = chats[0].message("system") + "\n" + chats[0].message("user");
    EXPECT_NE(asked.find("Spanish"), std::string::npos) << "the target language is named: " << asked;
    // The transcript is what the service translates, inside the server's own instructions.
    const auto spoken = testhelpers::words(kSentence);
    const auto found = std::count_if(spoken.begin(), spoken.end(), [&](const std::string& word) {
        return chats[0].message("user").find(word) != std::string::npos;
    });
    EXPECT_GE(found, static_cast<long>(spoken.size()) - 1) << chats[0].message("user");
    // The session is idle again: the plain dictation key works.
    tap();
    ASSERT_TRUE(app->waitForCount(kRecordingStarted, 2));
    speak();
    tap();
    ASSERT_TRUE(x11test::waitFor([&] { return client->text().size() > answer.size() + 10; }, 30000ms))
        << client->text();
}

// Alt+Shift+T on a selection: the translation waits in the results dialog, in front of the application. Return
// runs the item the user chose there last time (Use as is), and the text goes back over the selection in the
// application that was in front, whose clipboard is its own again.
TEST_F(DesktopAiShortcuts, AltShiftTWaitsInTheResultsDialogAndReturnPastesItBack) {
    answer = "the quick brown fox";
    store::JsonFileSettingsStore(home.path() / ".config/Sprelio/settings.json")
        .set("intelligenceResultsView_selectedItemId", md5Hex("useAsIs"));
    launch();
    TestClient::Options options;
    options.primary = "der schnelle braune Fuchs";
    bringClientForward(options);
    copyByAnotherProgram("what the user had copied");

    ASSERT_TRUE(server.run("xdotool key alt+shift+t"));
    ASSERT_TRUE(app->waitForCount("IntelligenceResultsView.selectedItemId: " + md5Hex("useAsIs"), 1, 30000ms))
        << app->log();
    ASSERT_TRUE(x11test::waitFor([&] { return activePid() == app->pid(); }, 10000ms))
        << "the dialog did not take the front";
    EXPECT_TRUE(client->text().empty()) << "nothing is pasted while the dialog waits: " << client->text();
    screenshot("e2e-results-dialog");
    {
        const auto chats = chat.chats();
        ASSERT_EQ(chats.size(), 1u);
        EXPECT_NE(chats[0].message("user").find("der schnelle braune Fuchs"), std::string::npos)
            << chats[0].message("user");
    }

    ASSERT_TRUE(server.run("xdotool key Return"));
    ASSERT_TRUE(x11test::waitFor([&] { return client->text() == answer; }, 20000ms))
        << "the test application shows: " << client->text() << "\n" << app->log();
    EXPECT_TRUE(x11test::waitFor([&] { return activePid() == client->pid(); }, 10000ms));
    EXPECT_TRUE(x11test::waitFor([&] { return clipboard() == "what the user had copied"; }, 10000ms)) << clipboard();
    EXPECT_EQ(chat.chats().size(), 1u) << "Use as is asks the service nothing more";
}

} // namespace
} // namespace sprelio

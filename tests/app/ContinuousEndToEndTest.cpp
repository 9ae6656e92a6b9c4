// Continuous dictation in the desktop application as a user has it: `sprelio` on a private X desktop, its own
// PulseAudio daemon whose microphone is fed festival speech (and sox noise), the embedded server, and our test
// application in front. Continuous mode starts from its key or from `sprelio continuous start|stop`. Every wait is
// on a condition with a deadline.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <regex>

#include "ContinuousTestSupport.h"
#include "SprelioAppProcess.h"
#include "audio/AudioFileDuration.h"
#include "helpers/WordAccuracy.h"
#include "platform/X11TestSupport.h"
#include "platform/test/TemporaryFolder.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/JsonFileSettingsStore.h"
#include "store/Persistence.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using apptest::SprelioApp;
using audio_test::FifoFeeder;
using audio_test::PulseDaemon;
using x11test::TestClient;
using x11test::XServer;

constexpr std::int64_t kRate = 16000;
const std::vector<std::string> kSentences = {"hello this is a test of dictation", "the weather is nice today",
                                             "please send me the report"};
using apptest::kContinuousCalibrated;
using apptest::kContinuousListening;
using apptest::kContinuousPieceStopped;

const std::vector<float>& spoken(std::size_t index) {
    static const std::vector<std::vector<float>> speech = [] {
        std::vector<std::vector<float>> made;
        for (const auto& sentence : kSentences) made.push_back(apptest::festivalSentence(sentence));
        return made;
    }();
    return speech.at(index);
}

std::vector<float> silence(std::chrono::milliseconds length) {
    return std::vector<float>(static_cast<std::size_t>(kRate * length.count() / 1000), 0.0f);
}

class ContinuousEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.ready()) << "Xvfb did not start";
        ASSERT_TRUE(server.startWindowManager()) << "openbox did not start";
        ASSERT_NO_THROW(pulse.start());
        for (std::size_t i = 0; i < kSentences.size(); ++i)
            ASSERT_FALSE(spoken(i).empty()) << "festival's text2wave or ffmpeg could not make speech";
        feeder = std::make_unique<FifoFeeder>(pulse.fifo());
        apptest::storeContinuousShortcut(home.path());
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

    void setting(const std::string& key, const nlohmann::json& value) {
        store::JsonFileSettingsStore file(home.path() / ".config/Sprelio/settings.json");
        file.set(key, value);
    }
    void launch() {
        app = std::make_unique<SprelioApp>(server, pulse, home.path());
        ASSERT_TRUE(app->waitForCount("Desktop.launch() - ready: the hotkeys are live", 1, 30000ms))
            << app->output() << "\n" << app->log();
        client = std::make_unique<TestClient>(server, TestClient::Options{});
        ASSERT_TRUE(client->waitUntilFocused()) << client->describe();
    }
    // A tap of the continuous key, long enough to be taken as one.
    void tapKey() {
        ASSERT_TRUE(server.run("xdotool keydown Alt_R"));
        ASSERT_TRUE(app->waitForCount("KeyboardShortcutManager.executeActionForKeyCode() - keyCode: 61, isKeyDown: true",
                                      ++presses_))
            << "the press was not taken";
        ASSERT_TRUE(server.run("xdotool keyup Alt_R"));
    }
    // `sprelio continuous VERB` from a terminal of the same user and display.
    audio_test::ProcessOutput command(const std::string& verb) const {
        return audio_test::runCommand("env -i PATH=/usr/bin:/bin HOME=" + audio_test::shellQuoted(home.path().string()) +
                                      " XDG_RUNTIME_DIR=" + audio_test::shellQuoted((home.path() / "run").string()) +
                                      " DISPLAY=" + server.name() + " " + SPRELIO_BINARY + " continuous " + verb +
                                      " 2>&1");
    }
    void waitUntilCalibrated() {
        ASSERT_TRUE(app->waitForCount(kContinuousListening, ++starts_, 10000ms)) << app->log();
        ASSERT_TRUE(app->waitForCount(kContinuousCalibrated, starts_, 10000ms)) << app->log();
    }
    // Plays what is given and waits until it has all gone into the microphone.
    void play(const std::vector<float>& signal) {
        const std::int64_t end = feeder->play(signal) + static_cast<std::int64_t>(signal.size());
        ASSERT_TRUE(x11test::waitFor([&] { return feeder->framesWritten() >= end; }, 60000ms));
    }
    std::vector<std::shared_ptr<store::LogEntry>> history() const {
        store::PersistentContainer other("Persistence", app->dataFolder() / store::PersistenceController::kStoreFileName);
        if (other.loadPersistentStores()) return {};
        auto entries = other.viewContext().fetchAll<store::LogEntry>();
        std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
            return a->timestamp().value_or(0) < b->timestamp().value_or(0);
        });
        return entries;
    }
    std::vector<fs::path> recordings() const {
        std::vector<fs::path> found;
        const fs::path root = app->dataFolder() / "recordings";
        if (!fs::exists(root)) return found;
        for (const auto& entry : fs::recursive_directory_iterator(root))
            if (entry.path().extension() == ".caf") found.push_back(entry.path());
        return found;
    }
    void screenshot(const std::string& name) {
        fs::create_directories(apptest::screenshotFolder());
        server.run("ffmpeg -nostdin -loglevel error -y -f x11grab -video_size 1280x800 -i " + server.name() +
                   " -frames:v 1 " + (apptest::screenshotFolder() / (name + ".png")).string());
    }

    XServer server;
    PulseDaemon pulse;
    std::unique_ptr<FifoFeeder> feeder;
    platform::test::TemporaryFolder home{"sprelio-continuous-e2e"};
    std::unique_ptr<SprelioApp> app;
    std::unique_ptr<TestClient> client;
    std::size_t presses_ = 0;
    std::size_t starts_ = 0;
};

TEST_F(ContinuousEndToEnd, ThreeSentencesWithPausesArriveAsThreePiecesInOrder) {
    launch();
    tapKey();
    waitUntilCalibrated();
    screenshot("e2e-continuous-listening");
    std::vector<float> speech;
    for (std::size_t i = 0; i < kSentences.size(); ++i) {
        speech.insert(speech.end(), spoken(i).begin(), spoken(i).end());
        const auto pause = silence(2000ms);
        speech.insert(speech.end(), pause.begin(), pause.end());
    }
    play(speech);
    const auto successes = [&] {
        std::vector<std::string> texts;
        for (const auto& entry : history())
            if (entry->level() == 4) texts.push_back(entry->message().value_or(""));
        return texts;
    };
    ASSERT_TRUE(x11test::waitFor([&] { return successes().size() >= kSentences.size(); }, 30000ms))
        << "pieces transcribed: " << successes().size() << "; the application shows: " << client->text();
    const auto texts = successes();
    ASSERT_EQ(texts.size(), kSentences.size());
    std::string all;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        EXPECT_GE(testhelpers::wordAccuracy(kSentences[i], texts[i]), 0.6) << i << ": " << texts[i];
        all += texts[i];
    }
    // Each piece went into the application in front, in the order it was spoken.
    ASSERT_TRUE(x11test::waitFor([&] { return testhelpers::words(client->text()) == testhelpers::words(all); },
                                 10000ms))
        << "the application shows: " << client->text();
    EXPECT_EQ(app->count("performPasting() - pasting text: <privatized>"), kSentences.size());
    // The mode goes on after each piece.
    EXPECT_EQ(app->count("continuousVoiceToText - appStatus=idle"), 1u);
    tapKey();
    ASSERT_TRUE(app->waitForCount("ContinuousSpeechManager.stopMonitoring() - called", 2));
}

TEST_F(ContinuousEndToEnd, SteadyNoiseBelowSpeechCalibratesTheThresholdAndTriggersNothing) {
    audio_test::TempDir dir;
    const auto raw = dir / "noise.f32";
    const auto made = audio_test::runCommand("sox -n -r 16000 -c 1 -e floating-point -b 32 -t raw " +
                                             audio_test::shellQuoted(raw.string()) +
                                             " synth 14 pinknoise vol 0.2 2>&1");
    ASSERT_EQ(made.exitCode, 0) << made.out;
    const auto bytes = audio_test::readBytes(raw);
    std::vector<float> noise(bytes.size() / sizeof(float));
    std::memcpy(noise.data(), bytes.data(), noise.size() * sizeof(float));
    ASSERT_GT(noise.size(), static_cast<std::size_t>(13 * kRate));

    launch();
    // Another program listening keeps the microphone's pipe read, so that the noise already flows when Sprelio
    // starts to listen and its calibration hears nothing but the noise.
    const auto listener = audio_test::runCommand("PULSE_SERVER=" + audio_test::shellQuoted(pulse.serverAddress()) +
                                                 " parec -d mic --raw >/dev/null 2>&1 & echo $!");
    const pid_t listenerPid = static_cast<pid_t>(std::atoi(listener.out.c_str()));
    ASSERT_GT(listenerPid, 0) << listener.out;
    const std::int64_t at = feeder->play(noise);
    const bool flowing = x11test::waitFor([&] { return feeder->framesWritten() >= at + kRate; }, 10000ms);
    if (flowing) tapKey();
    if (flowing) waitUntilCalibrated();
    ::kill(listenerPid, SIGTERM);
    ASSERT_TRUE(flowing) << "the noise did not reach the microphone";
    const std::size_t stopsBefore = app->count(kContinuousPieceStopped);
    // The threshold sits above the noise: 12 above its mean, above the floor.
    std::smatch found;
    const std::string log = app->log();
    const auto line = log.find(kContinuousCalibrated);
    ASSERT_NE(line, std::string::npos);
    const std::string calibration = log.substr(line, 120);
    ASSERT_TRUE(std::regex_search(calibration, found,
                                  std::regex(R"(Calibration complete: avgDb=(-?[0-9.]+), threshold=(-?[0-9.]+))")));
    const double mean = std::stod(found[1]), threshold = std::stod(found[2]);
    EXPECT_GT(mean, -65.0) << "the noise was heard";
    EXPECT_NEAR(threshold, mean + 12.0, 0.11);
    ASSERT_TRUE(x11test::waitFor([&] { return feeder->framesWritten() >= at + std::int64_t(noise.size()); }, 30000ms));
    const std::size_t stopsAfter = app->count(kContinuousPieceStopped);
    tapKey();
    ASSERT_TRUE(app->waitForCount("ContinuousSpeechManager.stopMonitoring() - called", 2));
    // Nothing was taken for voice: no piece was ended by a pause. The one piece that goes to the server is the
    // one that recorded through the calibration and the silence limit after it, which is long enough and is sent
    // whatever it holds (the decision rests on its length alone); whatever the server made of the noise is all
    // that may have arrived.
    EXPECT_EQ(stopsAfter, stopsBefore) << "a pause ended a piece, so something was taken for voice";
    const auto entries = history();
    EXPECT_LE(entries.size(), 1u);
    const std::string first = entries.empty() ? std::string() : entries[0]->message().value_or("");
    EXPECT_EQ(testhelpers::words(client->text()), testhelpers::words(first)) << client->text();
    if (!first.empty()) {
        ASSERT_TRUE(entries[0]->fileURL().has_value());
        const auto file = store::AppConstants::pathFromFileURLOrPath(*entries[0]->fileURL());
        EXPECT_GT(audioFileDurationSeconds(file).value_or(0), 3.0) << "the calibration and the silence limit";
    }
}

TEST_F(ContinuousEndToEnd, APieceShorterThanTheMinimumIsDroppedAndItsRecordingKept) {
    // Every piece is at least the pause that ends it long: a minimum above that drops a short utterance's piece.
    setting("minimumRecordingDuration", 6000);
    launch();
    tapKey();
    waitUntilCalibrated();
    std::vector<float> speech = spoken(2);
    const auto pause = silence(3000ms);
    speech.insert(speech.end(), pause.begin(), pause.end());
    play(speech);
    tapKey();
    ASSERT_TRUE(app->waitForCount("ContinuousSpeechManager.stopMonitoring() - called", 2));
    EXPECT_TRUE(history().empty()) << "nothing was uploaded";
    EXPECT_EQ(client->text(), "");
    // The dropped piece's recording stays: the calibration, the sentence and the pause after it.
    double longest = 0;
    for (const auto& file : recordings()) longest = std::max(longest, audioFileDurationSeconds(file).value_or(0));
    EXPECT_GT(longest, 4.0);
    EXPECT_LT(longest, 6.0);
}

TEST_F(ContinuousEndToEnd, StoppingMidPieceFromTheCommandLineStillDeliversThePiece) {
    launch();
    const auto started = command("start");
    EXPECT_EQ(started.exitCode, 0) << started.out;
    EXPECT_NE(started.out.find("listening"), std::string::npos) << started.out;
    waitUntilCalibrated();
    const auto again = command("start");
    EXPECT_EQ(again.exitCode, 0) << again.out;
    EXPECT_NE(again.out.find("already"), std::string::npos) << again.out;
    // The whole sentence, then the stop before the pause could end the piece.
    std::vector<float> speech = spoken(0);
    const auto pause = silence(300ms);
    speech.insert(speech.end(), pause.begin(), pause.end());
    play(speech);
    const auto stopped = command("stop");
    EXPECT_EQ(stopped.exitCode, 0) << stopped.out;
    ASSERT_TRUE(x11test::waitFor([&] { return testhelpers::wordAccuracy(kSentences[0], client->text()) >= 0.6; },
                                 30000ms))
        << "the application shows: " << client->text();
    // The mode is over: the session is idle again and a further stop says so.
    const auto idle = command("stop");
    EXPECT_EQ(idle.exitCode, 0);
    EXPECT_NE(idle.out.find("not running"), std::string::npos) << idle.out;
}

TEST(ContinuousCommandLine, WithoutTheApplicationItSaysSoAndFails) {
    platform::test::TemporaryFolder home{"sprelio-continuous-cli"};
    fs::create_directories(home.path() / "run");
    for (const std::string verb : {"start", "stop"}) {
        const auto result = audio_test::runCommand(
            "env -i PATH=/usr/bin:/bin HOME=" + audio_test::shellQuoted(home.path().string()) +
            " XDG_RUNTIME_DIR=" + audio_test::shellQuoted((home.path() / "run").string()) + " DISPLAY=:97 " +
            SPRELIO_BINARY + " continuous " + verb + " 2>&1");
        EXPECT_EQ(result.exitCode, 3) << result.out;
        EXPECT_NE(result.out.find("Sprelio is not running"), std::string::npos) << result.out;
    }
    const auto wrong = audio_test::runCommand(std::string(SPRELIO_BINARY) + " continuous pause 2>&1");
    EXPECT_EQ(wrong.exitCode, 2) << wrong.out;
    EXPECT_NE(wrong.out.find("sprelio continuous start|stop"), std::string::npos) << wrong.out;
}

} // namespace
} // namespace sprelio

// Continuous dictation in the desktop application as a user has it: `sprelio` on a private X desktop, its own
// PulseAudio daemon whose microphone is fed festival speech (and sox noise), the embedded server, and our test
// application in front. Continuous mode starts from its key or from `sprelio continuous start|stop`. Every wait is
// on a condition with a deadline.
#include <gtest/gtest.h>

#include <cstring>
#include <regex>

#include "ContinuousTestSupport.h"
#include "DesktopTestFixture.h"
#include "audio/AudioFileDuration.h"
#include "helpers/WordAccuracy.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/JsonFileSettingsStore.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using apptest::kRate;

const std::vector<std::string> kSentences = {"hello this is a test of dictation", "the weather is nice today",
                                             "please send me the report"};
using apptest::kContinuousCalibrated;
using apptest::kContinuousListening;
using apptest::kContinuousPieceStopped;

const std::vector<float>& spoken(std::size_t index) { return apptest::spokenText(kSentences.at(index)); }

std::vector<float> silence(std::chrono::milliseconds length) {
    return std::vector<float>(static_cast<std::size_t>(kRate * length.count() / 1000), 0.0f);
}

class ContinuousEndToEnd : public apptest::DesktopFixture {
protected:
    ContinuousEndToEnd() : DesktopFixture("sprelio-continuous-e2e") {}
    void SetUp() override {
        DesktopFixture::SetUp();
        if (HasFatalFailure()) return;
        for (std::size_t i = 0; i < kSentences.size(); ++i)
            ASSERT_FALSE(spoken(i).empty()) << "festival's text2wave or ffmpeg could not make speech";
        apptest::storeContinuousShortcut(home.path());
    }

    void setting(const std::string& key, const nlohmann::json& value) {
        store::JsonFileSettingsStore file(home.path() / ".config/Sprelio/settings.json");
        file.set(key, value);
    }
    void launch() {
        ASSERT_NO_FATAL_FAILURE(DesktopFixture::launch());
        focusClient();
    }
    // `sprelio continuous VERB` from a terminal of the same user and display.
    audio_test::ProcessOutput command(const std::string& verb) const {
        audio_test::ProcessOutput result;
        result.exitCode = cli("continuous " + verb, &result.out);
        return result;
    }
    void waitUntilCalibrated() {
        ASSERT_TRUE(app->waitForCount(kContinuousListening, ++starts_, 10000ms)) << app->log();
        ASSERT_TRUE(app->waitForCount(kContinuousCalibrated, starts_, 10000ms)) << app->log();
    }
    std::vector<fs::path> recordings() const {
        std::vector<fs::path> found;
        const fs::path root = app->dataFolder() / "recordings";
        if (!fs::exists(root)) return found;
        for (const auto& entry : fs::recursive_directory_iterator(root))
            if (entry.path().extension() == ".caf") found.push_back(entry.path());
        return found;
    }
    std::size_t starts_ = 0;
};

TEST_F(ContinuousEndToEnd, ThreeSentencesWithPausesArriveAsThreePiecesInOrder) {
    launch();
    tap();
    waitUntilCalibrated();
    screenshot("e2e-continuous-listening");
    std::vector<float> speech;
    for (std::size_t i = 0; i < kSentences.size(); ++i) {
        speech.insert(speech.end(), spoken(i).begin(), spoken(i).end());
        const auto pause = silence(2000ms);
        speech.insert(speech.end(), pause.begin(), pause.end());
    }
    play(speech, 60000ms);
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
    tap();
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
    if (flowing) tap();
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
    tap();
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
    tap();
    waitUntilCalibrated();
    std::vector<float> speech = spoken(2);
    const auto pause = silence(3000ms);
    speech.insert(speech.end(), pause.begin(), pause.end());
    play(speech, 60000ms);
    tap();
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
    play(speech, 60000ms);
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
        std::string said;
        EXPECT_EQ(apptest::runCli(home.path(), ":97", "continuous " + verb, &said), 3) << said;
        EXPECT_NE(said.find("Sprelio is not running"), std::string::npos) << said;
    }
    const auto wrong = audio_test::runCommand(std::string(SPRELIO_BINARY) + " continuous pause 2>&1");
    EXPECT_EQ(wrong.exitCode, 2) << wrong.out;
    EXPECT_NE(wrong.out.find("sprelio continuous start|stop"), std::string::npos) << wrong.out;
}

} // namespace
} // namespace sprelio

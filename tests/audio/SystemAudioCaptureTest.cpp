// The Files tab's recording of the computer's sound and the microphone, on a private PulseAudio daemon: what is
// played into the null sink lands in "_sys.caf", what the microphone hears in "_mic.caf", both read by FFmpeg and
// recognised by the embedded server through `sprelio transcribe`; a device that goes away or stops being the
// default mid-recording leaves its file with what was recorded, and the owner hears of it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

#include "AudioTestSupport.h"
#include "PulseDaemon.h"
#include "audio/ScreenCaptureKitManager.h"
#include "helpers/WordAccuracy.h"
#include "platform/linux/PulseSystemAudio.h"
#include "platform/loop/RealTimeLoop.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using audio_test::FifoFeeder;
using audio_test::PulseDaemon;
using audio_test::runCommand;
using audio_test::shellQuoted;
using audio_test::TempDir;
using audio_test::waitFor;
namespace fs = std::filesystem;

const std::string kSpeakerSentence = "Please call me tomorrow morning at the office.";
const std::string kMicrophoneSentence = "The weather is nice today.";

// Festival's voice as a WAV file (16 kHz mono) and as samples; empty when festival or FFmpeg failed.
struct Spoken {
    fs::path wav;
    std::vector<float> samples;
};

Spoken speak(const TempDir& dir, const std::string& name, const std::string& sentence) {
    Spoken spoken;
    const auto wav = dir / (name + ".wav");
    const auto raw = dir / (name + ".f32");
    const auto made = runCommand("echo " + shellQuoted(sentence) + " | text2wave -eval '(voice_cmu_us_slt_arctic_hts)' -o " +
                                 shellQuoted((dir / (name + "-22k.wav")).string()) +
                                 " >/dev/null 2>&1 && ffmpeg -nostdin -loglevel error -i " +
                                 shellQuoted((dir / (name + "-22k.wav")).string()) + " -ac 1 -ar 16000 " +
                                 shellQuoted(wav.string()) + " -f f32le -ac 1 -ar 16000 " + shellQuoted(raw.string()) +
                                 " 2>&1");
    if (made.exitCode != 0) return spoken;
    spoken.wav = wav;
    const auto bytes = audio_test::readBytes(raw);
    spoken.samples.resize(bytes.size() / sizeof(float));
    std::copy_n(bytes.data(), spoken.samples.size() * sizeof(float),
                reinterpret_cast<std::uint8_t*>(spoken.samples.data()));
    return spoken;
}

// What the embedded server hears in a file: `sprelio transcribe` in a fresh home of its own.
std::string recognise(const fs::path& file) {
    TempDir home;
    const auto r = runCommand("env -i PATH=/usr/bin:/bin HOME=" + shellQuoted(home.path().string()) + " " +
                              shellQuoted(SPRELIO_BINARY) + " transcribe " + shellQuoted(file.string()) +
                              " 2>/dev/null");
    return audio_test::trimmed(r.out);
}

// Declared after a FifoFeeder, ends the daemon before the feeder: a pipe source that nobody records from stops
// reading its FIFO, and only a broken pipe ends the feeder's write.
struct DaemonEndsFirst {
    PulseDaemon& daemon;
    ~DaemonEndsFirst() { daemon.kill(); }
};

struct EndReport {
    ScreenCaptureKitManager::Source source;
    ScreenCaptureKitManager::End why;
    std::string device;
};

class SystemAudioCaptureTest : public ::testing::Test {
protected:
    void SetUp() override {
        daemon_.start();
        loopThread_ = std::thread([this] { loop_.run(); });
        makeManager();
    }
    void makeManager() {
        manager_ = std::make_unique<ScreenCaptureKitManager>(systemAudio_, loop_);
        manager_->onSourceEnded = [this](ScreenCaptureKitManager::Source source, ScreenCaptureKitManager::End why,
                                         const std::string& device) {
            std::lock_guard guard(mutex_);
            ends_.push_back({source, why, device});
        };
    }
    void TearDown() override {
        manager_.reset();
        loop_.quit();
        loopThread_.join();
    }

    // Plays a WAV file into the null sink and returns when it has been played.
    void playIntoSink(const fs::path& wav) {
        const auto r = daemon_.pactl("list short sinks");
        ASSERT_NE(r.out.find("out"), std::string::npos) << r.out;
        const auto played = runCommand("PULSE_SERVER=" + shellQuoted(daemon_.serverAddress()) + " paplay -d out " +
                                       shellQuoted(wav.string()) + " 2>&1");
        ASSERT_EQ(played.exitCode, 0) << played.out;
    }

    std::vector<EndReport> ends() {
        std::lock_guard guard(mutex_);
        return ends_;
    }

    static double seconds(const fs::path& file) {
        return double(audio_test::ffmpegDecode(file).samples.size()) / 16000.0;
    }

    PulseDaemon daemon_;
    TempDir dir_;
    platform::RealTimeLoop loop_;
    std::thread loopThread_;
    platform::PulseSystemAudio systemAudio_;
    std::unique_ptr<ScreenCaptureKitManager> manager_;
    std::mutex mutex_;
    std::vector<EndReport> ends_;
};

TEST_F(SystemAudioCaptureTest, SoundPlayedIntoTheSinkIsInTheSysFileAndRecognised) {
    const auto speech = speak(dir_, "speaker", kSpeakerSentence);
    ASSERT_FALSE(speech.wav.empty()) << "festival's text2wave or FFmpeg could not make speech";
    const auto base = dir_ / "rec.m4a";
    manager_->startRecording(base, FilesMenuRecordingMode::systemOnly);
    playIntoSink(speech.wav);
    const auto [mic, sys] = manager_->stopRecording();
    ASSERT_TRUE(mic && sys);
    EXPECT_EQ(*mic, dir_ / "rec_mic.caf");
    EXPECT_EQ(*sys, dir_ / "rec_sys.caf");
    EXPECT_FALSE(fs::exists(*mic)) << "systemOnly records no microphone";
    EXPECT_FALSE(fs::exists(base)) << "the base path itself is never written";
    ASSERT_TRUE(fs::exists(*sys));

    const auto decoded = audio_test::ffmpegDecode(*sys);
    ASSERT_EQ(decoded.exitCode, 0) << "FFmpeg reads the file";
    EXPECT_GE(double(decoded.samples.size()), 0.95 * double(speech.samples.size()));
    // The sentence is in the file as it was played: its best alignment with the played samples is close.
    const auto likeness = audio_test::bestCorrelation(speech.samples, decoded.samples, 16000);
    EXPECT_GT(likeness.correlation, 0.7);

    const std::string heard = recognise(*sys);
    const double accuracy = testhelpers::wordAccuracy(kSpeakerSentence, heard);
    std::cout << "[ measured ] _sys.caf word accuracy " << accuracy << " (\"" << heard << "\")\n";
    EXPECT_GE(accuracy, 0.8) << heard;
    EXPECT_TRUE(ends().empty());
}

TEST_F(SystemAudioCaptureTest, BothWritesTwoFilesEachWithItsOwnSpeech) {
    const auto speaker = speak(dir_, "speaker", kSpeakerSentence);
    const auto microphone = speak(dir_, "microphone", kMicrophoneSentence);
    ASSERT_FALSE(speaker.wav.empty() || microphone.samples.empty()) << "festival could not make speech";
    FifoFeeder feeder(daemon_.fifo());
    DaemonEndsFirst endsFirst{daemon_};
    const auto base = dir_ / "session.caf";
    manager_->startRecording(base, FilesMenuRecordingMode::both);
    // The microphone speaks after the speakers are done, so that neither file holds both by accident of timing.
    playIntoSink(speaker.wav);
    const auto micStart = feeder.play(microphone.samples);
    ASSERT_TRUE(waitFor([&] { return feeder.framesWritten() >= micStart + std::int64_t(microphone.samples.size()); }, 20s));
    const auto [mic, sys] = manager_->stopRecording();
    daemon_.kill();
    ASSERT_TRUE(mic && sys);
    ASSERT_TRUE(fs::exists(*mic) && fs::exists(*sys));

    const std::string micText = recognise(*mic);
    const std::string sysText = recognise(*sys);
    std::cout << "[ measured ] both: _mic.caf \"" << micText << "\", _sys.caf \"" << sysText << "\"\n";
    EXPECT_GE(testhelpers::wordAccuracy(kMicrophoneSentence, micText), 0.8) << micText;
    EXPECT_GE(testhelpers::wordAccuracy(kSpeakerSentence, sysText), 0.8) << sysText;
    // Each file has its own speech and not the other's.
    EXPECT_EQ(micText.find("office"), std::string::npos) << micText;
    EXPECT_EQ(sysText.find("weather"), std::string::npos) << sysText;
}

TEST_F(SystemAudioCaptureTest, ADeviceThatGoesAwayOrStopsBeingTheDefaultKeepsWhatWasRecordedAndSaysSo) {
    const auto speech = speak(dir_, "speaker", kSpeakerSentence);
    ASSERT_FALSE(speech.wav.empty()) << "festival could not make speech";
    struct Row {
        const char* what;
        std::string change; // pactl arguments, run mid-recording
        ScreenCaptureKitManager::Source source;
        ScreenCaptureKitManager::End why;
    };
    const std::vector<Row> rows = {
        {"the output device is removed", "unload-module module-null-sink",
         ScreenCaptureKitManager::Source::computerSound, ScreenCaptureKitManager::End::deviceRemoved},
        {"another output becomes the default", "set-default-sink other",
         ScreenCaptureKitManager::Source::computerSound, ScreenCaptureKitManager::End::defaultChanged},
        {"another input becomes the default", "set-default-source other.monitor",
         ScreenCaptureKitManager::Source::microphone, ScreenCaptureKitManager::End::defaultChanged},
    };
    int n = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        // A fresh daemon per row: each row changes its devices.
        manager_.reset();
        {
            std::lock_guard guard(mutex_);
            ends_.clear();
        }
        daemon_.kill();
        daemon_.start();
        ASSERT_EQ(daemon_.pactl("load-module module-null-sink sink_name=other").exitCode, 0);
        ASSERT_EQ(daemon_.pactl("set-default-sink out").exitCode, 0);
        makeManager();
        FifoFeeder feeder(daemon_.fifo());
        DaemonEndsFirst endsFirst{daemon_};
        const auto base = dir_ / ("row" + std::to_string(++n) + ".caf");
        manager_->startRecording(base, FilesMenuRecordingMode::both);
        playIntoSink(speech.wav);
        ASSERT_EQ(daemon_.pactl(row.change).exitCode, 0);
        ASSERT_TRUE(waitFor([&] { return !ends().empty(); }, 10s)) << "the owner is told";
        const auto reported = ends();
        ASSERT_EQ(reported.size(), 1u);
        EXPECT_EQ(reported[0].source, row.source);
        EXPECT_EQ(reported[0].why, row.why);
        EXPECT_FALSE(reported[0].device.empty());
        // The other source goes on: the recording is still running, and it ends normally.
        const auto [mic, sys] = manager_->stopRecording();
        daemon_.kill();
        ASSERT_TRUE(mic && sys);
        for (const auto& file : {*mic, *sys}) {
            ASSERT_TRUE(fs::exists(file)) << file;
            EXPECT_EQ(audio_test::ffmpegDecode(file).exitCode, 0) << file;
        }
        // What the speakers played before the change is kept.
        const auto kept = row.source == ScreenCaptureKitManager::Source::computerSound ? *sys : *mic;
        if (row.source == ScreenCaptureKitManager::Source::computerSound) {
            EXPECT_GE(seconds(kept), 0.9 * double(speech.samples.size()) / 16000.0);
            EXPECT_GE(testhelpers::wordAccuracy(kSpeakerSentence, recognise(kept)), 0.6);
        } else {
            EXPECT_GT(seconds(kept), 1.0);
        }
    }
}

TEST_F(SystemAudioCaptureTest, ModeNoneStartsNothing) {
    const auto base = dir_ / "none.caf";
    manager_->startRecording(base, FilesMenuRecordingMode::none);
    const auto [mic, sys] = manager_->stopRecording();
    EXPECT_FALSE(mic || sys) << "no base path was kept";
    EXPECT_TRUE(fs::is_empty(dir_.path()));
}

} // namespace
} // namespace sprelio

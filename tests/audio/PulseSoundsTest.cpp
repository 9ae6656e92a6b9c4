// The named sounds and the player of recordings, against a private PulseAudio daemon whose null sink's monitor is
// recorded with parec.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <set>

#include "PulseDaemon.h"
#include "audio/AudioPlaybackManager.h"
#include "audio/CafOpusWriter.h"
#include "platform/linux/PulseAudioConnection.h"
#include "platform/linux/PulseAudioOutput.h"
#include "platform/linux/PulseSoundPlayer.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/test/TestPlatform.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using audio_test::PulseDaemon;
using audio_test::TempDir;
using audio_test::waitFor;

const std::vector<std::string> kNames = {"Basso", "Glass", "Purr",  "Pop",   "Blow",  "Ping",  "Tink",
                                         "Submarine", "Frog", "Funk", "Hero", "Morse", "Bottle", "Sosumi"};

std::vector<float> samplesOf(const platform::WavSound& sound) {
    std::vector<float> out(sound.pcm.size() / 2);
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = float(std::int16_t(sound.pcm[2 * i] | sound.pcm[2 * i + 1] << 8)) / 32768.0f;
    return out;
}

// Records the null sink's monitor (16 kHz mono float) into a file, from its own parec process.
class MonitorRecorder {
public:
    MonitorRecorder(const PulseDaemon& daemon, const std::filesystem::path& file) : file_(file) {
        pid_ = ::fork();
        if (pid_ == 0) {
            const int out = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (out < 0) ::_exit(126);
            ::dup2(out, 1);
            ::setenv("PULSE_SERVER", daemon.serverAddress().c_str(), 1);
            ::execlp("parec", "parec", "--device=out.monitor", "--format=float32le", "--rate=16000", "--channels=1",
                     "--latency-msec=20", static_cast<char*>(nullptr));
            ::_exit(127);
        }
    }
    ~MonitorRecorder() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        int status = 0;
        ::waitpid(pid_, &status, 0);
    }
    MonitorRecorder(const MonitorRecorder&) = delete;
    MonitorRecorder& operator=(const MonitorRecorder&) = delete;

    std::vector<float> samples() const {
        const auto bytes = audio_test::readBytes(file_);
        std::vector<float> out(bytes.size() / sizeof(float));
        // An empty file has no buffer to copy from (memcpy's source must not be null even for no bytes).
        if (!out.empty()) std::memcpy(out.data(), bytes.data(), out.size() * sizeof(float));
        return out;
    }
    // Seconds from the first to the last sample above the threshold; 0 when none is.
    double activeSpan(float threshold = 0.05f) const {
        const auto s = samples();
        std::optional<std::size_t> first;
        std::size_t last = 0;
        for (std::size_t i = 0; i < s.size(); ++i) {
            if (std::abs(s[i]) <= threshold) continue;
            if (!first) first = i;
            last = i;
        }
        return first ? double(last - *first) / 16000.0 : 0.0;
    }
    // Stretches of sound parted by at least `gap` seconds of quiet.
    int bursts(double gap = 0.2, float threshold = 0.05f) const {
        const auto s = samples();
        int count = 0;
        std::optional<std::size_t> last;
        for (std::size_t i = 0; i < s.size(); ++i) {
            if (std::abs(s[i]) <= threshold) continue;
            if (!last || double(i - *last) / 16000.0 >= gap) ++count;
            last = i;
        }
        return count;
    }
    // Seconds of quiet at the end of what was recorded.
    double quietAtEnd(float threshold = 0.05f) const {
        const auto s = samples();
        std::size_t i = s.size();
        while (i > 0 && std::abs(s[i - 1]) <= threshold) --i;
        return double(s.size() - i) / 16000.0;
    }
    float peak() const {
        float p = 0;
        for (float v : samples()) p = std::max(p, std::abs(v));
        return p;
    }

private:
    std::filesystem::path file_;
    pid_t pid_ = -1;
};

std::filesystem::path writeTone(const std::filesystem::path& path, double seconds, double frequency) {
    std::vector<float> tone(std::size_t(seconds * 16000));
    for (std::size_t i = 0; i < tone.size(); ++i)
        tone[i] = float(0.5 * std::sin(2 * M_PI * frequency * double(i) / 16000));
    CafOpusWriter writer;
    writer.open(path);
    writer.appendSamples(tone.data(), tone.size());
    writer.finish();
    return path;
}

// ---- The files ----

TEST(SoundFiles, EveryNamedSoundIsThereAndEachIsItsOwn) {
    platform::PulseAudioConnection connection("Sprelio tests");
    platform::PulseSoundPlayer player(connection);
    std::set<std::vector<std::uint8_t>> contents;
    std::set<std::pair<int, int>> shapes; // (length in 10 ms, zero crossings per 10 ms)
    for (const auto& name : kNames) {
        const auto file = player.soundFile(name);
        ASSERT_TRUE(file) << name;
        const auto sound = platform::readWavSound(*file);
        ASSERT_TRUE(sound) << name;
        EXPECT_EQ(sound->channels, 1);
        const auto samples = samplesOf(*sound);
        const double seconds = double(samples.size()) / sound->sampleRate;
        EXPECT_GT(seconds, 0.05) << name;
        EXPECT_LT(seconds, 1.5) << name;
        float peak = 0;
        std::size_t crossings = 0;
        for (std::size_t i = 0; i < samples.size(); ++i) {
            peak = std::max(peak, std::abs(samples[i]));
            if (i > 0 && (samples[i - 1] < 0) != (samples[i] < 0)) ++crossings;
        }
        EXPECT_GT(peak, 0.5f) << name;
        EXPECT_LT(peak, 0.99f) << name; // no clipping
        contents.insert(sound->pcm);
        shapes.insert({int(seconds * 100), int(double(crossings) / seconds / 100)});
    }
    EXPECT_EQ(contents.size(), kNames.size());
    EXPECT_EQ(shapes.size(), kNames.size()) << "two sounds share length and pitch";
    const auto names = player.soundNames();
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), std::set<std::string>(kNames.begin(), kNames.end()));
}

TEST(SoundFiles, BrokenOrForeignFilesAreRefused) {
    TempDir dir;
    std::ofstream(dir / "Short.wav") << "RIFF";
    std::ofstream(dir / "Text.wav") << std::string(100, 'x');
    EXPECT_FALSE(platform::readWavSound(dir / "Short.wav"));
    EXPECT_FALSE(platform::readWavSound(dir / "Text.wav"));
    EXPECT_FALSE(platform::readWavSound(dir / "Missing.wav"));
}

// ---- Through the server ----

class PulseSoundsTest : public ::testing::Test {
protected:
    void SetUp() override {
        daemon_.start();
        connection_ = std::make_unique<platform::PulseAudioConnection>("Sprelio tests");
        ASSERT_TRUE(connection_->waitUntilReady(5s));
        recorder_ = std::make_unique<MonitorRecorder>(daemon_, dir_ / "monitor.f32");
        ASSERT_TRUE(waitFor([&] { return recorder_->samples().size() > 1600; }));
    }
    void TearDown() override {
        recorder_.reset();
        connection_.reset();
        daemon_.kill();
    }

    platform::test::RecordingLogSink logs_;
    TempDir dir_;
    PulseDaemon daemon_;
    std::unique_ptr<platform::PulseAudioConnection> connection_;
    std::unique_ptr<MonitorRecorder> recorder_;
};

TEST_F(PulseSoundsTest, ANamedSoundReachesTheSinkAndAnUnknownOneIsAnError) {
    platform::PulseSoundPlayer player(*connection_);
    player.play("Nonexistent");
    EXPECT_TRUE(logs_.contains("SoundPlayer.play() - unknown sound: Nonexistent", LogLevel::error));
    player.play("../etc/passwd");
    EXPECT_TRUE(logs_.contains("SoundPlayer.play() - unknown sound: ../etc/passwd", LogLevel::error));
    EXPECT_LT(recorder_->peak(), 0.01f);

    player.play("Glass");
    ASSERT_TRUE(waitFor([&] { return recorder_->peak() > 0.3f; }));
    // Once uploaded it plays from the server's cache again.
    ASSERT_TRUE(
        waitFor([&] { return daemon_.pactl("list samples short").out.find("sprelio-Glass") != std::string::npos; }));
    ASSERT_TRUE(waitFor([&] { return recorder_->quietAtEnd() > 0.3; }));
    EXPECT_EQ(recorder_->bursts(), 1);
    EXPECT_GT(recorder_->activeSpan(), 0.2);
    player.play("Glass");
    ASSERT_TRUE(waitFor([&] { return recorder_->bursts() == 2; }));
}

TEST_F(PulseSoundsTest, ARecordingPlaysForItsDurationAndClearsItsURL) {
    platform::RealTimeLoop loop;
    platform::PulseAudioOutput output(*connection_, loop);
    AudioPlaybackManager manager(output);
    const auto file = writeTone(dir_ / "tone.caf", 1.5, 440);
    ASSERT_TRUE(manager.playAudio(file));
    EXPECT_EQ(manager.currentURL(), file);
    EXPECT_TRUE(logs_.contains("AudioPlaybackManager.currentURL: file://" + file.string()));
    ASSERT_TRUE(loop.runUntil([&] { return !manager.currentURL(); }, 10s));
    EXPECT_TRUE(logs_.contains("AudioPlaybackManager.currentURL: nil"));
    const double span = recorder_->activeSpan();
    std::printf("played 1.500 s recording, heard %.3f s\n", span);
    EXPECT_NEAR(span, 1.5, 0.05);
}

TEST_F(PulseSoundsTest, ASecondPlayStopsTheFirst) {
    platform::RealTimeLoop loop;
    platform::PulseAudioOutput output(*connection_, loop);
    AudioPlaybackManager manager(output);
    const auto longFile = writeTone(dir_ / "long.caf", 4.0, 440);
    const auto shortFile = writeTone(dir_ / "short.caf", 0.5, 660);
    int changes = 0;
    manager.setOnChange([&] { ++changes; });
    ASSERT_TRUE(manager.playAudio(longFile));
    ASSERT_TRUE(waitFor([&] { return recorder_->activeSpan() > 0.3; }));
    ASSERT_TRUE(manager.playAudio(shortFile));
    EXPECT_EQ(manager.currentURL(), shortFile);
    ASSERT_TRUE(loop.runUntil([&] { return !manager.currentURL(); }, 10s));
    EXPECT_EQ(changes, 3); // long, short, nil: the replaced player's end says nothing
    const double span = recorder_->activeSpan();
    std::printf("long recording cut after about 0.3 s, then 0.5 s: heard %.3f s\n", span);
    EXPECT_LT(span, 2.0);
    EXPECT_GT(span, 0.75);

    EXPECT_FALSE(manager.playAudio(dir_ / "missing.caf"));
    EXPECT_TRUE(logs_.containsPrefix("AudioPlaybackManager.playAudio() - error: "));
    EXPECT_FALSE(manager.currentURL());
}

} // namespace
} // namespace sprelio

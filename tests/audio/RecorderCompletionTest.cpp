// How a recording ends when something goes wrong or nobody listens: an encoder that can't write any more, and a
// recorder that finishes without a completion set. Against a private PulseAudio daemon fed a tone.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <cmath>
#include <memory>
#include <mutex>
#include <vector>

#include "PulseDaemon.h"
#include "RecorderTestSupport.h"
#include "audio/CafReader.h"
#include "audio/CaptureRecordingAudio.h"
#include "core/SessionFakes.h"
#include "platform/linux/PulseAudioCapture.h"
#include "platform/linux/PulseAudioConnection.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/test/TestPlatform.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using audio_test::CompletionLog;
using audio_test::CountingCapture;
using audio_test::FifoFeeder;
using audio_test::PulseDaemon;
using audio_test::waitFor;

constexpr const char* kEncodeErrorPrefix = "RecordingAudio.audioRecorderEncodeErrorDidOccur() - ";
constexpr const char* kNoCompletion =
    "RecordingAudio.audioRecorderDidFinishRecording() - onRecordingCompletion == nil, returning to menu";

// Lowers this process's file size limit for its lifetime: a write past it fails with EFBIG, as on a full disk,
// instead of raising SIGXFSZ.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        previousHandler_ = ::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &previous_);
        rlimit lowered = previous_;
        lowered.rlim_cur = bytes;
        active_ = ::setrlimit(RLIMIT_FSIZE, &lowered) == 0;
    }
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &previous_);
        ::signal(SIGXFSZ, previousHandler_);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    bool active() const { return active_; }

private:
    rlimit previous_{};
    sighandler_t previousHandler_ = SIG_DFL;
    bool active_ = false;
};

// Clears the shared AppDelegate when the test ends, whatever happens in it.
class RecorderCompletionTest : public ::testing::Test {
protected:
    void SetUp() override {
        daemon_.start();
        feeder_ = std::make_unique<FifoFeeder>(daemon_.fifo());
        // A sine of amplitude 0.5, longer than any recording here.
        std::vector<float> tone(16000 * 20);
        for (std::size_t i = 0; i < tone.size(); ++i)
            tone[i] = 0.5f * float(std::sin(2 * M_PI * 440.0 * double(i) / 16000));
        feeder_->play(tone);
        connection_ = std::make_unique<platform::PulseAudioConnection>("Sprelio tests");
        capture_ = std::make_unique<platform::PulseAudioCapture>(*connection_);
        counting_ = std::make_unique<CountingCapture>(*capture_);
    }
    void TearDown() override {
        counting_.reset();
        capture_.reset();
        connection_.reset();
        // The daemon goes first: a feeder blocked on a FIFO that nobody reads any more is freed by its end.
        daemon_.kill();
        feeder_.reset();
    }

    static std::shared_ptr<const Stopwatch> stopwatch() {
        return std::make_shared<const Stopwatch>("test", Stopwatch::Clock::now());
    }
    // Waits until the recorder has carried out a stop() issued after everything before it.
    void waitForIdleStop(const std::shared_ptr<CaptureRecordingAudio>& recorder) {
        const auto before = logs_.count("RecordingAudio.stop() - averagePower: nil / peakPower: nil");
        recorder->stop();
        ASSERT_TRUE(waitFor(
            [&] { return logs_.count("RecordingAudio.stop() - averagePower: nil / peakPower: nil") > before; }));
    }

    platform::test::RecordingLogSink logs_;
    audio_test::TempDir dir_;
    PulseDaemon daemon_;
    std::unique_ptr<FifoFeeder> feeder_;
    platform::ThreadWorkerPool workers_{2};
    std::unique_ptr<platform::PulseAudioConnection> connection_;
    std::unique_ptr<platform::PulseAudioCapture> capture_;
    std::unique_ptr<CountingCapture> counting_;
};

TEST_F(RecorderCompletionTest, AnEncoderThatCanNoLongerWriteIsLoggedOnceAndTheCompletionReportsFailure) {
    CaptureRecordingAudioFactory factory(*counting_, workers_, {});
    auto recorder = factory.makeCaptureRecordingAudio(dir_ / "limited.caf");
    CompletionLog completions;
    recorder->setOnRecordingCompletion([&](const std::filesystem::path&, bool ok) { completions.add(ok); });

    // Room for the file's head and about two seconds of packets (40 bytes per 20 ms), then the disk is "full".
    constexpr rlim_t kLimit = 4096;
    {
        FileSizeLimit limit(kLimit);
        ASSERT_TRUE(limit.active());
        recorder->record(Uuid::random(), stopwatch());
        ASSERT_TRUE(waitFor([&] { return logs_.containsPrefix(kEncodeErrorPrefix); }, 10s));
        // The recording goes on until its owner stops it: samples still arrive, the meter still reads.
        const auto framesAtError = counting_->frames.load();
        ASSERT_TRUE(waitFor([&] { return counting_->frames.load() > framesAtError + 3200; }));
        EXPECT_TRUE(recorder->isRecording());
        EXPECT_TRUE(recorder->averagePower().has_value());
        EXPECT_TRUE(completions.all().empty()) << "an encoder error alone ends nothing";

        recorder->stop();
        ASSERT_TRUE(waitFor([&] { return !completions.all().empty(); }));
        // A second stop finds nothing to stop; by the time it has run, any second completion would have come.
        waitForIdleStop(recorder);
    }
    EXPECT_EQ(completions.all(), std::vector<bool>{false});

    std::size_t encodeErrors = 0;
    std::string encodeError;
    for (const auto& line : logs_.lines()) {
        if (line.message.rfind(kEncodeErrorPrefix, 0) != 0) continue;
        ++encodeErrors;
        encodeError = line.message;
        EXPECT_EQ(line.level, LogLevel::error);
    }
    EXPECT_EQ(encodeErrors, 1u) << "the failure is logged once, not for every buffer after it";
    EXPECT_NE(encodeError.find("File too large"), std::string::npos) << encodeError;
    EXPECT_TRUE(logs_.contains("RecordingAudio.audioRecorderDidFinishRecording() - success: false"));
    std::printf("[ measured ] %s\n", encodeError.c_str());

    // What reached the disk before the limit is kept: an unfinished recording, cut inside a packet, whose
    // complete packets our reader finds and the recovery turns into a file that FFmpeg reads.
    const auto file = dir_ / "limited.caf";
    EXPECT_EQ(std::filesystem::file_size(file), kLimit);
    const auto reader = CafReader::open(file);
    EXPECT_FALSE(reader.isComplete());
    const auto packets = reader.packetCount();
    EXPECT_GT(packets, 50u) << "over a second was written before the disk was full";
    const auto beforeRecovery = audio_test::ffmpegDecode(file);
    EXPECT_EQ(beforeRecovery.exitCode, 0) << "other readers play what was kept without a recovery";
    EXPECT_GE(beforeRecovery.samples.size(), packets * 320 - 640);
    const auto recovered = CafReader::recover(file);
    EXPECT_FALSE(recovered.wasComplete);
    EXPECT_EQ(recovered.packets, std::int64_t(packets));
    const auto decoded = audio_test::ffmpegDecode(file);
    std::printf("[ measured ] cut at %llu bytes: %zu complete packets, %.2f s; FFmpeg exit %d before the recovery, "
                "%d after, %zu samples\n",
                static_cast<unsigned long long>(kLimit), packets, recovered.durationSeconds, beforeRecovery.exitCode,
                decoded.exitCode, decoded.samples.size());
    EXPECT_EQ(decoded.exitCode, 0);
    EXPECT_GE(decoded.samples.size(), packets * 320 - 640);
    // The tone is in it.
    double sum = 0;
    for (std::size_t i = decoded.samples.size() / 4; i < decoded.samples.size() * 3 / 4; ++i)
        sum += double(decoded.samples[i]) * decoded.samples[i];
    EXPECT_NEAR(std::sqrt(sum / double(decoded.samples.size() / 2)), 0.354, 0.05);
}

TEST_F(RecorderCompletionTest, WithoutACompletionTheSessionReturnsToIdle) {
    testing::SessionHarness h;
    h.app.setAppStatus(AppActivity::recording);
    h.tp.clearCalls();

    // The factory as the application makes it: its recorders go back to the session that owns them.
    CaptureRecordingAudioFactory factory(*counting_, workers_, [&h] { h.app.setupMenuWithMainMenu(); });
    auto recorder = factory.makeCaptureRecordingAudio(dir_ / "orphan.caf");
    recorder->record(Uuid::random(), stopwatch());
    ASSERT_TRUE(waitFor([&] { return counting_->frames.load() > 1600; }));
    recorder->stop();
    ASSERT_TRUE(waitFor([&] { return logs_.contains(kNoCompletion); }));

    // The return to idle is posted to the main loop, which runs here.
    ASSERT_TRUE(waitFor([&] {
        h.run();
        return h.app.appStatus() == AppActivity::idle;
    }));
    EXPECT_TRUE(h.tp.called("statusImage:micro_status"));
    EXPECT_EQ(logs_.count(kNoCompletion), 1u);
    EXPECT_EQ(audio_test::ffmpegDecode(dir_ / "orphan.caf").exitCode, 0) << "the recording itself is kept";
}

TEST_F(RecorderCompletionTest, ACompletionSetWhileReturningToTheMenuStillRunsOnce) {
    CompletionLog completions;
    std::atomic<int> returns{0};
    std::shared_ptr<CaptureRecordingAudio> recorder;
    std::mutex recorderMutex;
    // The owner sets its completion just as the recorder finds none.
    CaptureRecordingAudioFactory factory(*counting_, workers_, [&] {
        ++returns;
        std::lock_guard guard(recorderMutex);
        recorder->setOnRecordingCompletion([&](const std::filesystem::path&, bool ok) { completions.add(ok); });
    });
    {
        std::lock_guard guard(recorderMutex);
        recorder = factory.makeCaptureRecordingAudio(dir_ / "late.caf");
    }
    recorder->record(Uuid::random(), stopwatch());
    ASSERT_TRUE(waitFor([&] { return counting_->frames.load() > 1600; }));
    recorder->stop();
    ASSERT_TRUE(waitFor([&] { return !completions.all().empty(); }));
    waitForIdleStop(recorder);
    EXPECT_EQ(returns.load(), 1);
    EXPECT_EQ(completions.all(), std::vector<bool>{true});
    EXPECT_EQ(logs_.count(kNoCompletion), 1u);
}

} // namespace
} // namespace sprelio

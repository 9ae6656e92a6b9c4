// The recorder and the PulseAudio adapter against a real PulseAudio daemon that each test starts itself.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <vector>

#include "PulseDaemon.h"
#include "RecorderTestSupport.h"
#include "audio/CafReader.h"
#include "audio/CaptureRecordingAudio.h"
#include "audio/MicDeviceTransport.h"
#include "platform/linux/PulseAudioCapture.h"
#include "platform/linux/PulseAudioConnection.h"
#include "platform/linux/PulseAudioDevices.h"
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

class PulseRecordingTest : public ::testing::Test {
protected:
    void SetUp() override {
        daemon_.start();
        connection_ = std::make_unique<platform::PulseAudioConnection>("Sprelio tests");
        capture_ = std::make_unique<platform::PulseAudioCapture>(*connection_);
        counting_ = std::make_unique<CountingCapture>(*capture_);
    }
    void TearDown() override {
        counting_.reset();
        capture_.reset();
        connection_.reset();
        daemon_.kill();
    }

    std::shared_ptr<CaptureRecordingAudio> makeRecorder(const std::string& name, CompletionLog& completions) {
        CaptureRecordingAudioFactory factory(*counting_, workers_, {});
        auto recorder = factory.makeCaptureRecordingAudio(dir_ / name);
        recorder->setOnRecordingCompletion([&completions](const std::filesystem::path&, bool ok) { completions.add(ok); });
        return recorder;
    }

    static std::shared_ptr<const Stopwatch> stopwatch() {
        return std::make_shared<const Stopwatch>("test", Stopwatch::Clock::now());
    }

    platform::test::RecordingLogSink logs_;
    audio_test::TempDir dir_;
    PulseDaemon daemon_;
    platform::ThreadWorkerPool workers_{2};
    std::unique_ptr<platform::PulseAudioConnection> connection_;
    std::unique_ptr<platform::PulseAudioCapture> capture_;
    std::unique_ptr<CountingCapture> counting_;
};

// Where `part` lies in `whole`, to 5 ms: the best match of their loudness envelopes.
long coarseOffset(const std::vector<float>& part, const std::vector<float>& whole) {
    constexpr std::size_t kBlock = 80;
    auto envelope = [](const std::vector<float>& x) {
        std::vector<double> e(x.size() / kBlock);
        for (std::size_t b = 0; b < e.size(); ++b) {
            double sum = 0;
            for (std::size_t i = 0; i < kBlock; ++i) sum += double(x[b * kBlock + i]) * x[b * kBlock + i];
            e[b] = std::sqrt(sum / kBlock);
        }
        return e;
    };
    const auto a = envelope(part);
    const auto b = envelope(whole);
    long best = 0;
    double bestValue = -2;
    for (long lag = 0; lag + long(a.size()) <= long(b.size()); ++lag) {
        double ab = 0, aa = 0, bb = 0;
        for (std::size_t i = 0; i < a.size(); ++i) {
            ab += a[i] * b[std::size_t(lag) + i];
            aa += a[i] * a[i];
            bb += b[std::size_t(lag) + i] * b[std::size_t(lag) + i];
        }
        const double c = aa > 0 && bb > 0 ? ab / std::sqrt(aa * bb) : -1;
        if (c > bestValue) {
            bestValue = c;
            best = lag;
        }
    }
    return best * long(kBlock);
}

TEST_F(PulseRecordingTest, FedSpeechReachesTheFileWholeAndAlike) {
    const auto& speech = audio_test::festivalSpeech();
    ASSERT_GT(speech.size(), 16000u);
    FifoFeeder feeder(daemon_.fifo());
    CompletionLog completions;
    auto recorder = makeRecorder("speech.caf", completions);

    recorder->record(Uuid::random(), stopwatch());
    ASSERT_TRUE(waitFor([&] { return counting_->frames.load() > 0; }));
    const std::int64_t speechStart = feeder.play(speech);
    const std::int64_t speechEnd = speechStart + std::int64_t(speech.size());
    // Stop the moment the last word has been written: the tail must still reach the file.
    ASSERT_TRUE(waitFor([&] { return feeder.framesWritten() >= speechEnd; }, 20s));
    recorder->stop();
    ASSERT_TRUE(waitFor([&] { return completions.count() == 1; }));
    EXPECT_TRUE(completions.first());
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_FALSE(recorder->averagePower().has_value());

    // The file's duration is what was captured, within one 20 ms packet. FFmpeg reads it; it ignores the packet
    // table's priming and remainder, so it gives whole packets: at most the encoder's lookahead and one packet more.
    const auto captured = long(counting_->frames.load());
    const auto reader = CafReader::open(dir_ / "speech.caf");
    EXPECT_TRUE(reader.isComplete());
    EXPECT_LE(std::labs(long(reader.validFrames() / 3) - captured), 320)
        << "file " << reader.validFrames() / 3 << " captured " << captured;
    const auto decoded = audio_test::ffmpegDecode(dir_ / "speech.caf");
    ASSERT_EQ(decoded.exitCode, 0);
    EXPECT_GE(long(decoded.samples.size()), captured);
    EXPECT_LE(long(decoded.samples.size()), captured + 2 * 320);

    // The waveform: align by the loudness envelope, refine by correlation of the samples.
    ASSERT_GT(decoded.samples.size(), speech.size());
    const long shift = coarseOffset(speech, decoded.samples);
    std::vector<float> aligned(decoded.samples.begin() + shift, decoded.samples.end());
    const auto likeness = audio_test::bestCorrelation(speech, aligned, 160);
    std::printf("[ measured ] speech %zu frames, captured %ld, file %ld, FFmpeg %zu; correlation %.3f at lag %ld\n",
                speech.size(), captured, long(reader.validFrames() / 3), decoded.samples.size(), likeness.correlation,
                likeness.lag);
    EXPECT_GT(likeness.correlation, 0.6);
    // Every fed word is in the file: the speech ends inside it.
    EXPECT_GE(long(aligned.size()) - likeness.lag, long(speech.size()));
}

TEST_F(PulseRecordingTest, DeviceListFollowsSourcesLoadedAndUnloaded) {
    platform::RealTimeLoop loop;
    platform::PulseAudioDevices devices(*connection_, loop);
    std::vector<std::pair<platform::AudioDeviceChange, platform::AudioDeviceID>> changes;
    devices.setChangeHandler([&](platform::AudioDeviceChange change, platform::AudioDeviceID id) {
        changes.emplace_back(change, id);
    });
    auto hasChange = [&](platform::AudioDeviceChange change, platform::AudioDeviceID id) {
        for (auto& c : changes)
            if (c.first == change && c.second == id) return true;
        return false;
    };

    auto list = devices.inputDevices();
    ASSERT_TRUE(list);
    ASSERT_EQ(list->size(), 1u) << "the null sink's monitor must not be listed";
    EXPECT_EQ(list->front().name, "TestMic");
    EXPECT_TRUE(list->front().isDefault);
    EXPECT_EQ(micDeviceTransportType(list->front()), MicDeviceTransportType::virtualDevice);
    const auto mic = list->front().id;

    const auto nullModule = daemon_.pactl("load-module module-null-source source_name=quiet description=Quiet");
    ASSERT_EQ(nullModule.exitCode, 0) << nullModule.out;
    const auto pipeModule = daemon_.pactl("load-module module-pipe-source source_name=second file=" +
                                          (dir_ / "second.fifo").string() + " format=s16le rate=16000 channels=1");
    ASSERT_EQ(pipeModule.exitCode, 0) << pipeModule.out;
    const auto sinkModule = daemon_.pactl("load-module module-null-sink sink_name=speakers");
    ASSERT_EQ(sinkModule.exitCode, 0) << sinkModule.out;

    list = devices.inputDevices();
    ASSERT_TRUE(list);
    ASSERT_EQ(list->size(), 3u);
    platform::AudioDeviceID quiet = 0, second = 0;
    for (const auto& d : *list) {
        EXPECT_EQ(micDeviceTransportType(d), MicDeviceTransportType::virtualDevice) << d.name;
        EXPECT_EQ(d.isDefault, d.id == mic) << d.name;
        if (d.serverName == "quiet") quiet = d.id;
        if (d.serverName == "second") second = d.id;
        EXPECT_EQ(d.serverName.find(".monitor"), std::string::npos);
    }
    EXPECT_EQ((*list)[1].name, "Quiet");
    ASSERT_NE(quiet, 0u);
    ASSERT_GT(second, quiet) << "a device attached later has a higher id";
    ASSERT_TRUE(loop.runUntil([&] { return hasChange(platform::AudioDeviceChange::added, quiet) &&
                                           hasChange(platform::AudioDeviceChange::added, second); },
                              5s));
    for (auto& c : changes) {
        if (c.first == platform::AudioDeviceChange::added) {
            EXPECT_TRUE(c.second == quiet || c.second == second) << "a monitor was reported: " << c.second;
        }
    }

    const std::string nullIndex = nullModule.out.substr(0, nullModule.out.find_first_of("\r\n"));
    ASSERT_EQ(daemon_.pactl("unload-module " + nullIndex).exitCode, 0);
    ASSERT_TRUE(loop.runUntil([&] { return hasChange(platform::AudioDeviceChange::removed, quiet); }, 5s));
    list = devices.inputDevices();
    ASSERT_TRUE(list);
    EXPECT_EQ(list->size(), 2u);

    // Default changes, by others and by us.
    ASSERT_EQ(daemon_.pactl("set-default-source second").exitCode, 0);
    ASSERT_TRUE(loop.runUntil([&] { return hasChange(platform::AudioDeviceChange::defaultChanged, second); }, 5s));
    EXPECT_EQ(devices.defaultInputDevice(), second);
    EXPECT_TRUE(devices.setDefaultInputDevice(mic));
    EXPECT_NE(daemon_.pactl("get-default-source").out.find("mic"), std::string::npos);
    ASSERT_TRUE(loop.runUntil([&] { return hasChange(platform::AudioDeviceChange::defaultChanged, mic); }, 5s));
    EXPECT_FALSE(devices.setDefaultInputDevice(9999));
}

TEST_F(PulseRecordingTest, MuteAndVolumeAreReadAndWritten) {
    platform::RealTimeLoop loop;
    platform::PulseAudioDevices devices(*connection_, loop);
    const auto id = devices.defaultInputDevice();
    ASSERT_TRUE(id);

    EXPECT_EQ(devices.readMute(*id), 0u);
    ASSERT_TRUE(devices.writeMute(*id, 1));
    EXPECT_NE(daemon_.pactl("get-source-mute mic").out.find("yes"), std::string::npos);
    ASSERT_EQ(daemon_.pactl("set-source-mute mic 0").exitCode, 0);
    EXPECT_EQ(devices.readMute(*id), 0u);

    ASSERT_TRUE(devices.writeVolume(*id, 0.66f));
    EXPECT_NE(daemon_.pactl("get-source-volume mic").out.find(" 66%"), std::string::npos)
        << daemon_.pactl("get-source-volume mic").out;
    ASSERT_EQ(daemon_.pactl("set-source-volume mic 25%").exitCode, 0);
    const auto volume = devices.readVolume(*id);
    ASSERT_TRUE(volume);
    EXPECT_NEAR(*volume, 0.25f, 0.001f);

    EXPECT_FALSE(devices.readMute(4242));
    EXPECT_FALSE(devices.readVolume(4242));
    EXPECT_FALSE(devices.writeVolume(*id, -1.0f));
}

TEST_F(PulseRecordingTest, ServerGoneEndsTheRecordingOnceAndTheNextWorksWhenItIsBack) {
    CompletionLog completions;
    {
        FifoFeeder feeder(daemon_.fifo());
        feeder.play(audio_test::speechLike(16000 * 5));
        auto recorder = makeRecorder("killed.caf", completions);
        recorder->record(Uuid::random(), stopwatch());
        ASSERT_TRUE(waitFor([&] { return counting_->frames.load() > 3200; }));
        daemon_.kill();
        ASSERT_TRUE(waitFor([&] { return completions.count() == 1; }));
        EXPECT_FALSE(completions.first());
        EXPECT_TRUE(logs_.containsPrefix("RecordingAudio.captureDidFail() - "));
        EXPECT_TRUE(logs_.contains("RecordingAudio.audioRecorderDidFinishRecording() - success: false"));
        // The owner's stop afterwards finds nothing to stop.
        recorder->stop();
        ASSERT_TRUE(waitFor([&] { return logs_.containsPrefix("RecordingAudio.stop() - averagePower: nil"); }));
        EXPECT_EQ(completions.count(), 1u);
        // What was captured before the server went is kept, readable.
        EXPECT_EQ(audio_test::ffmpegDecode(dir_ / "killed.caf").exitCode, 0);
    }

    daemon_.start();
    FifoFeeder feeder(daemon_.fifo());
    feeder.play(audio_test::speechLike(16000 * 5));
    CompletionLog again;
    counting_->frames = 0;
    auto recorder = makeRecorder("again.caf", again);
    recorder->record(Uuid::random(), stopwatch());
    ASSERT_TRUE(waitFor([&] { return counting_->frames.load() > 3200; }));
    recorder->stop();
    ASSERT_TRUE(waitFor([&] { return again.count() == 1; }));
    EXPECT_TRUE(again.first());
    const auto decoded = audio_test::ffmpegDecode(dir_ / "again.caf");
    EXPECT_EQ(decoded.exitCode, 0);
    EXPECT_GE(decoded.samples.size(), 3200u);
}

TEST_F(PulseRecordingTest, ContractOfTheRecorder) {
    FifoFeeder feeder(daemon_.fifo());
    // A full-scale sine of amplitude 0.5: average -9.03 dB, peak -6.02 dB.
    std::vector<float> tone(16000 * 10);
    for (std::size_t i = 0; i < tone.size(); ++i) tone[i] = 0.5f * float(std::sin(2 * M_PI * 440.0 * double(i) / 16000));
    feeder.play(tone);

    CompletionLog completions;
    auto recorder = makeRecorder("contract.caf", completions);
    EXPECT_FALSE(recorder->averagePower().has_value());
    EXPECT_FALSE(recorder->peakPower().has_value());
    const auto id = Uuid::random();
    recorder->record(id, stopwatch());
    EXPECT_TRUE(logs_.contains("record() - requestID: " + id.string()));
    ASSERT_TRUE(waitFor([&] { return counting_->frames.load() > 1600; }));
    const auto average = recorder->averagePower();
    const auto peak = recorder->peakPower();
    ASSERT_TRUE(average && peak);
    EXPECT_NEAR(*average, -9.03f, 0.5f);
    EXPECT_NEAR(*peak, -6.02f, 0.3f);
    recorder->stopAndDiscard();
    ASSERT_TRUE(waitFor([&] { return completions.count() == 1; }));
    EXPECT_TRUE(completions.first());
    EXPECT_TRUE(logs_.contains("RecordingAudio.stopAndDiscard() - called", LogLevel::debug));
    EXPECT_TRUE(logs_.contains("record() - requestID: " + id.string() + " - preparing recording"));
    EXPECT_TRUE(logs_.contains("record() - requestID: " + id.string() + " - result: true"));
    EXPECT_TRUE(logs_.containsPrefix("record() - requestID: " + id.string() + " - preparing finished in 0."));
    EXPECT_TRUE(logs_.contains("RecordingAudio.stop() - recording stopped"));
    EXPECT_TRUE(std::filesystem::exists(dir_ / "contract.caf")) << "the file stays after stopAndDiscard";

    // stop() right after record(): one completion all the same, and a file that reads.
    CompletionLog quick;
    auto quickRecorder = makeRecorder("quick.caf", quick);
    quickRecorder->record(Uuid::random(), stopwatch());
    quickRecorder->stop();
    ASSERT_TRUE(waitFor([&] { return quick.count() == 1; }));
    EXPECT_TRUE(quick.first());
    EXPECT_EQ(audio_test::ffmpegDecode(dir_ / "quick.caf").exitCode, 0);

    // A file that can't be made: no recording, no completion, the error in the log.
    CompletionLog none;
    CaptureRecordingAudioFactory factory(*counting_, workers_, {});
    auto broken = factory.makeCaptureRecordingAudio(dir_ / "missing" / "folder" / "x.caf");
    broken->setOnRecordingCompletion([&none](const std::filesystem::path&, bool ok) { none.add(ok); });
    const auto brokenId = Uuid::random();
    broken->record(brokenId, stopwatch());
    ASSERT_TRUE(waitFor([&] { return logs_.contains("record() - requestID: " + brokenId.string() + " - result: nil"); }));
    EXPECT_TRUE(logs_.containsPrefix("record() - requestID: " + brokenId.string() + " - self.prepare() error: "));
    broken->stop();
    ASSERT_TRUE(waitFor([&] { return logs_.count("RecordingAudio.stop() - averagePower: nil / peakPower: nil") >= 1; }));
    EXPECT_EQ(none.count(), 0u);
}

TEST(MicDeviceTransportTest, PropertiesMapToTransports) {
    auto of = [](std::string formFactor, std::string bus, std::vector<std::string> ports, bool hardware) {
        platform::AudioInputDevice d;
        d.formFactor = std::move(formFactor);
        d.bus = std::move(bus);
        d.ports = std::move(ports);
        d.hardware = hardware;
        return micDeviceTransportType(d);
    };
    EXPECT_EQ(of("internal", "pci", {}, true), MicDeviceTransportType::builtin);
    EXPECT_EQ(of("", "usb", {}, true), MicDeviceTransportType::usb);
    EXPECT_EQ(of("headset", "bluetooth", {}, true), MicDeviceTransportType::bluetooth);
    EXPECT_EQ(of("", "pci", {}, true), MicDeviceTransportType::pci);
    EXPECT_EQ(of("", "firewire", {}, true), MicDeviceTransportType::firewire);
    EXPECT_EQ(of("", "thunderbolt", {}, true), MicDeviceTransportType::thunderbolt);
    EXPECT_EQ(of("", "", {"hdmi-input-0", "HDMI / DisplayPort"}, true), MicDeviceTransportType::hdmi);
    EXPECT_EQ(of("", "", {"dp-in", "DisplayPort 1"}, true), MicDeviceTransportType::displayPort);
    EXPECT_EQ(of("", "", {}, false), MicDeviceTransportType::virtualDevice);
    EXPECT_EQ(of("", "", {}, true), MicDeviceTransportType::unknown);
}

} // namespace
} // namespace sprelio

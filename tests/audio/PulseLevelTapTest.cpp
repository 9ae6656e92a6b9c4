// Continuous dictation's level tap against a real PulseAudio daemon that the test starts itself: channel 0 of the
// default source in buffers of the size asked for, whatever channel count the tap asks the server for.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <memory>
#include <mutex>
#include <vector>

#include "PulseDaemon.h"
#include "platform/linux/PulseAudioCapture.h"
#include "platform/linux/PulseAudioConnection.h"
#include "platform/linux/PulseAudioLevelTap.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using audio_test::FifoFeeder;
using audio_test::PulseDaemon;
using audio_test::waitFor;

// What the handler was given, from the connection's thread.
struct Buffers {
    std::mutex mutex;
    std::vector<std::size_t> sizes;
    float loudest = 0; // the highest RMS of a buffer

    void add(const float* samples, std::size_t frames) {
        double sum = 0;
        for (std::size_t i = 0; i < frames; ++i) sum += double(samples[i]) * samples[i];
        std::lock_guard guard(mutex);
        sizes.push_back(frames);
        if (frames > 0) loudest = std::max(loudest, float(std::sqrt(sum / double(frames))));
    }
    std::size_t count() {
        std::lock_guard guard(mutex);
        return sizes.size();
    }
};

TEST(PulseLevelTap, ChannelZeroOfTheDefaultSourceArrivesInBuffersOfTheAskedSizeUntilTheStop) {
    PulseDaemon daemon;
    daemon.start();
    platform::PulseAudioConnection connection("Sprelio tests");
    platform::PulseAudioLevelTap tap(connection);

    const auto format = tap.inputFormat();
    ASSERT_TRUE(format);
    EXPECT_EQ(format->sampleRate, 16000.0);
    EXPECT_EQ(format->channels, 1u);

    FifoFeeder feeder(daemon.fifo());
    // With no stream running the server stops reading the FIFO; the feeder's thread ends once the daemon is gone.
    struct DaemonFirst {
        PulseDaemon& daemon;
        ~DaemonFirst() { daemon.kill(); }
    } daemonFirst{daemon};
    // A recorder beside the tap, as while continuous speech records: it keeps the source running throughout.
    platform::PulseAudioCapture recorder(connection);
    std::atomic<std::size_t> recorded{0};
    std::string error;
    ASSERT_TRUE(recorder.start([&](const float*, std::size_t frames) { recorded += frames; },
                               [](const std::string&) {}, error))
        << error;
    // The mono source upmixed to two channels puts the same signal on channel 0.
    for (const unsigned channels : {1u, 2u}) {
        SCOPED_TRACE(channels);
        constexpr std::size_t kBufferSize = 800; // 50 ms
        Buffers buffers;
        tap.installTap(kBufferSize, platform::AudioStreamFormat{format->sampleRate, channels},
                       [&](const float* channel0, std::size_t frames) { buffers.add(channel0, frames); });
        ASSERT_TRUE(tap.start(error)) << error;

        std::vector<float> tone(16000);
        for (std::size_t i = 0; i < tone.size(); ++i)
            tone[i] = 0.5f * float(std::sin(2 * M_PI * 440 * double(i) / 16000));
        feeder.play(tone);
        ASSERT_TRUE(waitFor(
            [&] {
                std::lock_guard guard(buffers.mutex);
                return buffers.loudest > 0.3f;
            },
            10s))
            << "the tone's level (RMS 0.35) never arrived";

        tap.stop();
        const std::size_t atStop = buffers.count();
        // Half a second more of the source reaches the recorder, and none of it the stopped tap.
        const std::size_t recordedAtStop = recorded.load();
        ASSERT_TRUE(waitFor([&] { return recorded.load() >= recordedAtStop + 8000; }, 10s));
        EXPECT_EQ(buffers.count(), atStop);
        tap.removeTap();

        std::lock_guard guard(buffers.mutex);
        ASSERT_FALSE(buffers.sizes.empty());
        for (const std::size_t size : buffers.sizes) EXPECT_EQ(size, kBufferSize);
        EXPECT_LT(buffers.loudest, 0.4f) << "channel 0 alone, not the channels summed";
    }
    recorder.stop();
}

} // namespace
} // namespace sprelio

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <thread>

#include "OverlayTestSupport.h"
#include "ui/VoiceWaveformOverlayView.h"

using namespace std::chrono_literals;
using sprelio::RecordingTimerModel;
using sprelio::StandbyRecordingAudio;
using sprelio::VoiceWaveformOverlayView;
using sprelio::WaveformLayout;
using sprelio::overlaytest::FakeLevels;
using sprelio::platform::test::RecordingLogSink;
using sprelio::platform::test::TestPlatform;

namespace {

struct Meter {
    TestPlatform tp;
    sprelio::store::MemorySettingsStore store;
    sprelio::store::AppConstants constants{tp};
    sprelio::store::Settings settings{store, constants};
    std::unique_ptr<VoiceWaveformOverlayView> view = std::make_unique<VoiceWaveformOverlayView>(tp.loop(), settings);
};

} // namespace

TEST(WaveformLayout, BarCountFollowsTheSettingsAndTheWidth) {
    // 112 - (34 + 2) - (20 + 2) = 54 available: floor(51 / 8) + 1.
    EXPECT_EQ(WaveformLayout::forSettings(false, true, 112).barCount(), 7);
    // With the AI tools: 112 - 46 - 24 = 42, floor(39 / 8) + 1.
    EXPECT_EQ(WaveformLayout::forSettings(true, true, 112).barCount(), 5);
    EXPECT_EQ(WaveformLayout::forSettings(true, false, 112).barCount(), 5);
    // Without the time: 112 - 2 - 22 = 88, floor(85 / 8) + 1.
    EXPECT_EQ(WaveformLayout::forSettings(false, false, 112).barCount(), 11);
    // 61 - 36 - 22 = 3 is just enough for one bar; 60 leaves 2, which is not.
    EXPECT_EQ(WaveformLayout::forSettings(false, true, 61).barCount(), 1);
    EXPECT_EQ(WaveformLayout::forSettings(false, true, 60).barCount(), 0);
    EXPECT_EQ(WaveformLayout::forSettings(false, true, 10).barCount(), 0);
}

TEST(VoiceWaveformOverlayView, TheSampleListHoldsExactlyOneEntryPerBar) {
    Meter m;
    m.view->addSample(0.5f);
    ASSERT_EQ(m.view->samples().size(), 7u);
    EXPECT_EQ(m.view->samples(), (std::vector<float>{0, 0, 0, 0, 0, 0, 0.5f}));
    for (int i = 1; i <= 9; ++i) m.view->addSample(static_cast<float>(i) / 10);
    ASSERT_EQ(m.view->samples().size(), 7u);
    EXPECT_FLOAT_EQ(m.view->samples().front(), 0.3f) << "the oldest go first";
    EXPECT_FLOAT_EQ(m.view->samples().back(), 0.9f);

    // A size too small for any bar keeps the list empty.
    m.settings.setOverlaySize(40);
    m.view->addSample(1.0f);
    EXPECT_TRUE(m.view->samples().empty());
}

TEST(VoiceWaveformOverlayView, LevelsBecomeAmplitudesAndInvalidLevelsAreRejected) {
    RecordingLogSink log;
    Meter m;
    m.view->process(-160.0f);
    ASSERT_EQ(m.view->samples().size(), 7u);
    EXPECT_NEAR(m.view->samples().back(), 1e-8f, 1e-12f);
    m.view->process(0.0f);
    EXPECT_FLOAT_EQ(m.view->samples().back(), 1.0f);
    m.view->process(-20.0f);
    EXPECT_NEAR(m.view->samples().back(), 0.1f, 1e-6f);

    const auto before = m.view->samples();
    for (float bad : {3.0f, -160.5f, std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                      -std::numeric_limits<float>::infinity()}) {
        m.view->process(bad);
    }
    EXPECT_EQ(m.view->samples(), before) << "no sample for an invalid level";
    EXPECT_TRUE(log.contains("VoiceWaveformOverlayView.process() - Invalid avg value: 3", sprelio::LogLevel::warning));
    EXPECT_EQ(log.count("VoiceWaveformOverlayView.process() - Invalid avg value: 3"), 1u);
}

TEST(VoiceWaveformOverlayView, BarsAreDrawnFromTheLastSamplesCentredWithAMinimumHeight) {
    const auto layout = WaveformLayout::forSettings(false, true, 112);
    std::vector<float> samples(9, 1e-8f);
    samples[7] = 0.5f;
    samples[8] = 1.0f;
    const auto bars = sprelio::waveformBars(samples, layout, 112, 112);
    ASSERT_EQ(bars.size(), 7u);
    for (std::size_t i = 0; i < bars.size(); ++i) {
        EXPECT_DOUBLE_EQ(bars[i].x, 36 + 8.0 * static_cast<double>(i));
        EXPECT_DOUBLE_EQ(bars[i].width, 3);
        EXPECT_DOUBLE_EQ(bars[i].y + bars[i].height / 2, 56) << "centred vertically";
    }
    EXPECT_DOUBLE_EQ(bars[0].height, 2) << "the quietest level keeps the minimum";
    EXPECT_DOUBLE_EQ(bars[5].height, 42);
    EXPECT_DOUBLE_EQ(bars[6].height, 84) << "112 * 0.75 at full level";
    // Fewer samples than bars: only those are drawn.
    EXPECT_EQ(sprelio::waveformBars({0.5f, 0.5f}, layout, 112, 112).size(), 2u);
}

TEST(VoiceWaveformOverlayView, ThePollTimerReadsTheRecorderEveryThirtyMilliseconds) {
    RecordingLogSink log;
    Meter m;
    auto recorder = std::make_shared<FakeLevels>();
    recorder->levels = {-160.0f, 0.0f, -20.0f};
    int changes = 0;
    m.view->onChange = [&] { ++changes; };
    m.view->connect(recorder);
    EXPECT_TRUE(log.contains("VoiceWaveformOverlayView.connect() - Starting connection to audio recorder"));
    EXPECT_TRUE(log.contains("VoiceWaveformOverlayView.connect() - Starting timer with 0.03s interval"));
    EXPECT_TRUE(m.view->isPolling());
    EXPECT_EQ(recorder->reads, 0);

    m.tp.advance(29ms);
    EXPECT_EQ(recorder->reads, 0);
    m.tp.advance(1ms);
    EXPECT_EQ(recorder->reads, 1);
    EXPECT_NEAR(m.view->samples().back(), 1e-8f, 1e-12f);
    m.tp.advance(60ms);
    EXPECT_EQ(recorder->reads, 3);
    EXPECT_NEAR(m.view->samples().back(), 0.1f, 1e-6f);
    EXPECT_EQ(changes, 3);

    // A recorder without a level (not yet started, or stopped) is logged and adds nothing.
    m.tp.advance(30ms);
    EXPECT_EQ(recorder->reads, 4);
    EXPECT_TRUE(log.contains("VoiceWaveformOverlayView timer - recorder is nil", sprelio::LogLevel::warning));
    EXPECT_EQ(changes, 3);

    // The running time counts whole seconds.
    EXPECT_DOUBLE_EQ(m.view->timerModel().elapsedTime(), 0);
    m.tp.advance(1000ms - 120ms);
    EXPECT_DOUBLE_EQ(m.view->timerModel().elapsedTime(), 1);
    EXPECT_TRUE(log.contains("RecordingTimerModel.start() - Starting recording timer"));

    // Removing the view stops both timers: nothing is left on the loop.
    const int reads = recorder->reads;
    m.view.reset();
    EXPECT_TRUE(log.contains("VoiceWaveformOverlayView.deinit() - Cleaning up waveform view"));
    EXPECT_TRUE(log.contains("RecordingTimerModel.stop() - Stopping recording timer"));
    m.tp.advance(2s);
    EXPECT_EQ(recorder->reads, reads);
    EXPECT_EQ(m.tp.loop().pendingTimers(), 0u);
    EXPECT_EQ(recorder.use_count(), 1) << "the view let go of the recorder";
}

TEST(VoiceWaveformOverlayView, WithoutARecorderTheTimeRunsAndTheMeterStaysStill) {
    RecordingLogSink log;
    Meter m;
    m.view->connect(std::make_shared<StandbyRecordingAudio>());
    EXPECT_TRUE(log.contains("VoiceWaveformOverlayView.connect() - audio.recorder is nil! Cannot start waveform timer.",
                             sprelio::LogLevel::error));
    EXPECT_FALSE(m.view->isPolling());
    EXPECT_TRUE(m.view->timerModel().isRunning());
    m.tp.advance(2s);
    EXPECT_TRUE(m.view->samples().empty());
    EXPECT_DOUBLE_EQ(m.view->timerModel().elapsedTime(), 2);
    EXPECT_EQ(StandbyRecordingAudio().url(), "/tmp/fallback.wav");
}

TEST(VoiceWaveformOverlayView, ConnectOffTheMainLoopIsPostedToIt) {
    RecordingLogSink log;
    Meter m;
    auto recorder = std::make_shared<FakeLevels>();
    std::thread([&] { m.view->connect(recorder); }).join();
    EXPECT_TRUE(log.contains("VoiceWaveformOverlayView.connect() - NOT on main thread! This could cause crashes.",
                             sprelio::LogLevel::error));
    EXPECT_FALSE(m.view->isPolling());
    m.tp.runUntilIdle();
    EXPECT_TRUE(m.view->isPolling());
    EXPECT_TRUE(m.view->timerModel().isRunning());
}

TEST(RecordingTimerModel, CountsSecondsAndStopResetsToZero) {
    TestPlatform tp;
    RecordingTimerModel model(tp.loop());
    int changes = 0;
    model.onChange = [&] { ++changes; };
    model.start();
    tp.advance(3500ms);
    EXPECT_DOUBLE_EQ(model.elapsedTime(), 3);
    EXPECT_EQ(changes, 3);
    EXPECT_EQ(sprelio::recordingTimeText(model.elapsedTime()), "00:03");
    model.stop();
    EXPECT_DOUBLE_EQ(model.elapsedTime(), 0);
    tp.advance(5s);
    EXPECT_DOUBLE_EQ(model.elapsedTime(), 0);
    EXPECT_EQ(sprelio::recordingTimeText(65), "01:05");
    EXPECT_EQ(sprelio::recordingTimeText(3600 + 61), "61:01");
}

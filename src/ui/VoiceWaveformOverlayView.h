#pragma once
// The recording overlay's meter: a rolling list of bar amplitudes fed by polling the recorder's level every
// 0.03 s, exactly as many as bars fit in the overlay, and the running time of the recording.
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/LifetimeGuard.h"
#include "audio/RecordingAudio.h"
#include "platform/MainLoop.h"
#include "platform/OverlayPanels.h"

namespace sprelio {

namespace store {
class Settings;
}

struct WaveformLayout {
    static constexpr double kWidthPerBar = 8;
    static constexpr double kBarWidth = 3;
    static constexpr double kMinimumBarHeight = 2;

    double leftOffset = 0;
    double rightOffset = 0;
    double widthPerBar = kWidthPerBar;
    double totalWidth = 0;

    int barCount() const;
    // The offsets that the settings call for, with the given total width.
    static WaveformLayout forSettings(bool showAITools, bool showRecordingTimer, double totalWidth);
};

// The bars of the last `barCount` samples in an area of the layout's width and the given height; origin at the
// top left of the area.
std::vector<platform::OverlayDrawing::Bar> waveformBars(const std::vector<float>& samples,
                                                        const WaveformLayout& layout, double areaHeight,
                                                        double overlaySize);

// "%02d:%02d", minutes and seconds.
std::string recordingTimeText(double elapsedSeconds);

class RecordingTimerModel {
public:
    static constexpr platform::Duration kInterval = std::chrono::seconds(1);

    explicit RecordingTimerModel(platform::MainLoop& loop) : loop_(loop) {}
    ~RecordingTimerModel();
    RecordingTimerModel(const RecordingTimerModel&) = delete;
    RecordingTimerModel& operator=(const RecordingTimerModel&) = delete;

    void start();
    void stop();
    double elapsedTime() const { return elapsedTime_; }
    bool isRunning() const { return timerCancellable_ != nullptr; }
    std::function<void()> onChange;

private:
    void scheduleTick();

    platform::MainLoop& loop_;
    double elapsedTime_ = 0;
    std::shared_ptr<platform::Timer> timerCancellable_;
    LifetimeGuard lifetime_;
};

// What the overlay connects to when the application has no recorder: it never records, so the meter stays empty.
class StandbyRecordingAudio final : public RecordingAudio {
public:
    StandbyRecordingAudio() : url_("/tmp/fallback.wav") {}
    const std::filesystem::path& url() const override { return url_; }
    void setOnRecordingCompletion(Completion) override {}
    void record(const Uuid&, std::shared_ptr<const Stopwatch>) override {}
    void stop() override {}

private:
    std::filesystem::path url_;
};

class VoiceWaveformOverlayView {
public:
    static constexpr platform::Duration kPollInterval = std::chrono::milliseconds(30);

    VoiceWaveformOverlayView(platform::MainLoop& loop, const store::Settings& settings);
    ~VoiceWaveformOverlayView();
    VoiceWaveformOverlayView(const VoiceWaveformOverlayView&) = delete;
    VoiceWaveformOverlayView& operator=(const VoiceWaveformOverlayView&) = delete;

    // Starts the running time and, when the recorder can give levels, the poll timer. From any thread; off the
    // main loop the call is posted.
    void connect(std::shared_ptr<RecordingAudio> audio);
    // A level in decibels, -160 to 0.
    void process(float averagePower);
    void addSample(float amplitude);

    const std::vector<float>& samples() const { return samples_; }
    RecordingTimerModel& timerModel() { return timerModel_; }
    const RecordingTimerModel& timerModel() const { return timerModel_; }
    bool isPolling() const { return cancellable_ != nullptr; }
    // The layout of the sample list: the overlay's size and the current settings.
    WaveformLayout layout() const;

    // Called after every change of the samples or the running time.
    std::function<void()> onChange;

private:
    void scheduleTick();
    void tick();
    void notify();

    platform::MainLoop& loop_;
    const store::Settings& settings_;
    std::vector<float> samples_;
    RecordingTimerModel timerModel_;
    std::shared_ptr<platform::Timer> cancellable_;
    std::shared_ptr<RecordingAudio> audio_;
    LifetimeGuard lifetime_;
};

} // namespace sprelio

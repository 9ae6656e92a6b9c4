#include "ui/VoiceWaveformOverlayView.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "base/Log.h"
#include "store/Settings.h"

namespace sprelio {

// ---- Layout ----

int WaveformLayout::barCount() const {
    // Two points of air on each side of the bars.
    const double available = totalWidth - (leftOffset + 2) - (rightOffset + 2);
    if (available < 3) return 0;
    return static_cast<int>(std::floor((available - 3) / widthPerBar)) + 1;
}

WaveformLayout WaveformLayout::forSettings(bool showAITools, bool showRecordingTimer, double totalWidth) {
    WaveformLayout layout;
    layout.totalWidth = totalWidth;
    if (showAITools) {
        layout.leftOffset = 44;
        layout.rightOffset = 22;
    } else if (showRecordingTimer) {
        layout.leftOffset = 34;
        layout.rightOffset = 20;
    } else {
        layout.leftOffset = 0;
        layout.rightOffset = 20;
    }
    return layout;
}

std::vector<platform::OverlayDrawing::Bar> waveformBars(const std::vector<float>& samples,
                                                        const WaveformLayout& layout, double areaHeight,
                                                        double overlaySize) {
    const auto count = static_cast<std::size_t>(std::max(layout.barCount(), 0));
    const std::size_t shown = std::min(count, samples.size());
    std::vector<platform::OverlayDrawing::Bar> bars;
    bars.reserve(shown);
    for (std::size_t i = 0; i < shown; ++i) {
        const float amplitude = samples[samples.size() - shown + i];
        const double height =
            std::max(overlaySize * 0.75 * static_cast<double>(amplitude), WaveformLayout::kMinimumBarHeight);
        bars.push_back(platform::OverlayDrawing::Bar{layout.leftOffset + 2 + static_cast<double>(i) * layout.widthPerBar,
                                                     (areaHeight - height) / 2, WaveformLayout::kBarWidth, height});
    }
    return bars;
}

std::string recordingTimeText(double elapsedSeconds) {
    const long total = std::max(0L, static_cast<long>(elapsedSeconds));
    char text[32];
    std::snprintf(text, sizeof text, "%02ld:%02ld", total / 60, total % 60);
    return text;
}

// ---- Running time ----

RecordingTimerModel::~RecordingTimerModel() {
    lifetime_.expire();
    if (timerCancellable_) timerCancellable_->invalidate();
}

void RecordingTimerModel::start() {
    logInfo("RecordingTimerModel.start() - Starting recording timer");
    if (timerCancellable_) timerCancellable_->invalidate();
    scheduleTick();
}

void RecordingTimerModel::scheduleTick() {
    const auto alive = lifetime_.token();
    timerCancellable_ = loop_.schedule(kInterval, [this, alive] {
        if (!alive) {
            logWarning("RecordingTimerModel timer - self is nil");
            return;
        }
        elapsedTime_ += 1.0;
        scheduleTick();
        if (onChange) onChange();
    });
}

void RecordingTimerModel::stop() {
    logInfo("RecordingTimerModel.stop() - Stopping recording timer");
    if (timerCancellable_) timerCancellable_->invalidate();
    timerCancellable_.reset();
    elapsedTime_ = 0;
}

// ---- Meter ----

VoiceWaveformOverlayView::VoiceWaveformOverlayView(platform::MainLoop& loop, const store::Settings& settings)
    : loop_(loop), settings_(settings), timerModel_(loop) {
    timerModel_.onChange = [this] { notify(); };
}

VoiceWaveformOverlayView::~VoiceWaveformOverlayView() {
    logInfo("VoiceWaveformOverlayView.deinit() - Cleaning up waveform view");
    lifetime_.expire();
    timerModel_.onChange = nullptr;
    timerModel_.stop();
    if (cancellable_) cancellable_->invalidate();
    cancellable_.reset();
    audio_.reset();
}

WaveformLayout VoiceWaveformOverlayView::layout() const {
    return WaveformLayout::forSettings(settings_.floatingRecordShowAITools(), settings_.showRecordingTimer(),
                                       static_cast<double>(settings_.overlaySize()));
}

void VoiceWaveformOverlayView::connect(std::shared_ptr<RecordingAudio> audio) {
    logInfo("VoiceWaveformOverlayView.connect() - Starting connection to audio recorder");
    if (!loop_.isMainThread()) {
        logError("VoiceWaveformOverlayView.connect() - NOT on main thread! This could cause crashes.");
        const auto alive = lifetime_.token();
        loop_.post([this, alive, audio = std::move(audio)]() mutable {
            if (!alive) return;
            connect(std::move(audio));
        });
        return;
    }
    timerModel_.start();
    audio_ = std::move(audio);
    if (!audio_ || dynamic_cast<StandbyRecordingAudio*>(audio_.get())) {
        logError("VoiceWaveformOverlayView.connect() - audio.recorder is nil! Cannot start waveform timer.");
        return;
    }
    logInfo("VoiceWaveformOverlayView.connect() - Starting timer with 0.03s interval");
    if (cancellable_) cancellable_->invalidate();
    scheduleTick();
}

void VoiceWaveformOverlayView::scheduleTick() {
    const auto alive = lifetime_.token();
    cancellable_ = loop_.schedule(kPollInterval, [this, alive] {
        if (!alive) {
            logWarning("VoiceWaveformOverlayView timer - self is nil, stopping timer");
            return;
        }
        scheduleTick();
        tick();
    });
}

void VoiceWaveformOverlayView::tick() {
    // The recorder starts on a worker; until its capture runs, and after it stops, it has no level to give.
    const auto level = audio_ ? audio_->averagePower() : std::nullopt;
    if (!level) {
        logWarning("VoiceWaveformOverlayView timer - recorder is nil");
        return;
    }
    process(*level);
}

void VoiceWaveformOverlayView::process(float averagePower) {
    if (!std::isfinite(averagePower) || averagePower > 0.0f || averagePower < -160.0f) {
        char text[32];
        std::snprintf(text, sizeof text, "%g", static_cast<double>(averagePower));
        logWarning(std::string("VoiceWaveformOverlayView.process() - Invalid avg value: ") + text);
        return;
    }
    addSample(std::pow(10.0f, averagePower / 20.0f));
}

void VoiceWaveformOverlayView::addSample(float amplitude) {
    samples_.push_back(amplitude);
    const auto count = static_cast<std::size_t>(std::max(layout().barCount(), 0));
    if (samples_.size() > count) {
        samples_.erase(samples_.begin(), samples_.end() - static_cast<std::ptrdiff_t>(count));
    } else if (samples_.size() < count) {
        samples_.insert(samples_.begin(), count - samples_.size(), 0.0f);
    }
    notify();
}

void VoiceWaveformOverlayView::notify() {
    if (onChange) onChange();
}

} // namespace sprelio

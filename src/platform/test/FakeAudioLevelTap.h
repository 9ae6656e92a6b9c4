#pragma once
// The level tap of the test platform: the test hands it buffers, which reach the handler at once on the test's
// thread, as the tap's own thread would deliver them.
#include <vector>

#include "platform/AudioLevelTap.h"

namespace sprelio::platform::test {

class FakeAudioLevelTap final : public AudioLevelTap {
public:
    std::optional<AudioStreamFormat> format = AudioStreamFormat{48000, 1};
    // The reason start() gives when set; the tap then doesn't run.
    std::optional<std::string> startFailure;

    std::optional<AudioStreamFormat> inputFormat() override { return format; }
    void installTap(std::size_t bufferSize, const AudioStreamFormat& tapFormat, BufferHandler handler) override {
        bufferSize_ = bufferSize;
        tapFormat_ = tapFormat;
        handler_ = std::move(handler);
        ++installs;
    }
    void removeTap() override {
        handler_ = nullptr;
        ++removals;
    }
    bool start(std::string& error) override {
        if (startFailure) {
            error = *startFailure;
            return false;
        }
        running_ = true;
        ++starts;
        return true;
    }
    void stop() override {
        running_ = false;
        ++stops;
    }

    bool running() const { return running_; }
    bool installed() const { return handler_ != nullptr; }
    std::size_t bufferSize() const { return bufferSize_; }
    const AudioStreamFormat& tapFormat() const { return tapFormat_; }
    // One buffer of `bufferSize()` frames, every sample `value`; dropped unless the tap runs with a handler.
    void deliverConstant(float value) {
        buffer_.assign(bufferSize_, value);
        deliver(buffer_.data(), buffer_.size());
    }
    void deliver(const float* channel0, std::size_t frames) {
        if (running_ && handler_) handler_(channel0, frames);
    }
    // The duration of one buffer in the tap's format.
    double bufferSeconds() const { return tapFormat_.sampleRate > 0 ? double(bufferSize_) / tapFormat_.sampleRate : 0; }

    int installs = 0;
    int removals = 0;
    int starts = 0;
    int stops = 0;

private:
    std::size_t bufferSize_ = 0;
    AudioStreamFormat tapFormat_;
    BufferHandler handler_;
    bool running_ = false;
    std::vector<float> buffer_;
};

} // namespace sprelio::platform::test

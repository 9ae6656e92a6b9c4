#pragma once
// What the recorder tests on the real daemon share: a capture that counts the frames it hands on, and a record of
// the completions a recorder delivered (from whichever thread).
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "platform/AudioCapture.h"

namespace sprelio::audio_test {

// Counts what the capture hands to the recorder, so that the file can be held against it.
class CountingCapture final : public platform::AudioCapture {
public:
    explicit CountingCapture(platform::AudioCapture& inner) : inner_(inner) {}
    bool start(SamplesHandler onSamples, ErrorHandler onError, std::string& error) override {
        return inner_.start(
            [this, onSamples](const float* s, std::size_t n) {
                frames += n;
                onSamples(s, n);
            },
            std::move(onError), error);
    }
    void stop() override { inner_.stop(); }
    std::atomic<std::uint64_t> frames{0};

private:
    platform::AudioCapture& inner_;
};

// The successes of the completions so far, in order.
class CompletionLog {
public:
    void add(bool success) {
        std::lock_guard guard(mutex_);
        results_.push_back(success);
    }
    std::vector<bool> all() const {
        std::lock_guard guard(mutex_);
        return results_;
    }
    std::size_t count() const { return all().size(); }
    bool first() const { return all().at(0); }

private:
    mutable std::mutex mutex_;
    std::vector<bool> results_;
};

} // namespace sprelio::audio_test

#pragma once
// Synthetic keys for the logic tests: every event and typed text is recorded in order, the modifiers the user
// holds are a field, and the test can play the focused application by reacting to what arrives.
#include <functional>
#include <string>
#include <vector>

#include "platform/SyntheticKeyboard.h"

namespace sprelio::platform::test {

class FakeSyntheticKeyboard final : public SyntheticKeyboard {
public:
    void postKeyEvents(std::vector<SyntheticKeyEvent> events) override;
    void typeText(std::string text) override;
    std::vector<std::uint16_t> heldModifierKeys() const override { return held; }
    bool isAvailable() const override { return available; }

    // One entry per event, in order: "down:9:0x40000", "up:9:0x40000", "type:<text>". Flags in hex, 0 for none.
    const std::vector<std::string>& log() const { return log_; }
    void clearLog() { log_.clear(); }
    // The events of each postKeyEvents call, as sent.
    const std::vector<std::vector<SyntheticKeyEvent>>& batches() const { return batches_; }

    std::vector<std::uint16_t> held;
    bool available = true;
    // Called after each postKeyEvents call with its events, as the focused application would see them.
    std::function<void(const std::vector<SyntheticKeyEvent>&)> onKeyEvents;

private:
    std::vector<std::string> log_;
    std::vector<std::vector<SyntheticKeyEvent>> batches_;
};

} // namespace sprelio::platform::test

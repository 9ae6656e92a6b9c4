#pragma once
// Global input for tests: events are injected by the test and delivered at once (the test runs on the main loop),
// grabs and hot keys are recorded, and a grab can be made to fail as when another client holds the key.
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/GlobalInput.h"

namespace sprelio::platform::test {

class FakeGlobalInput final : public GlobalInput {
public:
    void setEventHandler(EventHandler handler) override { handler_ = std::move(handler); }
    bool hasEventHandler() const { return static_cast<bool>(handler_); }
    // Delivers the event; returns the handler's swallow decision (false without a handler).
    bool inject(const GlobalInputEvent& event);
    bool keyDown(std::uint16_t keyCode, std::uint64_t flags = 0, std::optional<std::string> characters = std::nullopt);
    bool keyUp(std::uint16_t keyCode, std::uint64_t flags = 0, std::optional<std::string> characters = std::nullopt);
    bool flagsChanged(std::uint16_t keyCode, std::uint64_t flags);
    bool mouseDown(std::int64_t button, double timestamp);
    bool mouseUp(std::int64_t button, double timestamp);

    std::optional<Error> grabKey(std::uint16_t keyCode) override;
    void ungrabKey(std::uint16_t keyCode) override;
    std::optional<Error> grabButton(std::int64_t buttonNumber) override;
    void ungrabButton(std::int64_t buttonNumber) override;
    std::variant<HotKeyId, Error> registerHotKey(const KeyCombination& combination, std::function<void()> pressed,
                                                 std::function<void()> released) override;
    void unregisterHotKey(HotKeyId id) override;
    std::optional<Error> grabKeyboard() override;
    void ungrabKeyboard() override;
    int currentInputSource() const override { return inputSource_; }
    void selectInputSource(int source) override;
    bool isAvailable() const override { return available; }

    // Presses and releases a registered combination as the desktop would; false when none is registered.
    bool pressHotKey(const KeyCombination& combination);
    bool releaseHotKey(const KeyCombination& combination);

    const std::set<std::uint16_t>& grabbedKeys() const { return grabbedKeys_; }
    const std::set<std::int64_t>& grabbedButtons() const { return grabbedButtons_; }
    bool keyboardGrabbed() const { return keyboardGrabbed_; }
    std::vector<KeyCombination> registeredHotKeys() const;
    // Every grab, release and registration in order: "grabKey:49", "ungrabButton:3", "registerHotKey:1:524288",
    // "unregisterHotKey:1:524288", "grabKeyboard", "selectInputSource:0".
    const std::vector<std::string>& calls() const { return calls_; }
    void clearCalls() { calls_.clear(); }

    // Combinations and keys that another client holds: grabbing them fails.
    std::vector<KeyCombination> refusedCombinations;
    std::set<std::uint16_t> refusedKeys;
    bool available = true;

private:
    struct HotKey {
        KeyCombination combination;
        std::function<void()> pressed;
        std::function<void()> released;
    };
    // Runs the press or release handler of the registered combination; false when none is registered.
    bool runHotKey(const KeyCombination& combination, std::function<void()> HotKey::*handler);
    EventHandler handler_;
    std::set<std::uint16_t> grabbedKeys_;
    std::set<std::int64_t> grabbedButtons_;
    std::map<HotKeyId, HotKey> hotKeys_;
    HotKeyId nextHotKeyId_ = 1;
    bool keyboardGrabbed_ = false;
    int inputSource_ = 0;
    std::vector<std::string> calls_;
};

} // namespace sprelio::platform::test

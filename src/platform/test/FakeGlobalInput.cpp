#include "platform/test/FakeGlobalInput.h"

#include <algorithm>

namespace sprelio::platform::test {

namespace {
std::string comboText(const KeyCombination& c) {
    return std::to_string(c.keyCode) + ":" + std::to_string(c.flags);
}
Error grabError(const std::string& what) {
    return Error{"GlobalInput", 10, what + " is already grabbed by another client", {}};
}

// A key types the same text with and without its modifiers here; a flags change types none.
GlobalInputEvent keyEvent(int type, std::uint16_t keyCode, std::uint64_t flags, std::optional<std::string> characters) {
    GlobalInputEvent e;
    e.type = type;
    e.keyCode = keyCode;
    e.flags = flags;
    e.characters = characters;
    e.charactersIgnoringModifiers = std::move(characters);
    return e;
}

// NSEvent button numbers: 0 left, 1 right, 2 and up the others.
GlobalInputEvent mouseEvent(std::int64_t button, bool down, double timestamp) {
    namespace type = global_event_type;
    GlobalInputEvent e;
    if (button == 0) e.type = down ? type::kLeftMouseDown : type::kLeftMouseUp;
    else if (button == 1) e.type = down ? type::kRightMouseDown : type::kRightMouseUp;
    else e.type = down ? type::kOtherMouseDown : type::kOtherMouseUp;
    e.buttonNumber = button;
    e.timestamp = timestamp;
    return e;
}
} // namespace

bool FakeGlobalInput::inject(const GlobalInputEvent& event) { return handler_ ? handler_(event) : false; }

bool FakeGlobalInput::keyDown(std::uint16_t keyCode, std::uint64_t flags, std::optional<std::string> characters) {
    return inject(keyEvent(global_event_type::kKeyDown, keyCode, flags, std::move(characters)));
}

bool FakeGlobalInput::keyUp(std::uint16_t keyCode, std::uint64_t flags, std::optional<std::string> characters) {
    return inject(keyEvent(global_event_type::kKeyUp, keyCode, flags, std::move(characters)));
}

bool FakeGlobalInput::flagsChanged(std::uint16_t keyCode, std::uint64_t flags) {
    return inject(keyEvent(global_event_type::kFlagsChanged, keyCode, flags, std::nullopt));
}

bool FakeGlobalInput::mouseDown(std::int64_t button, double timestamp) {
    return inject(mouseEvent(button, true, timestamp));
}

bool FakeGlobalInput::mouseUp(std::int64_t button, double timestamp) {
    return inject(mouseEvent(button, false, timestamp));
}

std::optional<Error> FakeGlobalInput::grabKey(std::uint16_t keyCode) {
    calls_.push_back("grabKey:" + std::to_string(keyCode));
    if (refusedKeys.count(keyCode)) return grabError("key " + std::to_string(keyCode));
    grabbedKeys_.insert(keyCode);
    return std::nullopt;
}

void FakeGlobalInput::ungrabKey(std::uint16_t keyCode) {
    calls_.push_back("ungrabKey:" + std::to_string(keyCode));
    grabbedKeys_.erase(keyCode);
}

std::optional<Error> FakeGlobalInput::grabButton(std::int64_t buttonNumber) {
    calls_.push_back("grabButton:" + std::to_string(buttonNumber));
    grabbedButtons_.insert(buttonNumber);
    return std::nullopt;
}

void FakeGlobalInput::ungrabButton(std::int64_t buttonNumber) {
    calls_.push_back("ungrabButton:" + std::to_string(buttonNumber));
    grabbedButtons_.erase(buttonNumber);
}

std::variant<HotKeyId, Error> FakeGlobalInput::registerHotKey(const KeyCombination& combination,
                                                              std::function<void()> pressed,
                                                              std::function<void()> released) {
    calls_.push_back("registerHotKey:" + comboText(combination));
    if (std::find(refusedCombinations.begin(), refusedCombinations.end(), combination) != refusedCombinations.end())
        return grabError("combination " + comboText(combination));
    for (const auto& [id, hotKey] : hotKeys_)
        if (hotKey.combination == combination) return grabError("combination " + comboText(combination));
    const HotKeyId id = nextHotKeyId_++;
    hotKeys_[id] = HotKey{combination, std::move(pressed), std::move(released)};
    return id;
}

void FakeGlobalInput::unregisterHotKey(HotKeyId id) {
    auto it = hotKeys_.find(id);
    if (it == hotKeys_.end()) return;
    calls_.push_back("unregisterHotKey:" + comboText(it->second.combination));
    hotKeys_.erase(it);
}

std::optional<Error> FakeGlobalInput::grabKeyboard() {
    calls_.push_back("grabKeyboard");
    keyboardGrabbed_ = true;
    return std::nullopt;
}

void FakeGlobalInput::ungrabKeyboard() {
    calls_.push_back("ungrabKeyboard");
    keyboardGrabbed_ = false;
}

void FakeGlobalInput::selectInputSource(int source) {
    calls_.push_back("selectInputSource:" + std::to_string(source));
    inputSource_ = source;
}

bool FakeGlobalInput::pressHotKey(const KeyCombination& combination) {
    return runHotKey(combination, &HotKey::pressed);
}

bool FakeGlobalInput::releaseHotKey(const KeyCombination& combination) {
    return runHotKey(combination, &HotKey::released);
}

bool FakeGlobalInput::runHotKey(const KeyCombination& combination, std::function<void()> HotKey::*handler) {
    for (auto& [id, hotKey] : hotKeys_)
        if (hotKey.combination == combination) {
            if (hotKey.*handler) (hotKey.*handler)();
            return true;
        }
    return false;
}

std::vector<KeyCombination> FakeGlobalInput::registeredHotKeys() const {
    std::vector<KeyCombination> out;
    for (const auto& [id, hotKey] : hotKeys_) out.push_back(hotKey.combination);
    return out;
}

} // namespace sprelio::platform::test

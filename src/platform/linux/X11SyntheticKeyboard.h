#pragma once
// Synthetic key events and typed text on an X11 desktop, through XTest.
//
// Keys are found in the live keymap: a stored key code goes to the X keycode at its position, flagged modifiers are
// held down around the events that carry them, and a character is typed with the key (and Shift) that gives it in
// the current group. A character the layout lacks gets a spare keycode mapped to it for the time being, as xdotool
// does; the spare keys of one round are remapped together, and each round's events go out only after its keymap
// change, so that a client reads every key with the keymap it was typed with. Remapped keys are emptied again a
// while after the last typing.
//
// Everything goes out on the adapter's own thread in call order; while it does, an injection scope of the global
// input adapter (when given) keeps these events from Sprelio's own event tap.
#include <chrono>
#include <memory>
#include <string>

#include "platform/SyntheticKeyboard.h"

namespace sprelio::platform {

class X11GlobalInput;

class X11SyntheticKeyboard final : public SyntheticKeyboard {
public:
    // A client reads a changed keymap when it gets to the next key event, which may be a while after the change:
    // a spare key keeps its character at least this long after its last use before it is given another one.
    static constexpr std::chrono::milliseconds kRemapSettleTime{50};
    // After the last typing, remapped spare keys are emptied once this has passed.
    static constexpr std::chrono::milliseconds kRemapReleaseDelay{1000};

    // `observation`, when given, must outlive this object.
    explicit X11SyntheticKeyboard(const std::string& displayName = {}, X11GlobalInput* observation = nullptr);
    ~X11SyntheticKeyboard() override;
    X11SyntheticKeyboard(const X11SyntheticKeyboard&) = delete;
    X11SyntheticKeyboard& operator=(const X11SyntheticKeyboard&) = delete;

    void postKeyEvents(std::vector<SyntheticKeyEvent> events) override;
    void typeText(std::string text) override;
    std::vector<std::uint16_t> heldModifierKeys() const override;
    bool isAvailable() const override;

    // Waits until every call so far has gone out and reached the X server; false when the time ran out.
    bool waitUntilSent(std::chrono::milliseconds timeout) const;
    // The keycodes the keymap leaves free for characters it lacks.
    std::size_t spareKeyCount() const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace sprelio::platform

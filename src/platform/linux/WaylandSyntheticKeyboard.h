#pragma once
// Synthetic keys and typed text in a Wayland session, through wtype and the compositor's virtual-keyboard
// protocol. wtype brings its own keymap with each run, so every character types as it stands, whatever the
// user's layout. A stored key code goes out as the keysym its key gives on a US layout; flagged modifiers are held
// (wtype -M) around the events that carry them. The runs go out on the adapter's own thread in call order.
//
// A compositor without the protocol (GNOME, KDE Plasma without it, weston) refuses every run: isAvailable() says
// so after the first probe, and the delivery then leaves the text on the clipboard.
#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "platform/SyntheticKeyboard.h"
#include "platform/linux/ChildProcess.h"

namespace sprelio::platform {

class WaylandSyntheticKeyboard final : public SyntheticKeyboard {
public:
    static constexpr std::chrono::milliseconds kRunTimeout{5000};
    // Time a client is given to take in the keymap of a new virtual keyboard before its first key.
    static constexpr std::chrono::milliseconds kKeymapSettle{30};

    // `offersVirtualKeyboard`: what the compositor's registry said at start.
    explicit WaylandSyntheticKeyboard(bool offersVirtualKeyboard);

    void postKeyEvents(std::vector<SyntheticKeyEvent> events) override;
    void typeText(std::string text) override;
    // Wayland tells no client which keys are held elsewhere: none is reported.
    std::vector<std::uint16_t> heldModifierKeys() const override { return {}; }
    bool isAvailable() const override;

    bool waitUntilSent(std::chrono::milliseconds timeout) const { return jobs_.waitUntilIdle(timeout); }

    // wtype's arguments for these events (without the program name); nothing for a key code without a keysym.
    static std::optional<std::vector<std::string>> wtypeArguments(const std::vector<SyntheticKeyEvent>& events);

private:
    void run(std::vector<std::string> argv);

    bool offersVirtualKeyboard_;
    bool installed_;
    std::atomic<bool> refused_{false};
    SerialJobs jobs_;
};

} // namespace sprelio::platform

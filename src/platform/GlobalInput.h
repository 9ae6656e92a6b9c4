#pragma once
// Key and mouse events of the whole desktop, and the ways to keep some of them from the application in front.
//
// Key codes are macOS virtual key codes and flags are CGEventFlags values, whatever the machine: the adapter
// translates its own codes into that vocabulary. Event types use the numbering of the event tap (key down 10, key
// up 11, flags changed 12, right mouse down 3, ...), because the logic compares against those numbers.
//
// A desktop that cannot drop an event after the fact (X11) swallows by grabbing ahead of time: the logic says which
// keys, buttons and combinations belong to it, and the adapter grabs them. Observation of raw events goes on
// whatever grabs are active.
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>

#include "base/Error.h"

namespace sprelio::platform {

namespace global_event_type {
inline constexpr int kLeftMouseDown = 1;
inline constexpr int kLeftMouseUp = 2;
inline constexpr int kRightMouseDown = 3;
inline constexpr int kRightMouseUp = 4;
inline constexpr int kMouseMoved = 5;
inline constexpr int kLeftMouseDragged = 6;
inline constexpr int kRightMouseDragged = 7;
inline constexpr int kKeyDown = 10;
inline constexpr int kKeyUp = 11;
inline constexpr int kFlagsChanged = 12;
inline constexpr int kScrollWheel = 22;
inline constexpr int kOtherMouseDown = 25;
inline constexpr int kOtherMouseUp = 26;
inline constexpr int kOtherMouseDragged = 27;
// The observation stopped because the system found it too slow; the adapter reports it like an event.
inline constexpr int kTapDisabledByTimeout = -2;
inline constexpr int kTapDisabledByUserInput = -1;
} // namespace global_event_type

struct GlobalInputEvent {
    int type = 0;
    std::uint16_t keyCode = 0;
    // CGEventFlags of the modifiers down after this event (for a flags change: including the key that changed),
    // with the bit 0x100 that every event carries and 0x10000 while Caps Lock is on: a release of the last
    // modifier reads exactly 0x100 (or 0x10100).
    std::uint64_t flags = 0;
    // 0 left, 1 right, 2 middle, 3 and up the other buttons (NSEvent buttonNumber).
    std::int64_t buttonNumber = 0;
    // Seconds since an arbitrary origin, steady.
    double timestamp = 0;
    // The text the key types with the modifiers held, and without them; absent for modifiers and non-typing keys.
    std::optional<std::string> characters;
    std::optional<std::string> charactersIgnoringModifiers;
};

// A key with modifiers, as a system-wide hot key.
struct KeyCombination {
    std::uint16_t keyCode = 0;
    std::uint64_t flags = 0; // Control, Option, Shift, Command only
    bool operator==(const KeyCombination&) const = default;
};

using HotKeyId = std::uint32_t;

class GlobalInput {
public:
    virtual ~GlobalInput() = default;

    // Every key and mouse event of the desktop, delivered on the main loop in the order they happened. The
    // handler's answer is whether the event was meant to be swallowed; an adapter that swallows by grabbing only
    // uses it for diagnostics. One handler; a new one replaces it, an empty one stops the delivery.
    using EventHandler = std::function<bool(const GlobalInputEvent&)>;
    virtual void setEventHandler(EventHandler handler) = 0;

    // Keeps a key, with any modifiers, from other applications until released. Errors come back at once.
    virtual std::optional<Error> grabKey(std::uint16_t keyCode) = 0;
    virtual void ungrabKey(std::uint16_t keyCode) = 0;
    // Keeps a mouse button (NSEvent numbering, never 0) from other applications.
    virtual std::optional<Error> grabButton(std::int64_t buttonNumber) = 0;
    virtual void ungrabButton(std::int64_t buttonNumber) = 0;

    // A system hot key: the combination is kept from other applications and reported by id, on the main loop.
    // A combination that another client holds comes back as an error, at once.
    virtual std::variant<HotKeyId, Error> registerHotKey(const KeyCombination& combination,
                                                         std::function<void()> pressed,
                                                         std::function<void()> released) = 0;
    virtual void unregisterHotKey(HotKeyId id) = 0;

    // The whole keyboard, for the shortcut recorder.
    virtual std::optional<Error> grabKeyboard() = 0;
    virtual void ungrabKeyboard() = 0;

    // The keyboard input source (layout group) in use, and a way to select one; 0 is the primary source.
    virtual int currentInputSource() const = 0;
    virtual void selectInputSource(int source) = 0;

    // Whether the desktop lets us observe and grab at all (the "accessibility permission" of this platform).
    virtual bool isAvailable() const = 0;
};

} // namespace sprelio::platform

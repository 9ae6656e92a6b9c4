#pragma once
// Key events that Sprelio sends to whatever application has the keyboard focus, and the text it types there.
//
// Key codes are the stored vocabulary (macOS virtual key codes) and flags are CGEventFlags values, whatever the
// machine. A desktop whose events carry no flags of their own (X11) holds the flagged modifier keys down around the
// events that carry them. Sprelio's own event observation never sees these events.
#include <cstdint>
#include <string>
#include <vector>

namespace sprelio::platform {

namespace event_flags_mask {
inline constexpr std::uint64_t kShift = 0x20000;
inline constexpr std::uint64_t kControl = 0x40000;
inline constexpr std::uint64_t kOption = 0x80000;
inline constexpr std::uint64_t kCommand = 0x100000;
} // namespace event_flags_mask

struct SyntheticKeyEvent {
    std::uint16_t keyCode = 0;
    bool down = true;
    // Modifiers the event carries (Shift, Control, Option, Command); 0 for none.
    std::uint64_t flags = 0;
    bool operator==(const SyntheticKeyEvent&) const = default;
};

class SyntheticKeyboard {
public:
    virtual ~SyntheticKeyboard() = default;

    // Sends the events in order. Calls return at once; the events of one call go out together and calls go out in
    // the order they were made (typed text included). A flagged modifier is pressed before the first event that
    // carries it and released after the last one of a run that does.
    virtual void postKeyEvents(std::vector<SyntheticKeyEvent> events) = 0;
    // Types the text as it stands, whatever the keyboard layout: characters the layout lacks and characters
    // outside the basic plane included. Line feeds and tabs are the Return and Tab keys.
    virtual void typeText(std::string text) = 0;
    // The modifier keys the user holds down now (the keys Sprelio itself holds are not counted), as stored codes.
    virtual std::vector<std::uint16_t> heldModifierKeys() const = 0;
    // Whether events can be sent at all.
    virtual bool isAvailable() const = 0;
};

} // namespace sprelio::platform

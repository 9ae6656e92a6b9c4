#pragma once
// The keyboard layout the user types with, as the key vocabulary needs it. Key codes are macOS virtual key codes;
// the platform adapter translates its own key codes into them.
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace sprelio::platform {

class KeyboardLayout {
public:
    virtual ~KeyboardLayout() = default;
    // Names the current ASCII-capable layout; a different value means a different table of characters.
    virtual std::string currentLayoutIdentifier() const = 0;
    // The layout's name as the user sees it ("English (US)").
    virtual std::string currentLayoutLocalizedName() const = 0;
    // The character the key produces without modifiers in the current ASCII-capable layout; none when it produces
    // no character there (or the code is not on this keyboard).
    virtual std::optional<std::string> character(std::uint16_t keyCode) const = 0;
    // Called on the main loop when the selected or enabled layouts change. One handler; a new one replaces it.
    virtual void setLayoutChangedHandler(std::function<void()> handler) = 0;
};

} // namespace sprelio::platform

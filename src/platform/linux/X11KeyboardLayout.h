#pragma once
// The keyboard layout of an X11 desktop, read from the live XKB keymap: each group (the layouts the user switches
// between) with the characters its keys type, the group selected now, and notice of any change on the main loop.
//
// The identifier and the characters are those of the current ASCII-capable layout: the selected group when it
// types the Latin letters, otherwise the last such group that was selected (the first one at start). The name is
// the selected group's, as the desktop shows it ("English (US)", "Russian").
#include <memory>
#include <string>

#include "platform/KeyboardLayout.h"
#include "platform/MainLoop.h"

namespace sprelio::platform {

class X11KeyboardLayout final : public KeyboardLayout {
public:
    explicit X11KeyboardLayout(MainLoop& loop, const std::string& displayName = {});
    ~X11KeyboardLayout() override;
    X11KeyboardLayout(const X11KeyboardLayout&) = delete;
    X11KeyboardLayout& operator=(const X11KeyboardLayout&) = delete;

    std::string currentLayoutIdentifier() const override;
    std::string currentLayoutLocalizedName() const override;
    std::optional<std::string> character(std::uint16_t keyCode) const override;
    void setLayoutChangedHandler(std::function<void()> handler) override;

    bool isAvailable() const;
    // Whether the right Alt key is AltGr (ISO_Level3_Shift) in the layout selected now: typing with it then also
    // presses the default dictation key.
    bool rightAltIsAltGr() const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace sprelio::platform

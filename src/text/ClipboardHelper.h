#pragma once
// The clipboard as the text delivery and the AI actions use it, and the two ways of reading the user's selection:
// the selection the focused application holds, and a synthetic copy command.
//
// Reading means asking the application that holds the clipboard or the selection, so every read answers through a
// completion on the main loop; nothing here waits on the loop.
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/LifetimeGuard.h"
#include "platform/Clipboard.h"
#include "platform/FrontmostApp.h"
#include "platform/MainLoop.h"
#include "platform/SyntheticKeyboard.h"

namespace sprelio {

namespace store {
class AppConstants;
}

struct ClipboardHelperDependencies {
    platform::MainLoop& loop;
    platform::Clipboard& clipboard;
    platform::SyntheticKeyboard& keyboard;
    const platform::Workspace& workspace;
    // The terminal emulators, which copy with Control+Shift+C.
    const store::AppConstants& constants;
    // Whether the desktop lets Sprelio read other applications and send them keys (the accessibility permission).
    std::function<bool()> accessibilityTrusted;
};

class ClipboardHelper {
public:
    // How long the copy command is given before the clipboard is read.
    static constexpr platform::Duration kCopyWait = std::chrono::milliseconds(500);
    // Key codes of the copy command: C, and the modifiers that make it a copy on this desktop.
    static constexpr std::uint16_t kKeyC = 8;
    static constexpr std::uint64_t kCopyFlags = platform::event_flags_mask::kControl;
    static constexpr std::uint64_t kTerminalCopyFlags =
        platform::event_flags_mask::kControl | platform::event_flags_mask::kShift;

    explicit ClipboardHelper(ClipboardHelperDependencies dependencies);
    ~ClipboardHelper();
    ClipboardHelper(const ClipboardHelper&) = delete;
    ClipboardHelper& operator=(const ClipboardHelper&) = delete;

    // Puts the text on the clipboard as its only content; no text empties it. `caller` is for the log. False when
    // the desktop refused the text (it is logged).
    bool setString(const std::optional<std::string>& text, const std::string& caller);
    // The clipboard's text, or the empty string when it holds none.
    void getString(std::function<void(std::string)> completion);
    // The text selected in the application in front; nothing when there is none or it cannot be read.
    void getSelectedTextFromFrontmostApp(std::function<void(std::optional<std::string>)> completion);
    // The copy command sent to the application in front, then the clipboard's text after kCopyWait. The copied
    // text stays on the clipboard.
    void getStringWithCommandC(std::function<void(std::optional<std::string>)> completion);

private:
    ClipboardHelperDependencies deps_;
    LifetimeGuard lifetime_;
};

} // namespace sprelio

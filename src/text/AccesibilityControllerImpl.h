#pragma once
// Delivery of a finished text to the application in front, by one of two routes: typed as synthetic key events
// ("Direct Keyboard Injection"), or put on the clipboard, pasted with a synthetic keystroke, and the user's own
// clipboard text put back a moment later ("Clipboard Injection + CMD+V"). The route is the classifier's answer at
// the moment of delivery.
//
// The paste keystroke is Control+V, with V found in the current layout. Terminal emulators take Control+V as a key
// for the program inside: each gets the route its own program takes (text/TerminalPasteRoutes.h), Control+Shift+V
// or typing; a paste into a terminal whose route was never tried leaves the text on the clipboard and says so. A remote desktop client gets Control as a key of its own around V, with pauses, so that the
// remote machine sees a real Control+V. The pauses and the restore are loop timers; nothing waits on the loop.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "base/LifetimeGuard.h"
#include "platform/FrontmostApp.h"
#include "platform/KeyboardLayout.h"
#include "platform/MainLoop.h"
#include "platform/SyntheticKeyboard.h"
#include "text/AccesibilityController.h"

namespace sprelio {

class ClipboardHelper;
class ErrorPresenter;
class KeyCodes;
namespace store {
class AppConstants;
class Settings;
} // namespace store

struct AccesibilityControllerDependencies {
    platform::MainLoop& loop;
    const store::Settings& settings;
    const platform::Workspace& workspace;
    const store::AppConstants& constants;
    ClipboardHelper& clipboardHelper;
    platform::SyntheticKeyboard& keyboard;
    KeyCodes& keyCodes;
    const platform::KeyboardLayout& keyboardLayout;
};

class AccesibilityControllerImpl final : public AccesibilityController {
public:
    static constexpr platform::Duration kRestoreDelay = std::chrono::milliseconds(1500);
    static constexpr platform::Duration kRemoteSettleDelay = std::chrono::milliseconds(500);
    static constexpr platform::Duration kRemoteKeyGap = std::chrono::milliseconds(15);
    // The paste keystroke's key codes and flags on this desktop: Control where the original system has Command.
    static constexpr std::uint16_t kKeyV = 9;
    static constexpr std::uint16_t kKeyControl = 59;
    static constexpr std::uint64_t kPasteFlags = platform::event_flags_mask::kControl;
    static constexpr std::uint64_t kPasteAndMatchStyleFlags =
        platform::event_flags_mask::kControl | platform::event_flags_mask::kShift;

    explicit AccesibilityControllerImpl(AccesibilityControllerDependencies dependencies);
    ~AccesibilityControllerImpl() override;
    AccesibilityControllerImpl(const AccesibilityControllerImpl&) = delete;
    AccesibilityControllerImpl& operator=(const AccesibilityControllerImpl&) = delete;

    void injectTextViaPaste(const std::string& text, std::optional<pid_t> pid) override;
    // The direct route: the whole text in one burst of key events to the focused window. The desktop cannot aim
    // events at a process, so `pid` only documents the intended target.
    void postUnicodeText(const std::string& text, std::optional<pid_t> pid);
    // The clipboard route's second half: the paste keystroke, then the fate of the user's clipboard text.
    void postPasteKeystroke(const std::optional<std::string>& originalContent, const std::string& text);
    // The user's text goes back on the clipboard after kRestoreDelay; nothing cancels it.
    void restoreOriginalContent(const std::string& originalContent, bool forceRestore);
    // Where the user is told of a delivery that could not be confirmed; none until the desktop's messages exist.
    void setMessages(ErrorPresenter* messages) { messages_ = messages; }

private:
    bool frontmostTerminalTakesTyping() const;
    void keepTextOnClipboard(const std::string& applicationName);
    // No key can be pressed here at all: the text stays on the clipboard and the user is told to paste it.
    void keepTextOnClipboardWithoutKeys();
    // The clipboard refused the text: typed where keys can be pressed, else the user hears that it did not arrive.
    void deliverWithoutClipboard(const std::string& text);
    void sendRemotePaste(std::uint16_t vKey, std::optional<std::string> originalContent, std::string text);
    void finishPaste(const std::optional<std::string>& originalContent, const std::string& text);

    AccesibilityControllerDependencies deps_;
    ErrorPresenter* messages_ = nullptr;
    LifetimeGuard lifetime_;
};

} // namespace sprelio

#include "text/AccesibilityControllerImpl.h"

#include "base/Log.h"
#include "input/KeyCodes.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "shared/Errors.h"
#include "text/ClipboardHelper.h"
#include "text/FrontmostAppInfo.h"
#include "text/SyntheticKeystrokes.h"
#include "text/TerminalPasteRoutes.h"

namespace sprelio {

namespace {

constexpr const char* kInjectCaller = "injectTextViaPaste(text:pid:)";
constexpr const char* kRestoreCaller = "restoreOriginalContent(originalContent:forceRestore:)";

bool endsWithCommandMark(const std::string& name) {
    static const std::string mark = "⌘";
    return name.size() >= mark.size() && name.compare(name.size() - mark.size(), mark.size(), mark) == 0;
}

} // namespace

AccesibilityControllerImpl::AccesibilityControllerImpl(AccesibilityControllerDependencies dependencies)
    : deps_(std::move(dependencies)) {}

AccesibilityControllerImpl::~AccesibilityControllerImpl() { lifetime_.expire(); }

void AccesibilityControllerImpl::injectTextViaPaste(const std::string& text, std::optional<pid_t> pid) {
    // A desktop that lets nobody press keys (a Wayland compositor without a virtual keyboard) gets the text on the
    // clipboard, where the user can paste it.
    const bool direct = deps_.keyboard.isAvailable() &&
                        (FrontmostAppClassifier::shouldUseKeyboardInjection(deps_.workspace, true) ||
                         frontmostTerminalTakesTyping());
    logInfo(std::string("injectTextViaPaste() - using ") +
            (direct ? "Direct Keyboard Injection" : "Clipboard Injection + CMD+V"));
    if (direct) {
        postUnicodeText(text, pid);
        if (deps_.settings.copyTranscript()) deps_.clipboardHelper.setString(text, kInjectCaller);
        return;
    }
    const auto alive = lifetime_.token();
    deps_.clipboardHelper.getString([this, alive, text](std::string savedText) {
        if (!alive) return;
        logInfo("injectTextViaPaste() - originalClipboardContent: " + std::string(kPrivatized));
        logInfo("injectTextViaPaste() - text                    : " + std::string(kPrivatized));
        if (!deps_.clipboardHelper.setString(text, kInjectCaller)) {
            // The paste key would paste whatever the clipboard held before.
            deliverWithoutClipboard(text);
            return;
        }
        deps_.loop.post([this, alive, savedText = std::move(savedText), text] {
            if (!alive) return;
            postPasteKeystroke(savedText, text);
        });
    });
}

void AccesibilityControllerImpl::postUnicodeText(const std::string& text, std::optional<pid_t> /*pid*/) {
    typeTextReleasingHeldModifiers(deps_.keyboard, text);
}

void AccesibilityControllerImpl::postPasteKeystroke(const std::optional<std::string>& originalContent,
                                                    const std::string& text) {
    if (!deps_.keyboard.isAvailable()) {
        keepTextOnClipboardWithoutKeys();
        return;
    }
    const bool isRemote = FrontmostAppClassifier::isRemoteDesktopClient(deps_.workspace, true);
    const std::uint16_t vKey = deps_.keyCodes.keyCode(Key::v);
    if (isRemote && deps_.settings.pasteCtrlVForRemoteDesktop()) {
        logInfo("injectTextViaPaste() - Remote desktop client detected, sending Ctrl+V for Windows compatibility");
        sendRemotePaste(vKey, originalContent, text);
        return;
    }
    const auto front = deps_.workspace.frontmostApplication();
    const std::optional<std::string> name = front ? front->localizedName : std::nullopt;
    const bool matchStyle = deps_.constants.prefersPasteAndMatchStyle(name.value_or(""));
    logInfo("injectTextViaPaste() - target app '" + name.value_or("nil") +
            (matchStyle ? "' is listed in Constants.appsThatPreferPasteAndMatchStyle - using special 'Paste and Match "
                          "Style' -> Shift + Command + V"
                        : "' is not listed in Constants.appsThatPreferPasteAndMatchStyle - using normal 'Paste' -> "
                          "Command + V"));
    const std::uint16_t keyCode = endsWithCommandMark(deps_.keyboardLayout.currentLayoutLocalizedName()) ? kKeyV : vKey;
    const std::uint64_t flags = matchStyle ? kPasteAndMatchStyleFlags : kPasteFlags;
    postKeyEventsReleasingHeldModifiers(deps_.keyboard, {{keyCode, true, flags}, {keyCode, false, flags}});
    if (const auto terminal = terminalPasteRule(name.value_or("")); terminal && !terminal->confirmed) {
        keepTextOnClipboard(*name);
        return;
    }
    finishPaste(originalContent, text);
}

bool AccesibilityControllerImpl::frontmostTerminalTakesTyping() const {
    const auto front = deps_.workspace.frontmostApplication();
    if (!front || !front->localizedName) return false;
    const auto terminal = terminalPasteRule(*front->localizedName);
    if (!terminal || terminal->route != TerminalPasteRoute::typing) return false;
    logInfo("injectTextViaPaste() - target app '" + *front->localizedName +
            "' is a terminal without a clipboard paste key by default - typing the text");
    return true;
}

// The paste key of a terminal that was never tried may do nothing at all, and nothing tells whether the text
// arrived: the text stays where the user can paste it by hand.
void AccesibilityControllerImpl::keepTextOnClipboard(const std::string& applicationName) {
    logWarning("injectTextViaPaste() - target app '" + applicationName +
               "' is a terminal whose paste key is not confirmed - the text stays on the clipboard");
    if (!messages_) return;
    messages_->showAlertForError(
        SPRStringError::errorMessageError("Text left on the clipboard",
                                          messages_->appName() + " could not confirm that " + applicationName +
                                              " received the dictated text. It is on the clipboard: paste it "
                                              "with Ctrl+Shift+V.")
            .toError());
}

void AccesibilityControllerImpl::keepTextOnClipboardWithoutKeys() {
    logWarning("injectTextViaPaste() - no synthetic keys on this desktop - the text stays on the clipboard");
    if (!messages_) return;
    messages_->showAlertForError(
        SPRStringError::errorMessageError("Text left on the clipboard",
                                          "This desktop does not let " + messages_->appName() +
                                              " press keys, so the dictated text was not pasted. It is on the "
                                              "clipboard: paste it with Ctrl+V.")
            .toError());
}

void AccesibilityControllerImpl::deliverWithoutClipboard(const std::string& text) {
    if (deps_.keyboard.isAvailable()) {
        logWarning("injectTextViaPaste() - the clipboard refused the text - typing it instead");
        postUnicodeText(text, std::nullopt);
        return;
    }
    logError("injectTextViaPaste() - neither the clipboard nor synthetic keys on this desktop - the text was not "
             "delivered");
    if (!messages_) return;
    messages_->showAlertForError(
        SPRStringError::errorMessageError("Text not delivered",
                                          "This desktop let " + messages_->appName() +
                                              " neither use the clipboard nor press keys, so the dictated text "
                                              "could not be pasted. It is in the history, from where you can "
                                              "copy it.")
            .toError());
}

void AccesibilityControllerImpl::sendRemotePaste(std::uint16_t vKey, std::optional<std::string> originalContent,
                                                 std::string text) {
    // Control is a key of its own here, pressed around V with pauses between the four events, so that a remote
    // machine that reads keys one by one sees a real Control+V.
    struct Sequence {
        std::vector<platform::SyntheticKeyEvent> events;
        std::size_t next = 0;
        std::vector<std::uint16_t> released;
        std::optional<std::string> originalContent;
        std::string text;
    };
    auto sequence = std::make_shared<Sequence>();
    sequence->events = {{kKeyControl, true, 0}, {vKey, true, 0}, {vKey, false, 0}, {kKeyControl, false, 0}};
    sequence->originalContent = std::move(originalContent);
    sequence->text = std::move(text);
    const auto alive = lifetime_.token();
    auto step = std::make_shared<std::function<void()>>();
    *step = [this, alive, sequence, weakStep = std::weak_ptr<std::function<void()>>(step)] {
        if (!alive) return;
        if (sequence->next == 0) sequence->released = releaseHeldModifiers(deps_.keyboard);
        deps_.keyboard.postKeyEvents({sequence->events[sequence->next++]});
        if (sequence->next < sequence->events.size()) {
            if (auto next = weakStep.lock()) deps_.loop.postAfter(kRemoteKeyGap, [next] { (*next)(); });
            return;
        }
        pressModifiersAgain(deps_.keyboard, sequence->released);
        logInfo("injectTextViaPaste() - Sent Ctrl+V for Windows remote desktop (raw key sequence)");
        finishPaste(sequence->originalContent, sequence->text);
    };
    // The step owns itself through the timers until the last event; the first timer holds the only strong
    // reference at the start.
    deps_.loop.postAfter(kRemoteSettleDelay, [step] { (*step)(); });
}

void AccesibilityControllerImpl::finishPaste(const std::optional<std::string>& originalContent,
                                             const std::string& text) {
    if (originalContent && (!deps_.settings.copyTranscript() || text.empty())) {
        restoreOriginalContent(*originalContent, false);
        return;
    }
    logInfo("injectTextViaPaste() - copyTranscript enabled and text is not empty, will not restore original "
            "clipboard content");
}

void AccesibilityControllerImpl::restoreOriginalContent(const std::string& originalContent, bool /*forceRestore*/) {
    logInfo("restoreOriginalContent() - restoring originalContent: " + std::string(kPrivatized));
    const auto alive = lifetime_.token();
    deps_.loop.postAfter(kRestoreDelay, [this, alive, originalContent] {
        if (!alive) return;
        deps_.clipboardHelper.setString(originalContent, kRestoreCaller);
    });
}

} // namespace sprelio

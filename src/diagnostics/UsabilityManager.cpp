#include "diagnostics/UsabilityManager.h"

#include <sstream>

#include "base/Log.h"
#include "platform/Clock.h"
#include "platform/MainLoop.h"
#include "shared/Errors.h"

namespace sprelio {

namespace {
constexpr std::uint16_t kRightOptionKeyCode = 61;
constexpr UsabilityWarning kAllWarnings[] = {UsabilityWarning::microphone, UsabilityWarning::accessibility,
                                             UsabilityWarning::screenCapture};

std::string listText(const std::set<UsabilityWarning>& warnings) {
    std::string text = "[";
    for (const auto warning : warnings) {
        if (text.size() > 1) text += ", ";
        text += usabilityWarningTitle(warning);
    }
    return text + "]";
}
} // namespace

std::string usabilityWarningTitle(UsabilityWarning warning) {
    switch (warning) {
    case UsabilityWarning::microphone: return "Microphone Warning";
    case UsabilityWarning::accessibility: return "Accessibility Warning";
    case UsabilityWarning::screenCapture: return "Screen Capture Warning";
    }
    return "";
}

std::string usabilityWarningText(UsabilityWarning warning) {
    switch (warning) {
    case UsabilityWarning::microphone:
        return "No microphone can be recorded from: the sound server (PulseAudio or PipeWire) is not running or has "
               "no input device.";
    case UsabilityWarning::accessibility:
        return "Sprelio cannot see global hotkeys or type into other applications: it needs an X server with the "
               "XInput2 and XTEST extensions.";
    case UsabilityWarning::screenCapture:
        return "The computer's sound cannot be recorded: the sound server offers no monitor of the output.";
    }
    return "";
}

UsabilityManager::UsabilityManager(Dependencies deps) : deps_(std::move(deps)) {}

void UsabilityManager::checkUsability(const std::string& caller) {
    const auto now = deps_.clock.steadyNow();
    if (lastCheckedUsability_ && now - *lastCheckedUsability_ <= kDebounceInterval) {
        logDebug("checkUsability() - skipped, already checked within the last 0.33 seconds (caller: " + caller + ")");
        if (deps_.loop && !(trailingCheck_ && trailingCheck_->isValid())) {
            const auto wait = kDebounceInterval - (now - *lastCheckedUsability_) + std::chrono::milliseconds(1);
            trailingCheck_ = deps_.loop->schedule(
                wait, lifetime_.guard([this, caller] { checkUsability(caller + " (after a burst)"); }));
        }
        return;
    }
    lastCheckedUsability_ = now;
    // This check answers for the burst: a re-run still pending for it has nothing left to do.
    if (trailingCheck_) {
        trailingCheck_->invalidate();
        trailingCheck_.reset();
    }
    logInfo("UsabilityManager.checkUsability() - warningsToCheck: [Microphone Warning, Accessibility Warning, Screen "
            "Capture Warning]");
    logInfo("UsabilityManager.checkUsability() - filesMenuRecordingMode: " +
            (deps_.filesMenuRecordingMode ? deps_.filesMenuRecordingMode() : std::string("microphoneOnly")));
    const auto before = activeWarnings_;
    for (const auto warning : kAllWarnings) {
        bool holds = false;
        switch (warning) {
        case UsabilityWarning::microphone: holds = deps_.micPermissions && !deps_.micPermissions(); break;
        case UsabilityWarning::accessibility: holds = deps_.accessibilityEnabled && !deps_.accessibilityEnabled(); break;
        case UsabilityWarning::screenCapture: holds = deps_.screenCaptureGranted && !deps_.screenCaptureGranted(); break;
        }
        if (holds) {
            if (activeWarnings_.insert(warning).second) {
                logInfo("checkUsability() - added warning: " + usabilityWarningTitle(warning));
                if (onWarningRaised) onWarningRaised(warning);
            }
        } else {
            activeWarnings_.erase(warning);
        }
    }
    logInfo("checkUsability() - checks finished, active warnings: " + listText(activeWarnings_));
    if (activeWarnings_ != before) changed();
}

void UsabilityManager::addSessionNote(std::string text) {
    sessionNotes_.push_back(std::move(text));
    changed();
}

void UsabilityManager::setHotkeyCollision(std::optional<std::string> text) {
    if (hotkeyCollision_ == text) return;
    hotkeyCollision_ = std::move(text);
    changed();
}

std::vector<std::string> UsabilityManager::bannerTexts() const {
    std::vector<std::string> texts;
    for (const auto warning : activeWarnings_) texts.push_back(usabilityWarningText(warning));
    texts.insert(texts.end(), sessionNotes_.begin(), sessionNotes_.end());
    if (hotkeyCollision_) texts.push_back(*hotkeyCollision_);
    return texts;
}

void UsabilityManager::changed() {
    if (onChange) onChange();
}

std::optional<std::string> checkForIncompatibilities(const std::optional<std::set<std::uint16_t>>& keysSet,
                                                     bool rightAltIsAltGr, const std::string& layoutName,
                                                     ErrorPresenter* messages) {
    if (!rightAltIsAltGr) return std::nullopt;
    logWarning("checkForIncompatibilities() - hit: the keyboard layout " + layoutName +
               " has AltGr on the right Alt key");
    if (!keysSet || keysSet->empty()) return std::nullopt;
    std::ostringstream keys;
    for (const auto code : *keysSet) keys << (keys.tellp() > 0 ? ", " : "") << code;
    logInfo("checkForIncompatibilities() - keysSet: [" + keys.str() + "]");
    logInfo("checkForIncompatibilities() - collidingHotkey: " + std::to_string(kRightOptionKeyCode));
    if (!keysSet->count(kRightOptionKeyCode)) return std::nullopt;
    logInfo("checkForIncompatibilities() - hit: AltGr of " + layoutName + " is using hotkey " +
            std::to_string(kRightOptionKeyCode) + " too!");
    const std::string text = "Warning: possible collision between used hotkey 'Right ⌥' and AltGr of your keyboard "
                             "layout '" +
                             layoutName +
                             "': characters typed with AltGr also start a dictation. Choose another key for "
                             "dictation in the Settings…";
    // Shown each start while it holds, unless the user asks never to see it again.
    if (messages)
        messages->showAlertForError(SPRStringError::errorMessageError(std::nullopt, text).toError(), std::nullopt,
                                    false, true);
    return text;
}

} // namespace sprelio

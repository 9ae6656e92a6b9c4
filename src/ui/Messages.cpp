#include "ui/Messages.h"

#include <algorithm>
#include <array>

#include "shared/AppState.h"
#include "base/Log.h"
#include "store/Settings.h"

namespace sprelio {

MessageCenter::MessageCenter(platform::Platform platform, store::Settings& settings, AppState& appState,
                             ToastPresenter& presenter, std::string appName)
    : platform_(platform), settings_(settings), appState_(appState), presenter_(presenter),
      appName_(std::move(appName)) {}

namespace {

// The server's error name travels as the title of a string error, or as the domain of an error built from the
// answer directly.
std::optional<std::string> oncePerRunName(const Error& error) {
    const auto title = error.userInfo.find("title");
    for (const auto name : kOncePerRunErrorNames) {
        if (error.domain == name || (title != error.userInfo.end() && title->second == name)) return std::string(name);
    }
    return std::nullopt;
}

} // namespace

platform::Rect MessageCenter::toastFrame(const platform::Rect& screen) {
    return platform::Rect{screen.x + (screen.width - kToastWidth) / 2, screen.y + (screen.height - kToastHeight) / 2,
                          kToastWidth, kToastHeight};
}

void MessageCenter::showAlertForError(SPRLocalizedError error, std::optional<int> statusCode, bool showRepeated,
                                      bool showNeverShowAgain) {
    showAlertForError(makeError(error, appName_), statusCode, showRepeated, showNeverShowAgain);
}

void MessageCenter::showAlertForError(std::optional<Error> error, std::optional<int> statusCode, bool showRepeated,
                                      bool showNeverShowAgain) {
    // Offline is shown by the application's state; a toast per failed request would only pile up.
    if (error && error->code == url_error::kNotConnectedToInternet) {
        logWarning("showAlertForError() - alerts disabled for NSError with code " + std::to_string(error->code) +
                   ", skipping error with description: \"" + error->localizedDescription + "\"");
        return;
    }
    if (!error) {
        logWarning("showErrorDialog() - called without supplying error, ignoring.");
        return;
    }
    std::string description = error->localizedDescription;
    platform_.loop.post([this, err = std::move(*error), description = std::move(description), statusCode,
                         showRepeated, showNeverShowAgain]() {
        platform_.workspace.activateSelf();
        logInfo("showAlertForError() - error.debugDescription: " + err.debugDescription());

        // Cleared when a dictation sets up its overlay, so only repeats within one dictation are suppressed.
        if (appState_.lastKnownErrorLocalizedDescription() == description && !showRepeated) return;
        if (const auto name = oncePerRunName(err); name && !shownOncePerRun_.insert(*name).second) {
            logInfo("showAlertForError() - " + *name + " was shown in this run already, not again");
            return;
        }
        appState_.setLastKnownErrorLocalizedDescription(description);

        if (settings_.soundEnabled()) platform_.sounds.play("Glass");

        SPRToastView toast;
        toast.messageText = description;
        toast.statusCode = statusCode;
        toast.showNeverShowAgain = showNeverShowAgain;
        toast.warningLevel = SPRToastViewWarningLevel::error;
        // The account server names the refusal "Unauthorized" and words its message for people; either marks it.
        const auto title = err.userInfo.find("title");
        const bool unauthorized = description.find("Unauthorized") != std::string::npos ||
                                  (title != err.userInfo.end() && title->second == "Unauthorized");
        if (unauthorized) {
            toast.tapActionText = "Log Out";
            toast.tapAction = [this]() {
                removeSPRToast();
                if (logout) logout();
            };
        } else {
            toast.tapAction = [this]() { removeSPRToast(); };
        }
        showSPRToast(std::move(toast));
    });
}

void MessageCenter::showNotice(const std::string& title, const std::string& text) {
    SPRToastView toast;
    toast.messageTitle = title;
    toast.messageText = text;
    toast.warningLevel = SPRToastViewWarningLevel::warning;
    toast.tapAction = [this]() { removeSPRToast(); };
    platform_.loop.post([this, toast = std::move(toast)]() mutable { showSPRToast(std::move(toast)); });
}

void MessageCenter::showSPRToast(SPRToastView toast) {
    logInfo("showSPRToast()");
    const auto never = settings_.messagesToNeverShowAgain();
    if (std::find(never.begin(), never.end(), toast.messageText) != never.end()) {
        logInfo("showSPRToast() - messageText is in messagesToNeverShowAgain - aborting showSPRToast. (message: " +
                toast.messageText + ")");
        return;
    }
    // Only one message lives at a time.
    removeSPRToast();
    // One toast per screen, so the user sees it wherever they look.
    for (const auto& screen : platform_.screens.screens()) {
        const std::string text = toast.messageText;
        presenter_.showToast(toast, screen, toastFrame(screen.frame), [this, text]() { neverShowAgain(text); });
        ++sprToastViewControllers_;
    }
}

void MessageCenter::removeSPRToast() {
    logInfo("removeSPRToast() - removing all SPRToastView instances");
    presenter_.closeAllToasts();
    sprToastViewControllers_ = 0;
}

void MessageCenter::neverShowAgain(const std::string& messageText) {
    auto never = settings_.messagesToNeverShowAgain();
    if (std::find(never.begin(), never.end(), messageText) != never.end()) return;
    never.push_back(messageText);
    settings_.setMessagesToNeverShowAgain(std::move(never));
}

} // namespace sprelio

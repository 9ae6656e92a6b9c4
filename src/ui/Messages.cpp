#include "ui/Messages.h"

#include <algorithm>
#include <array>

#include "core/AppState.h"
#include "diagnostics/Log.h"
#include "store/Settings.h"

namespace sprelio {

namespace {

constexpr std::array<std::string_view, 13> kNames = {
    "unknownError",       "networkError",       "balancerError",
    "tokenUnavailableError", "nothingToTranscribeError", "noVoiceDetectedWillRelaunchError",
    "noMicrophonesFoundError", "invalidUrlError",  "uploadFailedError",
    "transcriptionFailedError", "userCancelledRecordingError", "microphoneMutedError",
    "microphoneLowVolumeError"};

std::string replaceAppName(std::string text, std::string_view appName) {
    static constexpr std::string_view kPlaceholder = "<appName>";
    for (auto at = text.find(kPlaceholder); at != std::string::npos; at = text.find(kPlaceholder, at)) {
        text.replace(at, kPlaceholder.size(), appName);
        at += appName.size();
    }
    return text;
}

} // namespace

std::string_view sprLocalizedErrorName(SPRLocalizedError error) {
    return kNames[static_cast<std::size_t>(error)];
}

std::optional<SPRLocalizedError> sprLocalizedErrorFromRawValue(int rawValue) {
    if (rawValue < 0 || rawValue >= static_cast<int>(kNames.size())) return std::nullopt;
    return static_cast<SPRLocalizedError>(rawValue);
}

std::string errorDescription(SPRLocalizedError error, std::string_view appName) {
    switch (error) {
    case SPRLocalizedError::unknownError: return "Unknown Error";
    case SPRLocalizedError::networkError: return "The Internet connection appears to be offline.";
    case SPRLocalizedError::balancerError: return "No balancers available. Try again later.";
    case SPRLocalizedError::tokenUnavailableError:
        return "No JWT token available for current user, probably not logged in.";
    case SPRLocalizedError::nothingToTranscribeError:
        return "We are unable to hear you, so nothing was transcribed. Please check your microphone settings or "
               "select another one.";
    case SPRLocalizedError::noVoiceDetectedWillRelaunchError:
        return replaceAppName("We are unable to hear you!\n\nWe will now relaunch <appName> in order to restore "
                              "microphone access. Please allow microphone access when asked.\n\nIf the problem "
                              "persists, check your microphone settings or select another one.",
                              appName);
    case SPRLocalizedError::noMicrophonesFoundError:
        return replaceAppName("Your computer has no microphones that are accessible by <appName>. Please connect a "
                              "microphone to your computer first, then press the button below to relaunch the "
                              "application.",
                              appName);
    case SPRLocalizedError::invalidUrlError: return "The URL provided is invalid.";
    case SPRLocalizedError::uploadFailedError: return "Upload failed.";
    case SPRLocalizedError::transcriptionFailedError: return "Transcription failed.";
    case SPRLocalizedError::userCancelledRecordingError: return "Cancelled recording.";
    case SPRLocalizedError::microphoneMutedError:
        return "Your microphone is muted. Please unmute your microphone and try again.";
    case SPRLocalizedError::microphoneLowVolumeError:
        return "Your microphone input volume is very low. Please increase your microphone volume or check your "
               "microphone settings.";
    }
    return "Unknown Error";
}

Error makeError(SPRLocalizedError error, std::string_view appName) {
    Error e;
    e.domain = kSPRLocalizedErrorDomain;
    e.code = static_cast<long>(error);
    e.localizedDescription = errorDescription(error, appName);
    return e;
}

std::string SPRStringError::errorDescription() const {
    if (!message.empty()) return message;
    if (title) return *title;
    return sprelio::errorDescription(SPRLocalizedError::unknownError, "");
}

Error SPRStringError::toError() const {
    Error e;
    e.domain = kSPRStringErrorDomain;
    e.code = 0;
    e.localizedDescription = errorDescription();
    if (title) e.userInfo["title"] = *title;
    return e;
}

MessageCenter::MessageCenter(platform::Platform platform, store::Settings& settings, AppState& appState,
                             ToastPresenter& presenter, std::string appName)
    : platform_(platform), settings_(settings), appState_(appState), presenter_(presenter),
      appName_(std::move(appName)) {}

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
        appState_.setLastKnownErrorLocalizedDescription(description);

        if (settings_.soundEnabled()) platform_.sounds.play("Glass");

        SPRToastView toast;
        toast.messageText = description;
        toast.statusCode = statusCode;
        toast.showNeverShowAgain = showNeverShowAgain;
        toast.warningLevel = SPRToastViewWarningLevel::error;
        if (description.find("Unauthorized") != std::string::npos) {
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

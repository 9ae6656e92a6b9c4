#pragma once
// The one path by which errors reach the user: a typed error becomes a toast on every screen, with repeats
// suppressed and a sound first.
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Error.h"
#include "platform/Platform.h"

namespace sprelio {

class AppState;
namespace store {
class Settings;
}

enum class SPRLocalizedError : int {
    unknownError = 0,
    networkError = 1,
    balancerError = 2,
    tokenUnavailableError = 3,
    nothingToTranscribeError = 4,
    noVoiceDetectedWillRelaunchError = 5,
    noMicrophonesFoundError = 6,
    invalidUrlError = 7,
    uploadFailedError = 8,
    transcriptionFailedError = 9,
    userCancelledRecordingError = 10,
    microphoneMutedError = 11,
    microphoneLowVolumeError = 12,
};

inline constexpr const char* kSPRLocalizedErrorDomain = "SPRLocalizedError";
inline constexpr const char* kSPRStringErrorDomain = "SPRStringError";

std::string_view sprLocalizedErrorName(SPRLocalizedError error);
std::optional<SPRLocalizedError> sprLocalizedErrorFromRawValue(int rawValue);
// The text shown to the user; `appName` fills the texts that name the application.
std::string errorDescription(SPRLocalizedError error, std::string_view appName);
// Domain "SPRLocalizedError", code = the raw value.
Error makeError(SPRLocalizedError error, std::string_view appName);

// A text that came from a server, with an optional title.
struct SPRStringError {
    std::optional<std::string> title;
    std::string message;

    static SPRStringError errorMessageError(std::optional<std::string> title, std::string message) {
        return SPRStringError{std::move(title), std::move(message)};
    }
    // The message; when it is empty, the title; when that is missing too, the unknown error's text.
    std::string errorDescription() const;
    // Domain "SPRStringError", code 0.
    Error toError() const;
};

enum class SPRToastViewWarningLevel { error, warning, message };

inline constexpr std::string_view kNeverShowAgainText = "Never show this again.";
inline constexpr std::string_view kDefaultTapActionText = "Click here to dismiss";

// What one toast shows. The check box and the button call back into the message path.
struct SPRToastView {
    std::optional<std::string> messageTitle;
    std::string messageText;
    std::optional<int> statusCode;
    bool showNeverShowAgain = false;
    std::function<void()> tapAction;
    std::optional<std::string> tapActionText; // nothing: kDefaultTapActionText
    std::optional<SPRToastViewWarningLevel> warningLevel;
    bool adjustForColorScheme = false;
};

// The desktop shell's side: one borderless window per call, closed all at once.
class ToastPresenter {
public:
    virtual ~ToastPresenter() = default;
    // `onNeverShowAgain` is what the check box calls when the user ticks it.
    virtual void showToast(const SPRToastView& toast, const platform::ScreenInfo& screen, const platform::Rect& frame,
                           std::function<void()> onNeverShowAgain) = 0;
    virtual void closeAllToasts() = 0;
};

class MessageCenter {
public:
    static constexpr double kToastWidth = 320;
    static constexpr double kToastHeight = 240;

    MessageCenter(platform::Platform platform, store::Settings& settings, AppState& appState,
                  ToastPresenter& presenter, std::string appName);

    // Signs the user out; the toast of an "Unauthorized" error offers it.
    std::function<void()> logout;

    // May be called from any thread; the toast work runs on the main loop.
    void showAlertForError(std::optional<Error> error, std::optional<int> statusCode = std::nullopt,
                           bool showRepeated = false, bool showNeverShowAgain = false);
    void showAlertForError(SPRLocalizedError error, std::optional<int> statusCode = std::nullopt,
                           bool showRepeated = false, bool showNeverShowAgain = false);

    // Main loop only.
    void showSPRToast(SPRToastView toast);
    void removeSPRToast();
    // The toast's check box: the text is not shown again.
    void neverShowAgain(const std::string& messageText);
    std::size_t toastCount() const { return sprToastViewControllers_; }

    const std::string& appName() const { return appName_; }
    // A toast centred on a screen's frame.
    static platform::Rect toastFrame(const platform::Rect& screen);

private:
    platform::Platform platform_;
    store::Settings& settings_;
    AppState& appState_;
    ToastPresenter& presenter_;
    std::string appName_;
    std::size_t sprToastViewControllers_ = 0;
};

} // namespace sprelio

#pragma once
// The errors the user is shown, and the one path they take there. Services and the session hand errors to an
// ErrorPresenter; the desktop's message centre is the one that draws them.
#include <optional>
#include <string>
#include <string_view>

#include "base/Error.h"

namespace sprelio {

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

// The message path as its callers see it. May be called from any thread.
class ErrorPresenter {
public:
    virtual ~ErrorPresenter() = default;
    // The application's name, which some of the error texts carry.
    virtual const std::string& appName() const = 0;
    virtual void showAlertForError(std::optional<Error> error, std::optional<int> statusCode = std::nullopt,
                                   bool showRepeated = false, bool showNeverShowAgain = false) = 0;
    virtual void showAlertForError(SPRLocalizedError error, std::optional<int> statusCode = std::nullopt,
                                   bool showRepeated = false, bool showNeverShowAgain = false) = 0;
    // A warning that must not take the front from the application the user works in (a paste may be under way).
    // Presenters that can't show one without the front show it as an alert.
    virtual void showNotice(const std::string& title, const std::string& text) {
        showAlertForError(Error{"SprelioNotice", 0, title + ": " + text, {}});
    }
};

} // namespace sprelio

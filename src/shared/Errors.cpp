#include "shared/Errors.h"

#include <array>

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

} // namespace sprelio

#include "audio/ContinuousSpeechUnavailable.h"

#include "base/Log.h"
#include "platform/MainLoop.h"
#include "shared/Errors.h"

namespace sprelio {

ContinuousSpeechUnavailable::ContinuousSpeechUnavailable(platform::MainLoop& loop, ErrorPresenter& messages,
                                                         std::function<void()> backToIdle)
    : loop_(loop), messages_(messages), backToIdle_(std::move(backToIdle)) {}

void ContinuousSpeechUnavailable::startMonitoring() {
    logWarning("ContinuousSpeechManager.startMonitoring() - continuous voice to text is not available in this version");
    messages_.showAlertForError(SPRStringError::errorMessageError(std::nullopt, kMessage).toError());
    // The caller posts its own change to the continuous state right after this returns; the way back must come
    // after it, hence a post from within a post.
    loop_.post([this] { loop_.post([this] { if (backToIdle_) backToIdle_(); }); });
}

} // namespace sprelio

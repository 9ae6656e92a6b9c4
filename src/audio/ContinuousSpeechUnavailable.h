#pragma once
// Continuous voice to text is not part of this version. Its key still answers: the user is told so, and the session
// is put back to idle rather than left in a mode that records nothing.
#include <functional>

#include "audio/ContinuousSpeechManager.h"

namespace sprelio {

namespace platform {
class MainLoop;
}
class ErrorPresenter;

class ContinuousSpeechUnavailable final : public ContinuousSpeechManager {
public:
    static constexpr const char* kMessage = "Continuous voice to text comes in a later version of Sprelio.";

    // `backToIdle` ends the mode as its key would (continuousVoiceToText outside idle).
    ContinuousSpeechUnavailable(platform::MainLoop& loop, ErrorPresenter& messages, std::function<void()> backToIdle);

    bool isActive() const override { return false; }
    void startMonitoring() override;
    void stopMonitoring() override {}

private:
    platform::MainLoop& loop_;
    ErrorPresenter& messages_;
    std::function<void()> backToIdle_;
};

} // namespace sprelio

#pragma once
// Continuous voice to text. While it is active the session never returns to idle on its own.
namespace sprelio {

class ContinuousSpeechManager {
public:
    virtual ~ContinuousSpeechManager() = default;
    virtual bool isActive() const = 0;
    virtual void startMonitoring() = 0;
    virtual void stopMonitoring() = 0;
};

} // namespace sprelio

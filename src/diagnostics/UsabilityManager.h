#pragma once
// What keeps Sprelio from working on this desktop, for the warning banner: the permissions it needs (a microphone,
// access to global input and synthetic keys, screen capture) and the facts of the desktop session that the user
// must know (a Wayland session, AltGr on the dictation key). Checks come in bursts (activations, device changes);
// a check within a third of a second of the last one is skipped.
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/LifetimeGuard.h"

namespace sprelio {

namespace platform {
class Clock;
class MainLoop;
class Timer;
}
class ErrorPresenter;

enum class UsabilityWarning { microphone, accessibility, screenCapture };
std::string usabilityWarningTitle(UsabilityWarning warning);
// What the banner says of a warning.
std::string usabilityWarningText(UsabilityWarning warning);

class UsabilityManager {
public:
    static constexpr std::chrono::milliseconds kDebounceInterval{330};

    struct Dependencies {
        const platform::Clock& clock;
        // The platform's answers; a missing one counts as granted.
        std::function<bool()> micPermissions;          // a microphone can be recorded from
        std::function<bool()> accessibilityEnabled;    // global input and synthetic events are available
        std::function<bool()> screenCaptureGranted;    // the computer's sound can be recorded
        std::function<std::string()> filesMenuRecordingMode;
        // Where a check skipped inside a burst is run once the burst's interval has passed, so that the last word
        // of a burst (the first device list, arriving just after the start's check) is never lost. nullptr: the
        // skipped check is only dropped.
        platform::MainLoop* loop = nullptr;
    };

    explicit UsabilityManager(Dependencies deps);

    void checkUsability(const std::string& caller);
    const std::set<UsabilityWarning>& activeWarnings() const { return activeWarnings_; }
    bool hasWarning(UsabilityWarning warning) const { return activeWarnings_.count(warning) > 0; }

    // Facts of the session that stay for the whole run, shown with the warnings (a Wayland session).
    void addSessionNote(std::string text);
    // A hotkey that collides with the keyboard layout or another program; cleared by the next call with nothing.
    void setHotkeyCollision(std::optional<std::string> text);

    // Every text the banner shows now, warnings first.
    std::vector<std::string> bannerTexts() const;
    // Called after the banner's texts changed.
    std::function<void()> onChange;
    // Called with a warning's text when a check finds it newly missing (not at every check that still finds it).
    std::function<void(UsabilityWarning)> onWarningRaised;

private:
    void changed();

    Dependencies deps_;
    std::set<UsabilityWarning> activeWarnings_;
    std::optional<std::chrono::steady_clock::time_point> lastCheckedUsability_;
    std::vector<std::string> sessionNotes_;
    std::optional<std::string> hotkeyCollision_;
    std::shared_ptr<platform::Timer> trailingCheck_;
    LifetimeGuard lifetime_;
};

// The dictation key that the default set binds (right Option, right Alt here) is AltGr in the user's layout:
// typing a character with AltGr would also start a dictation. Logs and shows the warning; returns its text, or
// nothing when the key is not bound or the layout has no AltGr on it.
std::optional<std::string> checkForIncompatibilities(const std::optional<std::set<std::uint16_t>>& keysSet,
                                                     bool rightAltIsAltGr, const std::string& layoutName,
                                                     ErrorPresenter* messages);

} // namespace sprelio

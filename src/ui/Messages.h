#pragma once
// The one path by which errors reach the user: a typed error becomes a toast on every screen, with repeats
// suppressed and a sound first.
#include <cstddef>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "shared/Errors.h"
#include "platform/Platform.h"

namespace sprelio {

class AppState;
namespace store {
class Settings;
}

enum class SPRToastViewWarningLevel { error, warning, message };

inline constexpr std::string_view kNeverShowAgainText = "Never show this again.";
inline constexpr std::string_view kDefaultTapActionText = "Click here to dismiss";
// Server errors that say how to set something up rather than what went wrong: a reminder at every request would
// only nag, so they are shown once per run of the application.
inline constexpr std::string_view kOncePerRunErrorNames[] = {"AINotConfigured"};

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

class MessageCenter final : public ErrorPresenter {
public:
    static constexpr double kToastWidth = 320;
    static constexpr double kToastHeight = 240;

    MessageCenter(platform::Platform platform, store::Settings& settings, AppState& appState,
                  ToastPresenter& presenter, std::string appName);

    // Signs the user out; the toast of an "Unauthorized" error offers it.
    std::function<void()> logout;

    // May be called from any thread; the toast work runs on the main loop.
    void showAlertForError(std::optional<Error> error, std::optional<int> statusCode = std::nullopt,
                           bool showRepeated = false, bool showNeverShowAgain = false) override;
    void showAlertForError(SPRLocalizedError error, std::optional<int> statusCode = std::nullopt,
                           bool showRepeated = false, bool showNeverShowAgain = false) override;

    // Main loop only.
    void showSPRToast(SPRToastView toast);
    void showNotice(const std::string& title, const std::string& text) override;
    void removeSPRToast();
    // The toast's check box: the text is not shown again.
    void neverShowAgain(const std::string& messageText);
    std::size_t toastCount() const { return sprToastViewControllers_; }

    const std::string& appName() const override { return appName_; }
    // A toast centred on a screen's frame.
    static platform::Rect toastFrame(const platform::Rect& screen);

private:
    platform::Platform platform_;
    store::Settings& settings_;
    AppState& appState_;
    ToastPresenter& presenter_;
    std::string appName_;
    std::size_t sprToastViewControllers_ = 0;
    // The once-per-run errors shown so far; main loop only.
    std::set<std::string, std::less<>> shownOncePerRun_;
};

} // namespace sprelio

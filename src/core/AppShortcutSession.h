#pragma once
// The session's side of the shortcut actions in the running application: dictations go to the shortcut closure,
// the other actions (copy and ask AI, convert the last recording, open a tab, continuous speech) are done here.
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/LifetimeGuard.h"
#include "input/ShortcutActionDispatcher.h"
#include "platform/MainLoop.h"

namespace sprelio {

namespace store {
class ManagedObjectContext;
class Settings;
} // namespace store

class AppDelegate;
class AppState;
class AudioUploadManager;
class ContinuousSpeechManager;
class HistoryManager;
class IntelligenceViewModel;
class ErrorPresenter;

// The clipboard as the copy action needs it; the text-delivery layer provides it. Reading takes round trips to
// other applications, so the answers come back through completions on the main loop.
struct ClipboardAccess {
    using TextCompletion = std::function<void(std::optional<std::string>)>;
    std::function<void(TextCompletion)> getString;
    std::function<void(const std::string& text, const std::string& caller)> setString;
    std::function<void(TextCompletion)> getSelectedTextFromFrontmostApp;
    std::function<void(TextCompletion)> getStringWithCommandC;
};

struct AppShortcutSessionDependencies {
    platform::MainLoop& loop;
    AppState& appState;
    store::Settings& settings;
    // The history is read from here by the conversion of the last recording.
    store::ManagedObjectContext& viewContext;
    ErrorPresenter& messages;
    IntelligenceViewModel& intelligenceViewModel;
    ContinuousSpeechManager& continuousSpeechManager;
    HistoryManager& historyManager;
    ClipboardAccess clipboard;
    // The shared application delegate, nullptr while there is none.
    std::function<AppDelegate*()> appDelegate;
    // KeyboardShortcutManager.onRecordingShortcut.
    std::function<void(bool, ShortcutAction, std::optional<std::string>, ShortcutSession::UserShortcutPtr)>
        onRecordingShortcut;
    // A fresh upload client for one request.
    std::function<std::shared_ptr<AudioUploadManager>()> makeUploadManager;
    // Opens the main window on a tab (the show actions and the status menu).
    std::function<void(ContentViewTab)> openTab;
};

class AppShortcutSession final : public ShortcutSession {
public:
    explicit AppShortcutSession(AppShortcutSessionDependencies dependencies);
    ~AppShortcutSession() override;

    std::optional<AppActivity> appStatus() const override;
    void startRecordingDurationTimer(int minutes) override;
    void stopRecordingDurationTimer(const std::string& caller, const std::string& reason) override;
    void onRecordingShortcut(bool isKeyDown, ShortcutAction action, std::optional<std::string> itemId,
                             UserShortcutPtr shortcut) override;
    void copyTextAndAskAI(const UserShortcutPtr& shortcut) override;
    void transcribeLast(const UserShortcutPtr& shortcut) override;
    void showMainWindowTab(ContentViewTab tab) override;
    void continuousVoiceToText() override;

private:
    void copyTextAndAskAIMain(const UserShortcutPtr& shortcut);
    void copyTextAndAskAIWithTexts(const UserShortcutPtr& shortcut, const std::optional<std::string>& clipboardText,
                                   const std::optional<std::string>& selectedText);
    void transcribeLastMain(const UserShortcutPtr& shortcut);
    void post(std::function<void()> task);

    AppShortcutSessionDependencies deps_;
    LifetimeGuard lifetime_;
    // The clients of conversions still running; each removes itself when its answer is in.
    std::vector<std::shared_ptr<AudioUploadManager>> uploads_;
};

} // namespace sprelio

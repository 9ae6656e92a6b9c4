#pragma once
// What a shortcut's key does when it goes down and up. The keyboard and mouse managers know only
// `keyDownAction` and `keyUpAction`; the recording actions decide here between hold and tap, the others are
// handed to the session.
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "shared/AppActivity.h"
#include "shared/AppState.h"
#include "shared/ShortcutAction.h"

namespace sprelio {

namespace store {
class UserShortcut;
}

class ShortcutActionDispatcher {
public:
    using UserShortcutPtr = std::shared_ptr<store::UserShortcut>;
    virtual ~ShortcutActionDispatcher() = default;
    virtual void keyDownAction(const UserShortcutPtr& shortcut) = 0;
    virtual void keyUpAction(const UserShortcutPtr& shortcut) = 0;
};

// The session's side of the actions: the dictation, its tap-mode timer, and the actions that are not recordings.
class ShortcutSession {
public:
    using UserShortcutPtr = std::shared_ptr<store::UserShortcut>;
    virtual ~ShortcutSession() = default;
    // Nothing when there is no application delegate to ask.
    virtual std::optional<AppActivity> appStatus() const = 0;
    virtual void startRecordingDurationTimer(int minutes) = 0;
    virtual void stopRecordingDurationTimer(const std::string& caller, const std::string& reason) = 0;
    // KeyboardShortcutManager.onRecordingShortcut: start (true) or stop (false) a dictation.
    virtual void onRecordingShortcut(bool isKeyDown, ShortcutAction action, std::optional<std::string> itemId,
                                     UserShortcutPtr shortcut) = 0;
    virtual void copyTextAndAskAI(const UserShortcutPtr& shortcut) = 0;
    virtual void transcribeLast(const UserShortcutPtr& shortcut) = 0;
    virtual void showMainWindowTab(ContentViewTab tab) = 0;
    virtual void continuousVoiceToText() = 0;
};

class ShortcutActions final : public ShortcutActionDispatcher {
public:
    // `tapAndRecordTimeoutMinutes` is read at each tap-mode start.
    ShortcutActions(ShortcutSession& session, std::function<int()> tapAndRecordTimeoutMinutes);

    void keyDownAction(const UserShortcutPtr& shortcut) override;
    void keyUpAction(const UserShortcutPtr& shortcut) override;
    // The common key down of the recording actions: hold starts now and stops on release; tap starts when idle
    // and stops otherwise.
    void handleRecording(bool isHold, ShortcutAction action, std::optional<std::string> itemId,
                         const UserShortcutPtr& shortcut);

private:
    ShortcutSession& session_;
    std::function<int()> tapAndRecordTimeoutMinutes_;
};

} // namespace sprelio

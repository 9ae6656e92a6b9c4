#pragma once
// Process-wide state that views observe. Written on the main loop only; the two fields that the event path needs
// off the main loop are copied into AppStateRealtimeMirror.
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "shared/SessionShortcutBuilder.h"
#include "shared/ShortcutAction.h"
#include "base/Uuid.h"

namespace sprelio {

namespace store {
class UserShortcut;
}

enum class ContentViewTab { main, settings, floatingButton, files, substitutions, ai, history, about, sendreport };

std::string_view contentViewTabName(ContentViewTab tab);
// The label the event path prints: "Main", "Settings", ..., "/" for the report tab.
std::string_view contentViewTabLabel(ContentViewTab tab);

// Copies of two AppState fields for code that runs off the main loop (the event tap). The lock is held for one
// read or one write and nothing else is taken under it.
class AppStateRealtimeMirror {
public:
    ContentViewTab selectedContentViewTab() const;
    void setSelectedContentViewTab(ContentViewTab tab);
    bool userIsHoveringContentView() const;
    void setUserIsHoveringContentView(bool hovering);

private:
    mutable std::mutex lock_;
    ContentViewTab selectedContentViewTab_ = ContentViewTab::main;
    bool userIsHoveringContentView_ = false;
};

class AppState {
public:
    using UserShortcutPtr = std::shared_ptr<store::UserShortcut>;

    explicit AppState(AppStateRealtimeMirror& realtimeMirror) : mirror_(realtimeMirror) {}
    AppState(const AppState&) = delete;
    AppState& operator=(const AppState&) = delete;

    // Called after every write with the field's name; views re-read what they show.
    std::function<void(std::string_view field)> onChange;

    const std::optional<std::string>& lastKnownErrorLocalizedDescription() const {
        return lastKnownErrorLocalizedDescription_;
    }
    void setLastKnownErrorLocalizedDescription(std::optional<std::string> value);

    bool internetAvailable() const { return internetAvailable_; }
    void setInternetAvailable(bool value);

    const std::optional<Uuid>& lastGloballyInitiatedRequestID() const { return lastGloballyInitiatedRequestID_; }
    void setLastGloballyInitiatedRequestID(std::optional<Uuid> value);
    const std::optional<Uuid>& lastGloballyCancelledRequestID() const { return lastGloballyCancelledRequestID_; }
    void setLastGloballyCancelledRequestID(std::optional<Uuid> value);

    bool isShowingBanner() const { return isShowingBanner_; }
    void setIsShowingBanner(bool value);
    const std::optional<std::string>& statusBannerViewMessage() const { return statusBannerViewMessage_; }
    void setStatusBannerViewMessage(std::optional<std::string> value);
    const std::optional<double>& statusBannerViewTimeoutSeconds() const { return statusBannerViewTimeoutSeconds_; }
    void setStatusBannerViewTimeoutSeconds(std::optional<double> value);

    bool filesMenuIsProcessing() const { return filesMenuIsProcessing_; }
    void setFilesMenuIsProcessing(bool value);
    bool hotKeyEditorViewDidSetup() const { return hotKeyEditorViewDidSetup_; }
    void setHotKeyEditorViewDidSetup(bool value);

    // Both also write the realtime mirror.
    bool userIsHoveringContentView() const { return userIsHoveringContentView_; }
    void setUserIsHoveringContentView(bool value);
    ContentViewTab selectedContentViewTab() const { return selectedContentViewTab_; }
    void setSelectedContentViewTab(ContentViewTab value);

    // The shortcut of the running dictation. Setting it is logged; setting nil also clears the floating button's
    // menu shortcut, so that both die with the dictation.
    const UserShortcutPtr& currentlyActiveUserShortcut() const { return currentlyActiveUserShortcut_; }
    void setCurrentlyActiveUserShortcut(UserShortcutPtr value);
    // Chosen in the floating button's menu; takes precedence over the active shortcut for one dictation.
    const UserShortcutPtr& floatingButtonMenuShortcut() const { return floatingButtonMenuShortcut_; }
    void setFloatingButtonMenuShortcut(UserShortcutPtr value);
    // The floating button's menu: a dictation without AI, or one that behaves as the chosen item. Both need the
    // active shortcut; without it they log and give nothing.
    UserShortcutPtr activateRecordAndTranscribeShortcut();
    UserShortcutPtr activateSessionShortcut(const SessionMenuItem& item);

    // The menu shortcut's completion type, else the active shortcut's; nothing when neither exists or the stored
    // text is no case.
    std::optional<IntelligenceActionCompletionType> currentlyActiveIntelligenceActionCompletionType() const;

private:
    void changed(std::string_view field);

    AppStateRealtimeMirror& mirror_;
    std::optional<std::string> lastKnownErrorLocalizedDescription_;
    bool internetAvailable_ = true;
    std::optional<Uuid> lastGloballyInitiatedRequestID_;
    std::optional<Uuid> lastGloballyCancelledRequestID_;
    bool isShowingBanner_ = false;
    std::optional<std::string> statusBannerViewMessage_;
    std::optional<double> statusBannerViewTimeoutSeconds_;
    bool filesMenuIsProcessing_ = false;
    bool hotKeyEditorViewDidSetup_ = false;
    bool userIsHoveringContentView_ = false;
    ContentViewTab selectedContentViewTab_ = ContentViewTab::main;
    UserShortcutPtr currentlyActiveUserShortcut_;
    UserShortcutPtr floatingButtonMenuShortcut_;
};

// "nil" or the shortcut's description, for log lines.
std::string describeUserShortcut(const std::shared_ptr<store::UserShortcut>& shortcut);

} // namespace sprelio

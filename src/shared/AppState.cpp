#include "shared/AppState.h"

#include <array>

#include "base/Log.h"
#include "store/Entities.h"

namespace sprelio {

namespace {
struct TabRow {
    std::string_view name;
    std::string_view label;
};
constexpr std::array<TabRow, 9> kTabs = {{{"main", "Main"},
                                          {"settings", "Settings"},
                                          {"floatingButton", "FloatingButton"},
                                          {"files", "Files"},
                                          {"substitutions", "Substitutions"},
                                          {"ai", "AI"},
                                          {"history", "History"},
                                          {"about", "About"},
                                          {"sendreport", "/"}}};
} // namespace

std::string_view contentViewTabName(ContentViewTab tab) { return kTabs[static_cast<std::size_t>(tab)].name; }
std::string_view contentViewTabLabel(ContentViewTab tab) { return kTabs[static_cast<std::size_t>(tab)].label; }

ContentViewTab AppStateRealtimeMirror::selectedContentViewTab() const {
    std::lock_guard guard(lock_);
    return selectedContentViewTab_;
}

void AppStateRealtimeMirror::setSelectedContentViewTab(ContentViewTab tab) {
    std::lock_guard guard(lock_);
    selectedContentViewTab_ = tab;
}

bool AppStateRealtimeMirror::userIsHoveringContentView() const {
    std::lock_guard guard(lock_);
    return userIsHoveringContentView_;
}

void AppStateRealtimeMirror::setUserIsHoveringContentView(bool hovering) {
    std::lock_guard guard(lock_);
    userIsHoveringContentView_ = hovering;
}

std::string describeUserShortcut(const std::shared_ptr<store::UserShortcut>& shortcut) {
    return shortcut ? shortcut->description() : std::string("nil");
}

void AppState::changed(std::string_view field) {
    if (onChange) onChange(field);
}

void AppState::setLastKnownErrorLocalizedDescription(std::optional<std::string> value) {
    lastKnownErrorLocalizedDescription_ = std::move(value);
    changed("lastKnownErrorLocalizedDescription");
}

void AppState::setInternetAvailable(bool value) {
    internetAvailable_ = value;
    changed("internetAvailable");
}

void AppState::setLastGloballyInitiatedRequestID(std::optional<Uuid> value) {
    lastGloballyInitiatedRequestID_ = value;
    changed("lastGloballyInitiatedRequestID");
}

void AppState::setLastGloballyCancelledRequestID(std::optional<Uuid> value) {
    lastGloballyCancelledRequestID_ = value;
    changed("lastGloballyCancelledRequestID");
}

void AppState::setIsShowingBanner(bool value) {
    isShowingBanner_ = value;
    changed("isShowingBanner");
}

void AppState::setStatusBannerViewMessage(std::optional<std::string> value) {
    statusBannerViewMessage_ = std::move(value);
    changed("statusBannerViewMessage");
}

void AppState::setStatusBannerViewTimeoutSeconds(std::optional<double> value) {
    statusBannerViewTimeoutSeconds_ = value;
    changed("statusBannerViewTimeoutSeconds");
}

void AppState::setFilesMenuIsProcessing(bool value) {
    filesMenuIsProcessing_ = value;
    changed("filesMenuIsProcessing");
}

void AppState::setHotKeyEditorViewDidSetup(bool value) {
    hotKeyEditorViewDidSetup_ = value;
    changed("hotKeyEditorViewDidSetup");
}

void AppState::setUserIsHoveringContentView(bool value) {
    userIsHoveringContentView_ = value;
    mirror_.setUserIsHoveringContentView(value);
    changed("userIsHoveringContentView");
}

void AppState::setSelectedContentViewTab(ContentViewTab value) {
    selectedContentViewTab_ = value;
    mirror_.setSelectedContentViewTab(value);
    changed("selectedContentViewTab");
}

void AppState::setCurrentlyActiveUserShortcut(UserShortcutPtr value) {
    currentlyActiveUserShortcut_ = std::move(value);
    logInfo("AppState.currentlyActiveUserShortcut: " + describeUserShortcut(currentlyActiveUserShortcut_));
    changed("currentlyActiveUserShortcut");
    if (!currentlyActiveUserShortcut_) {
        floatingButtonMenuShortcut_.reset();
        logInfo("AppState.floatingButtonMenuShortcut: " + describeUserShortcut(floatingButtonMenuShortcut_));
        changed("floatingButtonMenuShortcut");
    }
}

void AppState::setFloatingButtonMenuShortcut(UserShortcutPtr value) {
    floatingButtonMenuShortcut_ = std::move(value);
    changed("floatingButtonMenuShortcut");
}

AppState::UserShortcutPtr AppState::activateRecordAndTranscribeShortcut() {
    if (!currentlyActiveUserShortcut_) {
        logError("AppState.activateSessionShortcut() - self.currentlyActiveUserShortcut == nil, unable to proceed");
        return nullptr;
    }
    auto shortcut = SessionShortcutBuilder::recordAndTranscribe();
    logInfo("AppState.activateRecordAndTranscribeShortcut() - shortcut.shortcutActionRawValue: " +
            shortcut->shortcutActionRawValue().value_or("nil"));
    setFloatingButtonMenuShortcut(shortcut);
    return shortcut;
}

AppState::UserShortcutPtr AppState::activateSessionShortcut(const SessionMenuItem& item) {
    if (!currentlyActiveUserShortcut_) {
        logError("AppState.activateSessionShortcut() - self.currentlyActiveUserShortcut == nil, unable to proceed");
        return nullptr;
    }
    auto sessionCopy = SessionShortcutBuilder::copyForItem(*currentlyActiveUserShortcut_, item);
    logInfo("AppState.activateSessionShortcut() - sessionCopy.shortcutActionRawValue: " +
            sessionCopy->shortcutActionRawValue().value_or("nil"));
    setFloatingButtonMenuShortcut(sessionCopy);
    return sessionCopy;
}

std::optional<IntelligenceActionCompletionType> AppState::currentlyActiveIntelligenceActionCompletionType() const {
    const auto& shortcut = floatingButtonMenuShortcut_ ? floatingButtonMenuShortcut_ : currentlyActiveUserShortcut_;
    if (!shortcut) return std::nullopt;
    const auto raw = shortcut->intelligenceActionCompletionType();
    if (!raw) return std::nullopt;
    return intelligenceActionCompletionTypeFromRawValue(*raw);
}

} // namespace sprelio

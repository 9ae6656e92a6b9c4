#include "ui/AppMenuBar.h"
#include "input/KeyNames.h"

#include <algorithm>

#include "audio/MicrophoneManagerImpl.h"
#include "base/Log.h"
#include "input/Key.h"
#include "store/DatabaseHelpers.h"
#include "store/Entities.h"

namespace sprelio {

std::string_view menuOptionName(MenuOption::Kind kind) {
    switch (kind) {
    case MenuOption::Kind::changeMic: return "changeMic";
    case MenuOption::Kind::settings: return "settings";
    case MenuOption::Kind::chooseMic: return "chooseMic";
    case MenuOption::Kind::quit: return "quit";
    case MenuOption::Kind::history: return "history";
    case MenuOption::Kind::ai: return "ai";
    case MenuOption::Kind::substitutions: return "substitutions";
    case MenuOption::Kind::fileToText: return "fileToText";
    case MenuOption::Kind::cancel: return "cancel";
    case MenuOption::Kind::account: return "account";
    }
    return "settings";
}

AppMenuBar::AppMenuBar(Dependencies deps) : deps_(std::move(deps)) {}

std::string AppMenuBar::cancelTitle(AppActivity status) {
    switch (status) {
    case AppActivity::idle: return "";
    case AppActivity::recording: return "Cancel Recording";
    case AppActivity::processing: return "Cancel Processing";
    case AppActivity::filesMenuViewRecording: return "Cancel Recording";
    case AppActivity::continuousSpeechActive: return std::string("Cancel") + " Continuous";
    }
    return "Cancel";
}

void AppMenuBar::awakeFromNib() {
    logInfo("AppmenuBar: awakeFromNib");
    const auto plain = [](MenuItemId id, std::string_view title) {
        MenuEntry e;
        e.id = id;
        e.title.title = std::string(title);
        return e;
    };
    const MenuEntry separator;
    entries_.clear();
    entries_.push_back(plain(MenuItemId::settings, kSettingsTitle));
    // Signing in is reached from here as well as from the Main tab.
    if (deps_.accountTitle) entries_.push_back(plain(MenuItemId::account, deps_.accountTitle()));
    entries_.push_back(separator);
    entries_.push_back(plain(MenuItemId::history, kHistoryTitle));
    entries_.push_back(plain(MenuItemId::ai, kIntelligenceTitle));
    entries_.push_back(plain(MenuItemId::substitutions, kSubstitutionsTitle));
    entries_.push_back(plain(MenuItemId::fileToText, kFileToTextTitle));
    entries_.push_back(separator);
    entries_.push_back(plain(MenuItemId::microphone, kMicrophoneTitle));
    entries_.push_back(separator);
    entries_.push_back(plain(MenuItemId::quit, kQuitTitle)); // Quit application.
    entries_.push_back(separator);
    MenuEntry cancel = plain(MenuItemId::cancel, "Cancel");
    cancel.hidden = true; // nothing to cancel at idle
    entries_.push_back(std::move(cancel));
}

MenuEntry* AppMenuBar::mutableEntry(MenuItemId id) {
    auto it = std::find_if(entries_.begin(), entries_.end(), [id](const MenuEntry& e) { return e.id == id; });
    return it == entries_.end() ? nullptr : &*it;
}

const MenuEntry* AppMenuBar::entry(MenuItemId id) const {
    auto it = std::find_if(entries_.begin(), entries_.end(), [id](const MenuEntry& e) { return e.id == id; });
    return it == entries_.end() ? nullptr : &*it;
}

void AppMenuBar::refreshUserShortcuts() {
    logInfo("AppMenuBar.refreshUserShortcuts()");
    // A failed fetch leaves no list, and the entries show no keys.
    userShortcuts_ = store::cdGetEntity<store::UserShortcut>(deps_.viewContext);
}

std::shared_ptr<store::UserShortcut> AppMenuBar::primaryShortcutForShortcutAction(ShortcutAction action) const {
    if (!userShortcuts_) return nullptr;
    const std::string_view raw = shortcutActionRawValue(action);
    for (const auto& shortcut : *userShortcuts_)
        if (shortcut->shortcutActionRawValue() == raw) return shortcut;
    return nullptr;
}

ComposedMenuTitle AppMenuBar::composeMenuTitle(const std::string& title, const std::string& shortcut) const {
    logInfo("AppMenuBar.composeMenuTitle() - titleString: " + title + " / shortcutString: " + shortcut);
    return ComposedMenuTitle{title, shortcut};
}

void AppMenuBar::menuWillOpen() {
    logInfo("AppMenuBar.menuWillOpen()");
    refreshUserShortcuts();

    const AppActivity status = deps_.appStatus ? deps_.appStatus() : AppActivity::idle;
    if (auto* cancel = mutableEntry(MenuItemId::cancel)) {
        cancel->title.title = status == AppActivity::idle ? std::string("Cancel") : cancelTitle(status);
        cancel->hidden = status == AppActivity::idle;
    }

    const auto keyText = [this](ShortcutAction action) {
        const auto shortcut = primaryShortcutForShortcutAction(action);
        if (!shortcut) return std::string();
        // The tray is read by the user: Linux key names ("Alt+H", "Right Alt", "Button 8").
        return linuxShortcutName(shortcut->singleModifierDirection(), shortcut->modifierEventKeyCode(),
                                 shortcut->mouseEventMouseButton(), shortcut->shortcutString());
    };
    const struct {
        MenuItemId id;
        std::string_view title;
        ShortcutAction action;
    } keyed[] = {{MenuItemId::history, kHistoryTitle, ShortcutAction::showHistory},
                 {MenuItemId::ai, kIntelligenceTitle, ShortcutAction::showIntelligence},
                 {MenuItemId::substitutions, kSubstitutionsTitle, ShortcutAction::showSubstitutions},
                 {MenuItemId::fileToText, kFileToTextTitle, ShortcutAction::showFileToText}};
    for (const auto& k : keyed)
        if (auto* e = mutableEntry(k.id)) e->title = composeMenuTitle(std::string(k.title), keyText(k.action));
    if (auto* account = mutableEntry(MenuItemId::account); account && deps_.accountTitle)
        account->title.title = deps_.accountTitle();

    updateMics();
}

void AppMenuBar::updateMics() {
    logInfo("AppMenuBar.updateMics()");
    if (deps_.appStatus && deps_.appStatus() == AppActivity::recording) {
        logWarning("updateMics() - app is .recording, will not refresh!!");
        return;
    }
    deps_.microphones.selectOptimalInputDevice(false, false);
    menuMics_ = deps_.microphones.mics();
    const MicDevice& selected = deps_.microphones.selectedMic();
    std::vector<MicMenuEntry> items;
    items.reserve(menuMics_.size());
    for (std::size_t i = 0; i < menuMics_.size(); ++i) {
        const MicDevice& mic = menuMics_[i];
        items.push_back(MicMenuEntry{mic.name + " (" + std::string(micDeviceTransportTypeText(mic.transportType)) + ")",
                                     static_cast<int>(i), selected.id != 0 && mic.id == selected.id, true});
    }
    if (auto* micEntry = mutableEntry(MenuItemId::microphone)) micEntry->submenu = std::move(items);
}

void AppMenuBar::menuWillHighlightItem(const std::string& itemTitle) {
    logInfo("AppMenuBar.menu() - willHighlight: " + itemTitle);
}

void AppMenuBar::menuDidClose() { logInfo("AppMenuBar.menuDidClose()"); }

void AppMenuBar::send(const MenuOption& option) {
    if (actionHandler) actionHandler(option);
    else logError("AppMenuBar - no actionHandler set, ignoring ." + std::string(menuOptionName(option.kind)));
}

void AppMenuBar::didClickOpenSettings() {
    logInfo("AppMenuBar.didClickOpenSettings()");
    send(MenuOption::of(MenuOption::Kind::settings));
}

void AppMenuBar::didClickOpenHistory() {
    logInfo("AppMenuBar.didClickOpenHistory()");
    send(MenuOption::of(MenuOption::Kind::history));
}

void AppMenuBar::didClickOpenIntelligence() {
    logInfo("AppMenuBar.didClickOpenIntelligence()");
    send(MenuOption::of(MenuOption::Kind::ai));
}

void AppMenuBar::didClickOpenSubstitutions() {
    logInfo("AppMenuBar.didClickOpenSubstitutions()");
    send(MenuOption::of(MenuOption::Kind::substitutions));
}

void AppMenuBar::didClickFileToText() {
    logInfo("AppMenuBar.didClickFileToText()");
    send(MenuOption::of(MenuOption::Kind::fileToText));
}

void AppMenuBar::didClickQuitApp() {
    logInfo("AppMenuBar.didClickQuitApp()");
    send(MenuOption::of(MenuOption::Kind::quit));
}

void AppMenuBar::didClickCancel() {
    logInfo("AppMenuBar.didClickCancel()");
    send(MenuOption::of(MenuOption::Kind::cancel));
}

void AppMenuBar::didClickAccount() {
    logInfo("AppMenuBar.didClickAccount()");
    send(MenuOption::of(MenuOption::Kind::account));
}

void AppMenuBar::userSelectedMic(int tag) {
    logInfo("AppMenuBar.userSelectedMic()");
    if (tag < 0 || static_cast<std::size_t>(tag) >= menuMics_.size()) {
        logError("AppMenuBar.userSelectedMic() - no device with tag " + std::to_string(tag));
        return;
    }
    send(MenuOption::changeMic(menuMics_[static_cast<std::size_t>(tag)]));
}

void AppMenuBar::activate(MenuItemId id) {
    switch (id) {
    case MenuItemId::settings: didClickOpenSettings(); break;
    case MenuItemId::history: didClickOpenHistory(); break;
    case MenuItemId::ai: didClickOpenIntelligence(); break;
    case MenuItemId::substitutions: didClickOpenSubstitutions(); break;
    case MenuItemId::fileToText: didClickFileToText(); break;
    case MenuItemId::quit: didClickQuitApp(); break;
    case MenuItemId::cancel: didClickCancel(); break;
    case MenuItemId::account: didClickAccount(); break;
    case MenuItemId::microphone:
    case MenuItemId::separator: break;
    }
}

std::function<void(const MenuOption&)> setupMenuActionHandling(MenuActionTargets targets) {
    return [targets = std::move(targets)](const MenuOption& option) {
        using Kind = MenuOption::Kind;
        const auto open = [&](ContentViewTab tab) {
            if (targets.openTab) targets.openTab(tab);
        };
        switch (option.kind) {
        case Kind::cancel: {
            logInfo("setupMenuActionHandling() - user pressed Cancel");
            const AppActivity status = targets.appStatus ? targets.appStatus() : AppActivity::idle;
            switch (status) {
            case AppActivity::idle:
                logInfo("setupmenuActionHandling() - .idle, ignoring Cancel action");
                break;
            case AppActivity::recording:
            case AppActivity::processing:
                if (targets.callCancelRecordingAndProcessing) targets.callCancelRecordingAndProcessing();
                if (targets.setupMenuWithMainMenu) targets.setupMenuWithMainMenu();
                break;
            case AppActivity::filesMenuViewRecording:
                // The Files tab owns that recording and its own stop.
                break;
            case AppActivity::continuousSpeechActive:
                if (targets.stopContinuousSpeech) targets.stopContinuousSpeech();
                if (targets.setupMenuWithMainMenu) targets.setupMenuWithMainMenu();
                break;
            }
            break;
        }
        case Kind::changeMic:
            logInfo("setupMenuActionHandling() - .changeMic : " + option.mic.name + " (" +
                    std::string(micDeviceTransportTypeText(option.mic.transportType)) + ", id " +
                    std::to_string(option.mic.id) + ")");
            if (targets.setDefaultInputDevice) targets.setDefaultInputDevice(option.mic);
            break;
        case Kind::quit:
            logInfo("setupMenuActionHandling() - .quit, calling NSApp.terminate(nil)");
            if (targets.quit) targets.quit();
            break;
        case Kind::history: open(ContentViewTab::history); break;
        case Kind::ai: open(ContentViewTab::ai); break;
        case Kind::substitutions: open(ContentViewTab::substitutions); break;
        case Kind::fileToText: open(ContentViewTab::files); break;
        case Kind::account:
            if (targets.openAccount) targets.openAccount();
            break;
        // The microphone choice lives with the other settings.
        case Kind::settings:
        case Kind::chooseMic: open(ContentViewTab::settings); break;
        }
    };
}

} // namespace sprelio

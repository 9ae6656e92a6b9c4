#pragma once
// The status item's menu without its toolkit: which entries it has and in which order, what they say (the main
// shortcuts' keys among them), which microphone is ticked, whether Cancel is there. The desktop shell draws
// `entries()` and reports clicks back; every action leaves through the one callback `actionHandler`, so the menu
// knows nothing of the session.
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "audio/MicrophoneManager.h"
#include "shared/AppActivity.h"
#include "shared/AppState.h"
#include "shared/ShortcutAction.h"

namespace sprelio {

class MicrophoneManagerImpl;
namespace store {
class ManagedObjectContext;
class Settings;
class UserShortcut;
} // namespace store

// What the menu asks the application to do.
struct MenuOption {
    enum class Kind { changeMic, settings, chooseMic, quit, history, ai, substitutions, fileToText, cancel, account };
    Kind kind = Kind::settings;
    MicDevice mic; // changeMic only

    static MenuOption changeMic(MicDevice device) { return MenuOption{Kind::changeMic, std::move(device)}; }
    static MenuOption of(Kind kind) { return MenuOption{kind, {}}; }
};
std::string_view menuOptionName(MenuOption::Kind kind);

enum class MenuItemId { settings, history, ai, substitutions, fileToText, microphone, quit, cancel, separator, account };

struct MicMenuEntry {
    std::string title; // "<name> (<transport>)"
    int tag = 0;       // index into the device list
    bool checked = false;
    bool enabled = true;
};

// A title with a key shown after it in a smaller, grey face.
struct ComposedMenuTitle {
    std::string title;
    std::string shortcut; // empty when the action has no key
};

struct MenuEntry {
    MenuItemId id = MenuItemId::separator;
    ComposedMenuTitle title;
    bool hidden = false;
    std::vector<MicMenuEntry> submenu; // the microphone entry only
};

class AppMenuBar {
public:
    struct Dependencies {
        store::ManagedObjectContext& viewContext;
        store::Settings& settings;
        MicrophoneManagerImpl& microphones;
        std::function<AppActivity()> appStatus;
        // The account entry's title ("Sign In…", or the address signed in); none: the menu has no account entry.
        std::function<std::string()> accountTitle = {};
    };

    explicit AppMenuBar(Dependencies deps);

    // Set at launch by the application (setupMenuActionHandling).
    std::function<void(const MenuOption&)> actionHandler;

    // Builds the entries once, in their fixed order.
    void awakeFromNib();
    // The menu is about to open: shortcuts, Cancel and microphones are brought up to date.
    void menuWillOpen();
    void refreshUserShortcuts();
    std::shared_ptr<store::UserShortcut> primaryShortcutForShortcutAction(ShortcutAction action) const;
    ComposedMenuTitle composeMenuTitle(const std::string& title, const std::string& shortcut) const;
    // Leaves the device list as it is while recording, so that a recording is never disturbed.
    void updateMics();
    void menuWillHighlightItem(const std::string& itemTitle);
    void menuDidClose();

    // The entries' own actions.
    void didClickOpenSettings();
    void didClickOpenHistory();
    void didClickOpenIntelligence();
    void didClickOpenSubstitutions();
    void didClickFileToText();
    void didClickQuitApp();
    void didClickCancel();
    void didClickAccount();
    void userSelectedMic(int tag);
    // The action of an entry by its id; separators and the microphone entry do nothing.
    void activate(MenuItemId id);

    const std::vector<MenuEntry>& entries() const { return entries_; }
    const MenuEntry* entry(MenuItemId id) const;
    const std::optional<std::vector<std::shared_ptr<store::UserShortcut>>>& userShortcuts() const {
        return userShortcuts_;
    }
    // The devices of the submenu as last built, by tag.
    const std::vector<MicDevice>& menuMics() const { return menuMics_; }

    // Plain titles of the entries; the shortcut texts come from the stored shortcuts when the menu opens.
    static constexpr std::string_view kSettingsTitle = "⚙️ Settings";
    static constexpr std::string_view kHistoryTitle = "History";
    static constexpr std::string_view kIntelligenceTitle = "AI Actions";
    static constexpr std::string_view kSubstitutionsTitle = "Substitutions";
    static constexpr std::string_view kFileToTextTitle = "File to Text";
    static constexpr std::string_view kMicrophoneTitle = "Microphone";
    static constexpr std::string_view kQuitTitle = "Quit";
    // The Cancel entry's title at each state; empty at idle, where the entry is hidden.
    static std::string cancelTitle(AppActivity status);

private:
    MenuEntry* mutableEntry(MenuItemId id);
    void send(const MenuOption& option);

    Dependencies deps_;
    std::vector<MenuEntry> entries_;
    std::optional<std::vector<std::shared_ptr<store::UserShortcut>>> userShortcuts_;
    std::vector<MicDevice> menuMics_;
};

// Where the menu's options lead. Each field is one operation of the application.
struct MenuActionTargets {
    std::function<AppActivity()> appStatus;
    // Posts the cancel of the running dictation.
    std::function<void()> callCancelRecordingAndProcessing;
    std::function<void()> stopContinuousSpeech;
    std::function<void()> setupMenuWithMainMenu;
    std::function<void(const MicDevice&)> setDefaultInputDevice;
    // Marks that the user asked to quit and ends the application.
    std::function<void()> quit;
    // Opens the main window on a tab.
    std::function<void(ContentViewTab)> openTab;
    // Opens the sign-in window.
    std::function<void()> openAccount = {};
};

// The callback that the application gives the menu at launch.
std::function<void(const MenuOption&)> setupMenuActionHandling(MenuActionTargets targets);

} // namespace sprelio

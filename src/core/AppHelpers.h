#pragma once
// Application-wide helpers (AppHelpers).
#include <optional>
#include <string>
#include <vector>

namespace sprelio {

namespace store {
class ManagedObjectContext;
class Settings;
class SettingsStore;
} // namespace store
class KeyboardShortcuts;
namespace platform {
class Clock;
}

// The languages an upload asks for: the shortcut's own language when it names one, else every language of the
// user's list. Logs which of the two it took.
struct InputLanguages {
    std::optional<std::string> inputLanguageCode;
    std::vector<std::string> codes;
};
InputLanguages chooseInputLanguages(std::optional<std::string> shortcutLanguageCode, const store::Settings& settings);

// The one way anything is saved: validates every registered object, saves in one transaction, refreshes
// the shortcut cache of the AppDelegate on success and gives up the unsaved changes when the store refuses the save.
// Every log line starts "cdSaveContext() - caller: <caller>". Returns true on a clean save or when there was
// nothing to save.
bool cdSaveContext(store::ManagedObjectContext* context, const std::string& caller);

// Hotkey entries of the settings ("KeyboardShortcuts_<uuid>") whose shortcut is no longer stored are disabled and
// removed, so that a deleted shortcut's key stops answering after the next start.
void cleanupShortcutsByUserDefaults(store::ManagedObjectContext& context, const store::SettingsStore& settings,
                                    KeyboardShortcuts& keyboardShortcuts, const platform::Clock& clock);

} // namespace sprelio

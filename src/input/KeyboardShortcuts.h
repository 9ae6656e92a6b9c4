#pragma once
// Normal shortcuts (modifiers plus a key) as named system hot keys. A name's combination lives in the settings
// store under "KeyboardShortcuts_" + name as the JSON text {"carbonKeyCode":…,"carbonModifiers":…}; handlers are
// kept by name, and a name is registered with the desktop while it has a stored combination.
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/GlobalInput.h"
#include "store/SettingsStore.h"

namespace sprelio {

namespace store {
class ManagedObjectContext;
}
namespace platform {
class Clock;
}

// Carbon's key code (the macOS virtual key code) and modifier mask (cmdKey 0x100, shiftKey 0x200, optionKey 0x800,
// controlKey 0x1000).
struct CarbonShortcut {
    int carbonKeyCode = 0;
    int carbonModifiers = 0;
    bool operator==(const CarbonShortcut&) const = default;

    // From a key code and CGEventFlags.
    static CarbonShortcut fromEvent(std::uint16_t keyCode, std::uint64_t flags);
    platform::KeyCombination combination() const;
    std::uint64_t eventFlags() const;
    std::string jsonText() const;
    // Nothing for a text that is not such an object.
    static std::optional<CarbonShortcut> fromJsonText(const std::string& text);
};

class KeyboardShortcuts {
public:
    using Handler = std::function<void()>;
    static constexpr const char* kShortcutByNameDidChange = "KeyboardShortcuts_shortcutByNameDidChange";

    KeyboardShortcuts(store::SettingsStore& defaults, platform::GlobalInput& input);
    ~KeyboardShortcuts();
    KeyboardShortcuts(const KeyboardShortcuts&) = delete;
    KeyboardShortcuts& operator=(const KeyboardShortcuts&) = delete;

    static std::string userDefaultsKey(const std::string& name);

    // Stores the combination under the name (nothing removes it) and registers it in place of the former one.
    void setShortcut(const std::optional<CarbonShortcut>& shortcut, const std::string& name);
    // The stored combination; a stored value that is no such JSON text is logged and reads as nothing.
    std::optional<CarbonShortcut> getShortcut(const std::string& name) const;

    // The first handler of a name registers it.
    void onKeyDown(const std::string& name, Handler handler);
    void onKeyUp(const std::string& name, Handler handler);
    // Unregisters the names; their handlers and stored combinations stay.
    void disable(const std::vector<std::string>& names);
    // Unregisters the names and removes their stored combinations.
    void reset(const std::vector<std::string>& names);
    // Drops every handler and unregisters everything.
    void removeAllHandlers();

    // The name's handlers, as if its combination went down or up; for a press that comes from outside the
    // keyboard (a compositor binding), which reaches a name the desktop may not have let us register.
    void press(const std::string& name) { pressed(name); }
    void release(const std::string& name) { released(name); }

    bool isRegistered(const std::string& name) const { return registered_.count(name) > 0; }
    std::size_t registeredCount() const { return registered_.size(); }

    // The notification kShortcutByNameDidChange, with the name.
    std::function<void(const std::string& name)> shortcutByNameDidChange;

private:
    void registerName(const std::string& name);
    void unregisterName(const std::string& name);
    void pressed(const std::string& name);
    void released(const std::string& name);

    store::SettingsStore& defaults_;
    platform::GlobalInput& input_;
    std::map<std::string, std::vector<Handler>> keyDownHandlers_;
    std::map<std::string, std::vector<Handler>> keyUpHandlers_;
    std::map<std::string, platform::HotKeyId> registered_;
};

// Hotkey entries of the settings ("KeyboardShortcuts_<uuid>") whose shortcut is no longer stored are disabled and
// removed, so that a deleted shortcut's key stops answering after the next start.
void cleanupShortcutsByUserDefaults(store::ManagedObjectContext& context, const store::SettingsStore& settings,
                                    KeyboardShortcuts& keyboardShortcuts, const platform::Clock& clock);

} // namespace sprelio

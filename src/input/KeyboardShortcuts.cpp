#include "input/KeyboardShortcuts.h"

#include <chrono>
#include <cstdio>
#include <set>

#include "base/Uuid.h"
#include "platform/Clock.h"
#include "store/Entities.h"
#include "store/ManagedObjectContext.h"

#include <nlohmann/json.hpp>

#include "base/Log.h"
#include "input/Key.h"
#include "store/Settings.h"

namespace sprelio {

CarbonShortcut CarbonShortcut::fromEvent(std::uint16_t keyCode, std::uint64_t flags) {
    return CarbonShortcut{keyCode, static_cast<int>(carbonModifiersFromEventFlags(flags))};
}

std::uint64_t CarbonShortcut::eventFlags() const {
    return eventFlagsFromCarbonModifiers(static_cast<std::uint32_t>(carbonModifiers));
}

platform::KeyCombination CarbonShortcut::combination() const {
    return platform::KeyCombination{static_cast<std::uint16_t>(carbonKeyCode), eventFlags()};
}

std::string CarbonShortcut::jsonText() const {
    return nlohmann::json{{"carbonKeyCode", carbonKeyCode}, {"carbonModifiers", carbonModifiers}}.dump();
}

std::optional<CarbonShortcut> CarbonShortcut::fromJsonText(const std::string& text) {
    const auto json = nlohmann::json::parse(text, nullptr, false);
    if (!json.is_object()) return std::nullopt;
    const auto code = json.find("carbonKeyCode");
    const auto modifiers = json.find("carbonModifiers");
    if (code == json.end() || modifiers == json.end() || !code->is_number_integer() ||
        !modifiers->is_number_integer())
        return std::nullopt;
    const auto codeValue = code->get<std::int64_t>();
    const auto modifierValue = modifiers->get<std::int64_t>();
    if (codeValue < 0 || codeValue > 0xffff || modifierValue < 0 || modifierValue > 0xffff) return std::nullopt;
    return CarbonShortcut{static_cast<int>(codeValue), static_cast<int>(modifierValue)};
}

KeyboardShortcuts::KeyboardShortcuts(store::SettingsStore& defaults, platform::GlobalInput& input)
    : defaults_(defaults), input_(input) {}

KeyboardShortcuts::~KeyboardShortcuts() {
    for (const auto& [name, id] : registered_) input_.unregisterHotKey(id);
}

std::string KeyboardShortcuts::userDefaultsKey(const std::string& name) {
    return std::string(store::kKeyboardShortcutsPrefix) + name;
}

void KeyboardShortcuts::setShortcut(const std::optional<CarbonShortcut>& shortcut, const std::string& name) {
    unregisterName(name);
    if (shortcut)
        defaults_.set(userDefaultsKey(name), shortcut->jsonText());
    else
        defaults_.remove(userDefaultsKey(name));
    registerName(name);
    if (shortcutByNameDidChange) shortcutByNameDidChange(name);
}

std::optional<CarbonShortcut> KeyboardShortcuts::getShortcut(const std::string& name) const {
    const auto stored = defaults_.object(userDefaultsKey(name));
    if (!stored) return std::nullopt;
    std::optional<CarbonShortcut> shortcut;
    if (stored->is_string()) shortcut = CarbonShortcut::fromJsonText(stored->get<std::string>());
    if (!shortcut)
        logError("KeyboardShortcuts.getShortcut() - stored value of \"" + userDefaultsKey(name) +
                 "\" is not a shortcut, ignoring it");
    return shortcut;
}

void KeyboardShortcuts::onKeyDown(const std::string& name, Handler handler) {
    keyDownHandlers_[name].push_back(std::move(handler));
    registerName(name);
}

void KeyboardShortcuts::onKeyUp(const std::string& name, Handler handler) {
    keyUpHandlers_[name].push_back(std::move(handler));
    registerName(name);
}

void KeyboardShortcuts::disable(const std::vector<std::string>& names) {
    for (const auto& name : names) unregisterName(name);
}

void KeyboardShortcuts::reset(const std::vector<std::string>& names) {
    for (const auto& name : names) {
        unregisterName(name);
        defaults_.remove(userDefaultsKey(name));
        if (shortcutByNameDidChange) shortcutByNameDidChange(name);
    }
}

void KeyboardShortcuts::removeAllHandlers() {
    keyDownHandlers_.clear();
    keyUpHandlers_.clear();
    for (const auto& [name, id] : registered_) input_.unregisterHotKey(id);
    registered_.clear();
}

void KeyboardShortcuts::registerName(const std::string& name) {
    if (registered_.count(name)) return;
    const auto shortcut = getShortcut(name);
    if (!shortcut) return;
    auto result = input_.registerHotKey(
        shortcut->combination(), [this, name] { pressed(name); }, [this, name] { released(name); });
    if (const auto* error = std::get_if<Error>(&result)) {
        logError("KeyboardShortcuts.register() - unable to register hot key " +
                 modifierString(shortcut->eventFlags()) + keyString(shortcut->carbonKeyCode) + " for " + name +
                 ": " + error->localizedDescription);
        return;
    }
    registered_[name] = std::get<platform::HotKeyId>(result);
}

void KeyboardShortcuts::unregisterName(const std::string& name) {
    const auto it = registered_.find(name);
    if (it == registered_.end()) return;
    input_.unregisterHotKey(it->second);
    registered_.erase(it);
}

void KeyboardShortcuts::pressed(const std::string& name) {
    const auto it = keyDownHandlers_.find(name);
    if (it == keyDownHandlers_.end()) return;
    const auto handlers = it->second; // a handler may change the table
    for (const auto& handler : handlers)
        if (handler) handler();
}

void KeyboardShortcuts::released(const std::string& name) {
    const auto it = keyUpHandlers_.find(name);
    if (it == keyUpHandlers_.end()) return;
    const auto handlers = it->second;
    for (const auto& handler : handlers)
        if (handler) handler();
}

void cleanupShortcutsByUserDefaults(store::ManagedObjectContext& context, const store::SettingsStore& settings,
                                    KeyboardShortcuts& keyboardShortcuts, const platform::Clock& clock) {
    logInfo("cleanupShortcutsByUserDefaults()");
    const auto started = clock.steadyNow();
    std::set<std::string> known;
    try {
        for (const auto& shortcut : context.fetchAll<store::UserShortcut>())
            if (const auto uuid = shortcut->uuid()) known.insert(uuid->string());
    } catch (const store::StoreError& error) {
        // Without the list every key would look unknown; better to keep them all than to drop live ones.
        logError("cleanupShortcutsByUserDefaults() - error: " + error.error().localizedDescription);
        return;
    }
    static constexpr std::string_view kPrefix = "KeyboardShortcuts_";
    for (const auto& [key, value] : settings.dictionaryRepresentation()) {
        if (key.rfind(kPrefix, 0) != 0) continue;
        const std::string uuidText = key.substr(kPrefix.size());
        const auto parsed = Uuid::parse(uuidText);
        const bool isKnown = parsed && known.count(parsed->string()) > 0;
        if (isKnown) {
            logInfo("cleanupShortcutsByUserDefaults() - KeyboardShortcuts Hotkey with UUID " + uuidText +
                    " is known by SPR, skipping");
        } else {
            logInfo("cleanupShortcutsByUserDefaults() - KeyboardShortcuts Hotkey with UUID " + uuidText +
                    " is not known by SPR, disabling and resetting");
            keyboardShortcuts.disable({uuidText});
            keyboardShortcuts.reset({uuidText});
        }
    }
    const double seconds = std::chrono::duration<double>(clock.steadyNow() - started).count();
    char elapsed[32];
    std::snprintf(elapsed, sizeof elapsed, "%.6f", seconds);
    logInfo(std::string("cleanupShortcutsByUserDefaults() - finished checks in ") + elapsed + " seconds");
}

} // namespace sprelio

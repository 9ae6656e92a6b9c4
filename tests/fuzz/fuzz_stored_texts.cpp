// The texts the store and the settings keep for a shortcut, as an older or newer build, a hand edit or a damaged
// file may leave them: the enumerations' raw values (action, completion type, direction, AI category), the
// shortcut string, the item id, and the "KeyboardShortcuts_<uuid>" JSON text of its combination. The input stack
// starts on them as the application does at launch, then a key is pressed and released.
//
// Parts, in order: action, shortcut string, direction, characters, item id, AI category, completion type,
// language code, combination JSON, single-modifier key code (decimal).
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "FuzzSupport.h"
#include "input/InputTestSupport.h"
#include "input/Key.h"
#include "shared/AppActivity.h"
#include "shared/ShortcutAction.h"
#include "store/PointText.h"

using namespace sprelio;

namespace {

std::optional<std::string> part(const std::vector<std::string>& parts, std::size_t index) {
    if (index >= parts.size()) return std::nullopt;
    return parts[index];
}

void readAsEveryEnumeration(const std::string& text) {
    (void)shortcutActionFromRawValue(text);
    (void)intelligenceActionCompletionTypeFromRawValue(text);
    (void)directionFromRawValue(text);
    (void)appActivityFromName(text);
    (void)CarbonShortcut::fromJsonText(text);
    (void)store::PointText::parse(text);
    (void)store::RectText::parse(text);
    (void)Uuid::parse(text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto parts = fuzz::splitParts(data, size);
    for (const auto& text : parts) readAsEveryEnumeration(text);

    inputtest::InputStack s;
    auto shortcut = s.context.insertNew<store::UserShortcut>();
    const Uuid id = Uuid::random();
    shortcut->setUuid(id);
    shortcut->setOrder(0);
    shortcut->setTimestamp(1.0);
    shortcut->setShortcutActionRawValue(part(parts, 0));
    shortcut->setShortcutString(part(parts, 1));
    shortcut->setSingleModifierDirection(part(parts, 2));
    shortcut->setModifierEventCharacters(part(parts, 3));
    shortcut->setIntelligenceActionItemIdString(part(parts, 4));
    shortcut->setIntelligenceActionCategoryRawValue(part(parts, 5));
    shortcut->setIntelligenceActionCompletionType(part(parts, 6));
    shortcut->setInputLanguageCode(part(parts, 7));
    std::int64_t keyCode = 61;
    if (auto text = part(parts, 9)) keyCode = std::strtoll(text->c_str(), nullptr, 10);
    shortcut->setModifierEventKeyCode(keyCode);
    shortcut->setHold(keyCode % 2 == 0);
    // Texts the store's validation refuses never get into it (not UTF-8, numbers out of range).
    try {
        s.context.save();
    } catch (const store::StoreError&) {
        return 0;
    }
    if (auto json = part(parts, 8)) s.defaults.set(KeyboardShortcuts::userDefaultsKey(id.string()), *json);

    s.keyboard.setup();
    s.tp.runUntilIdle();
    const auto code = static_cast<std::uint16_t>(keyCode);
    platform::GlobalInputEvent down;
    down.type = platform::global_event_type::kFlagsChanged;
    down.keyCode = code;
    down.flags = inputtest::kRightOptionDown;
    s.keyboard.handleGlobalKeyPressed(down);
    s.tp.runUntilIdle();
    platform::GlobalInputEvent up = down;
    up.flags = inputtest::kNoFlags;
    s.keyboard.handleGlobalKeyPressed(up);
    s.tp.runUntilIdle();
    return 0;
}

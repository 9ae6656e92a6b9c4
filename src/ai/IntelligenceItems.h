#pragma once
// The items of the AI catalogue by their stable ids, and the question the upload asks of them: which server prompt,
// if any, rides along with a recording.
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ai/IntelligenceViewModel.h"
#include "shared/IntelligenceItemIds.h"
#include "base/LocalizedLanguage.h"

namespace sprelio {

// What the item of an id is. Any language of the table is a translation target, whether or not the user's list
// offers it; `presetIds` are the uuids of the user's presets.
struct IntelligenceItem {
    enum class Kind { hardCoded, builtIn, postProcess, tone, translation, preset, notFound };
    Kind kind = Kind::notFound;
    std::string name; // the case name, the language code or the preset's uuid
};
// An item as a person names it on the command line: its id as it stands, else the name it is made from
// ("fixGrammar", "formal", "de").
std::string intelligenceItemIdFromArgument(const std::string& argument);

IntelligenceItem classifyIntelligenceItem(const std::string& itemId, const std::vector<std::string>& presetIds = {});

// The rows in which the menus group the items, in their order.
enum class IntelligenceRow { editor, builtIn, postProcess, tone, translate, custom, other };
inline constexpr std::array kIntelligenceRows{IntelligenceRow::editor,    IntelligenceRow::builtIn,
                                              IntelligenceRow::postProcess, IntelligenceRow::tone,
                                              IntelligenceRow::translate, IntelligenceRow::custom,
                                              IntelligenceRow::other};
// "Editor", "BuiltIn", "Process", "Tone", "Translate", "Custom", "Other".
std::string_view intelligenceRowLabel(IntelligenceRow row);
// The same, except "Translate to" for the translations.
std::string_view intelligenceRowPickerLabel(IntelligenceRow row);
// One place of the flat order: the row and the item's id (nothing for a preset that has no uuid yet).
using IntelligenceRowItem = std::pair<IntelligenceRow, std::optional<std::string>>;

// What a menu shows of an item.
struct IntelligenceItemFace {
    std::string title;
    std::string emoji;
};
// The face of an item of the fixed catalogue (hard-coded, built-in, post-process, tone, translation); nothing for
// presets and unknown ids, whose faces come from the store or the fallback.
std::optional<IntelligenceItemFace> fixedIntelligenceItemFace(const IntelligenceItem& item);

// The server prompt of an item, with an empty text: built-in prompts, tones and translations. Local steps and
// presets give none, since they run after the transcript has arrived; so does an unknown id. Logged either way.
std::optional<AICompletionPromptId> promptIdForItemWithId(const std::string& itemId,
                                                          const std::vector<std::string>& presetIds,
                                                          const std::string& lastDetectedLanguageCode,
                                                          const std::string& appLanguageCode);

} // namespace sprelio

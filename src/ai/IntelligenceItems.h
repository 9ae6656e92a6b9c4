#pragma once
// The items of the AI catalogue by their stable ids, and the question the upload asks of them: which server prompt,
// if any, rides along with a recording. An item's id is the lower-case MD5 of its case name (of the language code
// for a translation); a custom preset's id is its uuid.
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ai/IntelligenceViewModel.h"
#include "store/LocalizedLanguage.h"

namespace sprelio {

enum class HardCodedItem { editor, useAsIs, showActionsDialog };
enum class BuiltInPrompt { askAI, addEmoji, improveWriting, fixGrammar };
enum class PostProcess { uppercaseAll, lowercaseAll, lowercaseFirstChar, uppercaseFirstChar, trimEndingPunctuation };
enum class ToneOfVoice { professional, formal, fun, flirt, positive, negative, neutral };

inline constexpr std::array kHardCodedItems{HardCodedItem::editor, HardCodedItem::useAsIs,
                                            HardCodedItem::showActionsDialog};
inline constexpr std::array kBuiltInPrompts{BuiltInPrompt::askAI, BuiltInPrompt::addEmoji,
                                            BuiltInPrompt::improveWriting, BuiltInPrompt::fixGrammar};
inline constexpr std::array kPostProcesses{PostProcess::uppercaseAll, PostProcess::lowercaseAll,
                                           PostProcess::lowercaseFirstChar, PostProcess::uppercaseFirstChar,
                                           PostProcess::trimEndingPunctuation};
inline constexpr std::array kTonesOfVoice{ToneOfVoice::professional, ToneOfVoice::formal,   ToneOfVoice::fun,
                                          ToneOfVoice::flirt,        ToneOfVoice::positive, ToneOfVoice::negative,
                                          ToneOfVoice::neutral};

std::string_view caseName(HardCodedItem item);
std::string_view caseName(BuiltInPrompt prompt);
std::string_view caseName(PostProcess process);
std::string_view caseName(ToneOfVoice tone);
// "ask_ai", "add_emoji", "improve_writing", "fix_grammar".
std::string_view serverPromptId(BuiltInPrompt prompt);

// md5Hex of the name.
std::string intelligenceItemId(std::string_view caseNameOrLanguageCode);

// What the item of an id is. `translationTargets` are the languages offered for translation, `presetIds` the uuids
// of the user's presets.
struct IntelligenceItem {
    enum class Kind { hardCoded, builtIn, postProcess, tone, translation, preset, notFound };
    Kind kind = Kind::notFound;
    std::string name; // the case name, the language code or the preset's uuid
};
IntelligenceItem classifyIntelligenceItem(const std::string& itemId,
                                          const std::vector<store::LocalizedLanguage>& translationTargets,
                                          const std::vector<std::string>& presetIds = {});

// The server prompt of an item, with an empty text: built-in prompts, tones and translations. Local steps and
// presets give none, since they run after the transcript has arrived; so does an unknown id. Logged either way.
std::optional<AICompletionPromptId> promptIdForItemWithId(const std::string& itemId,
                                                          const std::vector<store::LocalizedLanguage>& translationTargets,
                                                          const std::vector<std::string>& presetIds,
                                                          const std::string& lastDetectedLanguageCode,
                                                          const std::string& appLanguageCode);

} // namespace sprelio

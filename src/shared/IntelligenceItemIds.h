#pragma once
// The names of the AI catalogue's items and their stable ids, as stored with a shortcut. An item's id is the
// lower-case MD5 of its case name (of the language code for a translation); a custom preset's id is its uuid.
#include <array>
#include <string>
#include <string_view>

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

} // namespace sprelio

#include "shared/IntelligenceItemIds.h"

#include "base/Digest.h"

namespace sprelio {

std::string_view caseName(HardCodedItem item) {
    switch (item) {
    case HardCodedItem::editor: return "editor";
    case HardCodedItem::useAsIs: return "useAsIs";
    case HardCodedItem::showActionsDialog: return "showActionsDialog";
    }
    return "editor";
}

std::string_view caseName(BuiltInPrompt prompt) {
    switch (prompt) {
    case BuiltInPrompt::askAI: return "askAI";
    case BuiltInPrompt::addEmoji: return "addEmoji";
    case BuiltInPrompt::improveWriting: return "improveWriting";
    case BuiltInPrompt::fixGrammar: return "fixGrammar";
    }
    return "askAI";
}

std::string_view caseName(PostProcess process) {
    switch (process) {
    case PostProcess::uppercaseAll: return "uppercaseAll";
    case PostProcess::lowercaseAll: return "lowercaseAll";
    case PostProcess::lowercaseFirstChar: return "lowercaseFirstChar";
    case PostProcess::uppercaseFirstChar: return "uppercaseFirstChar";
    case PostProcess::trimEndingPunctuation: return "trimEndingPunctuation";
    }
    return "uppercaseAll";
}

std::string_view caseName(ToneOfVoice tone) {
    switch (tone) {
    case ToneOfVoice::professional: return "professional";
    case ToneOfVoice::formal: return "formal";
    case ToneOfVoice::fun: return "fun";
    case ToneOfVoice::flirt: return "flirt";
    case ToneOfVoice::positive: return "positive";
    case ToneOfVoice::negative: return "negative";
    case ToneOfVoice::neutral: return "neutral";
    }
    return "neutral";
}

std::string_view serverPromptId(BuiltInPrompt prompt) {
    switch (prompt) {
    case BuiltInPrompt::askAI: return "ask_ai";
    case BuiltInPrompt::addEmoji: return "add_emoji";
    case BuiltInPrompt::improveWriting: return "improve_writing";
    case BuiltInPrompt::fixGrammar: return "fix_grammar";
    }
    return "ask_ai";
}

std::string intelligenceItemId(std::string_view caseNameOrLanguageCode) { return md5Hex(caseNameOrLanguageCode); }

} // namespace sprelio

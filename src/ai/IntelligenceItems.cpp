#include "ai/IntelligenceItems.h"

#include <algorithm>
#include <cctype>
#include <map>

#include "base/Log.h"

namespace sprelio {

namespace {

// The id of every language of the table, computed once: a classification runs at every AI step.
const std::vector<std::pair<std::string, std::string>>& translationItemIds() {
    static const auto ids = [] {
        std::vector<std::pair<std::string, std::string>> list;
        for (const auto& language : languageTable()) {
            if (!language.code.empty()) list.emplace_back(intelligenceItemId(language.code), language.code);
        }
        return list;
    }();
    return ids;
}

template <typename Cases> std::optional<std::string> findCase(const Cases& cases, const std::string& itemId) {
    for (const auto value : cases) {
        if (intelligenceItemId(caseName(value)) == itemId) return std::string(caseName(value));
    }
    return std::nullopt;
}

} // namespace

std::string intelligenceItemIdFromArgument(const std::string& argument) {
    const bool isId = argument.size() == 32 && std::all_of(argument.begin(), argument.end(), [](unsigned char c) {
                          return std::isdigit(c) || (c >= 'a' && c <= 'f');
                      });
    return isId ? argument : intelligenceItemId(argument);
}

IntelligenceItem classifyIntelligenceItem(const std::string& itemId, const std::vector<std::string>& presetIds) {
    using Kind = IntelligenceItem::Kind;
    // The order of the tests is the catalogue's: hard-coded, built-in, post-process, tones, translations, presets.
    if (auto name = findCase(kHardCodedItems, itemId)) return {Kind::hardCoded, *name};
    if (auto name = findCase(kBuiltInPrompts, itemId)) return {Kind::builtIn, *name};
    if (auto name = findCase(kPostProcesses, itemId)) return {Kind::postProcess, *name};
    if (auto name = findCase(kTonesOfVoice, itemId)) return {Kind::tone, *name};
    for (const auto& [id, code] : translationItemIds()) {
        if (id == itemId) return {Kind::translation, code};
    }
    if (std::find(presetIds.begin(), presetIds.end(), itemId) != presetIds.end()) return {Kind::preset, itemId};
    return {Kind::notFound, {}};
}

std::string_view intelligenceRowLabel(IntelligenceRow row) {
    switch (row) {
    case IntelligenceRow::editor: return "Editor";
    case IntelligenceRow::builtIn: return "BuiltIn";
    case IntelligenceRow::postProcess: return "Process";
    case IntelligenceRow::tone: return "Tone";
    case IntelligenceRow::translate: return "Translate";
    case IntelligenceRow::custom: return "Custom";
    case IntelligenceRow::other: return "Other";
    }
    return "";
}

std::string_view intelligenceRowPickerLabel(IntelligenceRow row) {
    return row == IntelligenceRow::translate ? "Translate to" : intelligenceRowLabel(row);
}

namespace {

// The faces by case name. The labels of the hard-coded items, the built-in prompts and the local steps, and the
// built-in prompts' emoji, are the catalogue's own; `askAI` has no label of its own and is shown as "Ask AI". The
// tones are shown by their names, and the remaining emoji are chosen so that every item can be told apart.
const std::map<std::string_view, IntelligenceItemFace>& fixedFaces() {
    static const std::map<std::string_view, IntelligenceItemFace> faces = {
        {"editor", {"Editor", "✏️"}},
        {"useAsIs", {"Use as is", "✅"}},
        {"showActionsDialog", {"Show actions dialog", "💬"}},
        {"askAI", {"Ask AI", "🤖"}},
        {"addEmoji", {"Add Emoji", "📝"}},
        {"improveWriting", {"Improve Writing", "✍️"}},
        {"fixGrammar", {"Fix Grammar", "✨"}},
        {"uppercaseAll", {"UPPERCASE ALL", "🔠"}},
        {"lowercaseAll", {"lowercase all", "🔡"}},
        {"lowercaseFirstChar", {"start with a lowercase letter", "⬇️"}},
        {"uppercaseFirstChar", {"Start with an Uppercase letter", "⬆️"}},
        {"trimEndingPunctuation", {"Trim Ending Punctuation", "✂️"}},
        {"professional", {"Professional", "💼"}},
        {"formal", {"Formal", "🎩"}},
        {"fun", {"Fun", "😄"}},
        {"flirt", {"Flirt", "😘"}},
        {"positive", {"Positive", "👍"}},
        {"negative", {"Negative", "👎"}},
        {"neutral", {"Neutral", "😐"}},
    };
    return faces;
}

} // namespace

std::optional<IntelligenceItemFace> fixedIntelligenceItemFace(const IntelligenceItem& item) {
    using Kind = IntelligenceItem::Kind;
    switch (item.kind) {
    case Kind::hardCoded:
    case Kind::builtIn:
    case Kind::postProcess:
    case Kind::tone: {
        const auto& faces = fixedFaces();
        const auto found = faces.find(item.name);
        if (found == faces.end()) return std::nullopt;
        return found->second;
    }
    case Kind::translation:
        for (const auto& language : languageTable()) {
            if (language.code == item.name) return IntelligenceItemFace{language.localized, "🌐"};
        }
        return std::nullopt;
    case Kind::preset:
    case Kind::notFound: break;
    }
    return std::nullopt;
}

std::optional<AICompletionPromptId> promptIdForItemWithId(const std::string& itemId,
                                                          const std::vector<std::string>& presetIds,
                                                          const std::string& lastDetectedLanguageCode,
                                                          const std::string& appLanguageCode) {
    using Kind = IntelligenceItem::Kind;
    const auto item = classifyIntelligenceItem(itemId, presetIds);
    AICompletionPromptId prompt{"", "", "", lastDetectedLanguageCode, appLanguageCode};
    switch (item.kind) {
    case Kind::builtIn:
        logInfo("promptIdForItemWithId() - Item == .builtIn: " + item.name);
        for (const auto value : kBuiltInPrompts) {
            if (caseName(value) == item.name) prompt.promptId = serverPromptId(value);
        }
        return prompt;
    case Kind::tone:
        logInfo("promptIdForItemWithId() - Item == .tone: " + item.name);
        prompt.promptId = "tone";
        prompt.promptParam = item.name;
        return prompt;
    case Kind::translation:
        logInfo("promptIdForItemWithId() - Item == .translation (using AppConstants.languages): " + item.name);
        prompt.promptId = "translate";
        prompt.promptParam = item.name;
        return prompt;
    case Kind::postProcess:
        logInfo("promptIdForItemWithId() - Item == .postProcess: " + item.name);
        return std::nullopt;
    case Kind::preset:
        logInfo("promptIdForItemWithId() - Item == IntelligencePreset: " + item.name + " - WARNING: currently unhandled");
        return std::nullopt;
    case Kind::hardCoded:
    case Kind::notFound: break;
    }
    logInfo("promptIdForItemWithId() - found no Item for itemId: " + itemId);
    return std::nullopt;
}

} // namespace sprelio

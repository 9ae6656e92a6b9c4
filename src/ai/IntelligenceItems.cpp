#include "ai/IntelligenceItems.h"

#include <algorithm>
#include <cctype>

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

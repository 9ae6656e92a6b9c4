#include "ai/IntelligenceViewModelImpl.h"

#include <set>

#include "shared/AppState.h"
#include "base/Log.h"
#include "platform/Sounds.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "base/TextCase.h"

namespace sprelio {

namespace {


// White space and line ends, as trimmed around a text before its last mark is looked at. A line end "\r\n" is one
// user-perceived character.
bool isTrimmable(const std::string& character) {
    static const std::set<std::string> kWhiteSpace = {
        " ", "\t", "\n", "\r", "\r\n", "\v", "\f", "\u0085", "\u00A0", "\u1680", "\u2000", "\u2001", "\u2002",
        "\u2003", "\u2004", "\u2005", "\u2006", "\u2007", "\u2008", "\u2009", "\u200A", "\u2028", "\u2029", "\u202F",
        "\u205F", "\u3000"};
    return kWhiteSpace.count(character) > 0;
}

std::string trimEndingPunctuation(const std::string& text) {
    if (text.empty()) return text;
    const auto characters = text::graphemes(text);
    std::size_t first = 0, last = characters.size();
    while (first < last && isTrimmable(characters[first])) ++first;
    while (last > first && isTrimmable(characters[last - 1])) --last;
    static const std::set<std::string> kMarks = {".", "!", "?", ",", ";", ":", "。", "！", "？", "，", "；", "："};
    if (last == first || kMarks.count(characters[last - 1]) == 0) return text;
    std::string trimmed;
    for (std::size_t i = first; i + 1 < last; ++i) trimmed += characters[i];
    return trimmed;
}

// The first user-perceived character changed by `change`, the rest as it is.
std::string changeFirstCharacter(const std::string& text, std::string (*change)(std::string_view)) {
    const auto characters = text::graphemes(text);
    if (characters.empty()) return text;
    return change(characters.front()) + text.substr(characters.front().size());
}

} // namespace

std::string applyPostProcess(PostProcess process, const std::string& text) {
    switch (process) {
    case PostProcess::uppercaseAll: return text::uppercased(text);
    case PostProcess::lowercaseAll: return text::lowercased(text);
    case PostProcess::lowercaseFirstChar: return changeFirstCharacter(text, &text::lowercased);
    case PostProcess::uppercaseFirstChar: return changeFirstCharacter(text, &text::uppercased);
    case PostProcess::trimEndingPunctuation: return trimEndingPunctuation(text);
    }
    return text;
}

IntelligenceViewModelImpl::IntelligenceViewModelImpl(Dependencies deps) : deps_(std::move(deps)) {}

std::optional<AICompletionPromptId> IntelligenceViewModelImpl::promptIdForItemWithId(const std::string& itemId) {
    return sprelio::promptIdForItemWithId(itemId, deps_.settings.aiLocalizedTranslationLanguages(),
                                          deps_.presetIds ? deps_.presetIds() : std::vector<std::string>{},
                                          deps_.settings.lastDetectedLanguageCode(), deps_.constants.appLanguageCode());
}

void IntelligenceViewModelImpl::executeActionForItemWithText(
    const std::string& itemId, const std::string& text, std::optional<IntelligenceActionCompletionType> completionType) {
    logInfo(std::string("executeActionForItemWithText() - text: ") + std::string(kPrivatized));
    using Kind = IntelligenceItem::Kind;
    const auto item = classifyIntelligenceItem(itemId, deps_.settings.aiLocalizedTranslationLanguages(),
                                               deps_.presetIds ? deps_.presetIds() : std::vector<std::string>{});
    switch (item.kind) {
    case Kind::hardCoded:
        if (item.name == caseName(HardCodedItem::useAsIs)) {
            logInfo("executeActionForItemWithText() - Item == .useAsIs: /");
            if (deps_.performPasting) deps_.performPasting(text);
        } else if (item.name == caseName(HardCodedItem::showActionsDialog)) {
            logInfo("executeActionForItemWithText() - Item == .showActionsDialog: /");
            if (deps_.showResults) deps_.showResults(text);
        } else {
            logInfo("executeActionForItemWithText() - Item == .editor: skipping");
        }
        return;
    case Kind::postProcess: {
        logInfo("executeActionForItemWithText() - Item == .postProcess: " + item.name);
        for (const auto process : kPostProcesses) {
            if (caseName(process) != item.name) continue;
            const std::string result = applyPostProcess(process, text);
            logInfo(std::string("processTextWithPostProcess() - text: ") + std::string(kPrivatized) + " - postProcess: " + item.name +
                    " - intelligenceActionCompletionType: " +
                    (completionType ? std::string(intelligenceActionCompletionTypeRawValue(*completionType)) : "nil"));
            deliver(result, completionType);
        }
        return;
    }
    case Kind::builtIn:
        logInfo("executeActionForItemWithText() - Item == .builtIn: " + item.name);
        completionUnavailable("processTextWithBuiltInPrompt", text);
        return;
    case Kind::tone:
        logInfo("executeActionForItemWithText() - Item == .tone: " + item.name);
        completionUnavailable("processTextWithToneOfVoice", text);
        return;
    case Kind::translation:
        logInfo("executeActionForItemWithText() - Item == .translation (using AppConstants.languages): " + item.name);
        completionUnavailable("processTextWithLanguage", text);
        return;
    case Kind::preset:
        logInfo("executeActionForItemWithText() - Item == IntelligencePreset: " + item.name);
        completionUnavailable("processTextWithPreset", text);
        return;
    case Kind::notFound: break;
    }
    logInfo("executeActionForItemWithText() - found no Item for itemId: " + itemId +
            ", or skipped because of expectingCompletion (false)");
}

void IntelligenceViewModelImpl::deliver(const std::string& result,
                                        std::optional<IntelligenceActionCompletionType> completionType) {
    // Without a type of its own the action takes the active shortcut's.
    const auto type = completionType ? completionType : deps_.appState.currentlyActiveIntelligenceActionCompletionType();
    if (type == IntelligenceActionCompletionType::dialog) {
        if (deps_.showResults) deps_.showResults(result);
        return;
    }
    if (deps_.performPasting) deps_.performPasting(result);
}

void IntelligenceViewModelImpl::completionUnavailable(const std::string& method, const std::string& text) {
    // The completion service is not part of this version: this is the path of a failed completion.
    logError(method + "() - recordAndProcessWithAI completion failed with error: AI actions on a text are not "
                      "available in this version - will paste transcribed text instead: " +
             std::string(kPrivatized));
    deps_.sounds.play("Glass");
    if (deps_.performPasting) deps_.performPasting(text);
}

} // namespace sprelio

#include "ai/IntelligenceViewModelImpl.h"

#include <set>

#include "ai/IntelligenceManager.h"
#include "shared/AppState.h"
#include "base/Log.h"
#include "platform/Sounds.h"
#include "store/AppConstants.h"
#include "store/DatabaseHelpers.h"
#include "store/Entities.h"
#include "store/ManagedObjectContext.h"
#include "store/Settings.h"
#include "base/Uuid.h"
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

CompletionRequests completionRequests(
    IntelligenceManager& manager,
    std::function<std::shared_ptr<store::IntelligencePreset>(const std::string& uuid)> findPreset) {
    const auto answer = [](CompletionRequests::Completion completion) {
        return [completion = std::move(completion)](std::optional<std::string> text,
                                                    std::optional<AICompletionError> error) {
            if (text) {
                completion(std::move(text), std::nullopt);
            } else {
                completion(std::nullopt, error ? error->errorDescription()
                                               : AICompletionError::noResult().errorDescription());
            }
        };
    };
    CompletionRequests requests;
    requests.byPromptId = [&manager, answer](const AICompletionPromptId& prompt,
                                             CompletionRequests::Completion completion) {
        manager.textCompletionWithPromptId(prompt, answer(std::move(completion)));
    };
    requests.byPreset = [&manager, answer, findPreset = std::move(findPreset)](
                            const std::string& presetId, const std::string& text,
                            CompletionRequests::Completion completion) {
        const auto preset = findPreset ? findPreset(presetId) : nullptr;
        if (!preset) {
            completion(std::nullopt, AICompletionError::noResult().errorDescription());
            return;
        }
        manager.textCompletionWithPreset(*preset, text, answer(std::move(completion)));
    };
    return requests;
}

IntelligenceViewModelImpl::IntelligenceViewModelImpl(Dependencies deps) : deps_(std::move(deps)) {
    checkAndFixMissingIntelligencePresetUUID("IntelligenceViewModel.init");
    intelligencePresetsDidChange();
}

std::optional<AICompletionPromptId> IntelligenceViewModelImpl::promptIdForItemWithId(const std::string& itemId) {
    return sprelio::promptIdForItemWithId(itemId, deps_.presetIds ? deps_.presetIds() : std::vector<std::string>{},
                                          deps_.settings.lastDetectedLanguageCode(), deps_.constants.appLanguageCode());
}

void IntelligenceViewModelImpl::executeActionForItemWithText(
    const std::string& itemId, const std::string& text, bool expectingCompletion,
    std::optional<IntelligenceActionCompletionType> completionType) {
    run(itemId, text, expectingCompletion, completionType, Origin::session);
}

void IntelligenceViewModelImpl::executeActionForItemWithText(
    const std::string& itemId, const std::string& text, bool close, bool expectingCompletion,
    std::optional<IntelligenceActionCompletionType> completionType) {
    run(itemId, text, expectingCompletion, completionType,
        close ? Origin::resultsDialogClosing : Origin::resultsDialogStaying);
}

void IntelligenceViewModelImpl::run(const std::string& itemId, const std::string& text, bool expectingCompletion,
                                    std::optional<IntelligenceActionCompletionType> completionType, Origin origin) {
    logInfo(std::string("executeActionForItemWithText() - text: ") + std::string(kPrivatized));
    using Kind = IntelligenceItem::Kind;
    const auto item =
        classifyIntelligenceItem(itemId, deps_.presetIds ? deps_.presetIds() : std::vector<std::string>{});
    const bool serverStep = item.kind == Kind::builtIn || item.kind == Kind::tone ||
                            item.kind == Kind::translation || item.kind == Kind::preset;
    if (item.kind == Kind::notFound || (serverStep && expectingCompletion)) {
        logInfo("executeActionForItemWithText() - found no Item for itemId: " + itemId +
                ", or skipped because of expectingCompletion (" + (expectingCompletion ? "true" : "false") + ")");
        return;
    }
    switch (item.kind) {
    case Kind::hardCoded:
        if (item.name == caseName(HardCodedItem::useAsIs)) {
            logInfo("executeActionForItemWithText() - Item == .useAsIs: /");
            if (origin != Origin::session) {
                deliver(text, completionType, origin);
            } else if (deps_.performPasting) {
                deps_.performPasting(text);
            }
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
            logInfo(std::string("processTextWithPostProcess() - text: ") + std::string(kPrivatized) +
                    " - postProcess: " + item.name + " - intelligenceActionCompletionType: " +
                    (completionType ? std::string(intelligenceActionCompletionTypeRawValue(*completionType)) : "nil"));
            deliver(result, completionType, origin);
        }
        return;
    }
    case Kind::builtIn:
        logInfo("executeActionForItemWithText() - Item == .builtIn: " + item.name);
        for (const auto prompt : kBuiltInPrompts) {
            if (caseName(prompt) == item.name) processTextWithBuiltInPrompt(text, prompt, completionType, origin);
        }
        return;
    case Kind::tone:
        logInfo("executeActionForItemWithText() - Item == .tone: " + item.name);
        for (const auto tone : kTonesOfVoice) {
            if (caseName(tone) == item.name) processTextWithToneOfVoice(text, tone, completionType, origin);
        }
        return;
    case Kind::translation:
        logInfo("executeActionForItemWithText() - Item == .translation (using AppConstants.languages): " + item.name);
        processTextWithLanguage(text, item.name, completionType, origin);
        return;
    case Kind::preset:
        logInfo("executeActionForItemWithText() - Item == IntelligencePreset: " + item.name);
        processTextWithPreset(text, item.name, completionType, origin);
        return;
    case Kind::notFound: return;
    }
}

namespace {

std::string completionTypeText(std::optional<IntelligenceActionCompletionType> type) {
    return type ? std::string(intelligenceActionCompletionTypeRawValue(*type)) : std::string("nil");
}

} // namespace

AICompletionPromptId IntelligenceViewModelImpl::promptFor(std::string promptId, std::string promptParam,
                                                          const std::string& text) const {
    return AICompletionPromptId{std::move(promptId), std::move(promptParam), text,
                                deps_.settings.lastDetectedLanguageCode(), deps_.constants.appLanguageCode()};
}

void IntelligenceViewModelImpl::processTextWithBuiltInPrompt(
    const std::string& text, BuiltInPrompt prompt, std::optional<IntelligenceActionCompletionType> completionType,
    Origin origin) {
    logInfo("processTextWithBuiltInPrompt() - text: " + std::string(kPrivatized) + " - builtInPrompt: " +
            std::string(caseName(prompt)) + " - intelligenceActionCompletionType: " + completionTypeText(completionType));
    runOnServer("processTextWithBuiltInPrompt", text, promptFor(std::string(serverPromptId(prompt)), "", text),
                std::nullopt, completionType, origin);
}

void IntelligenceViewModelImpl::processTextWithToneOfVoice(
    const std::string& text, ToneOfVoice tone, std::optional<IntelligenceActionCompletionType> completionType,
    Origin origin) {
    logInfo("processTextWithToneOfVoice() - text: " + std::string(kPrivatized) + " - toneOfVoice: " +
            std::string(caseName(tone)) + " - intelligenceActionCompletionType: " + completionTypeText(completionType));
    runOnServer("processTextWithToneOfVoice", text, promptFor("tone", std::string(caseName(tone)), text),
                std::nullopt, completionType, origin);
}

void IntelligenceViewModelImpl::processTextWithLanguage(
    const std::string& text, const std::string& languageCode,
    std::optional<IntelligenceActionCompletionType> completionType, Origin origin) {
    logInfo("processTextWithLanguage() - text: " + std::string(kPrivatized) + " - language: " + languageCode +
            " - intelligenceActionCompletionType: " + completionTypeText(completionType));
    runOnServer("processTextWithLanguage", text, promptFor("translate", languageCode, text), std::nullopt,
                completionType, origin);
}

void IntelligenceViewModelImpl::processTextWithPreset(
    const std::string& text, const std::string& presetId,
    std::optional<IntelligenceActionCompletionType> completionType, Origin origin) {
    logInfo("processTextWithPreset() - text: " + std::string(kPrivatized) + " - preset: " + presetId +
            " - intelligenceActionCompletionType: " + completionTypeText(completionType));
    runOnServer("processTextWithPreset", text, promptFor("", "", text), presetId, completionType, origin);
}

void IntelligenceViewModelImpl::runOnServer(const std::string& method, const std::string& text,
                                            const AICompletionPromptId& prompt,
                                            const std::optional<std::string>& presetId,
                                            std::optional<IntelligenceActionCompletionType> completionType,
                                            Origin origin) {
    if (deps_.showIntelligizingOverlay) deps_.showIntelligizingOverlay();
    auto answered = lifetime_.guard([this, method, text, completionType, origin](
                                        std::optional<std::string> result, std::optional<std::string> failure) {
        if (result) {
            deliver(*result, completionType, origin);
            return;
        }
        pasteAfterAFailure(method, text, failure.value_or("no answer"), origin);
    });
    const auto& requests = deps_.completions;
    if (presetId && requests.byPreset) {
        requests.byPreset(*presetId, text, std::move(answered));
    } else if (!presetId && requests.byPromptId) {
        requests.byPromptId(prompt, std::move(answered));
    } else {
        answered(std::nullopt, std::string("No servers available for the requested AI processing model."));
    }
}

void IntelligenceViewModelImpl::pasteAfterAFailure(const std::string& method, const std::string& text,
                                                   const std::string& failure, Origin origin) {
    const bool fromDialog = origin != Origin::session;
    logError((fromDialog ? std::string("IntelligenceResultsView") : method) +
             "() - recordAndProcessWithAI completion failed with error: " + failure +
             " - will paste transcribed text instead: " + std::string(kPrivatized));
    deps_.sounds.play("Glass");
    if (fromDialog && deps_.pasteToPreviousWindowThenClose) {
        deps_.pasteToPreviousWindowThenClose(text);
    } else if (deps_.performPasting) {
        deps_.performPasting(text);
    }
}

void IntelligenceViewModelImpl::deliver(const std::string& result,
                                        std::optional<IntelligenceActionCompletionType> completionType,
                                        Origin origin) {
    auto type = completionType;
    if (!type && origin == Origin::session) {
        // Without a type of its own the action takes the active shortcut's.
        type = deps_.appState.currentlyActiveIntelligenceActionCompletionType();
    } else if (!type) {
        // A run from the dialog belongs to no shortcut: the dialog's close flag decides.
        type = origin == Origin::resultsDialogStaying ? IntelligenceActionCompletionType::dialog
                                                      : IntelligenceActionCompletionType::paste;
    }
    if (type == IntelligenceActionCompletionType::dialog) {
        if (deps_.showResults) deps_.showResults(result);
        return;
    }
    // The dialog stands in front of the application the text is meant for: it goes first.
    if (origin != Origin::session && deps_.pasteToPreviousWindowThenClose) {
        deps_.pasteToPreviousWindowThenClose(result);
        return;
    }
    if (deps_.performPasting) deps_.performPasting(result);
}

// ---- What the menus show ----

void IntelligenceViewModelImpl::intelligencePresetsDidChange() {
    intelligencePresets_.clear();
    if (deps_.presetStore) {
        intelligencePresets_ = deps_.presetStore->fetchAll<store::IntelligencePreset>(
            {store::SortDescriptor{"order", true}, store::SortDescriptor{"title", true}});
    }
    logInfo("intelligencePresets.didSet{} - count: " + std::to_string(intelligencePresets_.size()));
    updateFilteredIntelligencePresets("intelligencePresets.didSet{}");
}

void IntelligenceViewModelImpl::updateFilteredIntelligencePresets(const std::string& caller) {
    logInfo("updateFilteredIntelligencePresets() - caller: " + caller);
    filteredIntelligencePresets_.clear();
    // A preset can only be run by its uuid: one without (until it is repaired) is not offered.
    for (const auto& preset : intelligencePresets_) {
        if (preset->uuid()) filteredIntelligencePresets_.push_back(preset);
    }
    updateRows(caller);
}

void IntelligenceViewModelImpl::updateRows(const std::string& caller) {
    logInfo("updateRows() - caller: " + caller);
    const auto ids = [](const auto& cases) {
        std::vector<std::optional<std::string>> list;
        for (const auto value : cases) list.emplace_back(intelligenceItemId(caseName(value)));
        return list;
    };
    rows_.clear();
    rows_[IntelligenceRow::editor] = {intelligenceItemId(caseName(HardCodedItem::editor))};
    rows_[IntelligenceRow::builtIn] = ids(kBuiltInPrompts);
    rows_[IntelligenceRow::postProcess] = ids(kPostProcesses);
    rows_[IntelligenceRow::tone] = ids(kTonesOfVoice);
    auto& translate = rows_[IntelligenceRow::translate];
    for (const auto& language : deps_.settings.aiLocalizedTranslationLanguages()) {
        if (!language.code.empty()) translate.emplace_back(intelligenceItemId(language.code));
    }
    auto& custom = rows_[IntelligenceRow::custom];
    for (const auto& preset : filteredIntelligencePresets_) {
        const auto uuid = preset->uuid();
        custom.push_back(uuid ? std::optional<std::string>(uuid->string()) : std::nullopt);
    }
    rows_[IntelligenceRow::other] = {intelligenceItemId(caseName(HardCodedItem::useAsIs)),
                                     intelligenceItemId(caseName(HardCodedItem::showActionsDialog))};
    orderedItems_.clear();
    orderedActionsTranslationsPickerItems_.clear();
    for (const auto row : kIntelligenceRows) {
        for (const auto& id : rows_[row]) {
            orderedItems_.emplace_back(row, id);
            if (row != IntelligenceRow::editor) orderedActionsTranslationsPickerItems_.emplace_back(row, id);
        }
    }
}

void IntelligenceViewModelImpl::checkAndFixMissingIntelligencePresetUUID(const std::string& caller) {
    logDebug("checkandFixMissingIntelligencePresetUUID() - caller: " + caller);
    if (!deps_.presetStore) return;
    bool changed = false;
    for (const auto& preset : deps_.presetStore->fetchAll<store::IntelligencePreset>()) {
        if (preset->uuid()) continue;
        preset->setUuid(Uuid::random());
        logInfo("checkAndFixMissingIntelligencePresetUUID() - added UUID to preset " + preset->title().value_or(""));
        changed = true;
    }
    if (changed) store::cdSaveContext(deps_.presetStore, "checkAndFixMissingIntelligencePresetUUID");
}

IntelligenceItem IntelligenceViewModelImpl::displayedItem(const std::string& itemId) const {
    std::vector<std::string> presetIds;
    for (const auto& preset : intelligencePresets_) {
        if (const auto uuid = preset->uuid()) presetIds.push_back(uuid->string());
    }
    return classifyIntelligenceItem(itemId, presetIds);
}

namespace {
constexpr const char* kFallbackTitle = "Custom Preset";
constexpr const char* kFallbackEmoji = "🅰️";
} // namespace

std::string IntelligenceViewModelImpl::getTitleForItem(const std::string& itemId) const {
    const auto item = displayedItem(itemId);
    if (const auto face = fixedIntelligenceItemFace(item)) return face->title;
    if (item.kind == IntelligenceItem::Kind::preset) {
        for (const auto& preset : intelligencePresets_) {
            const auto uuid = preset->uuid();
            if (uuid && uuid->string() == itemId) {
                const auto title = preset->title().value_or("");
                return title.empty() ? kFallbackTitle : title;
            }
        }
    }
    logWarning("getTitleForItem: unable to retrieve title for item with itemId: " + itemId);
    return kFallbackTitle;
}

std::string IntelligenceViewModelImpl::getEmojiForItem(const std::string& itemId) const {
    const auto item = displayedItem(itemId);
    if (const auto face = fixedIntelligenceItemFace(item)) return face->emoji;
    // Presets carry no emoji of their own.
    if (item.kind == IntelligenceItem::Kind::preset) return kFallbackEmoji;
    logWarning("getEmojiForItem: unable to retrieve emoji for item with itemId: " + itemId);
    return kFallbackEmoji;
}

} // namespace sprelio

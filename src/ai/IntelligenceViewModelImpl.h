#pragma once
// The catalogue's actions on a finished text: the text as it is, the results dialog, the local post-processing
// steps, and the steps the completion service runs (built-in prompts, tones, translations, presets). A failed
// server step falls back to the text as it came in: the user never loses a transcript to the AI.
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ai/IntelligenceItems.h"
#include "ai/IntelligenceViewModel.h"
#include "base/LifetimeGuard.h"

namespace sprelio {

class AppState;
namespace store {
class ManagedObjectContext;
class Settings;
class AppConstants;
} // namespace store
namespace platform {
class SoundPlayer;
}

// The transformation of a post-processing step.
std::string applyPostProcess(PostProcess process, const std::string& text);

// The completion service as the catalogue asks it. Each request answers once, on the main loop: the generated text,
// or the user text of what went wrong.
struct CompletionRequests {
    using Completion = std::function<void(std::optional<std::string> text, std::optional<std::string> failure)>;
    std::function<void(const AICompletionPromptId& prompt, Completion completion)> byPromptId;
    std::function<void(const std::string& presetId, const std::string& text, Completion completion)> byPreset;
};

class IntelligenceManager;
namespace store {
class IntelligencePreset;
}
// The completion service's two ways of asking, as the catalogue calls them. `findPreset` looks a stored preset up
// by its uuid; one that is gone fails the request.
CompletionRequests completionRequests(
    IntelligenceManager& manager,
    std::function<std::shared_ptr<store::IntelligencePreset>(const std::string& uuid)> findPreset);

class IntelligenceViewModelImpl final : public IntelligenceViewModel {
public:
    struct Dependencies {
        const store::Settings& settings;
        const store::AppConstants& constants;
        AppState& appState;
        platform::SoundPlayer& sounds;
        // The uuids of the stored presets; empty when there is no store.
        std::function<std::vector<std::string>()> presetIds;
        // Delivery of a result: pasted into the application in front, or shown in the results dialog.
        std::function<void(const std::string& text)> performPasting;
        std::function<void(const std::string& text)> showResults;
        // Where the server steps go; without it they fail as an unreachable service would.
        CompletionRequests completions;
        // The overlay that says the AI is at work, shown while a server step runs.
        std::function<void()> showIntelligizingOverlay;
        // The store of the user's presets, for the custom row and the presets' titles; without it that row stays
        // empty.
        store::ManagedObjectContext* presetStore = nullptr;
        // The way back from the results dialog: the dialog closes and the text is pasted into the application that
        // was in front before it.
        std::function<void(const std::string& text)> pasteToPreviousWindowThenClose = {};
    };

    // Where a run's result goes: the session's delivery by completion type, or back to the results dialog the
    // item was run from, which either closes (the result is pasted where the user came from) or stays open (the
    // result lands in its editor).
    enum class Origin { session, resultsDialogClosing, resultsDialogStaying };

    using Preset = std::shared_ptr<store::IntelligencePreset>;
    using Rows = std::map<IntelligenceRow, std::vector<std::optional<std::string>>>;

    explicit IntelligenceViewModelImpl(Dependencies deps);

    std::optional<AICompletionPromptId> promptIdForItemWithId(const std::string& itemId) override;
    void executeActionForItemWithText(const std::string& itemId, const std::string& text, bool expectingCompletion,
                                      std::optional<IntelligenceActionCompletionType> completionType) override;
    // The same for an item run from the results dialog on its text. With `close` the dialog goes after the item
    // (its caller closes it) and the result is pasted into the application that was in front before it; without
    // it the dialog stays and the result replaces its text. A completion type of its own overrides that choice. A
    // server step that fails hands on the text as it came in, pasted where the user came from.
    void executeActionForItemWithText(const std::string& itemId, const std::string& text, bool close,
                                      bool expectingCompletion,
                                      std::optional<IntelligenceActionCompletionType> completionType);

    // The ways of working that need the completion service; each delivers the result, or the text as it came in.
    void processTextWithBuiltInPrompt(const std::string& text, BuiltInPrompt prompt,
                                      std::optional<IntelligenceActionCompletionType> completionType,
                                      Origin origin = Origin::session);
    void processTextWithToneOfVoice(const std::string& text, ToneOfVoice tone,
                                    std::optional<IntelligenceActionCompletionType> completionType,
                                    Origin origin = Origin::session);
    void processTextWithLanguage(const std::string& text, const std::string& languageCode,
                                 std::optional<IntelligenceActionCompletionType> completionType,
                                 Origin origin = Origin::session);
    void processTextWithPreset(const std::string& text, const std::string& presetId,
                               std::optional<IntelligenceActionCompletionType> completionType,
                               Origin origin = Origin::session);

    // ---- What the menus show ----
    // One entry per row: the editor; the built-in prompts, local steps and tones in their order; the user's
    // translation languages; the shown presets; "use as is" and the results dialog.
    const Rows& rows() const { return rows_; }
    // The rows flattened in their order.
    const std::vector<IntelligenceRowItem>& orderedItems() const { return orderedItems_; }
    // What a picker of actions offers: the same without the editor, which is no action.
    const std::vector<IntelligenceRowItem>& orderedActionsTranslationsPickerItems() const {
        return orderedActionsTranslationsPickerItems_;
    }
    // The stored presets in the user's order, and those shown (the ones with an identity to run them by).
    const std::vector<Preset>& intelligencePresets() const { return intelligencePresets_; }
    const std::vector<Preset>& filteredIntelligencePresets() const { return filteredIntelligencePresets_; }
    // The store's presets changed: they are read again and the rows follow.
    void intelligencePresetsDidChange();
    void updateFilteredIntelligencePresets(const std::string& caller);
    void updateRows(const std::string& caller);
    // Gives every stored preset without a uuid a new one, and saves.
    void checkAndFixMissingIntelligencePresetUUID(const std::string& caller);
    // An unknown id is logged and shows as "Custom Preset" with 🅰️; so does a preset without a title.
    std::string getTitleForItem(const std::string& itemId) const;
    std::string getEmojiForItem(const std::string& itemId) const;

private:
    void run(const std::string& itemId, const std::string& text, bool expectingCompletion,
             std::optional<IntelligenceActionCompletionType> completionType, Origin origin);
    void deliver(const std::string& result, std::optional<IntelligenceActionCompletionType> completionType,
                 Origin origin);
    void pasteAfterAFailure(const std::string& method, const std::string& text, const std::string& failure,
                            Origin origin);
    // Sends a prompt-id request, or a preset's when `presetId` is set, and delivers what comes back.
    void runOnServer(const std::string& method, const std::string& text, const AICompletionPromptId& prompt,
                     const std::optional<std::string>& presetId,
                     std::optional<IntelligenceActionCompletionType> completionType, Origin origin);
    AICompletionPromptId promptFor(std::string promptId, std::string promptParam, const std::string& text) const;
    // The item of an id among the fixed catalogue and the presets read last.
    IntelligenceItem displayedItem(const std::string& itemId) const;

    Dependencies deps_;
    std::vector<Preset> intelligencePresets_;
    std::vector<Preset> filteredIntelligencePresets_;
    Rows rows_;
    std::vector<IntelligenceRowItem> orderedItems_;
    std::vector<IntelligenceRowItem> orderedActionsTranslationsPickerItems_;
    LifetimeGuard lifetime_;
};

} // namespace sprelio

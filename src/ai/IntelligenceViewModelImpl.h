#pragma once
// The catalogue's actions on a finished text: the text as it is, the results dialog, the local post-processing
// steps, and the steps the completion service runs (built-in prompts, tones, translations, presets). A failed
// server step falls back to the text as it came in: the user never loses a transcript to the AI.
#include <functional>
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
    };

    explicit IntelligenceViewModelImpl(Dependencies deps);

    std::optional<AICompletionPromptId> promptIdForItemWithId(const std::string& itemId) override;
    void executeActionForItemWithText(const std::string& itemId, const std::string& text, bool expectingCompletion,
                                      std::optional<IntelligenceActionCompletionType> completionType) override;

    // The ways of working that need the completion service; each delivers the result, or the text as it came in.
    void processTextWithBuiltInPrompt(const std::string& text, BuiltInPrompt prompt,
                                      std::optional<IntelligenceActionCompletionType> completionType);
    void processTextWithToneOfVoice(const std::string& text, ToneOfVoice tone,
                                    std::optional<IntelligenceActionCompletionType> completionType);
    void processTextWithLanguage(const std::string& text, const std::string& languageCode,
                                 std::optional<IntelligenceActionCompletionType> completionType);
    void processTextWithPreset(const std::string& text, const std::string& presetId,
                               std::optional<IntelligenceActionCompletionType> completionType);

private:
    void deliver(const std::string& result, std::optional<IntelligenceActionCompletionType> completionType);
    // Sends a prompt-id request, or a preset's when `presetId` is set, and delivers what comes back.
    void runOnServer(const std::string& method, const std::string& text, const AICompletionPromptId& prompt,
                     const std::optional<std::string>& presetId,
                     std::optional<IntelligenceActionCompletionType> completionType);
    AICompletionPromptId promptFor(std::string promptId, std::string promptParam, const std::string& text) const;

    Dependencies deps_;
    LifetimeGuard lifetime_;
};

} // namespace sprelio

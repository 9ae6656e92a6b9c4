#pragma once
// The catalogue's actions on a finished text, as far as they run on this machine: the text as it is, the results
// dialog, and the local post-processing steps. The steps that need the completion service (built-in prompts,
// tones, translations, presets) fall back to the text as it came in, as any failed AI step does: the user never
// loses a transcript to the AI.
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ai/IntelligenceItems.h"
#include "ai/IntelligenceViewModel.h"

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
    };

    explicit IntelligenceViewModelImpl(Dependencies deps);

    std::optional<AICompletionPromptId> promptIdForItemWithId(const std::string& itemId) override;
    void executeActionForItemWithText(const std::string& itemId, const std::string& text,
                                      std::optional<IntelligenceActionCompletionType> completionType) override;

private:
    void deliver(const std::string& result, std::optional<IntelligenceActionCompletionType> completionType);
    void completionUnavailable(const std::string& method, const std::string& text);

    Dependencies deps_;
};

} // namespace sprelio

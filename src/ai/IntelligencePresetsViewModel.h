#pragma once
// The user's own AI presets as the AI tab edits them: a name, the prompt the model follows, and the model, kept in
// the store in the user's order. Every change is saved at once; `onChange` lets the catalogue rebuild its rows.
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "store/Entities.h"
#include "store/ManagedObjectContext.h"

namespace sprelio {

class IntelligencePresetsViewModel {
public:
    using Preset = std::shared_ptr<store::IntelligencePreset>;
    // The title a new preset starts with.
    static constexpr const char* kNewPresetTitle = "New Preset";

    struct Dependencies {
        store::ManagedObjectContext& context;
        // The models the account's AI servers offer, by identifier; the first is the default of a new preset.
        std::function<std::vector<std::string>()> models;
        std::function<void()> onChange;
    };

    explicit IntelligencePresetsViewModel(Dependencies deps);

    // In the user's order (`order`, then title).
    std::vector<Preset> presets() const;
    // Appends a preset with a fresh uuid, the default title, an empty prompt and the default model.
    Preset add();
    void setTitle(const Preset& preset, const std::string& title);
    void setPrompt(const Preset& preset, const std::string& prompt);
    // An empty model lets the completion service take its default model.
    void setModel(const Preset& preset, const std::string& model);
    void remove(const Preset& preset);
    // Moves a preset one place up (-1) or down (+1); the orders are renumbered 0, 1, 2, ...
    void move(const Preset& preset, int step);

    std::vector<std::string> models() const { return deps_.models ? deps_.models() : std::vector<std::string>{}; }

private:
    void saved(const std::string& caller);

    Dependencies deps_;
};

} // namespace sprelio

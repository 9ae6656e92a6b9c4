#include "ai/IntelligencePresetsViewModel.h"

#include <algorithm>

#include "base/Log.h"
#include "base/Uuid.h"
#include "store/DatabaseHelpers.h"

namespace sprelio {

IntelligencePresetsViewModel::IntelligencePresetsViewModel(Dependencies deps) : deps_(std::move(deps)) {}

std::vector<IntelligencePresetsViewModel::Preset> IntelligencePresetsViewModel::presets() const {
    auto list = deps_.context.fetchAll<store::IntelligencePreset>();
    std::stable_sort(list.begin(), list.end(), [](const Preset& a, const Preset& b) {
        if (a->order() != b->order()) return a->order() < b->order();
        return a->title().value_or("") < b->title().value_or("");
    });
    return list;
}

IntelligencePresetsViewModel::Preset IntelligencePresetsViewModel::add() {
    const auto existing = presets();
    std::int64_t order = 0;
    for (const auto& preset : existing) order = std::max(order, preset->order() + 1);
    auto preset = deps_.context.insertNew<store::IntelligencePreset>();
    preset->setUuid(Uuid::random());
    preset->setOrder(order);
    preset->setTitle(std::string(kNewPresetTitle));
    preset->setPrompt(std::string());
    const auto offered = models();
    preset->setModel(offered.empty() ? std::nullopt : std::optional<std::string>(offered.front()));
    logInfo("IntelligencePresetsViewModel.add() - preset " + preset->uuid()->string());
    saved("IntelligencePresetsViewModel.add()");
    return preset;
}

void IntelligencePresetsViewModel::setTitle(const Preset& preset, const std::string& title) {
    if (!preset || preset->title() == title) return;
    preset->setTitle(title);
    saved("IntelligencePresetsViewModel.setTitle()");
}

void IntelligencePresetsViewModel::setPrompt(const Preset& preset, const std::string& prompt) {
    if (!preset || preset->prompt() == prompt) return;
    preset->setPrompt(prompt);
    saved("IntelligencePresetsViewModel.setPrompt()");
}

void IntelligencePresetsViewModel::setModel(const Preset& preset, const std::string& model) {
    if (!preset || preset->model().value_or("") == model) return;
    preset->setModel(model.empty() ? std::nullopt : std::optional<std::string>(model));
    saved("IntelligencePresetsViewModel.setModel()");
}

void IntelligencePresetsViewModel::remove(const Preset& preset) {
    if (!preset) return;
    logInfo("IntelligencePresetsViewModel.remove() - preset " +
            (preset->uuid() ? preset->uuid()->string() : std::string("nil")));
    deps_.context.deleteObject(preset);
    saved("IntelligencePresetsViewModel.remove()");
}

void IntelligencePresetsViewModel::move(const Preset& preset, int step) {
    auto list = presets();
    const auto at = std::find(list.begin(), list.end(), preset);
    if (at == list.end()) return;
    const auto from = static_cast<long>(at - list.begin());
    const long to = from + step;
    if (to < 0 || to >= static_cast<long>(list.size())) return;
    std::swap(list[static_cast<std::size_t>(from)], list[static_cast<std::size_t>(to)]);
    for (std::size_t i = 0; i < list.size(); ++i) list[i]->setOrder(static_cast<std::int64_t>(i));
    saved("IntelligencePresetsViewModel.move()");
}

void IntelligencePresetsViewModel::saved(const std::string& caller) {
    store::cdSaveContext(&deps_.context, caller);
    if (deps_.onChange) deps_.onChange();
}

} // namespace sprelio

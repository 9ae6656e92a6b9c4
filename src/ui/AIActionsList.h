#pragma once
// What the AI tab lists of the catalogue: each built-in prompt, local step, tone and translation target with the
// shortcuts that run it, so that a user sees which key does what.
#include <string>
#include <vector>

#include "ai/IntelligenceViewModelImpl.h"
#include "store/ManagedObjectContext.h"

namespace sprelio {

struct AIActionRow {
    std::string row;   // the row's label: "BuiltIn", "Process", "Tone", "Translate", "Custom"
    std::string title; // emoji and title, as the menus show the item
    // The keys of every shortcut that runs the item, as a person reads them ("Alt+S", "Right Alt").
    std::vector<std::string> shortcuts;
};

// The catalogue's items in menu order, without the editor and the two fixed items of the last row.
std::vector<AIActionRow> aiActionRows(const IntelligenceViewModelImpl& catalogue,
                                      store::ManagedObjectContext& context);

} // namespace sprelio

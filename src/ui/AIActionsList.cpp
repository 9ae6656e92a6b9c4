#include "ui/AIActionsList.h"
#include "input/KeyNames.h"

#include <map>

#include "input/Key.h"
#include "store/DatabaseHelpers.h"
#include "store/Entities.h"

namespace sprelio {

std::vector<AIActionRow> aiActionRows(const IntelligenceViewModelImpl& catalogue,
                                      store::ManagedObjectContext& context) {
    std::map<std::string, std::vector<std::string>> keysByItem;
    for (const auto& shortcut : store::getUserShortcuts(context, true, true)) {
        const auto itemId = shortcut->intelligenceActionItemIdString();
        if (!itemId) continue;
        const std::string keys =
            linuxShortcutName(shortcut->singleModifierDirection(), shortcut->modifierEventKeyCode(),
                              shortcut->mouseEventMouseButton(), shortcut->shortcutString());
        if (!keys.empty()) keysByItem[*itemId].push_back(keys);
    }
    std::vector<AIActionRow> rows;
    for (const auto& [row, id] : catalogue.orderedItems()) {
        if (!id || row == IntelligenceRow::editor || row == IntelligenceRow::other) continue;
        AIActionRow entry;
        entry.row = std::string(intelligenceRowLabel(row));
        entry.title = catalogue.getEmojiForItem(*id) + " " + catalogue.getTitleForItem(*id);
        if (auto found = keysByItem.find(*id); found != keysByItem.end()) entry.shortcuts = found->second;
        rows.push_back(std::move(entry));
    }
    return rows;
}

} // namespace sprelio

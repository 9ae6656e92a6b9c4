#include "shared/SessionShortcutBuilder.h"

#include "shared/IntelligenceItemIds.h"
#include "store/Entities.h"

namespace sprelio {

std::shared_ptr<store::UserShortcut> SessionShortcutBuilder::recordAndTranscribe() {
    auto shortcut = std::make_shared<store::UserShortcut>();
    shortcut->setShortcutActionRawValue(std::string(shortcutActionRawValue(ShortcutAction::recordAndTranscribe)));
    shortcut->setIntelligenceActionCategoryRawValue("action");
    shortcut->setIntelligenceActionItemIdString(intelligenceItemId(caseName(HardCodedItem::useAsIs)));
    shortcut->setIntelligenceActionCompletionType(
        std::string(intelligenceActionCompletionTypeRawValue(IntelligenceActionCompletionType::paste)));
    shortcut->setHold(false);
    return shortcut;
}

std::shared_ptr<store::UserShortcut> SessionShortcutBuilder::copyForItem(const store::UserShortcut& base,
                                                                         const SessionMenuItem& item) {
    auto copy = std::make_shared<store::UserShortcut>();
    // Attribute by attribute, so that one added to the entity later is copied too.
    for (std::size_t i = 0; i < base.entity().attributes.size(); ++i) copy->setValueAt(i, base.valueAt(i));
    if (item.recordingAction) {
        copy->setShortcutActionRawValue(std::string(shortcutActionRawValue(*item.recordingAction)));
        copy->setIntelligenceActionCategoryRawValue(item.category);
    } else {
        copy->setIntelligenceActionCategoryRawValue("action");
    }
    copy->setIntelligenceActionItemIdString(item.itemId);
    const auto completion = copy->intelligenceActionCompletionType();
    if (!completion || completion->empty()) {
        copy->setIntelligenceActionCompletionType(
            std::string(intelligenceActionCompletionTypeRawValue(IntelligenceActionCompletionType::paste)));
    }
    // Re-applying the action turns hold off when the action can't hold.
    copy->setShortcutActionRawValue(copy->shortcutActionRawValue());
    return copy;
}

} // namespace sprelio

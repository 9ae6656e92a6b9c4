// The AI tab's list of actions: the catalogue's items in menu order, each with the keys of the shortcuts that run
// it, over a real store.
#include <gtest/gtest.h>

#include <algorithm>

#include "ai/CatalogueTestSupport.h"
#include "base/Digest.h"
#include "base/Uuid.h"
#include "input/Key.h"
#include "store/Entities.h"
#include "store/Persistence.h"
#include "ui/AIActionsList.h"

namespace sprelio {
namespace {

class AIActions : public ::testing::Test, protected testing::CatalogueSurroundings {
protected:
    void SetUp() override { ASSERT_FALSE(container_.loadPersistentStores().has_value()); }
    void addShortcut(const std::string& itemId, std::optional<std::int64_t> modifier, std::string keys) {
        auto shortcut = container_.viewContext().insertNew<store::UserShortcut>();
        shortcut->setUuid(Uuid::random());
        shortcut->setShortcutActionRawValue(std::string("recordAndProcessWithAI"));
        shortcut->setIntelligenceActionItemIdString(itemId);
        if (modifier) shortcut->setModifierEventKeyCode(*modifier);
        shortcut->setMouseEventMouseButton(-1);
        shortcut->setShortcutString(std::move(keys));
        container_.viewContext().save();
    }
    std::unique_ptr<IntelligenceViewModelImpl> catalogue() {
        return std::make_unique<IntelligenceViewModelImpl>(IntelligenceViewModelImpl::Dependencies{
            settings_, constants_, appState_, tp_, {}, {}, {}, {}, {}, &container_.viewContext()});
    }
    const AIActionRow* find(const std::vector<AIActionRow>& rows, const std::string& title) {
        auto at = std::find_if(rows.begin(), rows.end(),
                               [&](const AIActionRow& row) { return row.title.find(title) != std::string::npos; });
        return at == rows.end() ? nullptr : &*at;
    }

    store::PersistentContainer container_{"Persistence", store::PersistentContainer::kInMemoryStoreFile};
};

TEST_F(AIActions, EveryItemOfTheMenusIsListedWithTheKeysThatRunIt) {
    addShortcut(md5Hex("fixGrammar"), 61, keyString(61));
    addShortcut(md5Hex("fixGrammar"), std::nullopt, "⌥G");
    const auto model = catalogue();
    const auto rows = aiActionRows(*model, container_.viewContext());

    ASSERT_FALSE(rows.empty());
    for (const auto& row : rows) {
        EXPECT_NE(row.row, "Editor");
        EXPECT_NE(row.row, "Other") << "use as is and the dialog are no actions of their own";
    }
    EXPECT_EQ(rows.front().row, "BuiltIn");
    const auto* grammar = find(rows, "Fix Grammar");
    ASSERT_NE(grammar, nullptr);
    EXPECT_EQ(grammar->row, "BuiltIn");
    EXPECT_EQ(grammar->shortcuts.size(), 2u);
    const auto* formal = find(rows, "Formal");
    ASSERT_NE(formal, nullptr);
    EXPECT_EQ(formal->row, "Tone");
    EXPECT_TRUE(formal->shortcuts.empty());
    ASSERT_NE(find(rows, "UPPERCASE ALL"), nullptr);
    for (const auto& key : grammar->shortcuts) EXPECT_FALSE(key.empty());
}

} // namespace
} // namespace sprelio

// The rule table without its widgets: blank row, sorting, seed rules and the test box over a real store.
#include <gtest/gtest.h>

#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Persistence.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "text/SubstitutionsViewModel.h"

using namespace sprelio;

namespace {

class RuleTable : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(container_.loadPersistentStores().has_value());
        model_ = std::make_unique<SubstitutionsViewModel>(context(), settings_, platform_);
    }
    store::ManagedObjectContext& context() { return container_.viewContext(); }
    std::shared_ptr<store::Substitution> addRule(std::optional<std::string> input, std::optional<std::string> output) {
        auto rule = context().insertNew<store::Substitution>();
        rule->setInput(std::move(input));
        rule->setOutput(std::move(output));
        rule->setTimestamp(1.0);
        context().save();
        return rule;
    }
    std::vector<std::string> inputs(const std::vector<SubstitutionsViewModel::Row>& rows) {
        std::vector<std::string> out;
        for (const auto& r : rows) out.push_back(r->isBlankNew() ? "<blank>" : r->input().value_or("<nil>"));
        return out;
    }
    std::size_t blankCount() {
        std::size_t n = 0;
        for (const auto& r : context().fetchAll<store::Substitution>()) n += r->isBlankNew() ? 1 : 0;
        return n;
    }

    platform::test::TestPlatform platform_;
    store::AppConstants constants_{platform_};
    store::MemorySettingsStore settingsStore_;
    store::Settings settings_{settingsStore_, constants_};
    store::PersistentContainer container_{"Persistence", store::PersistentContainer::kInMemoryStoreFile};
    std::unique_ptr<SubstitutionsViewModel> model_;
};

} // namespace

TEST_F(RuleTable, FirstAppearanceSeedsTheRulesOpensOneBlankRowAndActivates) {
    platform::test::RecordingLogSink log;
    model_->onAppear(&platform_);
    auto rows = context().fetchAll<store::Substitution>();
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(blankCount(), 1u);
    EXPECT_EQ(inputs(model_->sortedSubstitutions),
              (std::vector<std::string>{"...", "Some text wrong detected", "<blank>"}));
    EXPECT_TRUE(platform_.called("activateSelf"));
    EXPECT_TRUE(log.contains("sort() - sorting 3 substitution(s)"));
    // Rule texts never reach the log.
    for (const auto& line : log.lines()) EXPECT_EQ(line.message.find("Needed text"), std::string::npos);

    // A second appearance adds nothing.
    model_->onAppear(nullptr);
    EXPECT_EQ(context().fetchAll<store::Substitution>().size(), 3u);
}

TEST_F(RuleTable, SortsByEitherColumnInThreeOrdersWithTheBlankRowLast) {
    addRule("b", "Z");
    addRule("a", "y");
    addRule("B", "x");
    addRule("\xC3\xA9", "w"); // é
    model_->onAppear(nullptr);
    // Defaults: input column, ascending, case-sensitive code point order.
    EXPECT_EQ(inputs(model_->sortedSubstitutions), (std::vector<std::string>{"B", "a", "b", "\xC3\xA9", "<blank>"}));
    EXPECT_EQ(model_->headerArrow(true), "arrow.up");
    EXPECT_EQ(model_->headerArrow(false), std::nullopt);

    model_->headerClicked(true); // ascend → descend
    EXPECT_EQ(inputs(model_->sortedSubstitutions), (std::vector<std::string>{"\xC3\xA9", "b", "a", "B", "<blank>"}));
    EXPECT_EQ(model_->headerArrow(true), "arrow.down");
    model_->headerClicked(true); // descend → none: the store's order
    EXPECT_EQ(inputs(model_->sortedSubstitutions), (std::vector<std::string>{"b", "a", "B", "\xC3\xA9", "<blank>"}));
    EXPECT_EQ(model_->headerArrow(true), std::nullopt);

    // The first click on the other column always gives ascend on that column.
    model_->headerClicked(false);
    EXPECT_FALSE(settings_.subSortInput());
    EXPECT_EQ(settings_.subSortOrder(), "ascend");
    EXPECT_EQ(inputs(model_->sortedSubstitutions), (std::vector<std::string>{"b", "\xC3\xA9", "B", "a", "<blank>"}));
}

TEST_F(RuleTable, AClickWhileEditingOnlyResorts) {
    addRule("b", "1");
    addRule("a", "2");
    model_->onAppear(nullptr);
    model_->beginEditing();
    model_->headerClicked(true);
    EXPECT_EQ(settings_.subSortOrder(), "ascend");
    EXPECT_FALSE(model_->sortDisabled);
    model_->headerClicked(true);
    EXPECT_EQ(settings_.subSortOrder(), "descend");
}

TEST_F(RuleTable, TypingIntoTheBlankRowMakesARuleAndOpensANewBlankRow) {
    addRule("teh", "the");
    model_->onAppear(nullptr);
    auto blank = model_->sortedSubstitutions.back();
    ASSERT_TRUE(blank->isBlankNew());
    model_->setInput(blank, "wanna");
    EXPECT_FALSE(blank->isBlankNew());
    EXPECT_TRUE(model_->sortDisabled);
    EXPECT_EQ(blankCount(), 1u);
    EXPECT_EQ(inputs(model_->sortedSubstitutions), (std::vector<std::string>{"teh", "wanna", "<blank>"}));

    // Emptying the last rule turns it back into the one blank row.
    model_->setInput(blank, "");
    EXPECT_TRUE(blank->isBlankNew());
    EXPECT_EQ(blankCount(), 1u);
    EXPECT_EQ(inputs(model_->sortedSubstitutions), (std::vector<std::string>{"teh", "<blank>"}));
    EXPECT_FALSE(context().hasChanges());
}

TEST_F(RuleTable, AnEmptiedRowHigherUpStaysAnEmptyRule) {
    auto first = addRule("one", "1");
    addRule("two", "2");
    model_->onAppear(nullptr);
    model_->setInput(first, "");
    model_->setOutput(first, "");
    EXPECT_FALSE(first->isBlankNew());
    EXPECT_EQ(blankCount(), 1u);
    EXPECT_EQ(context().fetchAll<store::Substitution>().size(), 3u);
}

TEST_F(RuleTable, TheTestBoxShowsStoredRulesThenTheExtraRule) {
    addRule("teh", "the");
    model_->onAppear(nullptr);
    model_->setTestInputText("Teh cat wanna");
    EXPECT_EQ(model_->testOutputText, "The cat wanna");
    model_->setExtraRule("wanna", "want to");
    EXPECT_EQ(model_->testOutputText, "The cat want to");

    // Deleting a rule updates the box at once.
    auto rule = model_->sortedSubstitutions.front();
    model_->deleteRow(rule);
    EXPECT_EQ(model_->testOutputText, "Teh cat want to");
    EXPECT_EQ(inputs(model_->sortedSubstitutions), (std::vector<std::string>{"<blank>"}));
    EXPECT_EQ(context().fetchAll<store::Substitution>().size(), 1u);
}

TEST_F(RuleTable, GrowthOfTheFetchedRowsAsksToScroll) {
    model_->onAppear(nullptr);
    EXPECT_TRUE(model_->fetchedCountChanged());
    EXPECT_FALSE(model_->fetchedCountChanged());
    addRule("x", "y");
    EXPECT_TRUE(model_->fetchedCountChanged());
}

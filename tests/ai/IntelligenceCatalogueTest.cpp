// What the menus show of the catalogue: its rows and their order, the faces of the items, the user's presets in the
// custom row, and where a run from the results dialog sends its result.
#include <gtest/gtest.h>

#include "ai/IntelligenceViewModelImpl.h"
#include "ai/CatalogueTestSupport.h"
#include "base/Digest.h"
#include "platform/test/TestPlatform.h"
#include "shared/AppState.h"
#include "store/AppConstants.h"
#include "store/DatabaseHelpers.h"
#include "store/Entities.h"
#include "store/Persistence.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"

namespace sprelio {
namespace {

using Ids = std::vector<std::optional<std::string>>;

LocalizedLanguage language(const std::string& code) {
    for (const auto& row : languageTable())
        if (row.code == code) return row;
    return {};
}

class Catalogue : public ::testing::Test, protected testing::CatalogueSurroundings {
protected:
    void SetUp() override { ASSERT_FALSE(container_.loadPersistentStores().has_value()); }

    std::shared_ptr<store::IntelligencePreset> storePreset(std::optional<std::string> title, std::int64_t order,
                                                           bool withUuid = true) {
        auto preset = container_.viewContext().insertNew<store::IntelligencePreset>();
        if (withUuid) preset->setUuid(Uuid::random());
        preset->setTitle(std::move(title));
        preset->setOrder(order);
        preset->setPrompt(std::string("Say it shorter."));
        EXPECT_TRUE(store::cdSaveContext(&container_.viewContext(), "test"));
        return preset;
    }

    IntelligenceViewModelImpl& model() {
        if (!model_) {
            model_ = std::make_unique<IntelligenceViewModelImpl>(IntelligenceViewModelImpl::Dependencies{
                settings_, constants_, appState_, tp_, {},
                [this](const std::string& text) { delivered_.push_back("session-paste:" + text); },
                [this](const std::string& text) { delivered_.push_back("dialog:" + text); },
                service_.service(), {}, &container_.viewContext(),
                [this](const std::string& text) { delivered_.push_back("back-to-previous:" + text); }});
        }
        return *model_;
    }

    store::PersistentContainer container_{"Persistence", store::PersistentContainer::kInMemoryStoreFile};
    std::vector<std::string> delivered_;
    testing::PendingAnswers service_;
    std::unique_ptr<IntelligenceViewModelImpl> model_;
};

TEST(IntelligenceRows, LabelsInTheirOrder) {
    std::vector<std::string> labels, pickerLabels;
    for (const auto row : kIntelligenceRows) {
        labels.emplace_back(intelligenceRowLabel(row));
        pickerLabels.emplace_back(intelligenceRowPickerLabel(row));
    }
    EXPECT_EQ(labels,
              (std::vector<std::string>{"Editor", "BuiltIn", "Process", "Tone", "Translate", "Custom", "Other"}));
    EXPECT_EQ(pickerLabels,
              (std::vector<std::string>{"Editor", "BuiltIn", "Process", "Tone", "Translate to", "Custom", "Other"}));
}

TEST_F(Catalogue, RowsHoldEachKindInItsOrderAndTheFlatOrderFollowsThem) {
    settings_.setAiLocalizedTranslationLanguages({language("de"), language("fr")});
    const auto second = storePreset(std::string("Shorter"), 2);
    const auto first = storePreset(std::string("Formal mail"), 1);
    auto& catalogue = model();

    const auto& rows = catalogue.rows();
    ASSERT_EQ(rows.size(), 7u);
    EXPECT_EQ(rows.at(IntelligenceRow::editor), Ids{md5Hex("editor")});
    EXPECT_EQ(rows.at(IntelligenceRow::builtIn),
              (Ids{md5Hex("askAI"), md5Hex("addEmoji"), md5Hex("improveWriting"), md5Hex("fixGrammar")}));
    EXPECT_EQ(rows.at(IntelligenceRow::postProcess),
              (Ids{md5Hex("uppercaseAll"), md5Hex("lowercaseAll"), md5Hex("lowercaseFirstChar"),
                   md5Hex("uppercaseFirstChar"), md5Hex("trimEndingPunctuation")}));
    EXPECT_EQ(rows.at(IntelligenceRow::tone),
              (Ids{md5Hex("professional"), md5Hex("formal"), md5Hex("fun"), md5Hex("flirt"), md5Hex("positive"),
                   md5Hex("negative"), md5Hex("neutral")}));
    EXPECT_EQ(rows.at(IntelligenceRow::translate), (Ids{md5Hex("de"), md5Hex("fr")}));
    EXPECT_EQ(rows.at(IntelligenceRow::custom), (Ids{first->uuid()->string(), second->uuid()->string()}))
        << "the presets in the user's order";
    EXPECT_EQ(rows.at(IntelligenceRow::other), (Ids{md5Hex("useAsIs"), md5Hex("showActionsDialog")}));

    const auto& ordered = catalogue.orderedItems();
    ASSERT_EQ(ordered.size(), 1u + 4 + 5 + 7 + 2 + 2 + 2);
    EXPECT_EQ(ordered.front(), (IntelligenceRowItem{IntelligenceRow::editor, md5Hex("editor")}));
    EXPECT_EQ(ordered[1], (IntelligenceRowItem{IntelligenceRow::builtIn, md5Hex("askAI")}));
    EXPECT_EQ(ordered[17], (IntelligenceRowItem{IntelligenceRow::translate, md5Hex("de")}));
    EXPECT_EQ(ordered[19], (IntelligenceRowItem{IntelligenceRow::custom, first->uuid()->string()}));
    EXPECT_EQ(ordered.back(), (IntelligenceRowItem{IntelligenceRow::other, md5Hex("showActionsDialog")}));
    const auto& picker = catalogue.orderedActionsTranslationsPickerItems();
    ASSERT_EQ(picker.size(), ordered.size() - 1);
    EXPECT_TRUE(std::equal(picker.begin(), picker.end(), ordered.begin() + 1)) << "everything but the editor";

    EXPECT_TRUE(logs_.contains("intelligencePresets.didSet{} - count: 2"));
    EXPECT_TRUE(logs_.contains("updateFilteredIntelligencePresets() - caller: intelligencePresets.didSet{}"));
    EXPECT_TRUE(logs_.contains("updateRows() - caller: intelligencePresets.didSet{}"));
}

TEST_F(Catalogue, ARecomputeFollowsTheSettingsAndTheStoreAndNamesItsCaller) {
    auto& catalogue = model();
    EXPECT_TRUE(catalogue.rows().at(IntelligenceRow::custom).empty());
    settings_.setAiLocalizedTranslationLanguages({language("ja")});
    catalogue.updateRows("test.languages");
    EXPECT_TRUE(logs_.contains("updateRows() - caller: test.languages"));
    EXPECT_EQ(catalogue.rows().at(IntelligenceRow::translate), Ids{md5Hex("ja")});

    const auto preset = storePreset(std::string("Pirate"), 0);
    EXPECT_TRUE(catalogue.rows().at(IntelligenceRow::custom).empty()) << "read again only when told";
    catalogue.intelligencePresetsDidChange();
    EXPECT_EQ(catalogue.rows().at(IntelligenceRow::custom), Ids{preset->uuid()->string()});
    EXPECT_EQ(catalogue.filteredIntelligencePresets().size(), 1u);
    catalogue.updateFilteredIntelligencePresets("IntelligenceResultsView.onAppear");
    EXPECT_TRUE(logs_.contains("updateFilteredIntelligencePresets() - caller: IntelligenceResultsView.onAppear"));
    EXPECT_TRUE(logs_.contains("updateRows() - caller: IntelligenceResultsView.onAppear"));
}

TEST_F(Catalogue, TitlesAndEmojiOfEveryKindWithTheFallbackForTheUnknown) {
    const auto named = storePreset(std::string("Pirate speak"), 0);
    const auto untitled = storePreset(std::nullopt, 1);
    auto& catalogue = model();
    const std::vector<std::tuple<std::string, std::string, std::string>> faces = {
        {md5Hex("useAsIs"), "Use as is", "✅"},
        {md5Hex("showActionsDialog"), "Show actions dialog", "💬"},
        {md5Hex("askAI"), "Ask AI", "🤖"},
        {md5Hex("addEmoji"), "Add Emoji", "📝"},
        {md5Hex("improveWriting"), "Improve Writing", "✍️"},
        {md5Hex("fixGrammar"), "Fix Grammar", "✨"},
        {md5Hex("uppercaseAll"), "UPPERCASE ALL", "🔠"},
        {md5Hex("lowercaseAll"), "lowercase all", "🔡"},
        {md5Hex("lowercaseFirstChar"), "start with a lowercase letter", "⬇️"},
        {md5Hex("uppercaseFirstChar"), "Start with an Uppercase letter", "⬆️"},
        {md5Hex("trimEndingPunctuation"), "Trim Ending Punctuation", "✂️"},
        {md5Hex("formal"), "Formal", "🎩"},
        {md5Hex("de"), language("de").localized, "🌐"},
        {named->uuid()->string(), "Pirate speak", "🅰️"},
        {untitled->uuid()->string(), "Custom Preset", "🅰️"},
    };
    for (const auto& [id, title, emoji] : faces) {
        EXPECT_EQ(catalogue.getTitleForItem(id), title) << id;
        EXPECT_EQ(catalogue.getEmojiForItem(id), emoji) << id;
    }
    EXPECT_FALSE(logs_.containsPrefix("getTitleForItem: unable")) << "every one of them is known";
    EXPECT_FALSE(logs_.containsPrefix("getEmojiForItem: unable"));

    EXPECT_EQ(catalogue.getTitleForItem("gone"), "Custom Preset");
    EXPECT_EQ(catalogue.getEmojiForItem("gone"), "🅰️");
    EXPECT_TRUE(logs_.contains("getTitleForItem: unable to retrieve title for item with itemId: gone"));
    EXPECT_TRUE(logs_.contains("getEmojiForItem: unable to retrieve emoji for item with itemId: gone"));
}

TEST_F(Catalogue, PresetsWithoutUuidGetOneAndAreSaved) {
    storePreset(std::string("Old preset"), 0, false);
    auto& catalogue = model();
    EXPECT_TRUE(logs_.contains("checkandFixMissingIntelligencePresetUUID() - caller: IntelligenceViewModel.init",
                               LogLevel::debug));
    EXPECT_TRUE(logs_.contains("checkAndFixMissingIntelligencePresetUUID() - added UUID to preset Old preset"));
    EXPECT_FALSE(container_.viewContext().hasChanges()) << "saved";
    ASSERT_EQ(catalogue.rows().at(IntelligenceRow::custom).size(), 1u);
    const auto id = catalogue.rows().at(IntelligenceRow::custom).front();
    ASSERT_TRUE(id.has_value());
    EXPECT_EQ(catalogue.getTitleForItem(*id), "Old preset");

    logs_.clear();
    catalogue.checkAndFixMissingIntelligencePresetUUID("again");
    EXPECT_FALSE(logs_.containsPrefix("checkAndFixMissingIntelligencePresetUUID() - added")) << "nothing left to fix";
}

TEST_F(Catalogue, ARunFromTheDialogGoesBackToItByItsCloseFlag) {
    auto& catalogue = model();
    catalogue.executeActionForItemWithText(md5Hex("uppercaseAll"), "stay", false, false, std::nullopt);
    catalogue.executeActionForItemWithText(md5Hex("uppercaseAll"), "close", true, false, std::nullopt);
    catalogue.executeActionForItemWithText(md5Hex("useAsIs"), "as is", true, false, std::nullopt);
    EXPECT_EQ(delivered_,
              (std::vector<std::string>{"dialog:STAY", "back-to-previous:CLOSE", "back-to-previous:as is"}));

    // A type of its own wins over the close flag.
    delivered_.clear();
    catalogue.executeActionForItemWithText(md5Hex("lowercaseAll"), "SHOWN", true, false,
                                           IntelligenceActionCompletionType::dialog);
    catalogue.executeActionForItemWithText(md5Hex("lowercaseAll"), "PASTED", false, false,
                                           IntelligenceActionCompletionType::paste);
    EXPECT_EQ(delivered_, (std::vector<std::string>{"dialog:shown", "back-to-previous:pasted"}));

    // An active shortcut has no say over a run from the dialog; it still has over the session's.
    auto shortcut = std::make_shared<store::UserShortcut>();
    shortcut->setIntelligenceActionCompletionType(std::string("dialog"));
    appState_.setCurrentlyActiveUserShortcut(shortcut);
    delivered_.clear();
    catalogue.executeActionForItemWithText(md5Hex("uppercaseAll"), "dialog run", true, false, std::nullopt);
    catalogue.executeActionForItemWithText(md5Hex("uppercaseAll"), "session run", false, std::nullopt);
    EXPECT_EQ(delivered_, (std::vector<std::string>{"back-to-previous:DIALOG RUN", "dialog:SESSION RUN"}));
}

TEST_F(Catalogue, AServerStepFromTheDialogThatFailsPastesTheTextWhereTheUserCameFrom) {
    auto& catalogue = model();
    catalogue.executeActionForItemWithText(md5Hex("fixGrammar"), "my own words", false, false, std::nullopt);
    ASSERT_EQ(service_.asked, std::vector<std::string>{"fix_grammar/:my own words"});
    service_.waiting[0](std::nullopt, std::string("Invalid response from the AI processing server."));
    EXPECT_EQ(delivered_, std::vector<std::string>{"back-to-previous:my own words"});
    EXPECT_TRUE(tp_.called("sound:Glass"));
    EXPECT_TRUE(logs_.contains("IntelligenceResultsView() - recordAndProcessWithAI completion failed with error: "
                               "Invalid response from the AI processing server. - will paste transcribed text "
                               "instead: <privatized>",
                               LogLevel::error));

    // A success lands in the dialog when it stays open.
    catalogue.executeActionForItemWithText(md5Hex("formal"), "hi", false, false, std::nullopt);
    ASSERT_EQ(service_.asked.back(), "tone/formal:hi");
    service_.waiting.back()(std::string("Good day."), std::nullopt);
    EXPECT_EQ(delivered_.back(), "dialog:Good day.");
}

} // namespace
} // namespace sprelio

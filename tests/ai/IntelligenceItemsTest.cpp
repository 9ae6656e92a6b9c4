// Item ids of the AI catalogue and the prompt that rides along with an upload.
#include <gtest/gtest.h>

#include "ai/IntelligenceItems.h"
#include "base/Digest.h"
#include "platform/test/TestPlatform.h"

namespace sprelio {
namespace {

std::vector<LocalizedLanguage> targets() {
    return {LocalizedLanguage{"de", "German", "German", "Deutsch"},
            LocalizedLanguage{"", "", "", ""}};
}

TEST(IntelligenceItems, IdsAreDigestsOfTheCaseNames) {
    EXPECT_EQ(intelligenceItemId("useAsIs"), md5Hex("useAsIs"));
    EXPECT_EQ(intelligenceItemId("fixGrammar").size(), 32u);
    EXPECT_NE(intelligenceItemId("fixGrammar"), intelligenceItemId("fix_grammar"));

    using Kind = IntelligenceItem::Kind;
    EXPECT_EQ(classifyIntelligenceItem(md5Hex("showActionsDialog"), targets()).kind, Kind::hardCoded);
    EXPECT_EQ(classifyIntelligenceItem(md5Hex("addEmoji"), targets()).kind, Kind::builtIn);
    EXPECT_EQ(classifyIntelligenceItem(md5Hex("trimEndingPunctuation"), targets()).kind, Kind::postProcess);
    EXPECT_EQ(classifyIntelligenceItem(md5Hex("flirt"), targets()).kind, Kind::tone);
    EXPECT_EQ(classifyIntelligenceItem(md5Hex("de"), targets()).kind, Kind::translation);
    // The empty row of the language list is no target.
    EXPECT_EQ(classifyIntelligenceItem(md5Hex(""), targets()).kind, Kind::notFound);
    EXPECT_EQ(classifyIntelligenceItem(md5Hex("fr"), targets()).kind, Kind::notFound);
    EXPECT_EQ(classifyIntelligenceItem("7D4C1A8E-0000-4000-8000-000000000001", targets(),
                                       {"7D4C1A8E-0000-4000-8000-000000000001"})
                  .kind,
              Kind::preset);
}

TEST(IntelligenceItems, OnlyServerItemsRideAlongWithTheUpload) {
    platform::test::RecordingLogSink logs;
    const auto grammar = promptIdForItemWithId(md5Hex("fixGrammar"), targets(), {}, "de", "en");
    ASSERT_TRUE(grammar);
    EXPECT_EQ(*grammar, (AICompletionPromptId{"fix_grammar", "", "", "de", "en"}));
    EXPECT_TRUE(logs.contains("promptIdForItemWithId() - Item == .builtIn: fixGrammar"));

    EXPECT_EQ(promptIdForItemWithId(md5Hex("formal"), targets(), {}, "en", "en"),
              (AICompletionPromptId{"tone", "formal", "", "en", "en"}));
    EXPECT_EQ(promptIdForItemWithId(md5Hex("de"), targets(), {}, "en", "en"),
              (AICompletionPromptId{"translate", "de", "", "en", "en"}));

    EXPECT_FALSE(promptIdForItemWithId(md5Hex("uppercaseAll"), targets(), {}, "en", "en"));
    EXPECT_FALSE(promptIdForItemWithId("preset-uuid", targets(), {"preset-uuid"}, "en", "en"));
    EXPECT_TRUE(logs.contains("promptIdForItemWithId() - Item == IntelligencePreset: preset-uuid - WARNING: currently "
                              "unhandled"));
    EXPECT_FALSE(promptIdForItemWithId(md5Hex("useAsIs"), targets(), {}, "en", "en"));
    EXPECT_FALSE(promptIdForItemWithId("nothing", targets(), {}, "en", "en"));
    EXPECT_TRUE(logs.contains("promptIdForItemWithId() - found no Item for itemId: nothing"));
}

} // namespace
} // namespace sprelio

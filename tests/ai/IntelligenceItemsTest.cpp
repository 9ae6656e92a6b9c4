// Item ids of the AI catalogue and the prompt that rides along with an upload.
#include <gtest/gtest.h>

#include "ai/IntelligenceItems.h"
#include "base/Digest.h"
#include "platform/test/TestPlatform.h"

namespace sprelio {
namespace {

TEST(IntelligenceItems, IdsAreDigestsOfTheCaseNames) {
    EXPECT_EQ(intelligenceItemId("useAsIs"), md5Hex("useAsIs"));
    EXPECT_EQ(intelligenceItemId("fixGrammar").size(), 32u);
    EXPECT_NE(intelligenceItemId("fixGrammar"), intelligenceItemId("fix_grammar"));

    using Kind = IntelligenceItem::Kind;
    EXPECT_EQ(classifyIntelligenceItem(md5Hex("showActionsDialog")).kind, Kind::hardCoded);
    EXPECT_EQ(classifyIntelligenceItem(md5Hex("addEmoji")).kind, Kind::builtIn);
    EXPECT_EQ(classifyIntelligenceItem(md5Hex("trimEndingPunctuation")).kind, Kind::postProcess);
    EXPECT_EQ(classifyIntelligenceItem(md5Hex("flirt")).kind, Kind::tone);
    // Any language of the table is a target, whether or not the user's list of translations offers it: the
    // default Alt+T translates into Spanish on a fresh install.
    for (const char* code : {"de", "es", "fr", "zh"}) {
        const auto item = classifyIntelligenceItem(md5Hex(code));
        EXPECT_EQ(item.kind, Kind::translation) << code;
        EXPECT_EQ(item.name, code);
    }
    // The empty row of the language table is no target, nor a code the table lacks.
    EXPECT_EQ(classifyIntelligenceItem(md5Hex("")).kind, Kind::notFound);
    EXPECT_EQ(classifyIntelligenceItem(md5Hex("xx")).kind, Kind::notFound);
    EXPECT_EQ(classifyIntelligenceItem("7D4C1A8E-0000-4000-8000-000000000001",
                                       {"7D4C1A8E-0000-4000-8000-000000000001"})
                  .kind,
              Kind::preset);
}

TEST(IntelligenceItems, OnlyServerItemsRideAlongWithTheUpload) {
    platform::test::RecordingLogSink logs;
    const auto grammar = promptIdForItemWithId(md5Hex("fixGrammar"), {}, "de", "en");
    ASSERT_TRUE(grammar);
    EXPECT_EQ(*grammar, (AICompletionPromptId{"fix_grammar", "", "", "de", "en"}));
    EXPECT_TRUE(logs.contains("promptIdForItemWithId() - Item == .builtIn: fixGrammar"));

    EXPECT_EQ(promptIdForItemWithId(md5Hex("formal"), {}, "en", "en"),
              (AICompletionPromptId{"tone", "formal", "", "en", "en"}));
    EXPECT_EQ(promptIdForItemWithId(md5Hex("de"), {}, "en", "en"),
              (AICompletionPromptId{"translate", "de", "", "en", "en"}));

    EXPECT_FALSE(promptIdForItemWithId(md5Hex("uppercaseAll"), {}, "en", "en"));
    EXPECT_FALSE(promptIdForItemWithId("preset-uuid", {"preset-uuid"}, "en", "en"));
    EXPECT_TRUE(logs.contains("promptIdForItemWithId() - Item == IntelligencePreset: preset-uuid - WARNING: currently "
                              "unhandled"));
    EXPECT_FALSE(promptIdForItemWithId(md5Hex("useAsIs"), {}, "en", "en"));
    EXPECT_FALSE(promptIdForItemWithId("nothing", {}, "en", "en"));
    EXPECT_TRUE(logs.contains("promptIdForItemWithId() - found no Item for itemId: nothing"));
}

} // namespace
} // namespace sprelio

// The catalogue's actions on a finished text: the local steps, where a result goes, and the fallback to the text
// as it came in for the steps that need the completion service.
#include <gtest/gtest.h>

#include "ai/IntelligenceViewModelImpl.h"
#include "shared/AppState.h"
#include "base/Digest.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"

namespace sprelio {
namespace {

using platform::test::RecordingLogSink;

TEST(PostProcess, TrimEndingPunctuationDropsOneMarkAndTheBlanksWithIt) {
    const auto trim = [](const std::string& text) { return applyPostProcess(PostProcess::trimEndingPunctuation, text); };
    EXPECT_EQ(trim("  Hello there.  \n"), "Hello there");
    EXPECT_EQ(trim("こんにちは。"), "こんにちは");
    EXPECT_EQ(trim("Wow!!"), "Wow!") << "only one mark goes";
    EXPECT_EQ(trim("Fine，"), "Fine");
    EXPECT_EQ(trim("  no mark here  "), "  no mark here  ") << "without a mark the text comes back untrimmed";
    EXPECT_EQ(trim(""), "");
    EXPECT_EQ(trim(" \t "), " \t ");
    EXPECT_EQ(trim("."), "");
    EXPECT_EQ(trim("Line\r\n"), "Line\r\n");
}

TEST(PostProcess, CaseStepsFollowUnicodeRules) {
    EXPECT_EQ(applyPostProcess(PostProcess::uppercaseAll, "straße über"), "STRASSE ÜBER");
    EXPECT_EQ(applyPostProcess(PostProcess::lowercaseAll, "ÉCOLE Ünd"), "école ünd");
    EXPECT_EQ(applyPostProcess(PostProcess::lowercaseFirstChar, "Élan Vital"), "élan Vital");
    EXPECT_EQ(applyPostProcess(PostProcess::uppercaseFirstChar, "élan vital"), "Élan vital");
    EXPECT_EQ(applyPostProcess(PostProcess::uppercaseFirstChar, ""), "");
    // A character made of two code points changes as one.
    EXPECT_EQ(applyPostProcess(PostProcess::uppercaseFirstChar, "e\xCC\x81t\xC3\xA9"), "E\xCC\x81t\xC3\xA9");
}

struct ViewModelHarness {
    platform::test::TestPlatform tp;
    store::AppConstants constants{tp};
    store::MemorySettingsStore store;
    store::Settings settings{store, constants};
    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    RecordingLogSink logs;
    std::vector<std::string> pasted, shown;
    std::vector<std::string> presets;
    IntelligenceViewModelImpl model{IntelligenceViewModelImpl::Dependencies{
        settings, constants, appState, tp, [this] { return presets; },
        [this](const std::string& text) { pasted.push_back(text); },
        [this](const std::string& text) { shown.push_back(text); }}};

    std::size_t sounds(const std::string& name) const {
        std::size_t n = 0;
        for (const auto& call : tp.calls()) n += call == "sound:" + name;
        return n;
    }
};

TEST(IntelligenceViewModelImpl, HardCodedItemsPasteShowOrSkip) {
    ViewModelHarness h;
    h.model.executeActionForItemWithText(md5Hex("useAsIs"), "as it is", std::nullopt);
    EXPECT_EQ(h.pasted, std::vector<std::string>{"as it is"});
    EXPECT_TRUE(h.logs.contains("executeActionForItemWithText() - Item == .useAsIs: /"));
    h.model.executeActionForItemWithText(md5Hex("showActionsDialog"), "for the dialog", std::nullopt);
    EXPECT_EQ(h.shown, std::vector<std::string>{"for the dialog"});
    h.model.executeActionForItemWithText(md5Hex("editor"), "nothing", std::nullopt);
    EXPECT_EQ(h.pasted.size() + h.shown.size(), 2u);
    EXPECT_TRUE(h.logs.contains("executeActionForItemWithText() - Item == .editor: skipping"));
    EXPECT_FALSE(h.logs.containsPrefix("executeActionForItemWithText() - text: as it is")) << "the text is private";
}

TEST(IntelligenceViewModelImpl, PostProcessResultGoesWhereTheCompletionTypeSays) {
    ViewModelHarness h;
    h.model.executeActionForItemWithText(md5Hex("uppercaseAll"), "loud", IntelligenceActionCompletionType::dialog);
    EXPECT_EQ(h.shown, std::vector<std::string>{"LOUD"});
    h.model.executeActionForItemWithText(md5Hex("uppercaseAll"), "pasted", IntelligenceActionCompletionType::paste);
    EXPECT_EQ(h.pasted, std::vector<std::string>{"PASTED"});

    // Without a type of its own the active shortcut's decides.
    auto shortcut = std::make_shared<store::UserShortcut>();
    shortcut->setIntelligenceActionCompletionType(std::string("dialog"));
    h.appState.setCurrentlyActiveUserShortcut(shortcut);
    h.model.executeActionForItemWithText(md5Hex("trimEndingPunctuation"), "Done.", std::nullopt);
    EXPECT_EQ(h.shown.back(), "Done");
    h.appState.setCurrentlyActiveUserShortcut(nullptr);
    h.model.executeActionForItemWithText(md5Hex("lowercaseAll"), "QUIET", std::nullopt);
    EXPECT_EQ(h.pasted.back(), "quiet");
}

TEST(IntelligenceViewModelImpl, ServerStepsFallBackToTheTextAsItCameWithGlass) {
    ViewModelHarness h;
    h.presets = {"7D4C1A8E-0000-4000-8000-000000000001"};
    for (const std::string& id : {md5Hex("fixGrammar"), md5Hex("formal"), md5Hex("en"), h.presets[0]})
        h.model.executeActionForItemWithText(id, "keep my words", IntelligenceActionCompletionType::dialog);
    EXPECT_EQ(h.pasted, std::vector<std::string>(4, "keep my words")) << "the transcript is never lost";
    EXPECT_TRUE(h.shown.empty());
    EXPECT_EQ(h.sounds("Glass"), 4u);
    EXPECT_EQ(h.logs.count("processTextWithBuiltInPrompt() - recordAndProcessWithAI completion failed with error: AI "
                           "actions on a text are not available in this version - will paste transcribed text "
                           "instead: <privatized>"),
              1u);

    h.model.executeActionForItemWithText("no-such-item", "lost?", std::nullopt);
    EXPECT_EQ(h.pasted.size(), 4u);
    EXPECT_TRUE(h.logs.containsPrefix("executeActionForItemWithText() - found no Item for itemId: no-such-item"));
}

TEST(IntelligenceViewModelImpl, ThePromptOfAnItemRidesWithTheUpload) {
    ViewModelHarness h;
    const auto prompt = h.model.promptIdForItemWithId(md5Hex("addEmoji"));
    ASSERT_TRUE(prompt.has_value());
    EXPECT_EQ(prompt->promptId, "add_emoji");
    EXPECT_EQ(prompt->textLang, h.settings.lastDetectedLanguageCode());
    EXPECT_EQ(h.model.promptIdForItemWithId(md5Hex("uppercaseAll")), std::nullopt);
}

} // namespace
} // namespace sprelio

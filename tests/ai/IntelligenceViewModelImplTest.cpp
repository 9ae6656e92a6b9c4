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

// A completion service that records each request and answers when the test says so.
struct ScriptedCompletions {
    struct Request {
        std::optional<AICompletionPromptId> prompt;
        std::optional<std::string> presetId;
        std::string text;
        CompletionRequests::Completion completion;
    };
    CompletionRequests requests() {
        return {[this](const AICompletionPromptId& prompt, CompletionRequests::Completion completion) {
                    received.push_back({prompt, std::nullopt, prompt.text, std::move(completion)});
                },
                [this](const std::string& presetId, const std::string& text, CompletionRequests::Completion completion) {
                    received.push_back({std::nullopt, presetId, text, std::move(completion)});
                }};
    }
    std::vector<Request> received;
};

struct ViewModelHarness {
    platform::test::TestPlatform tp;
    store::AppConstants constants{tp};
    store::MemorySettingsStore store;
    store::Settings settings{store, constants};
    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    RecordingLogSink logs;
    ScriptedCompletions service;
    std::vector<std::string> pasted, shown;
    std::vector<std::string> presets;
    int intelligizing = 0;
    IntelligenceViewModelImpl model{IntelligenceViewModelImpl::Dependencies{
        settings, constants, appState, tp, [this] { return presets; },
        [this](const std::string& text) { pasted.push_back(text); },
        [this](const std::string& text) { shown.push_back(text); }, service.requests(),
        [this] { ++intelligizing; }}};

    std::size_t sounds(const std::string& name) const {
        std::size_t n = 0;
        for (const auto& call : tp.calls()) n += call == "sound:" + name;
        return n;
    }
};

TEST(IntelligenceViewModelImpl, HardCodedItemsPasteShowOrSkip) {
    ViewModelHarness h;
    h.model.executeActionForItemWithText(md5Hex("useAsIs"), "as it is", false, std::nullopt);
    EXPECT_EQ(h.pasted, std::vector<std::string>{"as it is"});
    EXPECT_TRUE(h.logs.contains("executeActionForItemWithText() - Item == .useAsIs: /"));
    h.model.executeActionForItemWithText(md5Hex("showActionsDialog"), "for the dialog", false, std::nullopt);
    EXPECT_EQ(h.shown, std::vector<std::string>{"for the dialog"});
    h.model.executeActionForItemWithText(md5Hex("editor"), "nothing", false, std::nullopt);
    EXPECT_EQ(h.pasted.size() + h.shown.size(), 2u);
    EXPECT_TRUE(h.logs.contains("executeActionForItemWithText() - Item == .editor: skipping"));
    EXPECT_FALSE(h.logs.containsPrefix("executeActionForItemWithText() - text: as it is")) << "the text is private";
}

TEST(IntelligenceViewModelImpl, PostProcessResultGoesWhereTheCompletionTypeSays) {
    ViewModelHarness h;
    h.model.executeActionForItemWithText(md5Hex("uppercaseAll"), "loud", false, IntelligenceActionCompletionType::dialog);
    EXPECT_EQ(h.shown, std::vector<std::string>{"LOUD"});
    h.model.executeActionForItemWithText(md5Hex("uppercaseAll"), "pasted", false, IntelligenceActionCompletionType::paste);
    EXPECT_EQ(h.pasted, std::vector<std::string>{"PASTED"});

    // Without a type of its own the active shortcut's decides.
    auto shortcut = std::make_shared<store::UserShortcut>();
    shortcut->setIntelligenceActionCompletionType(std::string("dialog"));
    h.appState.setCurrentlyActiveUserShortcut(shortcut);
    h.model.executeActionForItemWithText(md5Hex("trimEndingPunctuation"), "Done.", false, std::nullopt);
    EXPECT_EQ(h.shown.back(), "Done");
    h.appState.setCurrentlyActiveUserShortcut(nullptr);
    h.model.executeActionForItemWithText(md5Hex("lowercaseAll"), "QUIET", false, std::nullopt);
    EXPECT_EQ(h.pasted.back(), "quiet");
    EXPECT_EQ(h.intelligizing, 0) << "local steps need no AI overlay";
}

TEST(IntelligenceViewModelImpl, ServerStepsAskTheServiceAndDeliverItsAnswer) {
    ViewModelHarness h;
    h.settings.setLastDetectedLanguageCode("de");
    h.presets = {"7D4C1A8E-0000-4000-8000-000000000001"};
    struct Row {
        std::string itemId;
        std::optional<AICompletionPromptId> prompt; // nothing: the preset's own request
    };
    const std::string app = h.constants.appLanguageCode();
    const Row rows[] = {
        {md5Hex("fixGrammar"), AICompletionPromptId{"fix_grammar", "", "my words", "de", app}},
        {md5Hex("formal"), AICompletionPromptId{"tone", "formal", "my words", "de", app}},
        // Spanish is in no list of the user's: every language of the table can be a target.
        {md5Hex("es"), AICompletionPromptId{"translate", "es", "my words", "de", app}},
        {h.presets[0], std::nullopt},
    };
    for (const auto& row : rows) {
        h.model.executeActionForItemWithText(row.itemId, "my words", false, IntelligenceActionCompletionType::paste);
        ASSERT_FALSE(h.service.received.empty()) << row.itemId;
        auto& request = h.service.received.back();
        EXPECT_EQ(request.prompt, row.prompt) << row.itemId;
        EXPECT_EQ(request.presetId, row.prompt ? std::nullopt : std::optional<std::string>(h.presets[0]));
        EXPECT_EQ(request.text, "my words");
        EXPECT_TRUE(h.pasted.empty()) << "nothing is delivered before the answer";
        request.completion(std::string("AI: my words"), std::nullopt);
        EXPECT_EQ(h.pasted, std::vector<std::string>{"AI: my words"}) << row.itemId;
        h.pasted.clear();
    }
    EXPECT_EQ(h.service.received.size(), 4u);
    EXPECT_EQ(h.intelligizing, 4);
    EXPECT_EQ(h.sounds("Glass"), 0u);

    // A result for the dialog opens it instead.
    h.model.executeActionForItemWithText(md5Hex("improveWriting"), "draft", false,
                                         IntelligenceActionCompletionType::dialog);
    h.service.received.back().completion(std::string("Better draft"), std::nullopt);
    EXPECT_EQ(h.shown, std::vector<std::string>{"Better draft"});
    EXPECT_FALSE(h.logs.containsPrefix("processTextWithBuiltInPrompt() - text: draft")) << "the text is private";
}

TEST(IntelligenceViewModelImpl, AFailedServerStepPastesTheTextAsItCameWithGlass) {
    ViewModelHarness h;
    h.model.executeActionForItemWithText(md5Hex("addEmoji"), "keep my words", false,
                                         IntelligenceActionCompletionType::dialog);
    ASSERT_EQ(h.service.received.size(), 1u);
    h.service.received[0].completion(std::nullopt, std::string("Invalid response from the AI processing server."));
    EXPECT_EQ(h.pasted, std::vector<std::string>{"keep my words"}) << "the transcript is never lost";
    EXPECT_TRUE(h.shown.empty());
    EXPECT_EQ(h.sounds("Glass"), 1u);
    EXPECT_TRUE(h.logs.contains("processTextWithBuiltInPrompt() - recordAndProcessWithAI completion failed with error: "
                                "Invalid response from the AI processing server. - will paste transcribed text "
                                "instead: <privatized>",
                                LogLevel::error));

    h.model.executeActionForItemWithText("no-such-item", "lost?", false, std::nullopt);
    EXPECT_EQ(h.pasted.size(), 1u);
    EXPECT_EQ(h.service.received.size(), 1u);
    EXPECT_TRUE(h.logs.contains("executeActionForItemWithText() - found no Item for itemId: no-such-item, or skipped "
                                "because of expectingCompletion (false)"));
}

TEST(IntelligenceViewModelImpl, AnAnswerAfterTheCatalogueIsGoneIsDropped) {
    ViewModelHarness h;
    std::vector<std::string> pasted;
    auto model = std::make_unique<IntelligenceViewModelImpl>(IntelligenceViewModelImpl::Dependencies{
        h.settings, h.constants, h.appState, h.tp, {}, [&](const std::string& text) { pasted.push_back(text); }, {},
        h.service.requests(), {}});
    model->executeActionForItemWithText(md5Hex("fixGrammar"), "late", false, std::nullopt);
    ASSERT_EQ(h.service.received.size(), 1u);
    model.reset();
    h.service.received[0].completion(std::string("too late"), std::nullopt);
    EXPECT_TRUE(pasted.empty());
}

TEST(IntelligenceViewModelImpl, WithTheCompletionExpectedServerStepsWaitAndLocalStepsRun) {
    ViewModelHarness h;
    h.model.executeActionForItemWithText(md5Hex("improveWriting"), "draft", true, std::nullopt);
    h.model.executeActionForItemWithText(md5Hex("es"), "draft", true, std::nullopt);
    EXPECT_TRUE(h.service.received.empty()) << "the server has the work already";
    EXPECT_TRUE(h.pasted.empty());
    EXPECT_TRUE(h.logs.contains("executeActionForItemWithText() - found no Item for itemId: " + md5Hex("es") +
                                ", or skipped because of expectingCompletion (true)"));
    h.model.executeActionForItemWithText(md5Hex("uppercaseAll"), "draft", true, std::nullopt);
    EXPECT_EQ(h.pasted, std::vector<std::string>{"DRAFT"});
}

TEST(IntelligenceViewModelImpl, ThePromptOfAnItemRidesWithTheUpload) {
    ViewModelHarness h;
    const auto prompt = h.model.promptIdForItemWithId(md5Hex("addEmoji"));
    ASSERT_TRUE(prompt.has_value());
    EXPECT_EQ(prompt->promptId, "add_emoji");
    EXPECT_EQ(prompt->textLang, h.settings.lastDetectedLanguageCode());
    EXPECT_EQ(h.model.promptIdForItemWithId(md5Hex("uppercaseAll")), std::nullopt);
    const auto spanish = h.model.promptIdForItemWithId(md5Hex("es"));
    ASSERT_TRUE(spanish.has_value());
    EXPECT_EQ(spanish->promptId, "translate");
    EXPECT_EQ(spanish->promptParam, "es");
}

} // namespace
} // namespace sprelio

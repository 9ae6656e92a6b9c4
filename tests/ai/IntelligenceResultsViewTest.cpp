// The results dialog's logic over the real catalogue on the deterministic platform: opening, every key of its
// keyboard model, the clicks on items, the undo of an AI step, closing, and the way back into the application that
// was in front.
#include <gtest/gtest.h>

#include <algorithm>

#include "ai/IntelligenceResultsView.h"
#include "ai/IntelligenceViewModelImpl.h"
#include "ai/CatalogueTestSupport.h"
#include "base/Digest.h"
#include "platform/test/TestPlatform.h"
#include "shared/AppState.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"

namespace sprelio {
namespace {

using View = IntelligenceResultsView;

constexpr std::uint64_t kArrowBits = 0x800000 | 0x200000; // function and numeric-pad bits
constexpr std::uint64_t kPageBits = 0x800000;
constexpr std::uint64_t kShift = 0x20000;
constexpr std::uint64_t kOption = 0x80000;
constexpr std::uint64_t kCommand = View::kCommandFlag;

// The window as the logic sees it: what it was told, and a closing that reports back like a real one.
class FakeDialogWindow final : public ResultsDialogWindow {
public:
    void show(const std::optional<platform::Rect>& frame) override {
        shownAt.push_back(frame);
        visible = true;
    }
    void makeKeyAndOrderFront() override {
        ++broughtForward;
        key = visible;
    }
    bool isKeyWindow() const override { return key; }
    void close() override {
        ++closes;
        if (view) view->windowWillClose();
        visible = key = false;
    }
    void refresh() override { ++refreshes; }

    View* view = nullptr;
    std::vector<std::optional<platform::Rect>> shownAt;
    bool visible = false;
    bool key = false;
    int broughtForward = 0;
    int closes = 0;
    int refreshes = 0;
};

class FakePointer final : public platform::PointerLocation {
public:
    std::optional<platform::Point> mouseLocation() const override { return at; }
    std::optional<platform::Point> at;
};

class ResultsDialog : public ::testing::Test, protected testing::CatalogueSurroundings {
protected:
    ResultsDialog() {
        tp_.screenList = {platform::ScreenInfo{"main", std::nullopt, {0, 0, 1920, 1080}, 1.0, true}};
        tp_.frontmost = kEditorApp;
        window_.view = &view_;
        view_.setWindow(&window_);
    }

    // Opens the dialog with the text, the way a result of the session does, and lets it take the keyboard.
    void open(const std::string& text) {
        view_.showCompletion(text);
        tp_.runUntilIdle();
        ASSERT_TRUE(window_.key);
    }
    bool press(std::uint16_t keyCode, std::uint64_t flags = 0) {
        const bool taken = view_.keyDown(keyCode, flags);
        tp_.runUntilIdle();
        return taken;
    }
    std::vector<std::string> ids() const {
        std::vector<std::string> list;
        for (const auto& [row, id] : catalogue_.orderedItems())
            if (id) list.push_back(*id);
        return list;
    }
    // The application in front comes back when asked to.
    void frontComesBackWhenAsked() { tp_.frontmost = kEditorApp; }
    std::size_t count(const std::string& call) const {
        const auto calls = tp_.calls();
        return static_cast<std::size_t>(std::count(calls.begin(), calls.end(), call));
    }

    const platform::RunningApplication kEditorApp{4242, "org.example.Editor", std::string("Editor")};
    const platform::RunningApplication kSelf{99, "com.sprelio.app", std::string("Sprelio")};
    FakePointer pointer_;
    FakeDialogWindow window_;
    std::vector<std::string> pasted_;
    testing::PendingAnswers service_;
    int idleReturns_ = 0;
    IntelligenceViewModelImpl catalogue_{IntelligenceViewModelImpl::Dependencies{
        settings_, constants_, appState_, tp_, {},
        [this](const std::string& text) { pasted_.push_back("session:" + text); },
        [this](const std::string& text) { view_.showCompletion(text); },
        service_.service(), {}, nullptr,
        [this](const std::string& text) { view_.pasteToPreviousWindowThenClose(text); }}};
    View view_{View::Dependencies{tp_.loop(), settings_, tp_, tp_, pointer_, catalogue_, "Sprelio AI Results",
                                  "com.sprelio.app", [this] { ++idleReturns_; },
                                  [this](const std::string& text) { pasted_.push_back(text); }}};
};

TEST_F(ResultsDialog, OpeningShowsTheTextReturnsTheSessionToIdleAndThenTakesTheKeyboard) {
    settings_.setIntelligenceResultsView_selectedItemId(md5Hex("fixGrammar"));
    view_.showCompletion("a text to work on");
    EXPECT_TRUE(view_.isOpen());
    EXPECT_EQ(view_.generatedText(), "a text to work on");
    EXPECT_EQ(view_.selectedItemId(), md5Hex("fixGrammar")) << "the selection survives between openings";
    EXPECT_FALSE(view_.isEditorEnabledByTapGesture());
    ASSERT_EQ(window_.shownAt.size(), 1u);
    EXPECT_EQ(window_.shownAt[0], std::nullopt) << "no stored frame: the desktop places it";
    EXPECT_EQ(idleReturns_, 1);
    EXPECT_TRUE(logs_.contains("updateFilteredIntelligencePresets() - caller: IntelligenceResultsView.onAppear"));
    EXPECT_TRUE(logs_.contains("IntelligenceResultsView.selectedItemId: " + md5Hex("fixGrammar")));
    EXPECT_TRUE(logs_.contains("IntelligenceResultsView.generatedText: <privatized>"));
    EXPECT_FALSE(logs_.containsPrefix("IntelligenceResultsView.generatedText: a text")) << "the text is private";
    EXPECT_EQ(window_.broughtForward, 0) << "the return to idle hands the focus back first";
    tp_.runUntilIdle();
    EXPECT_EQ(window_.broughtForward, 1);
    EXPECT_TRUE(window_.key);
    EXPECT_EQ(view_.items().size(), ids().size());
    EXPECT_EQ(view_.items().front().title, "Editor");
}

TEST_F(ResultsDialog, ItOpensAtTheStoredFrameOrAtThePointer) {
    settings_.setIntelligenceResultsViewFrame(platform::Rect{100, 200, 600, 400});
    open("one");
    EXPECT_EQ(window_.shownAt.back(), (platform::Rect{100, 200, 600, 400}));
    view_.close();

    // A frame on a screen that has gone is not used.
    settings_.setIntelligenceResultsViewFrame(platform::Rect{5000, 200, 600, 400});
    open("two");
    EXPECT_EQ(window_.shownAt.back(), std::nullopt);
    view_.close();

    // At the pointer: the top left corner there, with the stored size.
    settings_.setIntelligenceResultsViewFrame(platform::Rect{100, 200, 600, 400});
    settings_.setShowAIResultsViewAtCursorPosition(true);
    pointer_.at = platform::Point{300, 900};
    open("three");
    EXPECT_EQ(window_.shownAt.back(), (platform::Rect{300, 500, 600, 400}));
    view_.close();

    // Near the corner of the screen it is moved just enough to stay on it.
    settings_.setIntelligenceResultsViewFrame(std::nullopt);
    pointer_.at = platform::Point{1900, 100};
    open("four");
    EXPECT_EQ(window_.shownAt.back(),
              (platform::Rect{1920 - View::kDefaultWidth, 0, View::kDefaultWidth, View::kDefaultHeight}));
}

TEST_F(ResultsDialog, ReturnWithUseAsIsPastesTheTextUnchangedIntoTheApplicationThatWasInFront) {
    settings_.setIntelligenceResultsView_selectedItemId(md5Hex("useAsIs"));
    open("Keep me exactly.");
    tp_.frontmost = kSelf; // the dialog is in front now
    tp_.clearCalls();
    const int idleBefore = idleReturns_;
    EXPECT_TRUE(view_.keyDown(View::kReturnKeyCode, 0));
    EXPECT_FALSE(view_.isOpen());
    EXPECT_EQ(window_.closes, 1);
    EXPECT_TRUE(tp_.called("activate:4242:2")) << "the application that was in front is asked back";
    EXPECT_TRUE(pasted_.empty()) << "nothing is pasted before that application is in front";
    frontComesBackWhenAsked();
    tp_.advance(View::kFocusPoll);
    EXPECT_EQ(pasted_, std::vector<std::string>{"Keep me exactly."});
    EXPECT_TRUE(logs_.contains("pasteToPreviousWindowThenClose() - success: true with pasting <privatized>",
                               LogLevel::info));
    EXPECT_TRUE(logs_.contains(
        "intelligenceResultViewControllerWillClose() - window Sprelio AI Results will close, performing cleanup"));
    EXPECT_EQ(idleReturns_, idleBefore + 2) << "the close and the window's cleanup each return to idle";
}

TEST_F(ResultsDialog, ReturnRunsALocalStepOrAServerStepAndTheResultGoesWhereTheUserCameFrom) {
    settings_.setIntelligenceResultsView_selectedItemId(md5Hex("uppercaseAll"));
    open("shout this");
    EXPECT_TRUE(press(View::kReturnKeyCode));
    EXPECT_EQ(pasted_, std::vector<std::string>{"SHOUT THIS"});
    EXPECT_FALSE(view_.isOpen());

    settings_.setIntelligenceResultsView_selectedItemId(md5Hex("improveWriting"));
    open("rough draft");
    EXPECT_TRUE(press(View::kReturnKeyCode));
    EXPECT_FALSE(view_.isOpen()) << "the dialog goes at once; the answer follows it";
    ASSERT_EQ(service_.asked, std::vector<std::string>{"improve_writing/:rough draft"});
    service_.waiting[0](std::string("A polished draft."), std::nullopt);
    tp_.runUntilIdle();
    EXPECT_EQ(pasted_.back(), "A polished draft.");
    EXPECT_EQ(count("activate:4242:2"), 2u);
}

TEST_F(ResultsDialog, TabLeavesTheEditorFirstAndOtherwiseSelectsTheNextItem) {
    settings_.setIntelligenceResultsView_selectedItemId(md5Hex("addEmoji"));
    open("text");
    view_.editorTapped();
    EXPECT_TRUE(view_.isEditorEnabledByTapGesture());
    EXPECT_TRUE(press(View::kTabKeyCode));
    EXPECT_FALSE(view_.isEditorEnabledByTapGesture());
    EXPECT_EQ(view_.selectedItemId(), md5Hex("addEmoji")) << "the keys go back to the list; nothing new is selected";
    EXPECT_TRUE(press(View::kTabKeyCode));
    EXPECT_EQ(view_.selectedItemId(), md5Hex("improveWriting"));
    EXPECT_EQ(settings_.intelligenceResultsView_selectedItemId(), md5Hex("improveWriting"));
}

TEST_F(ResultsDialog, EscapeClosesWithNothingPasted) {
    open("never mind");
    view_.editorTapped();
    EXPECT_TRUE(press(View::kEscapeKeyCode));
    EXPECT_FALSE(view_.isOpen());
    EXPECT_FALSE(view_.isEditorEnabledByTapGesture());
    tp_.advance(View::kFocusWait);
    EXPECT_TRUE(pasted_.empty());
    EXPECT_TRUE(service_.asked.empty());
    EXPECT_FALSE(press(View::kReturnKeyCode)) << "a closed dialog takes no keys";
}

TEST_F(ResultsDialog, CommandReturnUsesTheTextAsItStandsInALaterTask) {
    settings_.setIntelligenceResultsView_selectedItemId(md5Hex("uppercaseAll"));
    open("typed");
    view_.editorTapped();
    view_.editorTextChanged("typed and edited by hand");
    EXPECT_TRUE(view_.keyDown(View::kReturnKeyCode, kCommand));
    EXPECT_FALSE(view_.isEditorEnabledByTapGesture());
    EXPECT_TRUE(view_.isOpen()) << "the paste runs as a task of its own";
    tp_.runUntilIdle();
    EXPECT_FALSE(view_.isOpen());
    EXPECT_EQ(pasted_, std::vector<std::string>{"typed and edited by hand"}) << "no item runs on it";
}

TEST_F(ResultsDialog, CommandReturnWithAnEmptyTextClosesWithNothingPasted) {
    open("");
    EXPECT_TRUE(press(View::kReturnKeyCode, kCommand));
    tp_.advance(View::kFocusWait);
    EXPECT_FALSE(view_.isOpen());
    EXPECT_TRUE(pasted_.empty());
}

TEST_F(ResultsDialog, LeftRightAndPageKeysStepThroughTheItemsWhateverElseIsHeld) {
    const auto all = ids();
    settings_.setIntelligenceResultsView_selectedItemId(all[3]);
    open("text");
    EXPECT_TRUE(press(View::kRightArrowKeyCode, kArrowBits));
    EXPECT_EQ(view_.selectedItemId(), all[4]);
    EXPECT_TRUE(press(View::kRightArrowKeyCode, kArrowBits | kShift | kOption));
    EXPECT_EQ(view_.selectedItemId(), all[5]);
    EXPECT_TRUE(press(View::kLeftArrowKeyCode, kArrowBits | kCommand));
    EXPECT_EQ(view_.selectedItemId(), all[4]);
    EXPECT_TRUE(press(View::kPageDownKeyCode, kPageBits));
    EXPECT_EQ(view_.selectedItemId(), all[5]);
    EXPECT_TRUE(press(View::kPageUpKeyCode, kPageBits | kShift));
    EXPECT_EQ(view_.selectedItemId(), all[4]);
    EXPECT_EQ(settings_.intelligenceResultsView_selectedItemId(), all[4]) << "each step is stored";

    view_.editorTapped();
    EXPECT_TRUE(press(View::kLeftArrowKeyCode, kArrowBits));
    EXPECT_FALSE(view_.isEditorEnabledByTapGesture()) << "an arrow leaves the editor";
}

TEST_F(ResultsDialog, StepsGoRoundAtTheEndsOfTheItems) {
    const auto all = ids();
    settings_.setIntelligenceResultsView_selectedItemId(all.back());
    open("text");
    EXPECT_TRUE(press(View::kRightArrowKeyCode, kArrowBits));
    EXPECT_EQ(view_.selectedItemId(), all.front());
    EXPECT_TRUE(press(View::kLeftArrowKeyCode, kArrowBits));
    EXPECT_EQ(view_.selectedItemId(), all.back());
}

TEST_F(ResultsDialog, AStoredItemThatLeftTheCatalogueSelectsNothingUntilAnArrowIsPressed) {
    settings_.setIntelligenceResultsView_selectedItemId("a preset that was deleted");
    open("text");
    const auto shown = view_.items();
    EXPECT_TRUE(std::none_of(shown.begin(), shown.end(),
                             [&](const View::Item& item) { return item.id == view_.selectedItemId(); }));
    EXPECT_TRUE(press(View::kRightArrowKeyCode, kArrowBits));
    EXPECT_EQ(view_.selectedItemId(), ids().front());

    settings_.setIntelligenceResultsView_selectedItemId("gone again");
    view_.close();
    open("text");
    EXPECT_TRUE(press(View::kLeftArrowKeyCode, kArrowBits));
    EXPECT_EQ(view_.selectedItemId(), ids().back());
}

TEST_F(ResultsDialog, UpAndDownGoByRowsKeepingThePlaceWithinTheRow) {
    // Rows with items here: editor(1), built-in(4), process(5), tone(7), translate(1: English), other(2); the
    // custom row has no presets and is passed over.
    settings_.setAiLocalizedTranslationLanguages({languageTable().front()});
    settings_.setIntelligenceResultsView_selectedItemId(md5Hex("fixGrammar")); // built-in, place 3
    open("text");
    EXPECT_TRUE(press(View::kDownArrowKeyCode, kArrowBits));
    EXPECT_EQ(view_.selectedItemId(), md5Hex("uppercaseFirstChar")) << "process row, place 3";
    EXPECT_TRUE(press(View::kDownArrowKeyCode, kArrowBits));
    EXPECT_EQ(view_.selectedItemId(), md5Hex("flirt")) << "tone row, place 3";
    EXPECT_TRUE(press(View::kDownArrowKeyCode, kArrowBits));
    EXPECT_EQ(view_.selectedItemId(), md5Hex("en")) << "a shorter row gives its last item";
    EXPECT_TRUE(press(View::kDownArrowKeyCode, kArrowBits));
    EXPECT_EQ(view_.selectedItemId(), md5Hex("useAsIs")) << "the empty custom row is passed over";
    EXPECT_TRUE(press(View::kDownArrowKeyCode, kArrowBits));
    EXPECT_EQ(view_.selectedItemId(), md5Hex("editor")) << "round to the first row";
    EXPECT_TRUE(press(View::kUpArrowKeyCode, kArrowBits));
    EXPECT_EQ(view_.selectedItemId(), md5Hex("useAsIs"));
    EXPECT_TRUE(press(View::kUpArrowKeyCode, kArrowBits));
    EXPECT_EQ(view_.selectedItemId(), md5Hex("en"));
}

TEST_F(ResultsDialog, KeysTheDialogHasNoUseForBelongToTheEditor) {
    open("text");
    EXPECT_FALSE(press(0, 0)) << "the letter a";
    EXPECT_FALSE(press(View::kReturnKeyCode, kShift)) << "a new line in the editor";
    EXPECT_FALSE(press(View::kEscapeKeyCode, kOption));
    EXPECT_FALSE(press(View::kReturnKeyCode, kCommand | kShift)) << "only Command alone uses the text as is";
    EXPECT_FALSE(press(View::kZKeyCode, kCommand)) << "no AI step to take back: the editor's own undo";
    EXPECT_TRUE(view_.isOpen());
    EXPECT_TRUE(pasted_.empty());

    // Only the key window hears keys.
    window_.key = false;
    EXPECT_FALSE(press(View::kEscapeKeyCode));
    EXPECT_TRUE(view_.isOpen());
}

TEST_F(ResultsDialog, ARightClickPutsTheResultIntoTheEditorAndCommandZTakesItBack) {
    open("first version");
    view_.rightClick(md5Hex("uppercaseAll"));
    tp_.runUntilIdle();
    EXPECT_TRUE(view_.isOpen()) << "the dialog stays";
    EXPECT_EQ(view_.generatedText(), "FIRST VERSION");
    EXPECT_EQ(view_.selectedItemId(), md5Hex("uppercaseAll"));
    EXPECT_TRUE(pasted_.empty());

    view_.rightClick(md5Hex("formal"));
    ASSERT_EQ(service_.asked, std::vector<std::string>{"tone/formal:FIRST VERSION"});
    service_.waiting[0](std::string("Dear Sir, the first version."), std::nullopt);
    tp_.runUntilIdle();
    EXPECT_EQ(view_.generatedText(), "Dear Sir, the first version.");
    EXPECT_EQ(view_.undoDepth(), 2u);

    EXPECT_TRUE(press(View::kZKeyCode, kCommand));
    EXPECT_EQ(view_.generatedText(), "FIRST VERSION");
    EXPECT_TRUE(press(View::kZKeyCode, kCommand));
    EXPECT_EQ(view_.generatedText(), "first version");
    EXPECT_FALSE(press(View::kZKeyCode, kCommand)) << "nothing left to take back";
    EXPECT_EQ(view_.generatedText(), "first version");
}

TEST_F(ResultsDialog, ALeftClickRunsTheItemAndClosesLikeReturn) {
    open("translate me");
    view_.leftClick(md5Hex("en"));
    EXPECT_FALSE(view_.isOpen());
    EXPECT_EQ(settings_.intelligenceResultsView_selectedItemId(), md5Hex("en"));
    ASSERT_EQ(service_.asked, std::vector<std::string>{"translate/en:translate me"});
    service_.waiting[0](std::string("Translated."), std::nullopt);
    tp_.runUntilIdle();
    EXPECT_EQ(pasted_, std::vector<std::string>{"Translated."});
}

TEST_F(ResultsDialog, AnAIFailureInTheDialogLogsPlaysGlassAndPastesTheTextAsItCame) {
    open("keep my words");
    view_.rightClick(md5Hex("addEmoji"));
    ASSERT_EQ(service_.waiting.size(), 1u);
    service_.waiting[0](std::nullopt, std::string("The AI processing server did not answer in time."));
    tp_.runUntilIdle();
    EXPECT_TRUE(logs_.contains("IntelligenceResultsView() - recordAndProcessWithAI completion failed with error: The "
                               "AI processing server did not answer in time. - will paste transcribed text instead: "
                               "<privatized>",
                               LogLevel::error));
    EXPECT_TRUE(tp_.called("sound:Glass"));
    EXPECT_FALSE(view_.isOpen());
    EXPECT_EQ(pasted_, std::vector<std::string>{"keep my words"}) << "the text is never lost";
}

TEST_F(ResultsDialog, WhenTheApplicationDoesNotComeBackTheTextIsPastedAnywayAndTheFailureLogged) {
    settings_.setIntelligenceResultsView_selectedItemId(md5Hex("useAsIs"));
    open("still pasted");
    tp_.frontmost = kSelf;
    EXPECT_TRUE(press(View::kReturnKeyCode));
    tp_.advance(View::kFocusWait - View::kFocusPoll);
    EXPECT_TRUE(pasted_.empty());
    tp_.advance(View::kFocusPoll);
    EXPECT_EQ(pasted_, std::vector<std::string>{"still pasted"});
    EXPECT_TRUE(logs_.contains("pasteToPreviousWindowThenClose() - success: false with pasting <privatized>",
                               LogLevel::error));

    // Opened while Sprelio itself was in front there is no application to go back to.
    logs_.clear();
    open("no target");
    EXPECT_TRUE(press(View::kReturnKeyCode));
    EXPECT_EQ(pasted_.back(), "no target");
    EXPECT_TRUE(logs_.contains("pasteToPreviousWindowThenClose() - success: false with pasting <privatized>",
                               LogLevel::error));
}

TEST_F(ResultsDialog, ANewTextForTheOpenDialogReplacesTheEditorsAndCanBeTakenBack) {
    open("first");
    const int idleBefore = idleReturns_;
    view_.showCompletion("second");
    EXPECT_EQ(view_.generatedText(), "second");
    EXPECT_EQ(view_.undoDepth(), 1u);
    EXPECT_EQ(window_.shownAt.size(), 1u) << "the same window";
    EXPECT_EQ(idleReturns_, idleBefore + 1) << "the step that brought it is over";
    view_.showCompletion("second");
    EXPECT_EQ(view_.undoDepth(), 1u) << "an unchanged text is no step";
}

TEST_F(ResultsDialog, AWindowClosedByTheUserCleansUpOnce) {
    open("text");
    const int idleBefore = idleReturns_;
    window_.close();
    EXPECT_FALSE(view_.isOpen());
    EXPECT_EQ(idleReturns_, idleBefore + 1);
    EXPECT_EQ(logs_.count("intelligenceResultViewControllerWillClose() - window Sprelio AI Results will close, "
                          "performing cleanup"),
              1u);
    view_.close();
    view_.windowWillClose();
    EXPECT_EQ(idleReturns_, idleBefore + 1) << "a closed dialog has nothing more to clean up";
    EXPECT_FALSE(press(View::kEscapeKeyCode));
}

} // namespace
} // namespace sprelio

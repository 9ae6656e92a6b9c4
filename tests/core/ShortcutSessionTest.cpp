// The actions that are not a plain dictation: copy and ask AI, convert the last recording, continuous speech, the
// show actions, and the transient shortcuts of the floating button's menu.
#include <gtest/gtest.h>

#include "SessionFakes.h"
#include "ai/IntelligenceItems.h"
#include "core/AppShortcutSession.h"
#include "shared/SessionShortcutBuilder.h"
#include "platform/test/TemporaryFolder.h"
#include "store/Persistence.h"

using namespace std::chrono_literals;
using namespace sprelio;
using namespace sprelio::testing;
using sprelio::platform::test::TemporaryFolder;

namespace {

struct ShortcutSessionHarness : SessionHarness {
    platform::test::RecordingLogSink logs;
    TemporaryFolder folder{"sprelio-shortcut-session"};
    store::PersistenceController persistence{folder.path()};
    std::optional<std::string> clipboard;
    std::optional<std::string> primarySelection;
    std::optional<std::string> commandCSelection;
    std::vector<std::string> clipboardWriters;
    std::vector<ContentViewTab> openedTabs;
    std::vector<std::shared_ptr<FakeUploader>> conversions;
    std::vector<std::tuple<bool, ShortcutAction, std::optional<std::string>>> dispatched;
    AppDelegate* shared = &app;

    AppShortcutSession session{AppShortcutSessionDependencies{
        tp.loop(), appState, settings, persistence.container().viewContext(), messages, intelligence,
        continuousSpeech, history,
        // Every read answers later on the loop, as reads from other applications do.
        ClipboardAccess{[this](ClipboardAccess::TextCompletion done) { answerLater(std::move(done), clipboard); },
                        [this](const std::string& text, const std::string& caller) {
                            clipboard = text;
                            clipboardWriters.push_back(caller);
                        },
                        [this](ClipboardAccess::TextCompletion done) {
                            answerLater(std::move(done), primarySelection);
                        },
                        [this](ClipboardAccess::TextCompletion done) {
                            // A copy command replaces the clipboard, as the real one does.
                            if (commandCSelection) clipboard = commandCSelection;
                            answerLater(std::move(done), commandCSelection);
                        }},
        [this] { return shared; },
        [this](bool down, ShortcutAction action, std::optional<std::string> item, ShortcutSession::UserShortcutPtr) {
            dispatched.emplace_back(down, action, std::move(item));
        },
        [this] {
            conversions.push_back(std::make_shared<FakeUploader>());
            return conversions.back();
        },
        [this](ContentViewTab tab) { openedTabs.push_back(tab); }}};
    ShortcutActions actions{session, [] { return 10; }};

    void answerLater(ClipboardAccess::TextCompletion done, std::optional<std::string> text) {
        tp.loop().post([done = std::move(done), text = std::move(text)] { done(text); });
    }

    std::string lastStatusImage() const {
        std::string last;
        for (const auto& call : tp.calls())
            if (call.rfind("statusImage:", 0) == 0) last = call.substr(12);
        return last;
    }

    std::shared_ptr<store::LogEntry> addHistory(double timestamp, std::optional<std::string> fileURL,
                                                std::optional<Uuid> requestID) {
        auto& context = persistence.container().viewContext();
        auto entry = context.insertNew<store::LogEntry>();
        entry->setTimestamp(timestamp);
        entry->setMessage("older text");
        entry->setLevel(4);
        entry->setFileURL(std::move(fileURL));
        entry->setRequestID(requestID);
        context.save();
        return entry;
    }
};

} // namespace

TEST(CopyTextAndAskAI, TheSelectionWinsAndTheClipboardIsGivenBack) {
    ShortcutSessionHarness h;
    h.clipboard = "what the user had copied";
    h.primarySelection = "selected words";
    h.commandCSelection = "copied by command";
    auto shortcut = makeShortcut("copyTextAndAskAI", std::string("item-1"), std::nullopt, std::string("dialog"));
    h.actions.keyDownAction(shortcut);
    EXPECT_TRUE(h.intelligence.executions.empty()) << "the action runs after one post";
    h.run();
    ASSERT_EQ(h.intelligence.executions.size(), 1u);
    EXPECT_EQ(h.intelligence.executions[0].itemId, "item-1");
    EXPECT_EQ(h.intelligence.executions[0].text, "selected words");
    EXPECT_EQ(h.intelligence.executions[0].completionType, IntelligenceActionCompletionType::dialog);
    EXPECT_EQ(h.clipboard, "what the user had copied");
    EXPECT_EQ(h.clipboardWriters, std::vector<std::string>{"keyDownAction"});
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
    EXPECT_TRUE(h.app.recordAudio() == nullptr) << "nothing is recorded";
}

TEST(CopyTextAndAskAI, FallsBackToTheCopyCommandThenToTheClipboardThenToNothing) {
    ShortcutSessionHarness h;
    auto shortcut = makeShortcut("copyTextAndAskAI", std::string("item-2"));
    h.clipboard = "clipboard text";
    h.commandCSelection = "copied by command";
    h.actions.keyDownAction(shortcut);
    h.run();
    ASSERT_EQ(h.intelligence.executions.size(), 1u);
    EXPECT_EQ(h.intelligence.executions[0].text, "copied by command");
    EXPECT_EQ(h.clipboard, "clipboard text") << "the copy command's text must not stay on the clipboard";
    EXPECT_EQ(h.intelligence.executions[0].completionType, std::nullopt);

    h.commandCSelection.reset();
    h.actions.keyDownAction(shortcut);
    h.run();
    EXPECT_EQ(h.intelligence.executions.back().text, "clipboard text");

    h.clipboard.reset();
    h.actions.keyDownAction(shortcut);
    h.run();
    EXPECT_EQ(h.intelligence.executions.back().text, "") << "an empty text is passed on like any other";
    EXPECT_EQ(h.intelligence.executions.size(), 3u);
}

TEST(CopyTextAndAskAI, WithoutAnItemNothingRunsButTheClipboardIsStillRestored) {
    ShortcutSessionHarness h;
    h.clipboard = "keep me";
    h.commandCSelection = "copied";
    h.actions.keyDownAction(makeShortcut("copyTextAndAskAI"));
    h.run();
    EXPECT_TRUE(h.intelligence.executions.empty());
    EXPECT_EQ(h.clipboard, "keep me");
    EXPECT_TRUE(h.logs.contains("copyTextAndAskAI{} - intelligenceActionItemIdString is nil, skipping",
                                    LogLevel::error));
}

TEST(TranscribeLast, SendsTheNewestRecordingAgainAndPastesTheText) {
    ShortcutSessionHarness h;
    const auto recording = h.tp.root() / "recordings" / "a b.caf";
    const auto id = Uuid::random();
    h.addHistory(100, std::nullopt, std::nullopt);
    h.addHistory(200, store::AppConstants::fileURL(recording, false), id);
    auto shortcut = makeShortcut("transcribeLast", std::nullopt, std::string("de"));
    h.actions.keyDownAction(shortcut);
    h.run();
    ASSERT_EQ(h.conversions.size(), 1u);
    ASSERT_EQ(h.conversions[0]->requests.size(), 1u);
    const auto& request = h.conversions[0]->requests[0];
    EXPECT_EQ(request.url, recording) << "the file URL is decoded back to the path";
    EXPECT_EQ(request.requestID, id);
    EXPECT_EQ(request.languages, std::vector<std::string>{"de"});
    EXPECT_EQ(request.inputLanguageCode, "de");
    EXPECT_FALSE(request.promptId.has_value());
    EXPECT_FALSE(request.diarization);

    h.conversions[0]->answer(nlohmann::json{{"text", "converted again"}});
    h.run();
    ASSERT_EQ(h.history.entries.size(), 1u);
    EXPECT_EQ(h.history.entries[0].level, HistoryManagerLogLevel::success);
    EXPECT_EQ(h.history.entries[0].message, "converted again");
    EXPECT_NE(h.history.entries[0].requestID, id) << "the new entry gets a new request id";
    ASSERT_EQ(h.accessibility.injections.size(), 1u);
    EXPECT_EQ(h.accessibility.injections[0].text, "converted again");
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
    EXPECT_FALSE(h.logs.containsPrefix("ShortcutAction.transcribeLast - generatedText: converted"))
        << "dictated text never reaches the log";
}

TEST(TranscribeLast, TheNewestEntryDecidesEvenWithoutARecording) {
    ShortcutSessionHarness h;
    h.addHistory(100, store::AppConstants::fileURL(h.tp.root() / "old.caf", false), Uuid::random());
    h.addHistory(200, std::nullopt, Uuid::random());
    h.actions.keyDownAction(makeShortcut("transcribeLast"));
    h.run();
    EXPECT_TRUE(h.conversions.empty());
    EXPECT_TRUE(h.history.entries.empty());

    ShortcutSessionHarness empty;
    empty.actions.keyDownAction(makeShortcut("transcribeLast"));
    empty.run();
    EXPECT_TRUE(empty.conversions.empty());
}

TEST(TranscribeLast, ErrorsAndStrangeAnswersGoToTheHistory) {
    ShortcutSessionHarness h;
    h.addHistory(200, store::AppConstants::fileURL(h.tp.root() / "r.caf", false), Uuid::random());
    auto shortcut = makeShortcut("transcribeLast");
    h.actions.keyDownAction(shortcut);
    h.run();
    ASSERT_EQ(h.conversions.size(), 1u);
    h.conversions[0]->answer(std::nullopt, Error{"NSURLErrorDomain", -1001, "The request timed out.", {}});
    h.run();
    ASSERT_EQ(h.history.entries.size(), 1u);
    EXPECT_EQ(h.history.entries[0].level, HistoryManagerLogLevel::error);
    EXPECT_EQ(h.history.entries[0].message, "The request timed out.");
    EXPECT_FALSE(h.toasts.shown.empty()) << "the error is shown";

    h.actions.keyDownAction(shortcut);
    h.run();
    ASSERT_EQ(h.conversions.size(), 2u);
    h.conversions[1]->answer(nlohmann::json{{"unexpected", 1}});
    h.run();
    ASSERT_EQ(h.history.entries.size(), 2u);
    EXPECT_EQ(h.history.entries[1].level, HistoryManagerLogLevel::error);
    EXPECT_EQ(h.history.entries[1].message, R"({"unexpected":1})");
    EXPECT_TRUE(h.accessibility.injections.empty());
}

TEST(TranscribeLast, OfflineShowsTheNetworkMessageAndSendsNothing) {
    ShortcutSessionHarness h;
    h.addHistory(200, store::AppConstants::fileURL(h.tp.root() / "r.caf", false), Uuid::random());
    h.appState.setInternetAvailable(false);
    h.actions.keyDownAction(makeShortcut("transcribeLast"));
    h.run();
    EXPECT_TRUE(h.conversions.empty());
    ASSERT_EQ(h.toasts.shown.size(), 1u);
    EXPECT_EQ(h.toasts.shown[0].toast.messageText, "The Internet connection appears to be offline.");
}

TEST(ContinuousVoiceToText, StartsFromIdleAndForcesAnyOtherStateBackToIdle) {
    ShortcutSessionHarness h;
    auto shortcut = makeShortcut("continuousVoiceToText");
    h.actions.keyDownAction(shortcut);
    EXPECT_EQ(h.app.appStatus(), AppActivity::continuousSpeechActive);
    EXPECT_EQ(h.continuousSpeech.startCalls, 1);
    h.run();
    EXPECT_EQ(h.lastStatusImage(), "rec_status");

    h.actions.keyDownAction(shortcut);
    h.run();
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
    EXPECT_EQ(h.continuousSpeech.stopCalls, 1);
    EXPECT_EQ(h.lastStatusImage(), "micro_status");

    // The blunt way out also works while a dictation records; its recorder is left alone.
    h.press(makeShortcut("recordAndTranscribe"));
    h.run();
    ASSERT_EQ(h.app.appStatus(), AppActivity::recording);
    h.actions.keyDownAction(shortcut);
    h.run();
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
    EXPECT_EQ(h.recorder().stopCalls, 0);
}

TEST(ShowActions, OpenTheirTabInEveryStateWithoutChangingIt) {
    ShortcutSessionHarness h;
    const std::vector<std::pair<std::string, ContentViewTab>> cases = {{"showHistory", ContentViewTab::history},
                                                                       {"showSubstitutions", ContentViewTab::substitutions},
                                                                       {"showIntelligence", ContentViewTab::ai},
                                                                       {"showFileToText", ContentViewTab::files}};
    h.press(makeShortcut("recordAndTranscribe"));
    h.run();
    for (const auto& [action, tab] : cases) h.actions.keyDownAction(makeShortcut(action));
    h.run();
    EXPECT_EQ(h.openedTabs, (std::vector<ContentViewTab>{ContentViewTab::history, ContentViewTab::substitutions,
                                                          ContentViewTab::ai, ContentViewTab::files}));
    EXPECT_EQ(h.app.appStatus(), AppActivity::recording);

    h.shared = nullptr;
    h.actions.keyDownAction(makeShortcut("showHistory"));
    h.run();
    EXPECT_EQ(h.openedTabs.size(), 4u);
    EXPECT_TRUE(h.logs.containsPrefix("unwrappedAppDelegate() - AppDelegate.shared is nil."));
}

TEST(SessionShortcuts, DictationWithoutAIIsTheUseAsIsItemPastedInTapMode) {
    auto shortcut = SessionShortcutBuilder::recordAndTranscribe();
    EXPECT_EQ(shortcut->shortcutActionRawValue(), "recordAndTranscribe");
    EXPECT_EQ(shortcut->intelligenceActionCategoryRawValue(), "action");
    EXPECT_EQ(shortcut->intelligenceActionItemIdString(), intelligenceItemId("useAsIs"));
    EXPECT_EQ(shortcut->intelligenceActionCompletionType(), "paste");
    EXPECT_FALSE(shortcut->hold());
    EXPECT_EQ(shortcut->managedObjectContext(), nullptr) << "never inserted, so never saved";
}

TEST(SessionShortcuts, ACopyKeepsTheBaseAndBecomesTheItem) {
    auto base = makeShortcut("recordAndTranscribe", std::nullopt, std::string("fr"));
    base->setHold(true);
    base->setModifierEventKeyCode(61);
    base->setShortcutString("⌥");

    auto translation = SessionShortcutBuilder::copyForItem(
        *base, SessionMenuItem{"lang-id", ShortcutAction::recordAndProcessWithAI, "translation"});
    EXPECT_EQ(translation->shortcutActionRawValue(), "recordAndProcessWithAI");
    EXPECT_EQ(translation->intelligenceActionCategoryRawValue(), "translation");
    EXPECT_EQ(translation->intelligenceActionItemIdString(), "lang-id");
    EXPECT_EQ(translation->intelligenceActionCompletionType(), "paste");
    EXPECT_EQ(translation->inputLanguageCode(), "fr");
    EXPECT_EQ(translation->modifierEventKeyCode(), 61);
    EXPECT_EQ(translation->shortcutString(), "⌥");
    EXPECT_TRUE(translation->hold()) << "recordAndProcessWithAI can hold";

    auto dialog = SessionShortcutBuilder::copyForItem(*base, SessionMenuItem{"d", ShortcutAction::voiceToDialog, "action"});
    EXPECT_FALSE(dialog->hold()) << "voiceToDialog records but can't hold";

    base->setIntelligenceActionCompletionType("dialog");
    auto plain = SessionShortcutBuilder::copyForItem(*base, SessionMenuItem{"emoji-id", std::nullopt, "translation"});
    EXPECT_EQ(plain->shortcutActionRawValue(), "recordAndTranscribe");
    EXPECT_EQ(plain->intelligenceActionCategoryRawValue(), "action");
    EXPECT_EQ(plain->intelligenceActionItemIdString(), "emoji-id");
    EXPECT_EQ(plain->intelligenceActionCompletionType(), "dialog") << "a completion type of its own is kept";
    EXPECT_EQ(base->intelligenceActionItemIdString(), std::nullopt) << "the base is not touched";
}

TEST(SessionShortcuts, ActivationNeedsTheActiveShortcut) {
    ShortcutSessionHarness h;
    EXPECT_EQ(h.appState.activateRecordAndTranscribeShortcut(), nullptr);
    EXPECT_EQ(h.appState.activateSessionShortcut(SessionMenuItem{"x", std::nullopt, "action"}), nullptr);
    EXPECT_EQ(h.appState.floatingButtonMenuShortcut(), nullptr);
    EXPECT_EQ(h.logs.count(
                  "AppState.activateSessionShortcut() - self.currentlyActiveUserShortcut == nil, unable to proceed"),
              2u);

    h.appState.setCurrentlyActiveUserShortcut(makeShortcut("recordAndTranscribe"));
    auto plain = h.appState.activateRecordAndTranscribeShortcut();
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(h.appState.floatingButtonMenuShortcut(), plain);
    auto item = h.appState.activateSessionShortcut(SessionMenuItem{"x", std::nullopt, "action"});
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(h.appState.floatingButtonMenuShortcut(), item);
    EXPECT_EQ(item->intelligenceActionItemIdString(), "x");
    h.appState.setCurrentlyActiveUserShortcut(nullptr);
    EXPECT_EQ(h.appState.floatingButtonMenuShortcut(), nullptr) << "both die with the dictation";
}

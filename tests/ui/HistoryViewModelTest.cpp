// The History tab's logic on a real store: rows, the text cut, the date line, and the row actions with the rule that
// a link to a recording is trusted until an action on it fails.
#include "diagnostics/HistoryTestSupport.h"

#include "backend/AudioUploadManager.h"
#include "ui/HistoryViewModel.h"

namespace sprelio::historytest {
namespace {

class RecordingToasts final : public ToastPresenter {
public:
    void showToast(const SPRToastView& toast, const platform::ScreenInfo&, const platform::Rect&,
                   std::function<void()>) override {
        shown.push_back(toast.messageText);
    }
    void closeAllToasts() override {}
    std::vector<std::string> shown;
};

// The tab's upload client as the retry sees it: it records the call and answers as the test says.
class AnsweringUpload final : public AudioUploadManager {
public:
    struct Call {
        fs::path url;
        Uuid requestID;
        std::vector<std::string> languages;
        std::optional<std::string> inputLanguageCode;
    };
    void uploadRecording(const fs::path& url, const Uuid& requestID, const std::vector<std::string>& languages,
                         const std::optional<AICompletionPromptId>&, bool, const std::optional<std::string>& code,
                         Completion completion) override {
        calls.push_back({url, requestID, languages, code});
        completion(answer, error);
    }
    void cancelUpload() override {}
    std::vector<Call> calls;
    std::optional<nlohmann::json> answer;
    std::optional<Error> error;
};

class HistoryTab : public HistoryFixture {
protected:
    HistoryTab() {
        tp.screenList = {platform::ScreenInfo{"Main", std::string("1"), {0, 0, 1920, 1080}, 1.0, true}};
        settings.setSoundEnabled(true);
    }

    std::unique_ptr<HistoryViewModel> makeModel() {
        return std::make_unique<HistoryViewModel>(HistoryViewModel::Dependencies{
            tp.loop(), tp.loop(), viewContext(), history, maintenance, appState, messages, settings, tp, &upload,
            nullptr,
            [this](const fs::path& path) {
                revealed.push_back(path);
                return true;
            },
            [this](const std::string& text, const std::string& caller) { pasteboard.push_back(caller + ":" + text); }});
    }

    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    RecordingToasts toasts;
    MessageCenter messages{tp.platform(), settings, appState, toasts, "Sprelio"};
    HistoryManagerImpl history{viewContext(), tp};
    MaintenanceManager maintenance{container, settings, tp};
    AnsweringUpload upload;
    std::vector<fs::path> revealed;
    std::vector<std::string> pasteboard;
};

TEST(HistoryRows, TextIsCutAfter4096Characters) {
    EXPECT_EQ(historyRowText(std::nullopt), "");
    const std::string exact(4096, 'a');
    EXPECT_EQ(historyRowText(exact), exact);
    EXPECT_EQ(historyRowText(std::string(4097, 'a')), exact + "(…)");
    // Characters as the user sees them: a thumb with its skin tone is one (8 bytes).
    std::string thumbs;
    for (int i = 0; i < 4096; ++i) thumbs += "👍🏽";
    EXPECT_EQ(historyRowText(thumbs), thumbs);
    EXPECT_EQ(historyRowText(thumbs + "👍🏽"), thumbs + "(…)");
}

TEST(HistoryRows, HeaderColoursAndDaysToKeep) {
    EXPECT_EQ(historyHeaderText(0), "0 entries");
    EXPECT_EQ(historyHeaderText(1), "1 entry");
    EXPECT_EQ(historyHeaderText(2), "2 entries");
    EXPECT_EQ(historyRowColor(0), HistoryRowColor::primary);
    EXPECT_EQ(historyRowColor(1), HistoryRowColor::yellow);
    EXPECT_EQ(historyRowColor(2), HistoryRowColor::red);
    EXPECT_EQ(historyRowColor(3), HistoryRowColor::blue);
    EXPECT_EQ(historyRowColor(4), HistoryRowColor::primary);
    EXPECT_EQ(historyRowColor(7), HistoryRowColor::secondary);
    EXPECT_EQ(historyRowColor(-1), HistoryRowColor::secondary);
    EXPECT_EQ(daysToKeepLabel(0), "Forever");
    EXPECT_EQ(daysToKeepLabel(1), "1 day");
    EXPECT_EQ(daysToKeepLabel(365), "365 days");
}

TEST_F(HistoryTab, ListIsNewestFirstWithEveryLevelAndRowsShowWhatTheyHave) {
    TimeZone zone("UTC");
    storeEntry("older", nowSeconds() - 60, std::nullopt, HistoryManagerLogLevel::error);
    auto odd = storeEntry("stored by a newer version", nowSeconds() - 30, std::nullopt);
    odd->setLevel(7);
    viewContext().save();
    storeEntry("newest", nowSeconds(), makeCafRecording(folder.path() / "r.caf", 3.2));
    storeEntry("no date", std::nullopt, std::nullopt, HistoryManagerLogLevel::warning);

    auto model = makeModel();
    const auto entries = model->logEntries();
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0]->message(), "newest");
    EXPECT_EQ(entries[1]->message(), "stored by a newer version");
    EXPECT_EQ(entries[2]->message(), "older");
    EXPECT_EQ(entries[3]->message(), "no date"); // nil sorts last when descending

    const auto newest = model->row(entries[0]);
    EXPECT_TRUE(newest.fileActionsEnabled);
    EXPECT_EQ(newest.retryHelp, "Transcribe again");
    EXPECT_EQ(newest.playHelp, "Play recording");
    // The duration was not cached by storeEntry: it is worked out from the file and kept.
    EXPECT_EQ(newest.dateLine, "01/01/2026, 10:00:00, 0:03");
    tp.runUntilIdle();
    EXPECT_EQ(storedEntries()[3]->fileDurationString(), "0:03");

    const auto odd7 = model->row(entries[1]);
    EXPECT_EQ(odd7.color, HistoryRowColor::secondary);
    EXPECT_FALSE(odd7.fileActionsEnabled);
    EXPECT_EQ(odd7.retryHelp, "File not available");
    EXPECT_EQ(odd7.showHelp, "File not available");
    EXPECT_EQ(odd7.removeHelp, "Remove this entry");
    EXPECT_EQ(odd7.dateLine, "01/01/2026, 09:59:30, 0:00");
    EXPECT_EQ(model->row(entries[3]).dateLine, "/");
}

TEST_F(HistoryTab, SuccessfulRetryAddsANewEntryOnTheSameRecording) {
    const auto file = makeCafRecording(folder.path() / "r.caf", 1.0);
    auto first = storeEntry("No balancers available. Try again later.", nowSeconds(), file,
                            HistoryManagerLogLevel::error);
    const auto firstID = first->requestID();
    upload.answer = nlohmann::json{{"text", "hello again"}, {"language", "en"}};

    auto model = makeModel();
    std::optional<HistoryViewModel::RetryResult> result;
    model->retry(first, [&](HistoryViewModel::RetryResult r) { result = std::move(r); });
    EXPECT_TRUE(model->isRetrying());
    tp.runUntilIdle();
    ASSERT_TRUE(result);
    EXPECT_FALSE(model->isRetrying());
    EXPECT_TRUE(model->shouldScrollToTop());
    EXPECT_EQ(result->text, "hello again");

    ASSERT_EQ(upload.calls.size(), 1u);
    EXPECT_EQ(upload.calls[0].url, file);
    EXPECT_EQ(upload.calls[0].requestID, *firstID);
    EXPECT_EQ(upload.calls[0].languages, (std::vector<std::string>{"en"}));
    EXPECT_EQ(upload.calls[0].inputLanguageCode, std::nullopt);

    const auto entries = storedEntries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0]->message(), "No balancers available. Try again later.") << "the first entry is unchanged";
    EXPECT_EQ(entries[1]->message(), "hello again");
    EXPECT_EQ(entries[1]->level(), 4);
    EXPECT_EQ(entries[1]->fileURL(), entries[0]->fileURL());
    EXPECT_NE(entries[1]->requestID(), entries[0]->requestID());
    EXPECT_TRUE(toasts.shown.empty());
}

TEST_F(HistoryTab, FailedRetryAddsAnErrorEntryAndShowsTheError) {
    const auto file = makeCafRecording(folder.path() / "r.caf", 1.0);
    auto first = storeEntry("first", nowSeconds(), file);
    upload.error = Error{"NSURLErrorDomain", -1004, "Could not connect to the server.", {}};
    auto model = makeModel();
    model->retry(first);
    tp.runUntilIdle();
    const auto entries = storedEntries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[1]->level(), 2);
    EXPECT_EQ(entries[1]->message(), "Could not connect to the server.");
    EXPECT_EQ(toasts.shown, (std::vector<std::string>{"Could not connect to the server."}));
}

TEST_F(HistoryTab, RetryWithoutRecordingOrRequestIdGivesUpTheLink) {
    auto model = makeModel();
    auto noFile = storeEntry("no file", nowSeconds(), std::nullopt);
    model->retry(noFile);
    tp.runUntilIdle();
    EXPECT_EQ(toasts.shown, (std::vector<std::string>{"Cannot retry transcription. The audio file is not available."}));

    // A file but no request id: the link is cleared all the same.
    const auto file = makeCafRecording(folder.path() / "r.caf", 1.0);
    auto noId = storeEntry("no id", nowSeconds(), file);
    noId->setRequestID(std::nullopt);
    viewContext().save();
    model->retry(noId);
    tp.runUntilIdle();
    EXPECT_TRUE(upload.calls.empty());
    EXPECT_EQ(storedEntries().size(), 2u);
    for (const auto& entry : storedEntries()) EXPECT_EQ(entry->fileURL(), std::nullopt);
    EXPECT_TRUE(fs::exists(file)) << "clearing a link never deletes a file";
}

TEST_F(HistoryTab, RetryOfflineChangesNothing) {
    const auto file = makeCafRecording(folder.path() / "r.caf", 1.0);
    auto entry = storeEntry("first", nowSeconds(), file);
    appState.setInternetAvailable(false);
    auto model = makeModel();
    model->retry(entry);
    tp.runUntilIdle();
    EXPECT_TRUE(upload.calls.empty());
    EXPECT_FALSE(model->isRetrying());
    EXPECT_EQ(storedEntries().size(), 1u);
    EXPECT_EQ(storedEntries()[0]->fileURL(), store::AppConstants::fileURL(file, false));
    EXPECT_EQ(toasts.shown, (std::vector<std::string>{"The Internet connection appears to be offline."}));
}

TEST_F(HistoryTab, FileActionsOnAMissingRecordingShowTheErrorAndClearTheLink) {
    auto model = makeModel();
    const auto file = makeCafRecording(folder.path() / "gone.caf", 1.0);
    auto entry = storeEntry("text", nowSeconds(), file);
    fs::remove(file);
    model->showInFileManager(entry);
    tp.runUntilIdle();
    EXPECT_TRUE(revealed.empty());
    EXPECT_TRUE(logs.contains("openAndSelectFile() - no sucb file: " + file.string() + ", abording!"));
    EXPECT_EQ(toasts.shown.back(), "Unable to show file in File Manager. The file may have been moved or deleted.");
    EXPECT_EQ(storedEntries()[0]->fileURL(), std::nullopt);
    EXPECT_FALSE(model->row(entry).fileActionsEnabled);

    // With the link gone the actions say so.
    model->showInFileManager(entry);
    tp.runUntilIdle();
    EXPECT_EQ(toasts.shown.back(), "Audio file not available. The file may have been moved or deleted.");
    model->playOrStop(entry);
    tp.runUntilIdle();
    EXPECT_EQ(toasts.shown.back(), "Audio file not available. The file may have been moved or deleted.");
}

TEST_F(HistoryTab, ShowSelectsAnExistingRecording) {
    auto model = makeModel();
    const auto file = makeCafRecording(folder.path() / "here.caf", 1.0);
    auto entry = storeEntry("text", nowSeconds(), file);
    model->showInFileManager(entry);
    EXPECT_EQ(revealed, (std::vector<fs::path>{file}));
    EXPECT_EQ(storedEntries()[0]->fileURL(), store::AppConstants::fileURL(file, false));
}

TEST_F(HistoryTab, RemoveAndWipeAllTakeTheRecordingsWithThem) {
    auto model = makeModel();
    const auto a = makeCafRecording(folder.path() / "a.caf", 0.5);
    const auto b = makeCafRecording(folder.path() / "b.caf", 0.5);
    const auto c = makeCafRecording(folder.path() / "c.caf", 0.5);
    auto first = storeEntry("a", nowSeconds() - 2, a);
    storeEntry("b", nowSeconds() - 1, b);
    storeEntry("c, again on b", nowSeconds(), b);
    storeEntry("no recording", nowSeconds(), std::nullopt);

    model->remove(first);
    EXPECT_FALSE(fs::exists(a));
    EXPECT_EQ(storedEntries().size(), 3u);

    logs.clear();
    model->wipeAll();
    EXPECT_TRUE(storedEntries().empty());
    EXPECT_FALSE(fs::exists(b));
    EXPECT_TRUE(fs::exists(c)) << "a file no entry names stays";
    EXPECT_EQ(logs.count("cdSaveContext() - caller: HistoryPopoverView.wipeAll - context saved successfully"), 1u);
    EXPECT_TRUE(model->logEntries().empty());
}

TEST_F(HistoryTab, CopyPutsTheWholeTextOnTheClipboard) {
    auto model = makeModel();
    const std::string longText(5000, 'x');
    auto entry = storeEntry(longText, nowSeconds(), std::nullopt);
    model->clipText(entry);
    EXPECT_TRUE(model->showCopiedPopover());
    EXPECT_EQ(model->copiedText(), longText);
    EXPECT_EQ(pasteboard, (std::vector<std::string>{"clipText(_:):" + longText}));
    EXPECT_TRUE(tp.called("sound:Purr"));
}

} // namespace
} // namespace sprelio::historytest

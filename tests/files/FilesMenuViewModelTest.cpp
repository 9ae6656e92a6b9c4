// The Files tab's logic against a real HTTP server on 127.0.0.1 that answers as each case scripts it: items go one
// at a time, each with its own progress, text or error; bad input fails its own item with a clear message and the
// next one goes on; a cancel stops the text; nothing of the user's is removed or changed.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <sstream>

#include "backend/FileUploadManager.h"
#include "backend/UploadTestSupport.h"
#include "files/FilesMenuViewModel.h"
#include "files/HistoryCopy.h"
#include "helpers/WithoutRoot.h"
#include "platform/linux/PulseSystemAudio.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using backendtest::jsonAnswer;
using backendtest::Script;
using backendtest::StreamStep;
namespace fs = std::filesystem;

class CountingSounds final : public platform::SoundPlayer {
public:
    void play(const std::string& name) override { played.push_back(name); }
    std::vector<std::string> played;
};

std::string readAll(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

class FilesMenuViewModelTest : public backendtest::UploadFixture {
protected:
    FilesMenuViewModelTest() {
        settings->setSaveRecordingsFolder(folder.path() / "recordings");
        uploads = std::make_unique<FileUploadManager>(
            FileUploadManager::Dependencies{loop, hooked, *balancing, *settings, *constants, "DEVICE"});
        model = std::make_unique<FilesMenuViewModel>(FilesMenuViewModel::Dependencies{
            loop, workers, clock, *settings, appState, history, sounds, *messages, *uploads, systemAudio,
            [this](const std::string& text, const std::string& caller) { clipboard.emplace_back(text, caller); },
            {}, {}});
        useBackends(1);
        // Every upload gets the id "ID-" and the name of the file the history keeps, so that the stream's script
        // can be chosen per file.
        hooked.beforeSend = [this](const platform::HttpRequest& request) {
            if (request.method != "POST") return;
            ++uploadsSeen;
            const std::string id = "ID" + std::to_string(uploadsSeen);
            const auto at = request.url.find("/transcribe/file/");
            const std::string uuid = request.url.substr(at + 17, request.url.find('?') - at - 17);
            servers[0]->script("/transcribe/file/" + uuid, jsonAnswer(R"({"uuid":")" + id + R"("})"));
            servers[0]->script("/transcribe/file/" + id, streamFor(uploadsSeen));
        };
    }
    ~FilesMenuViewModelTest() override {
        model.reset();
        uploads.reset();
    }

    // The stream of the n-th upload: scripted by the case, or three progress lines and a text.
    Script streamFor(int n) {
        if (auto it = streams.find(n); it != streams.end()) return it->second;
        return backendtest::streamAnswer({R"({"progress_text":"Decoding","duration":0})" "\n",
                                          R"({"progress_text":"hello","duration":30})" "\n",
                                          R"({"text":"text of upload )" + std::to_string(n) + R"("})" "\n"},
                                         "application/x-ndjson");
    }

    fs::path userFile(const std::string& name, const std::string& bytes = std::string(400, 'a')) {
        const auto file = folder.path() / "mine" / name;
        fs::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << bytes;
        return file;
    }

    bool allFinished(const std::vector<int>& ids) {
        return std::all_of(ids.begin(), ids.end(), [&](int id) { return model->item(id)->finished(); });
    }

    CountingSounds sounds;
    platform::PulseSystemAudio systemAudio;
    std::unique_ptr<FileUploadManager> uploads;
    std::unique_ptr<FilesMenuViewModel> model;
    std::vector<std::pair<std::string, std::string>> clipboard;
    std::map<int, Script> streams;
    int uploadsSeen = 0;
};

TEST_F(FilesMenuViewModelTest, ItemsGoOneAtATimeWithProgressAndEndInTheHistory) {
    const auto a = userFile("talk.MP3"); // an extension in upper case passes
    const auto b = userFile("clip.mp4", std::string(300, 'b'));
    std::vector<std::string> seen;
    model->addItemObserver([&](const FileItem& item) {
        seen.push_back(std::to_string(item.id) + ":" + model->statusLine(item));
    });
    const auto ids = model->addFiles({a, b});
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_EQ(model->item(ids[1])->state, FileItem::State::waiting) << "one job at a time";
    EXPECT_TRUE(appState.filesMenuIsProcessing());
    ASSERT_TRUE(waitFor([&] { return allFinished(ids); }));
    drain();

    for (std::size_t i = 0; i < ids.size(); ++i) {
        const FileItem& item = *model->item(ids[i]);
        EXPECT_EQ(item.state, FileItem::State::done);
        EXPECT_EQ(item.text, "text of upload " + std::to_string(i + 1));
        EXPECT_EQ(item.duration, 30.0);
    }
    EXPECT_FALSE(appState.filesMenuIsProcessing());
    // The status lines as the tab shows them, in order, the second item only after the first.
    const auto first = std::to_string(ids[0]) + ":";
    const auto position = [&](const std::string& line) { return std::find(seen.begin(), seen.end(), line) - seen.begin(); };
    EXPECT_LT(position(first + "Uploading file... (0%)"), position(first + "Transcribing file..."));
    EXPECT_LT(position(first + "Transcribing file..."), position(first + "Transcribing file... (0:30 done)"));
    EXPECT_LT(position(first + "Done"), position(std::to_string(ids[1]) + ":Uploading file... (0%)"));
    EXPECT_NE(position(first + "Uploading file... (100%)"), std::ptrdiff_t(seen.size()));

    // Two success entries, each naming the history's own name for the user's file, never the file itself.
    ASSERT_EQ(history.entries.size(), 2u);
    for (std::size_t i = 0; i < 2; ++i) {
        const auto& entry = history.entries[i];
        EXPECT_EQ(entry.level, HistoryManagerLogLevel::success);
        EXPECT_EQ(entry.requestID, model->item(ids[i])->requestID);
        ASSERT_TRUE(entry.fileURL);
        EXPECT_NE(*entry.fileURL, i == 0 ? a : b);
        EXPECT_EQ(entry.fileURL->parent_path().parent_path().parent_path().parent_path(), folder.path() / "recordings");
        EXPECT_EQ(readAll(*entry.fileURL), readAll(i == 0 ? a : b));
        fs::remove(*entry.fileURL); // what removing the entry does: the user's file stays
    }
    EXPECT_TRUE(fs::exists(a) && fs::exists(b));

    // Copy and save.
    model->copyText(ids[0]);
    ASSERT_EQ(clipboard.size(), 1u);
    EXPECT_EQ(clipboard[0], std::make_pair(std::string("text of upload 1"), std::string("Copy to Clipboard")));
    const auto saved = folder.path() / "talk.txt";
    EXPECT_EQ(model->saveTranscript(ids[0], saved), "");
    EXPECT_EQ(readAll(saved), "text of upload 1\n");
    EXPECT_NE(model->saveTranscript(ids[0], folder.path() / "no" / "such" / "folder.txt"), "");
    // Removing an item from the list leaves its file alone.
    model->remove(ids[0]);
    EXPECT_EQ(model->item(ids[0]), nullptr);
    EXPECT_TRUE(fs::exists(a));
}

TEST_F(FilesMenuViewModelTest, BadInputFailsItsOwnItemWithAClearMessageAndTheOthersGoOn) {
    const auto good1 = userFile("first.wav");
    const auto notMedia = userFile("notes.txt", "not audio");
    const auto missing = folder.path() / "mine" / "missing.ogg";
    const auto aFolder = folder.path() / "mine" / "album.mp3";
    fs::create_directories(aFolder);
    const auto vanishing = folder.path() / "usb" / "interview.m4a";
    fs::create_directories(vanishing.parent_path());
    std::ofstream(vanishing) << "audio";
    const auto empty = userFile("empty.wav", "");
    const auto killed = userFile("killed.flac");
    const auto good2 = userFile("last.opus");
    // The third upload's stream ends mid-way, as when the server is killed.
    Script cut;
    cut.headers = {{"Content-Type", "application/x-ndjson"}};
    cut.stream = {StreamStep::write(R"({"progress_text":"Decoding","duration":0})" "\n"), StreamStep::closeConnection()};
    streams[2] = cut;
    // The folder of the fourth item disappears while the first one is still running.
    Script slow = streamFor(1);
    slow.stream.insert(slow.stream.begin(), StreamStep::waitFor("first"));
    streams[1] = slow;

    const auto ids = model->addFiles({good1, notMedia, missing, aFolder, vanishing, killed, good2, empty});
    ASSERT_EQ(ids.size(), 8u);
    ASSERT_TRUE(waitFor([&] { return model->item(ids[0])->state == FileItem::State::transcribing; }));
    fs::remove_all(vanishing.parent_path());
    servers[0]->openGate("first");
    ASSERT_TRUE(waitFor([&] { return allFinished(ids); }));
    drain();

    struct Row {
        std::size_t index;
        FileItem::State state;
        std::string message; // what the item says
    };
    const std::vector<Row> rows = {
        {0, FileItem::State::done, ""},
        {1, FileItem::State::failed, "Only audio and video files are supported."},
        {2, FileItem::State::failed, "The file does not exist."},
        {3, FileItem::State::failed, "This is a folder, not an audio or video file."},
        {4, FileItem::State::failed, "The file is no longer there (was it moved, or its folder removed?)."},
        {5, FileItem::State::failed, ""},
        {6, FileItem::State::done, ""},
        {7, FileItem::State::failed, "The file is empty."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE("item " + std::to_string(row.index));
        const FileItem& item = *model->item(ids[row.index]);
        EXPECT_EQ(item.state, row.state);
        if (!row.message.empty()) {
            EXPECT_EQ(item.error, row.message);
        }
        if (row.state == FileItem::State::failed) {
            EXPECT_EQ(model->statusLine(item), item.error);
        }
    }
    // The stream that ended without a text: a failure with a description, not an empty transcript.
    EXPECT_FALSE(model->item(ids[5])->error.empty());
    EXPECT_EQ(model->item(ids[6])->text, "text of upload 3");
    // Each failure was heard, and the files given are all still there as they were.
    EXPECT_GE(std::count(sounds.played.begin(), sounds.played.end(), "Basso"), 6);
    EXPECT_EQ(readAll(notMedia), "not audio");
    for (const auto& file : {good1, killed, good2}) EXPECT_EQ(readAll(file), std::string(400, 'a'));
    EXPECT_TRUE(fs::is_directory(aFolder));
    EXPECT_TRUE(fs::exists(empty));
    // The failures that reached the server are history entries of level error.
    EXPECT_EQ(history.count(HistoryManagerLogLevel::error), 2u);
    EXPECT_EQ(history.count(HistoryManagerLogLevel::success), 2u);
}

TEST_F(FilesMenuViewModelTest, ACancelStopsTheTextAndTheNextItemGoesOn) {
    Script held;
    held.headers = {{"Content-Type", "application/x-ndjson"}};
    held.stream = {StreamStep::write(R"({"progress_text":"first part","duration":10})" "\n"), StreamStep::waitFor("go"),
                   StreamStep::write(R"({"progress_text":"second part","duration":20})" "\n"),
                   StreamStep::write(R"({"text":"never shown"})" "\n")};
    streams[1] = held;
    const auto a = userFile("long.wav");
    const auto b = userFile("short.wav");
    const auto ids = model->addFiles({a, b});
    ASSERT_TRUE(waitFor([&] { return model->item(ids[0])->text == "first part"; }));
    model->cancel(ids[0]);
    EXPECT_EQ(model->item(ids[0])->state, FileItem::State::cancelled);
    servers[0]->openGate("go");
    ASSERT_TRUE(waitFor([&] { return model->item(ids[1])->finished(); }));
    drain();
    EXPECT_EQ(model->item(ids[0])->text, "first part") << "a cancel stops the text from changing";
    EXPECT_EQ(model->statusLine(*model->item(ids[0])), "Cancelled");
    EXPECT_EQ(model->item(ids[1])->state, FileItem::State::done);
    EXPECT_TRUE(fs::exists(a));
    // A waiting item can be cancelled too, and never reaches the server.
    const auto c = userFile("c.wav");
    const auto d = userFile("d.wav");
    streams[3] = held;
    const auto more = model->addFiles({c, d});
    model->cancel(more[1]);
    ASSERT_TRUE(waitFor([&] { return model->item(more[0])->text == "first part"; }));
    model->cancel(more[0]);
    drain();
    EXPECT_EQ(uploadsSeen, 3);
    EXPECT_EQ(model->item(more[1])->state, FileItem::State::cancelled);
}

TEST_F(FilesMenuViewModelTest, AFileThatCantBeReadSaysSo) {
    const auto file = userFile("locked.wav");
    ::chmod(file.c_str(), 0);
    const auto recordings = folder.path() / "recordings";
    fs::create_directories(recordings);
    ::chmod(recordings.c_str(), 0777);
    ::chmod(folder.path().c_str(), 0755);
    ::chmod(file.parent_path().c_str(), 0755);
    testhelpers::runWithoutRoot([&] {
        std::string problem;
        EXPECT_FALSE(keepCopyForHistory(recordings, std::chrono::system_clock::now(), file, problem));
        EXPECT_EQ(problem, "The file can't be read (no permission to read it).");
    });
    ::chmod(file.c_str(), 0644);
}

TEST_F(FilesMenuViewModelTest, RecordingButtonTitleAndModes) {
    EXPECT_EQ(model->recordButtonTitle(), "Start recording");
    EXPECT_EQ(model->recordingMode(), FilesMenuRecordingMode::microphoneOnly);
    model->setRecordingMode(FilesMenuRecordingMode::both);
    EXPECT_EQ(settings->filesMenuRecordingMode(), "both");
    EXPECT_FALSE(model->startRecording(FilesMenuRecordingMode::none)) << ".none is no mode to record in";
    EXPECT_FALSE(model->isRecording());
}

} // namespace
} // namespace sprelio

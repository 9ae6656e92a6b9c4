// The Files tab as drawn, on Qt's offscreen platform, over the real logic and a scripted server: empty, with an
// item in progress and one waiting, and done; a drop of files adds them. Pictures go to <build>/screenshots.
#include <gtest/gtest.h>

#include <QApplication>
#include <QComboBox>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QLabel>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QUrl>

#include "backend/FileUploadManager.h"
#include "backend/UploadTestSupport.h"
#include "files/FilesMenuViewModel.h"
#include "platform/linux/PulseSystemAudio.h"
#include "platform/qt/FilesPane.h"

namespace sprelio {
namespace {

using backendtest::jsonAnswer;
using backendtest::Script;
using backendtest::StreamStep;
namespace fs = std::filesystem;

fs::path screenshotFolder() { return fs::path(SPRELIO_BINARY).parent_path().parent_path() / "screenshots"; }

QApplication& application() {
    static int argc = 1;
    static char name[] = "test_files";
    static char* argv[] = {name, nullptr};
    ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    // Never destroyed: at exit Qt's own statics may already be gone, and a QApplication torn down after them
    // crashes the process after every test has passed.
    static QApplication* app = new QApplication(argc, argv);
    return *app;
}

class SilentSounds final : public platform::SoundPlayer {
public:
    void play(const std::string&) override {}
};

class FilesPaneTest : public backendtest::UploadFixture {
protected:
    FilesPaneTest() {
        application();
        settings->setSaveRecordingsFolder(folder.path() / "recordings");
        uploads = std::make_unique<FileUploadManager>(
            FileUploadManager::Dependencies{loop, hooked, *balancing, *settings, *constants, "DEVICE"});
        model = std::make_unique<FilesMenuViewModel>(FilesMenuViewModel::Dependencies{
            loop, workers, clock, *settings, appState, history, sounds, *messages, *uploads, systemAudio,
            [](const std::string&, const std::string&) {}, {}, {}});
        useBackends(1);
        hooked.beforeSend = [this](const platform::HttpRequest& request) {
            if (request.method != "POST") return;
            const int n = ++uploadsSeen;
            const auto at = request.url.find("/transcribe/file/");
            const std::string uuid = request.url.substr(at + 17, request.url.find('?') - at - 17);
            servers[0]->script("/transcribe/file/" + uuid, jsonAnswer(R"({"uuid":"ID)" + std::to_string(n) + R"("})"));
            Script stream;
            stream.headers = {{"Content-Type", "application/x-ndjson"}};
            stream.stream = {
                StreamStep::write(R"({"progress_text":"Please call me tomorrow morning","duration":10})" "\n"),
                StreamStep::waitFor("go" + std::to_string(n)),
                StreamStep::write(R"({"text":"Please call me tomorrow morning at the office. The weather is nice today."})" "\n")};
            servers[0]->script("/transcribe/file/ID" + std::to_string(n), stream);
        };
        pane = std::make_unique<platform::FilesPane>(*model);
        pane->resize(730, 620);
        pane->show();
    }
    ~FilesPaneTest() override {
        for (int n = 1; n <= 4; ++n) servers[0]->openGate("go" + std::to_string(n));
        pane.reset();
        model.reset();
        uploads.reset();
    }

    fs::path userFile(const std::string& name) {
        const auto file = folder.path() / name;
        std::ofstream(file, std::ios::binary) << std::string(2000, 'a');
        return file;
    }
    bool waitShown(const std::function<bool()>& condition) {
        return waitFor([&] {
            QApplication::processEvents();
            return condition();
        });
    }
    void screenshot(const std::string& name) {
        QApplication::processEvents();
        fs::create_directories(screenshotFolder());
        ASSERT_TRUE(pane->grab().save(QString::fromStdString((screenshotFolder() / (name + ".png")).string())));
    }

    SilentSounds sounds;
    platform::PulseSystemAudio systemAudio;
    std::unique_ptr<FileUploadManager> uploads;
    std::unique_ptr<FilesMenuViewModel> model;
    std::unique_ptr<platform::FilesPane> pane;
    int uploadsSeen = 0;
};

TEST_F(FilesPaneTest, EmptyInProgressAndDone) {
    EXPECT_EQ(pane->addButton()->text(), "Drag file or click to select");
    EXPECT_EQ(pane->recordButton()->text(), "Start recording");
    EXPECT_EQ(pane->modeBox()->currentText(), "Microphone");
    EXPECT_FALSE(pane->errorLabel()->isVisible());
    screenshot("files-pane-empty");

    const auto ids = model->addFiles({userFile("meeting.wav"), userFile("interview.mp4"), userFile("notes.txt")});
    ASSERT_TRUE(waitShown([&] { return model->item(ids[0])->state == FileItem::State::transcribing &&
                                       !model->item(ids[0])->text.empty(); }));
    EXPECT_EQ(pane->statusLabel(ids[0])->text(), "Transcribing file... (0:10 done)");
    EXPECT_EQ(pane->textBox(ids[0])->toPlainText(), "Please call me tomorrow morning");
    EXPECT_EQ(pane->statusLabel(ids[1])->text(), "Waiting…");
    EXPECT_EQ(pane->statusLabel(ids[2])->text(), "Only audio and video files are supported.");
    EXPECT_TRUE(pane->errorLabel()->isVisible());
    screenshot("files-pane-in-progress");

    servers[0]->openGate("go1");
    servers[0]->openGate("go2");
    ASSERT_TRUE(waitShown([&] { return model->item(ids[1])->finished(); }));
    for (int id : {ids[0], ids[1]}) {
        EXPECT_EQ(pane->statusLabel(id)->text(), "Done");
        EXPECT_EQ(pane->textBox(id)->toPlainText(),
                  "Please call me tomorrow morning at the office. The weather is nice today.");
    }
    screenshot("files-pane-done");
}

TEST_F(FilesPaneTest, DroppedFilesBecomeItems) {
    const auto dropped = userFile("dropped.ogg");
    QMimeData data;
    data.setUrls({QUrl::fromLocalFile(QString::fromStdString(dropped.string()))});
    // The widget sees what a drag and drop from a file manager brings: the enter, then the drop.
    QDragEnterEvent enter(QPoint(50, 50), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(pane.get(), &enter);
    EXPECT_TRUE(enter.isAccepted());
    QDropEvent drop(QPointF(50, 50), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(pane.get(), &drop);
    ASSERT_EQ(model->items().size(), 1u);
    EXPECT_EQ(model->items()[0].file, dropped);
    ASSERT_TRUE(waitShown([&] { return model->items()[0].state == FileItem::State::transcribing; }));
}

} // namespace
} // namespace sprelio

#include "platform/qt/FilesPane.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QScrollArea>
#include <QTimer>
#include <QUrl>
#include <QVBoxLayout>

#include "base/Log.h"
#include "platform/qt/MainWindowPanes.h"

namespace sprelio::platform {

namespace {

struct ModeRow {
    FilesMenuRecordingMode mode;
    const char* title;
};
constexpr ModeRow kModes[] = {{FilesMenuRecordingMode::microphoneOnly, "Microphone"},
                              {FilesMenuRecordingMode::systemOnly, "Computer sound"},
                              {FilesMenuRecordingMode::both, "Microphone and computer sound"}};

QString fileDialogFilter() {
    QStringList patterns;
    for (const auto& extension : supportedMediaExtensions()) {
        patterns << QStringLiteral("*.") + QString::fromStdString(extension);
        patterns << QStringLiteral("*.") + QString::fromStdString(extension).toUpper();
    }
    return QStringLiteral("Audio and video files (") + patterns.join(QLatin1Char(' ')) + QStringLiteral(")");
}

} // namespace

FilesPane::FilesPane(FilesMenuViewModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    setObjectName(QStringLiteral("filesPane"));
    setAcceptDrops(true);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 20, 24, 20);
    layout->addWidget(heading(QStringLiteral("Files"), this));
    layout->addWidget(noteLabel(QStringLiteral("Audio and video files become text here, and so do recordings of the "
                                               "microphone and of the computer's sound."),
                                this));

    add_ = new QPushButton(QStringLiteral("Drag file or click to select"), this);
    add_->setObjectName(QStringLiteral("filesAdd"));
    add_->setMinimumHeight(64);
    connect(add_, &QPushButton::clicked, this, [this] { chooseFiles(); });
    layout->addWidget(add_);

    auto* options = new QHBoxLayout;
    separation_ = new QCheckBox(QStringLiteral("Speaker separation"), this);
    separation_->setChecked(model_.speakerSeparation());
    connect(separation_, &QCheckBox::toggled, this, [this](bool on) { model_.setSpeakerSeparation(on); });
    options->addWidget(separation_);
    options->addStretch(1);
    options->addWidget(new QLabel(QStringLiteral("Record:"), this));
    mode_ = new QComboBox(this);
    mode_->setObjectName(QStringLiteral("filesRecordingMode"));
    for (const auto& row : kModes) mode_->addItem(QString::fromLatin1(row.title), static_cast<int>(row.mode));
    for (int i = 0; i < mode_->count(); ++i)
        if (mode_->itemData(i).toInt() == static_cast<int>(model_.recordingMode())) mode_->setCurrentIndex(i);
    connect(mode_, &QComboBox::currentIndexChanged, this, [this](int index) {
        if (index >= 0) model_.setRecordingMode(static_cast<FilesMenuRecordingMode>(mode_->itemData(index).toInt()));
    });
    options->addWidget(mode_);
    record_ = new QPushButton(this);
    record_->setObjectName(QStringLiteral("filesRecord"));
    connect(record_, &QPushButton::clicked, this, [this] {
        if (model_.isRecording()) {
            model_.stopRecording();
        } else {
            model_.startRecording(model_.recordingMode());
        }
    });
    options->addWidget(record_);
    layout->addLayout(options);

    warning_ = new QLabel(QStringLiteral("⚠ Please allow Screen & System Audio Recording to allow recording in the "
                                         "Files tab."),
                          this);
    warning_->setWordWrap(true);
    layout->addWidget(warning_);
    error_ = new QLabel(this);
    error_->setObjectName(QStringLiteral("filesError"));
    error_->setWordWrap(true);
    error_->setStyleSheet(QStringLiteral("color: #b00020;"));
    layout->addWidget(error_);

    auto* scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroll->setFrameShape(QFrame::NoFrame);
    auto* list = new QWidget(scroll);
    rows_ = new QVBoxLayout(list);
    rows_->setContentsMargins(0, 0, 0, 0);
    empty_ = noteLabel(QStringLiteral("No files yet."), list);
    rows_->addWidget(empty_);
    rows_->addStretch(1);
    scroll->setWidget(list);
    layout->addWidget(scroll, 1);

    clock_ = new QTimer(this);
    clock_->setInterval(500);
    connect(clock_, &QTimer::timeout, this, [this] { updateControls(); });

    model_.onChange = [this](int id) { modelChanged(id); };
    rebuildRows();
    updateControls();

    std::string types;
    for (const auto& extension : supportedMediaExtensions()) types += (types.empty() ? "" : ", ") + extension;
    logInfo("FilesMenuView.onAppear{} - dynamicAllowedContentTypes: [" + types + "]");
    logInfo("FilesMenuView.onAppear{} - micAndSysRecordingAvailable: " +
            std::string(model_.screenCaptureAccess() ? "true" : "false"));
}

FilesPane::~FilesPane() { model_.onChange = nullptr; }

void FilesPane::chooseFiles() {
    const QStringList chosen =
        QFileDialog::getOpenFileNames(this, QStringLiteral("Choose audio or video files"), QString(), fileDialogFilter());
    std::vector<std::filesystem::path> files;
    for (const auto& file : chosen) files.emplace_back(file.toStdString());
    if (!files.empty()) model_.addFiles(files);
}

void FilesPane::dragEnterEvent(QDragEnterEvent* event) {
    if (event->mimeData()->hasUrls()) event->acceptProposedAction();
}

void FilesPane::dropEvent(QDropEvent* event) {
    std::vector<std::filesystem::path> files;
    for (const QUrl& url : event->mimeData()->urls()) {
        if (url.isLocalFile()) files.emplace_back(url.toLocalFile().toStdString());
    }
    if (files.empty()) return;
    event->acceptProposedAction();
    model_.addFiles(files);
}

QPlainTextEdit* FilesPane::textBox(int id) const {
    auto it = rowOf_.find(id);
    return it == rowOf_.end() ? nullptr : it->second.text;
}

QLabel* FilesPane::statusLabel(int id) const {
    auto it = rowOf_.find(id);
    return it == rowOf_.end() ? nullptr : it->second.status;
}

void FilesPane::modelChanged(int id) {
    if (id != 0 && rowOf_.count(id)) {
        updateRow(id);
        return;
    }
    rebuildRows();
    updateControls();
}

void FilesPane::rebuildRows() {
    // Rows of items that left the list go; new items get a row at the end, so that the list reads in the order the
    // files came.
    std::map<int, bool> present;
    for (const auto& item : model_.items()) present[item.id] = true;
    for (auto it = rowOf_.begin(); it != rowOf_.end();) {
        if (present.count(it->first)) {
            ++it;
            continue;
        }
        it->second.box->deleteLater();
        it = rowOf_.erase(it);
    }
    for (const auto& item : model_.items()) {
        if (!rowOf_.count(item.id)) {
            rowOf_[item.id] = makeRow(item.id);
            rows_->insertWidget(rows_->count() - 1, rowOf_[item.id].box); // before the stretch
        }
        updateRow(item.id);
    }
    empty_->setVisible(rowOf_.empty());
}

FilesPane::Row FilesPane::makeRow(int id) {
    Row row;
    row.box = new QFrame(this);
    static_cast<QFrame*>(row.box)->setFrameShape(QFrame::StyledPanel);
    row.box->setObjectName(QStringLiteral("filesItem%1").arg(id));
    auto* layout = new QVBoxLayout(row.box);
    auto* top = new QHBoxLayout;
    row.title = new QLabel(row.box);
    row.title->setTextInteractionFlags(Qt::TextSelectableByMouse);
    // A long file name gives way to the buttons rather than pushing them out of the tab; the whole path is its tip.
    row.title->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    top->addWidget(row.title, 1);
    row.cancel = new QPushButton(QStringLiteral("Cancel"), row.box);
    row.copy = new QPushButton(QStringLiteral("Copy to Clipboard"), row.box);
    row.save = new QPushButton(QStringLiteral("Save as Text…"), row.box);
    row.remove = new QPushButton(QStringLiteral("Remove"), row.box);
    row.remove->setToolTip(QStringLiteral("Remove from this list (the file stays where it is)"));
    for (auto* button : {row.cancel, row.copy, row.save, row.remove}) top->addWidget(button);
    connect(row.cancel, &QPushButton::clicked, this, [this, id] { model_.cancel(id); });
    connect(row.copy, &QPushButton::clicked, this, [this, id] { model_.copyText(id); });
    connect(row.save, &QPushButton::clicked, this, [this, id] { saveTranscript(id); });
    connect(row.remove, &QPushButton::clicked, this, [this, id] { model_.remove(id); });
    layout->addLayout(top);
    row.status = new QLabel(row.box);
    row.status->setWordWrap(true);
    layout->addWidget(row.status);
    row.progress = new QProgressBar(row.box);
    row.progress->setRange(0, 100);
    row.progress->setTextVisible(false);
    row.progress->setMaximumHeight(6);
    layout->addWidget(row.progress);
    row.text = new QPlainTextEdit(row.box);
    row.text->setReadOnly(true);
    row.text->setMaximumHeight(110);
    layout->addWidget(row.text);
    return row;
}

void FilesPane::updateRow(int id) {
    const FileItem* item = model_.item(id);
    auto it = rowOf_.find(id);
    if (!item || it == rowOf_.end()) return;
    Row& row = it->second;
    row.title->setText(QStringLiteral("<b>%1</b> — %2")
                           .arg(QString::fromStdString(item->file.filename().string()).toHtmlEscaped(),
                                QString::fromStdString(std::string(transcriptReceiverLabel(item->receiver)))));
    row.title->setToolTip(QString::fromStdString(item->file.string()));
    row.status->setText(QString::fromStdString(model_.statusLine(*item)));
    row.status->setStyleSheet(item->state == FileItem::State::failed ? QStringLiteral("color: #b00020;") : QString());
    const bool running = item->state == FileItem::State::uploading || item->state == FileItem::State::transcribing;
    row.progress->setVisible(running);
    if (item->state == FileItem::State::uploading) {
        row.progress->setRange(0, 100);
        row.progress->setValue(static_cast<int>(item->uploadProgress * 100));
    } else if (item->state == FileItem::State::transcribing) {
        row.progress->setRange(0, 0); // busy: the stream tells the seconds done, not the share
    }
    const QString text = QString::fromStdString(item->text);
    if (row.text->toPlainText() != text) row.text->setPlainText(text);
    row.text->setVisible(!item->text.empty());
    row.cancel->setVisible(!item->finished());
    row.copy->setVisible(item->finished() && !item->text.empty());
    row.save->setVisible(item->state == FileItem::State::done);
    row.remove->setVisible(item->finished());
}

void FilesPane::updateControls() {
    const bool recording = model_.isRecording();
    record_->setText(QString::fromStdString(model_.recordButtonTitle()));
    record_->setEnabled(!model_.isStartingOrStopping() || !recording);
    mode_->setEnabled(!recording);
    const auto mode = model_.recordingMode();
    warning_->setVisible(!model_.screenCaptureAccess() && recordsSystem(mode));
    error_->setText(QString::fromStdString(model_.errorLine()));
    error_->setVisible(!model_.errorLine().empty());
    if (recording && !clock_->isActive()) clock_->start();
    if (!recording && clock_->isActive()) clock_->stop();
}

void FilesPane::saveTranscript(int id) {
    const FileItem* item = model_.item(id);
    if (!item) return;
    auto suggested = item->file;
    suggested.replace_extension(".txt");
    QString chosen = QFileDialog::getSaveFileName(this, QStringLiteral("Save Transcript"),
                                                  QString::fromStdString(suggested.string()),
                                                  QStringLiteral("Text files (*.txt)"));
    if (chosen.isEmpty()) return;
    if (QFileInfo(chosen).suffix().isEmpty()) chosen += QStringLiteral(".txt");
    const std::string problem = model_.saveTranscript(id, chosen.toStdString());
    if (!problem.empty()) {
        error_->setText(QString::fromStdString(problem));
        error_->setVisible(true);
    }
}

} // namespace sprelio::platform

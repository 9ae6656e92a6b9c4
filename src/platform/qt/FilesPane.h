#pragma once
// The Files tab: files added by the file dialog or dropped on the tab, and recordings of the microphone and the
// computer's sound, each as an item with its progress and its text; the logic is FilesMenuViewModel's.
#include <QWidget>
#include <map>

#include "files/FilesMenuViewModel.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QPlainTextEdit;
class QProgressBar;
class QPushButton;
class QTimer;
class QVBoxLayout;

namespace sprelio::platform {

class FilesPane final : public QWidget {
    Q_OBJECT
public:
    explicit FilesPane(FilesMenuViewModel& model, QWidget* parent = nullptr);
    ~FilesPane() override;

    // The file dialog of "Drag file or click to select".
    void chooseFiles();
    QPushButton* addButton() const { return add_; }
    QPushButton* recordButton() const { return record_; }
    QComboBox* modeBox() const { return mode_; }
    QLabel* errorLabel() const { return error_; }
    // The item's text box and status line, for the tests.
    QPlainTextEdit* textBox(int id) const;
    QLabel* statusLabel(int id) const;

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    struct Row {
        QWidget* box = nullptr;
        QLabel* title = nullptr;
        QLabel* status = nullptr;
        QProgressBar* progress = nullptr;
        QPlainTextEdit* text = nullptr;
        QPushButton* cancel = nullptr;
        QPushButton* copy = nullptr;
        QPushButton* save = nullptr;
        QPushButton* remove = nullptr;
    };
    void modelChanged(int id);
    void rebuildRows();
    Row makeRow(int id);
    void updateRow(int id);
    void updateControls();
    void saveTranscript(int id);

    FilesMenuViewModel& model_;
    QPushButton* add_ = nullptr;
    QCheckBox* separation_ = nullptr;
    QComboBox* mode_ = nullptr;
    QPushButton* record_ = nullptr;
    QLabel* warning_ = nullptr;
    QLabel* error_ = nullptr;
    QLabel* empty_ = nullptr;
    QVBoxLayout* rows_ = nullptr;
    QTimer* clock_ = nullptr;
    std::map<int, Row> rowOf_;
};

} // namespace sprelio::platform

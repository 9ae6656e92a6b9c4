#pragma once
// The hotkey editor: one row per shortcut with the key (recorded by clicking it and pressing the keys), the action,
// the AI item and where its result goes, the language, hold or tap, and a remove button; the empty row at the end
// takes a new shortcut; the default set can be restored. What the rows do is ShortcutRows' and the recorder's; this
// is their look.
//
// While a row records, the keyboard is the recorder's. It is given back whatever happens: the keys end it, Escape
// ends it, and so does the window going away, being hidden or another window becoming the active one.
#include <QWidget>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/LifetimeGuard.h"
#include "base/Uuid.h"

class QCheckBox;
class QComboBox;
class QGridLayout;
class QLabel;
class QPushButton;
class QTimer;
class QToolButton;
class QVBoxLayout;

namespace sprelio {
class ShortcutRows;
struct ShortcutRow;
} // namespace sprelio

namespace sprelio::platform {

struct ShortcutEditorDependencies {
    ShortcutRows& rows;
    // Whether the desktop's active window is still one of ours; none: only Qt's own idea of it.
    std::function<bool()> ownWindowActive;
    // What the language pickers offer: code and name. The empty code stands for the languages of the settings.
    std::vector<std::pair<std::string, std::string>> languages;
    // A Wayland session: under the rows, the lines that bind each shortcut in sway's configuration.
    bool showCompositorBindings = false;
};

class ShortcutEditor final : public QWidget {
    Q_OBJECT
public:
    explicit ShortcutEditor(ShortcutEditorDependencies deps, QWidget* parent = nullptr);
    ~ShortcutEditor() override;

    // Shows the stored rows again.
    void reload();
    // Starts recording the row's key, as a click on it does.
    void record(const Uuid& uuid);
    // The first row that dictates (the usability warning sends the user there).
    std::optional<Uuid> dictationRow() const;

    // The widgets of a row, by the row's shortcut; nullptr when there is no such row.
    QPushButton* keyButton(const Uuid& uuid) const;
    QComboBox* actionBox(const Uuid& uuid) const;
    QComboBox* itemBox(const Uuid& uuid) const;
    QComboBox* completionBox(const Uuid& uuid) const;
    QComboBox* languageBox(const Uuid& uuid) const;
    QCheckBox* holdBox(const Uuid& uuid) const;
    QToolButton* removeButton(const Uuid& uuid) const;
    QPushButton* restoreDefaultsButton() const { return restoreDefaults_; }
    // The sentence about the last key that was not taken; empty when there is none.
    QLabel* messageLabel() const { return message_; }

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    struct RowWidgets {
        QPushButton* keys = nullptr;
        QComboBox* action = nullptr;
        QComboBox* item = nullptr;
        QComboBox* completion = nullptr;
        QComboBox* language = nullptr;
        QCheckBox* hold = nullptr;
        QToolButton* remove = nullptr;
    };
    template <class Widget> Widget* rowWidget(const Uuid& uuid, Widget* RowWidgets::*member) const;
    void addRow(QGridLayout* grid, int line, const ShortcutRow& row, bool isLast);
    void recorderChanged();
    void cancelRecording(const char* reason);
    void watchTopLevel();
    bool alive() const { return static_cast<bool>(alive_); }

    ShortcutEditorDependencies deps_;
    LifetimeGuard::Token alive_;
    QVBoxLayout* layout_ = nullptr;
    QWidget* rowsHost_ = nullptr;
    QLabel* message_ = nullptr;
    QLabel* bindings_ = nullptr;
    QPushButton* restoreDefaults_ = nullptr;
    QTimer* activeWatch_ = nullptr;
    QWidget* watchedWindow_ = nullptr;
    std::map<Uuid, RowWidgets> widgets_;
    bool wasRecording_ = false;
};

} // namespace sprelio::platform

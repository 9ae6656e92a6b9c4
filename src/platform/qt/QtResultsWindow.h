#pragma once
// The results dialog's window: the text in an editor, the catalogue's items beside it grouped by rows, and the
// hints for the keys. It shows what IntelligenceResultsView says and reports to it the keys pressed while the
// window is active, the clicks on items and into the editor, and its closing. Keys reach it only as an ordinary
// window's do: nothing is grabbed.
#include <QPushButton>
#include <QWidget>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ai/IntelligenceResultsView.h"

class QKeyEvent;
class QLabel;
class QPlainTextEdit;
class QScrollArea;
class QVBoxLayout;

namespace sprelio::platform {

class QtScreens;

// An item's button: the left and the right mouse button each have an action of their own. It never takes the
// keyboard, which stays with the editor.
class RightClickableButton final : public QPushButton {
    Q_OBJECT
public:
    RightClickableButton(const QString& text, QWidget* parent);
    std::function<void()> leftClickAction;
    std::function<void()> rightClickAction;

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

private:
    bool rightPressed_ = false;
};

// A key of Qt's as the dialog's logic reads keys: the key code and the event flags. Ctrl is read as Command, as
// the desktop's own shortcuts are (Super, the Command key of the global hotkeys, reads the same); arrow and page
// keys carry the function bits they always carry. Nothing for keys the dialog has no use for.
struct DialogKey {
    std::uint16_t keyCode = 0;
    std::uint64_t flags = 0;
};
std::optional<DialogKey> dialogKey(int qtKey, Qt::KeyboardModifiers modifiers);

class QtResultsWindow final : public QWidget, public ResultsDialogWindow {
    Q_OBJECT
public:
    // The four hints under the text and the items, as the window shows them.
    static const std::vector<QString>& hints();

    QtResultsWindow(IntelligenceResultsView& view, const QtScreens& screens);

    // ResultsDialogWindow
    void show(const std::optional<Rect>& frame) override;
    void makeKeyAndOrderFront() override;
    bool isKeyWindow() const override;
    void close() override;
    void refresh() override;

    QString text() const;
    QPlainTextEdit* editor() const { return editor_; }
    // The button of an item, nullptr when the list has none.
    RightClickableButton* buttonFor(const std::string& itemId) const;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    void rebuildItems(const std::vector<IntelligenceResultsView::Item>& items);

    IntelligenceResultsView& view_;
    const QtScreens& screens_;
    QPlainTextEdit* editor_ = nullptr;
    QScrollArea* scroll_ = nullptr;
    QWidget* list_ = nullptr;
    QVBoxLayout* listLayout_ = nullptr;
    std::vector<std::pair<std::string, RightClickableButton*>> buttons_;
    // What the list was built from: ids and faces, in order.
    std::vector<std::string> builtFrom_;
    bool updatingText_ = false;
    // A key travels from the editor up to the window as one event: it is judged once.
    const QEvent* lastKey_ = nullptr;
    quint64 lastKeyTimestamp_ = 0;
};

} // namespace sprelio::platform

#include "platform/qt/QtResultsWindow.h"

#include <QCloseEvent>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QMouseEvent>
#include <QPlainTextEdit>
#include <QScrollArea>
#include <QStyle>
#include <QTextCursor>
#include <QVBoxLayout>

#include "platform/qt/QtScreens.h"

namespace sprelio::platform {

namespace {

constexpr std::uint64_t kShift = 0x20000;
constexpr std::uint64_t kOption = 0x80000;
constexpr std::uint64_t kCommand = IntelligenceResultsView::kCommandFlag;
constexpr std::uint64_t kNumericPad = 0x200000;
constexpr std::uint64_t kFunction = 0x800000;
constexpr int kItemColumns = 2;

void setSelectedLook(QWidget* widget, bool selected) {
    if (widget->property("selected").toBool() == selected) return;
    widget->setProperty("selected", selected);
    widget->style()->unpolish(widget);
    widget->style()->polish(widget);
}

} // namespace

std::optional<DialogKey> dialogKey(int qtKey, Qt::KeyboardModifiers modifiers) {
    std::uint64_t flags = 0;
    if (modifiers & Qt::ShiftModifier) flags |= kShift;
    if (modifiers & (Qt::ControlModifier | Qt::MetaModifier)) flags |= kCommand;
    if (modifiers & Qt::AltModifier) flags |= kOption;
    if (modifiers & Qt::KeypadModifier) flags |= kNumericPad;
    using View = IntelligenceResultsView;
    switch (qtKey) {
    case Qt::Key_Return: return DialogKey{View::kReturnKeyCode, flags};
    // The keypad's Enter is a key of its own.
    case Qt::Key_Enter: return DialogKey{76, flags | kNumericPad};
    case Qt::Key_Tab: return DialogKey{View::kTabKeyCode, flags};
    case Qt::Key_Backtab: return DialogKey{View::kTabKeyCode, flags | kShift};
    case Qt::Key_Escape: return DialogKey{View::kEscapeKeyCode, flags};
    case Qt::Key_Z: return DialogKey{View::kZKeyCode, flags};
    case Qt::Key_PageUp: return DialogKey{View::kPageUpKeyCode, flags | kFunction};
    case Qt::Key_PageDown: return DialogKey{View::kPageDownKeyCode, flags | kFunction};
    case Qt::Key_Left: return DialogKey{View::kLeftArrowKeyCode, flags | kFunction | kNumericPad};
    case Qt::Key_Right: return DialogKey{View::kRightArrowKeyCode, flags | kFunction | kNumericPad};
    case Qt::Key_Down: return DialogKey{View::kDownArrowKeyCode, flags | kFunction | kNumericPad};
    case Qt::Key_Up: return DialogKey{View::kUpArrowKeyCode, flags | kFunction | kNumericPad};
    default: return std::nullopt;
    }
}

RightClickableButton::RightClickableButton(const QString& text, QWidget* parent) : QPushButton(text, parent) {
    setFocusPolicy(Qt::NoFocus);
    setCursor(Qt::PointingHandCursor);
    setProperty("item", true);
}

void RightClickableButton::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::RightButton) {
        rightPressed_ = true;
        setDown(true);
        event->accept();
        return;
    }
    QPushButton::mousePressEvent(event);
}

void RightClickableButton::mouseReleaseEvent(QMouseEvent* event) {
    if (event->button() == Qt::RightButton) {
        const bool inside = rightPressed_ && rect().contains(event->position().toPoint());
        rightPressed_ = false;
        setDown(false);
        event->accept();
        if (inside && rightClickAction) rightClickAction();
        return;
    }
    const bool inside = event->button() == Qt::LeftButton && isDown() && rect().contains(event->position().toPoint());
    QPushButton::mouseReleaseEvent(event);
    // The action may close the window: it runs after the button is done with the event.
    if (inside && leftClickAction) leftClickAction();
}

const std::vector<QString>& QtResultsWindow::hints() {
    // The keys as a Linux user reads them: Ctrl is what takes Command's place here.
    static const std::vector<QString> texts = {
        QStringLiteral("ESC -> Cancel"), QStringLiteral("Ctrl+Enter -> Use as is"),
        QStringLiteral("Ctrl+Z -> Undo the last Al operation"),
        QStringLiteral("Right mouse button -> Use Al without closing")};
    return texts;
}

QtResultsWindow::QtResultsWindow(IntelligenceResultsView& view, const QtScreens& screens)
    : view_(view), screens_(screens) {
    setWindowTitle(QString::fromStdString(view.windowTitle()));
    setStyleSheet(QStringLiteral(
        "QPushButton[item=\"true\"] { text-align: left; padding: 5px 8px; }"
        "QPushButton[item=\"true\"][selected=\"true\"] { background: palette(highlight);"
        " color: palette(highlighted-text); border: 1px solid palette(highlight); border-radius: 3px; }"
        "QPlainTextEdit[selected=\"true\"] { border: 2px solid palette(highlight); }"
        "QLabel#rowTitle { font-weight: bold; padding-top: 6px; }"));

    auto* layout = new QVBoxLayout(this);
    auto* body = new QHBoxLayout;
    editor_ = new QPlainTextEdit(this);
    editor_->installEventFilter(this);
    editor_->viewport()->installEventFilter(this);
    body->addWidget(editor_, 4);

    scroll_ = new QScrollArea(this);
    scroll_->setWidgetResizable(true);
    scroll_->setFocusPolicy(Qt::NoFocus);
    scroll_->setFrameShape(QFrame::NoFrame);
    // The items share the width of the list; a title too long for its button is read in its tooltip.
    scroll_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    list_ = new QWidget(scroll_);
    listLayout_ = new QVBoxLayout(list_);
    listLayout_->setContentsMargins(4, 0, 4, 0);
    listLayout_->setSpacing(2);
    scroll_->setWidget(list_);
    list_->installEventFilter(this);
    scroll_->viewport()->installEventFilter(this);
    body->addWidget(scroll_, 5);
    layout->addLayout(body, 1);

    auto* hintGrid = new QGridLayout;
    hintGrid->setHorizontalSpacing(24);
    int hintIndex = 0;
    for (const auto& hint : hints()) {
        auto* label = new QLabel(hint, this);
        hintGrid->addWidget(label, hintIndex / 2, hintIndex % 2);
        ++hintIndex;
    }
    hintGrid->setColumnStretch(2, 1);
    layout->addLayout(hintGrid);

    connect(editor_, &QPlainTextEdit::textChanged, this, [this] {
        if (!updatingText_) view_.editorTextChanged(editor_->toPlainText().toStdString());
    });
    installEventFilter(this);
    resize(static_cast<int>(IntelligenceResultsView::kDefaultWidth),
           static_cast<int>(IntelligenceResultsView::kDefaultHeight));
}

void QtResultsWindow::show(const std::optional<Rect>& frame) {
    if (frame) setGeometry(screens_.coordinates().toQt(*frame));
    QWidget::show();
}

void QtResultsWindow::makeKeyAndOrderFront() {
    raise();
    activateWindow();
    editor_->setFocus(Qt::ActiveWindowFocusReason);
}

bool QtResultsWindow::isKeyWindow() const { return isActiveWindow(); }

void QtResultsWindow::close() { QWidget::close(); }

QString QtResultsWindow::text() const { return editor_->toPlainText(); }

RightClickableButton* QtResultsWindow::buttonFor(const std::string& itemId) const {
    for (const auto& [id, button] : buttons_)
        if (id == itemId) return button;
    return nullptr;
}

void QtResultsWindow::refresh() {
    const auto items = view_.items();
    std::vector<std::string> basis;
    for (const auto& item : items) basis.push_back(item.id + '\n' + item.emoji + '\n' + item.title);
    if (basis != builtFrom_) {
        rebuildItems(items);
        builtFrom_ = std::move(basis);
    }
    const QString text = QString::fromStdString(view_.generatedText());
    if (editor_->toPlainText() != text) {
        updatingText_ = true;
        editor_->setPlainText(text);
        editor_->moveCursor(QTextCursor::End);
        updatingText_ = false;
    }
    setSelectedLook(editor_, view_.isEditorEnabledByTapGesture());
    for (const auto& [id, button] : buttons_) {
        const bool selected = id == view_.selectedItemId();
        setSelectedLook(button, selected);
        if (selected) scroll_->ensureWidgetVisible(button, 4, 4);
    }
}

void QtResultsWindow::rebuildItems(const std::vector<IntelligenceResultsView::Item>& items) {
    buttons_.clear();
    while (QLayoutItem* child = listLayout_->takeAt(0)) {
        if (QWidget* widget = child->widget()) widget->deleteLater();
        if (QLayout* inner = child->layout()) {
            while (QLayoutItem* cell = inner->takeAt(0)) {
                if (QWidget* widget = cell->widget()) widget->deleteLater();
                delete cell;
            }
        }
        delete child;
    }
    std::optional<IntelligenceRow> currentRow;
    QGridLayout* grid = nullptr;
    int index = 0;
    for (const auto& item : items) {
        if (item.row != currentRow) {
            currentRow = item.row;
            auto* title = new QLabel(QString::fromUtf8(intelligenceRowLabel(item.row).data(),
                                                       static_cast<int>(intelligenceRowLabel(item.row).size())),
                                     list_);
            title->setObjectName(QStringLiteral("rowTitle"));
            listLayout_->addWidget(title);
            grid = new QGridLayout;
            grid->setHorizontalSpacing(4);
            grid->setVerticalSpacing(2);
            for (int column = 0; column < kItemColumns; ++column) grid->setColumnStretch(column, 1);
            listLayout_->addLayout(grid);
            index = 0;
        }
        auto* button =
            new RightClickableButton(QString::fromStdString(item.emoji + "  " + item.title), list_);
        button->setToolTip(QString::fromStdString(item.title));
        button->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
        const std::string id = item.id;
        button->leftClickAction = [this, id] { view_.leftClick(id); };
        button->rightClickAction = [this, id] { view_.rightClick(id); };
        grid->addWidget(button, index / kItemColumns, index % kItemColumns);
        ++index;
        buttons_.emplace_back(id, button);
    }
    listLayout_->addStretch(1);
}

bool QtResultsWindow::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() == QEvent::KeyPress) {
        auto* key = static_cast<QKeyEvent*>(event);
        if (event == lastKey_ && key->timestamp() == lastKeyTimestamp_) return false;
        lastKey_ = event;
        lastKeyTimestamp_ = key->timestamp();
        if (!isActiveWindow()) return false;
        const auto translated = dialogKey(key->key(), key->modifiers());
        return translated && view_.keyDown(translated->keyCode, translated->flags);
    }
    if (event->type() == QEvent::MouseButtonPress && watched == editor_->viewport()) view_.editorTapped();
    // Buttons made or a window shown just now have their places only once the layout has run and the window
    // manager has sized the window: the selection is brought into view again then, never left out of sight.
    if (event->type() == QEvent::Resize && (watched == list_ || watched == scroll_->viewport())) {
        if (auto* button = buttonFor(view_.selectedItemId())) scroll_->ensureWidgetVisible(button, 4, 4);
    }
    return QWidget::eventFilter(watched, event);
}

void QtResultsWindow::closeEvent(QCloseEvent* event) {
    view_.windowWillClose();
    QWidget::closeEvent(event);
}

} // namespace sprelio::platform

#include "platform/qt/ShortcutEditor.h"

#include <QCheckBox>
#include <QComboBox>
#include <QEvent>
#include <QGridLayout>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

#include "base/Log.h"
#include "input/KeyShortcutRecorder.h"
#include "platform/qt/MainWindowPanes.h"
#include "ui/CompositorBindings.h"
#include "shared/ShortcutAction.h"
#include "ui/ShortcutRows.h"

namespace sprelio::platform {

namespace {

QString qs(const std::string& text) { return QString::fromStdString(text); }

// A picker that is as wide as `characters` letters, whatever its longest entry: the rows fit the tab's width.
void makeCompact(QComboBox* box, int characters) {
    box->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
    box->setMinimumContentsLength(characters);
}

QString rowObjectName(const char* kind, const Uuid& uuid) {
    return QString::fromLatin1(kind) + QLatin1Char('-') + qs(ShortcutRows::shortId(uuid));
}

constexpr const char* kRecordHint = "Press the keys… (Esc cancels)";

} // namespace

ShortcutEditor::ShortcutEditor(ShortcutEditorDependencies deps, QWidget* parent)
    : QWidget(parent), deps_(std::move(deps)), alive_(deps_.rows.alive()) {
    setObjectName(QStringLiteral("shortcutEditor"));
    layout_ = new QVBoxLayout(this);
    layout_->setContentsMargins(0, 0, 0, 0);
    layout_->setSpacing(8);
    layout_->addWidget(heading(QStringLiteral("Shortcuts"), this, 1.1));
    layout_->addWidget(noteLabel(
        QStringLiteral("Click a key to record a new one: press a single modifier (such as Right Ctrl), a "
                       "combination (such as Alt+Shift+D) or a mouse button other than the left one, and let go. "
                       "Escape cancels, Backspace removes the key, Tab goes on to the next row. Hold: the "
                       "dictation lasts while the key is down; otherwise a tap starts it and a second tap ends it."),
        this));
    rowsHost_ = new QWidget(this);
    layout_->addWidget(rowsHost_);
    message_ = new QLabel(this);
    message_->setObjectName(QStringLiteral("shortcutMessage"));
    message_->setWordWrap(true);
    QPalette red = message_->palette();
    red.setColor(QPalette::WindowText, QColor(190, 40, 40));
    message_->setPalette(red);
    message_->hide();
    layout_->addWidget(message_);
    if (deps_.showCompositorBindings) {
        bindings_ = new QLabel(this);
        bindings_->setObjectName(QStringLiteral("compositorBindings"));
        bindings_->setWordWrap(true);
        bindings_->setTextFormat(Qt::RichText);
        bindings_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
        layout_->addWidget(bindings_);
    }
    auto* buttons = new QHBoxLayout;
    restoreDefaults_ = new QPushButton(QStringLiteral("Restore the Default Shortcuts…"), this);
    restoreDefaults_->setObjectName(QStringLiteral("restoreDefaultShortcuts"));
    buttons->addWidget(restoreDefaults_);
    buttons->addStretch(1);
    layout_->addLayout(buttons);
    connect(restoreDefaults_, &QPushButton::clicked, this, [this] {
        if (!alive()) return;
        const auto answer = QMessageBox::question(
            this, QStringLiteral("Restore the default shortcuts?"),
            QStringLiteral("Your shortcuts are replaced by the default set: Right Alt dictates, Alt with S, W, L, U "
                           "and T runs the AI actions, Alt+H shows the history."));
        if (answer == QMessageBox::Yes) deps_.rows.reset();
    });

    activeWatch_ = new QTimer(this);
    activeWatch_->setInterval(200);
    connect(activeWatch_, &QTimer::timeout, this, [this] {
        if (alive() && deps_.ownWindowActive && !deps_.ownWindowActive()) cancelRecording("another window is active");
    });

    deps_.rows.onChange = [this] {
        if (alive()) reload();
    };
    deps_.rows.recorder().onChange = [this] {
        if (alive()) recorderChanged();
    };
    reload();
}

ShortcutEditor::~ShortcutEditor() {
    if (!alive()) return;
    deps_.rows.onChange = nullptr;
    deps_.rows.recorder().onChange = nullptr;
    deps_.rows.recorder().cancel();
}

void ShortcutEditor::reload() {
    if (!alive()) return;
    // The row whose button was clicked may be the one that goes: the old rows are deleted once the click is over.
    auto* fresh = new QWidget(this);
    auto* grid = new QGridLayout(fresh);
    grid->setContentsMargins(0, 0, 0, 0);
    grid->setHorizontalSpacing(8);
    grid->setVerticalSpacing(6);
    const QStringList titles = {QStringLiteral("Key"),    QStringLiteral("Action"), QStringLiteral("AI item"),
                                QStringLiteral("Result"), QStringLiteral("Language"), QStringLiteral("Hold"),
                                QString()};
    for (int column = 0; column < titles.size(); ++column) {
        auto* title = new QLabel(titles[column], fresh);
        QFont bold = title->font();
        bold.setBold(true);
        title->setFont(bold);
        grid->addWidget(title, 0, column);
    }
    widgets_.clear();
    const auto rows = deps_.rows.rows();
    for (std::size_t i = 0; i < rows.size(); ++i) addRow(grid, static_cast<int>(i) + 1, rows[i], i + 1 == rows.size());
    grid->setColumnStretch(1, 1);
    grid->setColumnStretch(2, 1);
    // The layout hands back the item that held the old rows; it is ours to delete.
    delete layout_->replaceWidget(rowsHost_, fresh);
    rowsHost_->hide();
    rowsHost_->deleteLater();
    rowsHost_ = fresh;
    if (bindings_) {
        // Native Wayland applications never let Sprelio see their keys: the compositor presses the shortcut.
        QString lines;
        for (const auto& row : rows)
            for (const auto& line : swayBindingLines(row)) lines += QString::fromStdString(line).toHtmlEscaped() + "<br>";
        bindings_->setText(
            QStringLiteral("<p>In this Wayland session the keys above reach X11 applications only. For all "
                           "applications, add these lines to your sway configuration (~/.config/sway/config) and "
                           "reload sway; on other desktops, bind the same commands as custom shortcuts:</p>") +
            QStringLiteral("<pre>") + lines + QStringLiteral("</pre>"));
    }
    recorderChanged();
}

void ShortcutEditor::addRow(QGridLayout* grid, int line, const ShortcutRow& row, bool isLast) {
    QWidget* host = grid->parentWidget();
    RowWidgets w;
    const Uuid uuid = row.uuid;

    w.keys = new QPushButton(host);
    w.keys->setObjectName(rowObjectName("keys", uuid));
    w.keys->setMinimumWidth(120);
    w.keys->setText(row.keys.empty() ? (isLast ? QStringLiteral("New shortcut…") : QStringLiteral("Record a key"))
                                     : qs(row.keys));
    w.keys->setToolTip(QStringLiteral("Click, then press the new key"));
    connect(w.keys, &QPushButton::clicked, this, [this, uuid] { record(uuid); });
    grid->addWidget(w.keys, line, 0);

    w.action = new QComboBox(host);
    w.action->setObjectName(rowObjectName("action", uuid));
    makeCompact(w.action, 11);
    for (const auto action : allShortcutActions())
        w.action->addItem(qs(std::string(shortcutActionMark(action)) + " " + std::string(shortcutActionTitle(action))),
                          qs(std::string(shortcutActionRawValue(action))));
    if (!row.action) w.action->addItem(qs("(unknown: " + row.actionText + ")"), qs(row.actionText));
    w.action->setCurrentIndex(w.action->findData(qs(row.actionText)));
    connect(w.action, &QComboBox::activated, this, [this, uuid, box = w.action](int index) {
        if (!alive()) return;
        if (const auto action = shortcutActionFromRawValue(box->itemData(index).toString().toStdString()))
            deps_.rows.setAction(uuid, *action);
    });
    grid->addWidget(w.action, line, 1);

    w.item = new QComboBox(host);
    w.item->setObjectName(rowObjectName("item", uuid));
    makeCompact(w.item, 11);
    const auto items = deps_.rows.itemChoices();
    for (const auto& item : items) w.item->addItem(qs(item.title), qs(item.id));
    if (row.itemId && w.item->findData(qs(*row.itemId)) < 0)
        w.item->addItem(qs(deps_.rows.itemTitle(*row.itemId)), qs(*row.itemId));
    w.item->setCurrentIndex(row.itemId ? w.item->findData(qs(*row.itemId)) : -1);
    w.item->setVisible(row.needsItem);
    connect(w.item, &QComboBox::activated, this, [this, uuid, box = w.item](int index) {
        if (alive()) deps_.rows.setItem(uuid, box->itemData(index).toString().toStdString());
    });
    grid->addWidget(w.item, line, 2);

    w.completion = new QComboBox(host);
    w.completion->setObjectName(rowObjectName("completion", uuid));
    makeCompact(w.completion, 4);
    // Short words in the row; the whole description in the tooltip.
    w.completion->addItem(QStringLiteral("Paste"), QStringLiteral("paste"));
    w.completion->addItem(QStringLiteral("Window"), QStringLiteral("dialog"));
    for (const auto type : {IntelligenceActionCompletionType::paste, IntelligenceActionCompletionType::dialog})
        w.completion->setItemData(w.completion->findData(qs(std::string(intelligenceActionCompletionTypeRawValue(type)))),
                                  qs(std::string(intelligenceActionCompletionTypeDescription(type))), Qt::ToolTipRole);
    w.completion->setCurrentIndex(std::max(0, w.completion->findData(qs(row.completionType.value_or("paste")))));
    w.completion->setVisible(row.needsItem);
    connect(w.completion, &QComboBox::activated, this, [this, uuid, box = w.completion](int index) {
        if (!alive()) return;
        if (const auto type =
                intelligenceActionCompletionTypeFromRawValue(box->itemData(index).toString().toStdString()))
            deps_.rows.setCompletionType(uuid, *type);
    });
    grid->addWidget(w.completion, line, 3);

    w.language = new QComboBox(host);
    w.language->setObjectName(rowObjectName("language", uuid));
    makeCompact(w.language, 6);
    w.language->addItem(QStringLiteral("Default"), QString());
    w.language->setItemData(0, QStringLiteral("The languages of the settings"), Qt::ToolTipRole);
    for (const auto& [code, name] : deps_.languages)
        if (!code.empty()) w.language->addItem(qs(name), qs(code));
    w.language->setCurrentIndex(std::max(0, w.language->findData(qs(row.languageCode.value_or("")))));
    w.language->setVisible(row.takesLanguage);
    connect(w.language, &QComboBox::activated, this, [this, uuid, box = w.language](int index) {
        if (!alive()) return;
        const std::string code = box->itemData(index).toString().toStdString();
        deps_.rows.setLanguage(uuid, code.empty() ? std::nullopt : std::optional<std::string>(code));
    });
    grid->addWidget(w.language, line, 4);

    w.hold = new QCheckBox(host);
    w.hold->setObjectName(rowObjectName("hold", uuid));
    w.hold->setChecked(row.hold);
    w.hold->setEnabled(row.holdCapable);
    w.hold->setToolTip(row.holdCapable ? QStringLiteral("Dictate while the key is held down")
                                       : QStringLiteral("Only the actions that record speech can be held"));
    connect(w.hold, &QCheckBox::clicked, this, [this, uuid](bool on) {
        if (alive()) deps_.rows.setHold(uuid, on);
    });
    grid->addWidget(w.hold, line, 5, Qt::AlignCenter);

    w.remove = new QToolButton(host);
    w.remove->setObjectName(rowObjectName("remove", uuid));
    w.remove->setText(QStringLiteral("✕"));
    w.remove->setAutoRaise(true);
    w.remove->setToolTip(QStringLiteral("Remove this shortcut"));
    w.remove->setVisible(!(isLast && row.isEmpty()));
    connect(w.remove, &QToolButton::clicked, this, [this, uuid] {
        if (alive()) deps_.rows.remove(uuid);
    });
    grid->addWidget(w.remove, line, 6);

    widgets_[uuid] = w;
}

template <class Widget>
Widget* ShortcutEditor::rowWidget(const Uuid& uuid, Widget* RowWidgets::*member) const {
    const auto found = widgets_.find(uuid);
    return found == widgets_.end() ? nullptr : found->second.*member;
}
QPushButton* ShortcutEditor::keyButton(const Uuid& uuid) const { return rowWidget(uuid, &RowWidgets::keys); }
QComboBox* ShortcutEditor::actionBox(const Uuid& uuid) const { return rowWidget(uuid, &RowWidgets::action); }
QComboBox* ShortcutEditor::itemBox(const Uuid& uuid) const { return rowWidget(uuid, &RowWidgets::item); }
QComboBox* ShortcutEditor::completionBox(const Uuid& uuid) const { return rowWidget(uuid, &RowWidgets::completion); }
QComboBox* ShortcutEditor::languageBox(const Uuid& uuid) const { return rowWidget(uuid, &RowWidgets::language); }
QCheckBox* ShortcutEditor::holdBox(const Uuid& uuid) const { return rowWidget(uuid, &RowWidgets::hold); }
QToolButton* ShortcutEditor::removeButton(const Uuid& uuid) const { return rowWidget(uuid, &RowWidgets::remove); }

void ShortcutEditor::record(const Uuid& uuid) {
    if (!alive()) return;
    const auto shortcut = deps_.rows.shortcut(uuid);
    if (!shortcut) return;
    watchTopLevel();
    deps_.rows.recorder().startRecording(shortcut);
}

std::optional<Uuid> ShortcutEditor::dictationRow() const {
    if (!alive()) return std::nullopt;
    for (const auto& row : deps_.rows.rows())
        if (row.action == ShortcutAction::recordAndTranscribe && !row.isEmpty()) return row.uuid;
    return std::nullopt;
}

void ShortcutEditor::recorderChanged() {
    auto& recorder = deps_.rows.recorder();
    const auto recording = recorder.recordingUuid();
    for (auto& [uuid, w] : widgets_) {
        const bool isRecording = recording && *recording == uuid;
        w.keys->setDown(isRecording);
        if (isRecording) {
            const std::string shown = recorder.displayString();
            w.keys->setText(shown == "Press the keys…" ? QString::fromUtf8(kRecordHint) : qs(shown));
        }
    }
    if (recording) {
        if (!activeWatch_->isActive()) activeWatch_->start();
    } else {
        activeWatch_->stop();
    }
    const bool ended = wasRecording_ && !recording;
    wasRecording_ = recording.has_value();
    // The rows show what was stored (or kept), and the new empty row a first key leaves behind.
    if (ended) reload();
    const std::string text = recorder.lastMessage();
    message_->setText(qs(text));
    message_->setVisible(!text.empty());
}

void ShortcutEditor::cancelRecording(const char* reason) {
    if (!alive() || !deps_.rows.recorder().isRecording()) return;
    logInfo(std::string("ShortcutEditor - the recording ends: ") + reason);
    deps_.rows.recorder().cancel();
}

void ShortcutEditor::watchTopLevel() {
    QWidget* top = window();
    if (top == watchedWindow_) return;
    if (watchedWindow_) watchedWindow_->removeEventFilter(this);
    watchedWindow_ = top;
    if (top) top->installEventFilter(this);
}

void ShortcutEditor::showEvent(QShowEvent* event) {
    // The rows may have changed while the tab was away (the command line, the default set made at the start).
    if (alive() && !deps_.rows.recorder().isRecording()) reload();
    QWidget::showEvent(event);
}

void ShortcutEditor::hideEvent(QHideEvent* event) {
    cancelRecording("the editor is hidden");
    QWidget::hideEvent(event);
}

bool ShortcutEditor::eventFilter(QObject* watched, QEvent* event) {
    if (watched == watchedWindow_) {
        switch (event->type()) {
        case QEvent::Close:
        case QEvent::Hide: cancelRecording("the window closes"); break;
        case QEvent::WindowDeactivate:
            // The keyboard grab itself takes the focus from our window for the desktop's focus events; only another
            // active window ends the recording.
            if (!deps_.ownWindowActive || !deps_.ownWindowActive()) cancelRecording("the window lost the focus");
            break;
        default: break;
        }
    }
    return QWidget::eventFilter(watched, event);
}

} // namespace sprelio::platform

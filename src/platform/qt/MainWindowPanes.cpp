#include "platform/qt/MainWindowPanes.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QScrollArea>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QToolButton>
#include <QVBoxLayout>

#include "audio/RecordingsFolderChooser.h"
#include "base/Log.h"
#include "input/Key.h"
#include "input/KeyNames.h"
#include "platform/Sounds.h"
#include "platform/qt/QtStatusItem.h"
#include "store/AppConstants.h"
#include "store/DatabaseHelpers.h"
#include "store/Entities.h"
#include "store/Settings.h"

namespace sprelio::platform {

QLabel* heading(const QString& text, QWidget* parent, double scale) {
    auto* label = new QLabel(text, parent);
    QFont font = label->font();
    font.setBold(true);
    font.setPointSizeF(font.pointSizeF() * scale);
    label->setFont(font);
    return label;
}

QLabel* noteLabel(const QString& text, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setWordWrap(true);
    QPalette grey = label->palette();
    grey.setColor(QPalette::WindowText, QColor(110, 110, 110));
    label->setPalette(grey);
    return label;
}

namespace {

QString qs(const std::string& text) { return QString::fromStdString(text); }

std::string imageNameFor(AppActivity status) {
    switch (status) {
    case AppActivity::recording:
    case AppActivity::filesMenuViewRecording:
    case AppActivity::continuousSpeechActive: return "rec_status";
    case AppActivity::processing: return "raspozn_status";
    case AppActivity::idle: break;
    }
    return "micro_status";
}

} // namespace

QString appActivityDescription(AppActivity status) {
    switch (status) {
    case AppActivity::idle: return QStringLiteral("Ready. Hold or tap your dictation key in any application.");
    case AppActivity::recording: return QStringLiteral("Recording…");
    case AppActivity::processing: return QStringLiteral("Transcribing…");
    case AppActivity::filesMenuViewRecording: return QStringLiteral("Recording in the Files tab…");
    case AppActivity::continuousSpeechActive: return QStringLiteral("Continuous dictation is on.");
    }
    return {};
}

// ---- Main ----

MainPane::MainPane(std::function<AppActivity()> appStatus, AppState& appState,
                   store::ManagedObjectContext& viewContext, QWidget* parent)
    : QWidget(parent), appStatus_(std::move(appStatus)), appState_(appState), viewContext_(viewContext) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 20, 24, 20);
    layout->setSpacing(14);
    layout->addWidget(heading(QStringLiteral("Sprelio"), this));

    auto* statusRow = new QHBoxLayout;
    icon_ = new QLabel(this);
    icon_->setFixedSize(48, 48);
    status_ = new QLabel(this);
    status_->setObjectName(QStringLiteral("appStatus"));
    status_->setWordWrap(true);
    QFont big = status_->font();
    big.setPointSizeF(big.pointSizeF() * 1.2);
    status_->setFont(big);
    statusRow->addWidget(icon_);
    statusRow->addWidget(status_, 1);
    layout->addLayout(statusRow);

    network_ = new QLabel(this);
    network_->setObjectName(QStringLiteral("network"));
    QPalette red = network_->palette();
    red.setColor(QPalette::WindowText, QColor(190, 40, 40));
    network_->setPalette(red);
    layout->addWidget(network_);

    accountRow_ = new QWidget(this);
    auto* accountLayout = new QHBoxLayout(accountRow_);
    accountLayout->setContentsMargins(0, 0, 0, 0);
    account_ = new QLabel(accountRow_);
    account_->setObjectName(QStringLiteral("account"));
    account_->setWordWrap(true);
    accountButton_ = new QPushButton(accountRow_);
    accountButton_->setObjectName(QStringLiteral("accountButton"));
    connect(accountButton_, &QPushButton::clicked, this, [this] {
        if (openAccount_) openAccount_();
    });
    accountLayout->addWidget(account_, 1);
    accountLayout->addWidget(accountButton_);
    accountRow_->hide();
    layout->addWidget(accountRow_);

    usability_ = new QLabel(this);
    usability_->setObjectName(QStringLiteral("usabilityWarnings"));
    usability_->setTextFormat(Qt::PlainText);
    usability_->setWordWrap(true);
    usability_->setFrameShape(QFrame::StyledPanel);
    usability_->setMargin(10);
    usability_->setAutoFillBackground(true);
    QPalette amber = usability_->palette();
    amber.setColor(QPalette::Window, QColor(255, 236, 179));
    amber.setColor(QPalette::WindowText, QColor(60, 45, 0));
    usability_->setPalette(amber);
    usability_->hide();
    layout->addWidget(usability_);

    layout->addWidget(heading(QStringLiteral("Your shortcuts"), this, 1.1));
    shortcuts_ = new QLabel(this);
    shortcuts_->setObjectName(QStringLiteral("shortcuts"));
    shortcuts_->setTextFormat(Qt::PlainText);
    shortcuts_->setWordWrap(true);
    layout->addWidget(shortcuts_);
    changeShortcuts_ = new QPushButton(QStringLiteral("Change Shortcuts…"), this);
    changeShortcuts_->setObjectName(QStringLiteral("changeShortcuts"));
    changeShortcuts_->hide();
    connect(changeShortcuts_, &QPushButton::clicked, this, [this] {
        if (openShortcutEditor) openShortcutEditor();
    });
    layout->addWidget(changeShortcuts_, 0, Qt::AlignLeft);
    layout->addStretch(1);
    refresh();
}

QString MainPane::statusText() const { return status_->text(); }

void MainPane::setOpenShortcutEditor(std::function<void()> open) {
    openShortcutEditor = std::move(open);
    changeShortcuts_->setVisible(static_cast<bool>(openShortcutEditor));
}

void MainPane::setAccount(const QString& text, const QString& buttonText, std::function<void()> open) {
    openAccount_ = std::move(open);
    account_->setText(text);
    accountButton_->setText(buttonText);
    accountRow_->show();
}

void MainPane::setUsabilityWarnings(const std::vector<std::string>& texts) {
    QStringList lines;
    for (const auto& text : texts) lines << QStringLiteral("⚠ ") + QString::fromStdString(text);
    usability_->setText(lines.join(QStringLiteral("\n\n")));
    usability_->setVisible(!lines.isEmpty());
}

void MainPane::refresh() {
    const AppActivity status = appStatus_ ? appStatus_() : AppActivity::idle;
    status_->setText(appActivityDescription(status));
    icon_->setPixmap(QPixmap::fromImage(drawStatusImage(imageNameFor(status), 48)));
    network_->setText(appState_.internetAvailable() ? QString()
                                                    : QStringLiteral("No internet connection: dictation waits for "
                                                                     "the network to come back."));
    network_->setVisible(!appState_.internetAvailable());

    QStringList lines;
    for (const auto& shortcut : store::getUserShortcuts(viewContext_, true, true)) {
        const std::string keys = linuxShortcutName(shortcut->singleModifierDirection(), shortcut->modifierEventKeyCode(),
                                                   shortcut->mouseEventMouseButton(), shortcut->shortcutString());
        if (keys.empty()) continue; // the editor's empty row
        const auto raw = shortcut->shortcutActionRawValue();
        const auto action = raw ? shortcutActionFromRawValue(*raw) : std::nullopt;
        const QString title = action ? qs(std::string(shortcutActionTitle(*action))) : QStringLiteral("(unknown)");
        lines << (keys.empty() ? QStringLiteral("(no key)") : qs(keys)) + QStringLiteral("  —  ") + title +
                     (shortcut->hold() ? QStringLiteral(" (hold)") : QString());
    }
    shortcuts_->setText(lines.isEmpty() ? QStringLiteral("No shortcuts yet.") : lines.join(QLatin1Char('\n')));
}

// ---- Settings ----

void SettingsPane::insertSection(QWidget* section) {
    section->setParent(content_->parentWidget());
    content_->insertWidget(1, section);
}

SettingsPane::SettingsPane(store::Settings& settings, SoundPlayer* sounds, QWidget* parent)
    : QWidget(parent), settings_(settings), sounds_(sounds) {
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    auto* scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    outer->addWidget(scroll);
    auto* content = new QWidget(scroll);
    auto* layout = new QVBoxLayout(content);
    layout->setContentsMargins(24, 20, 24, 20);
    layout->setSpacing(12);
    layout->addWidget(heading(QStringLiteral("Settings"), content));
    content_ = layout;
    scroll->setWidget(content);

    QGroupBox* group = nullptr;
    QFormLayout* form = nullptr;
    std::string section;
    for (const SettingsPaneItem& item : settingsPaneItems()) {
        if (!group || item.section != section) {
            section = item.section;
            group = new QGroupBox(qs(section), content);
            form = new QFormLayout(group);
            form->setFieldGrowthPolicy(QFormLayout::ExpandingFieldsGrow);
            layout->addWidget(group);
        }
        const std::string key = item.key;
        QWidget* field = nullptr;
        QWidget* editor = nullptr;
        if (const auto* toggle = std::get_if<ToggleBinding>(&item.binding)) {
            auto* box = new QCheckBox(qs(item.label), group);
            connect(box, &QCheckBox::toggled, this, [this, key, set = toggle->set](bool on) {
                set(settings_, on);
                if (onSettingChanged) onSettingChanged(key);
            });
            form->addRow(box);
            editor = box;
        } else if (const auto* integer = std::get_if<IntegerBinding>(&item.binding)) {
            auto* spin = new QSpinBox(group);
            spin->setRange(integer->minimum, integer->maximum);
            spin->setSuffix(qs(integer->unit));
            connect(spin, &QSpinBox::valueChanged, this, [this, set = integer->set](int v) { set(settings_, v); });
            form->addRow(qs(item.label), spin);
            editor = spin;
        } else if (const auto* choice = std::get_if<ChoiceBinding>(&item.binding)) {
            field = new QWidget(group);
            auto* row = new QHBoxLayout(field);
            row->setContentsMargins(0, 0, 0, 0);
            auto* combo = new QComboBox(field);
            for (const auto& c : choice->choices) combo->addItem(qs(c));
            connect(combo, &QComboBox::currentTextChanged, this,
                    [this, set = choice->set](const QString& text) { set(settings_, text.toStdString()); });
            row->addWidget(combo, 1);
            if (sounds_) {
                auto* play = new QToolButton(field);
                play->setText(QStringLiteral("▶"));
                play->setToolTip(QStringLiteral("Play this sound"));
                connect(play, &QToolButton::clicked, this,
                        [this, combo] { sounds_->play(combo->currentText().toStdString()); });
                row->addWidget(play);
            }
            form->addRow(qs(item.label), field);
            editor = combo;
        } else if (std::holds_alternative<FolderBinding>(item.binding)) {
            field = new QWidget(group);
            auto* row = new QHBoxLayout(field);
            row->setContentsMargins(0, 0, 0, 0);
            auto* path = new QLineEdit(field);
            path->setReadOnly(true);
            auto* choose = new QPushButton(QStringLiteral("Choose…"), field);
            // The one folder of the settings is the recordings folder: it is taken only when we can write into it,
            // and the chooser falls back otherwise.
            connect(choose, &QPushButton::clicked, this, [this, path] {
                const QString chosen = QFileDialog::getExistingDirectory(this, QStringLiteral("Recordings folder"),
                                                                         path->text());
                RecordingsFolderChooser chooser(settings_, [this](const std::string& message) {
                    QMessageBox::warning(this, QStringLiteral("Recordings folder"), qs(message));
                });
                std::optional<std::filesystem::path> selected;
                if (!chosen.isEmpty()) selected = std::filesystem::path(chosen.toStdString());
                const auto outcome = chooser.selectFolder(selected);
                if (outcome.result != RecordingsFolderChooser::Result::cancelled) {
                    path->setText(QString::fromStdString(outcome.folder.string()));
                }
            });
            row->addWidget(path, 1);
            row->addWidget(choose);
            form->addRow(qs(item.label), field);
            editor = path;
        } else if (const auto* text = std::get_if<TextBinding>(&item.binding)) {
            auto* line = new QLineEdit(group);
            auto* problem = noteLabel(QString(), group);
            QPalette red = problem->palette();
            red.setColor(QPalette::WindowText, QColor(190, 40, 40));
            problem->setPalette(red);
            problem->hide();
            connect(line, &QLineEdit::editingFinished, this,
                    [this, line, problem, key, get = text->get, set = text->set, validate = text->validate] {
                        const std::string typed = line->text().trimmed().toStdString();
                        if (typed == get(settings_)) {
                            problem->hide();
                            return;
                        }
                        if (validate) {
                            if (auto wrong = validate(typed)) {
                                // The stored value stays; the field keeps the text so the user can correct it.
                                logWarning("SettingsPane - refused " + key + ": " + *wrong);
                                problem->setText(qs(*wrong));
                                problem->show();
                                return;
                            }
                        }
                        problem->hide();
                        set(settings_, typed);
                    });
            form->addRow(qs(item.label), line);
            form->addRow(QString(), problem);
            problems_[key] = problem;
            editor = line;
        }
        if (!item.note.empty()) form->addRow(QString(), noteLabel(qs(item.note), group));
        if (editor) {
            editor->setObjectName(qs(key));
            editors_[key] = editor;
        }
    }
    layout->addStretch(1);
    reload();
}

void SettingsPane::reload() {
    for (const SettingsPaneItem& item : settingsPaneItems()) {
        QWidget* editor = this->editor(item.key);
        if (!editor) continue;
        const QSignalBlocker block(editor);
        if (const auto* toggle = std::get_if<ToggleBinding>(&item.binding)) {
            static_cast<QCheckBox*>(editor)->setChecked(toggle->get(settings_));
        } else if (const auto* integer = std::get_if<IntegerBinding>(&item.binding)) {
            static_cast<QSpinBox*>(editor)->setValue(integer->get(settings_));
        } else if (const auto* choice = std::get_if<ChoiceBinding>(&item.binding)) {
            auto* combo = static_cast<QComboBox*>(editor);
            const QString current = qs(choice->get(settings_));
            // A stored name that is no longer offered is shown as it is rather than silently replaced.
            if (combo->findText(current) < 0) combo->addItem(current);
            combo->setCurrentText(current);
        } else if (const auto* folder = std::get_if<FolderBinding>(&item.binding)) {
            static_cast<QLineEdit*>(editor)->setText(qs(folder->get(settings_).string()));
        } else if (const auto* text = std::get_if<TextBinding>(&item.binding)) {
            static_cast<QLineEdit*>(editor)->setText(qs(text->get(settings_)));
            if (auto it = problems_.find(item.key); it != problems_.end()) it->second->hide();
        }
    }
}

QWidget* SettingsPane::editor(const std::string& key) const {
    auto it = editors_.find(key);
    return it == editors_.end() ? nullptr : it->second;
}

QString SettingsPane::problem(const std::string& key) const {
    auto it = problems_.find(key);
    return it == problems_.end() || it->second->isHidden() ? QString() : it->second->text();
}

// ---- About ----

AboutPane::AboutPane(const store::AppConstants& constants,
                     std::function<bool(const std::filesystem::path&)> revealInFileManager, QWidget* parent)
    : QWidget(parent) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 20, 24, 20);
    layout->setSpacing(10);
    auto* icon = new QLabel(this);
    icon->setPixmap(QPixmap::fromImage(drawStatusImage("micro_status", 64)));
    layout->addWidget(icon);
    layout->addWidget(heading(qs(constants.appName()), this, 1.8));
    auto* version = new QLabel(QStringLiteral("Version %1 (build %2)")
                                   .arg(qs(constants.appVersion()), qs(constants.appBuild())),
                               this);
    version->setObjectName(QStringLiteral("version"));
    version->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(version);
    auto* updateRow = new QHBoxLayout;
    auto* checkForUpdate = new QPushButton(QStringLiteral("Check for Update"), this);
    checkForUpdate->setObjectName(QStringLiteral("checkForUpdate"));
    connect(checkForUpdate, &QPushButton::clicked, this, &AboutPane::checkForUpdateRequested);
    updateRow->addWidget(checkForUpdate);
    updateRow->addStretch(1);
    layout->addLayout(updateRow);
    layout->addWidget(noteLabel(QStringLiteral("Dictation for the whole desktop: hold a key, speak, and the text "
                                               "appears where you type."),
                                this));

    const auto folderRow = [&](const QString& label, const std::filesystem::path& folder) {
        auto* row = new QHBoxLayout;
        auto* text = new QLabel(label + QStringLiteral(": ") + qs(folder.string()), this);
        text->setTextInteractionFlags(Qt::TextSelectableByMouse);
        text->setWordWrap(true);
        row->addWidget(text, 1);
        if (revealInFileManager) {
            auto* show = new QPushButton(QStringLiteral("Show in File Manager"), this);
            connect(show, &QPushButton::clicked, this, [revealInFileManager, folder] {
                if (!revealInFileManager(folder))
                    logError("AboutPane - could not show " + folder.string() + " in the file manager");
            });
            row->addWidget(show);
        }
        layout->addLayout(row);
    };
    folderRow(QStringLiteral("Support folder"), constants.appSupportFolder());
    folderRow(QStringLiteral("Logs"), constants.logsFolder());
    layout->addStretch(1);
}

// ---- Tabs still to come ----

UnavailablePane::UnavailablePane(const QString& title, const QString& text, QWidget* parent) : QWidget(parent) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 20, 24, 20);
    layout->addWidget(heading(title, this));
    auto* label = noteLabel(text, this);
    label->setObjectName(QStringLiteral("comingSoon"));
    layout->addWidget(label);
    layout->addStretch(1);
}

} // namespace sprelio::platform

#include "platform/qt/AIPane.h"

#include <QComboBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "platform/qt/MainWindowPanes.h"
#include "store/Settings.h"

namespace sprelio::platform {

namespace {

QString qs(const std::string& text) { return QString::fromStdString(text); }

QString titleOf(const IntelligencePresetsViewModel::Preset& preset) {
    const auto title = preset->title().value_or("");
    return title.empty() ? QStringLiteral("(untitled)") : qs(title);
}

} // namespace

AIPane::AIPane(IntelligencePresetsViewModel& presets, store::Settings& settings,
               std::function<std::optional<std::string>()> applyAiService, QWidget* parent)
    : QWidget(parent), presets_(presets), settings_(settings), applyAiService_(std::move(applyAiService)) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 20, 24, 20);
    layout->addWidget(heading(QStringLiteral("AI"), this));
    layout->addWidget(noteLabel(QStringLiteral("Your presets are AI actions of your own: a prompt the model follows "
                                               "on the dictated or selected text. They stand among the actions of "
                                               "the results window."),
                                this));
    layout->addWidget(heading(QStringLiteral("Your presets"), this, 1.1));

    auto* row = new QHBoxLayout();
    auto* column = new QVBoxLayout();
    list_ = new QListWidget(this);
    list_->setObjectName(QStringLiteral("presetList"));
    list_->setMinimumWidth(180);
    column->addWidget(list_, 1);
    auto* buttons = new QHBoxLayout();
    add_ = new QPushButton(QStringLiteral("Add"), this);
    remove_ = new QPushButton(QStringLiteral("Remove"), this);
    up_ = new QPushButton(QStringLiteral("Up"), this);
    down_ = new QPushButton(QStringLiteral("Down"), this);
    for (auto* button : {add_, remove_, up_, down_}) buttons->addWidget(button);
    column->addLayout(buttons);
    row->addLayout(column, 1);

    auto* form = new QFormLayout();
    title_ = new QLineEdit(this);
    title_->setObjectName(QStringLiteral("presetTitle"));
    prompt_ = new QPlainTextEdit(this);
    prompt_->setObjectName(QStringLiteral("presetPrompt"));
    prompt_->setPlaceholderText(QStringLiteral("For example: Rewrite the text as a friendly e-mail."));
    model_ = new QComboBox(this);
    model_->setObjectName(QStringLiteral("presetModel"));
    model_->setEditable(true);
    model_->setToolTip(QStringLiteral("The model the AI service runs the preset with; left empty, its default."));
    form->addRow(QStringLiteral("Name"), title_);
    form->addRow(QStringLiteral("Prompt"), prompt_);
    form->addRow(QStringLiteral("Model"), model_);
    row->addLayout(form, 2);
    layout->addLayout(row, 2);

    layout->addWidget(heading(QStringLiteral("Actions and their shortcuts"), this, 1.1));
    actions_ = new QTreeWidget(this);
    actions_->setObjectName(QStringLiteral("aiActions"));
    actions_->setColumnCount(3);
    actions_->setHeaderLabels({QStringLiteral("Group"), QStringLiteral("Action"), QStringLiteral("Shortcut")});
    actions_->setRootIsDecorated(false);
    actions_->setSelectionMode(QAbstractItemView::NoSelection);
    actions_->setFocusPolicy(Qt::NoFocus);
    layout->addWidget(actions_, 1);

    layout->addWidget(heading(QStringLiteral("AI service"), this, 1.1));
    layout->addWidget(noteLabel(QStringLiteral("The AI actions go to an OpenAI-compatible chat service. Name one "
                                               "here, or leave the address empty: a service of local models on "
                                               "127.0.0.1:11434 is found by itself."),
                                this));
    auto* service = new QFormLayout();
    serviceURL_ = new QLineEdit(this);
    serviceURL_->setObjectName(QStringLiteral("aiServiceURL"));
    serviceURL_->setPlaceholderText(QStringLiteral("https://… (empty: a local service on 127.0.0.1:11434)"));
    serviceModel_ = new QLineEdit(this);
    serviceModel_->setObjectName(QStringLiteral("aiServiceModel"));
    serviceModel_->setPlaceholderText(QStringLiteral("empty: the service's first model"));
    serviceKey_ = new QLineEdit(this);
    serviceKey_->setObjectName(QStringLiteral("aiServiceKey"));
    serviceKey_->setEchoMode(QLineEdit::Password);
    service->addRow(QStringLiteral("Address"), serviceURL_);
    service->addRow(QStringLiteral("Model"), serviceModel_);
    service->addRow(QStringLiteral("Key"), serviceKey_);
    layout->addLayout(service);
    auto* serviceButtons = new QHBoxLayout();
    serviceStatus_ = new QLabel(this);
    serviceStatus_->setWordWrap(true);
    serviceButtons->addWidget(serviceStatus_, 1);
    forgetKey_ = new QPushButton(QStringLiteral("Forget Key"), this);
    applyService_ = new QPushButton(QStringLiteral("Use This Service"), this);
    serviceButtons->addWidget(forgetKey_);
    serviceButtons->addWidget(applyService_);
    layout->addLayout(serviceButtons);
    connect(applyService_, &QPushButton::clicked, this, [this] { applyService(); });
    connect(forgetKey_, &QPushButton::clicked, this, [this] {
        const std::string error = settings_.clearAiServiceKey();
        if (error.empty() && applyAiService_) applyAiService_();
        showService();
        if (!error.empty()) serviceStatus_->setText(qs(error));
    });

    connect(list_, &QListWidget::currentRowChanged, this, [this] { showSelected(); });
    connect(add_, &QPushButton::clicked, this, [this] { reload(presets_.add()); });
    connect(remove_, &QPushButton::clicked, this, [this] {
        if (auto preset = selected()) {
            presets_.remove(preset);
            reload(nullptr);
        }
    });
    connect(up_, &QPushButton::clicked, this, [this] {
        if (auto preset = selected()) {
            presets_.move(preset, -1);
            reload(preset);
        }
    });
    connect(down_, &QPushButton::clicked, this, [this] {
        if (auto preset = selected()) {
            presets_.move(preset, +1);
            reload(preset);
        }
    });
    connect(title_, &QLineEdit::textEdited, this, [this](const QString& text) {
        if (auto preset = selected(); preset && !filling_) {
            presets_.setTitle(preset, text.toStdString());
            if (auto* item = list_->currentItem()) item->setText(titleOf(preset));
        }
    });
    connect(prompt_, &QPlainTextEdit::textChanged, this, [this] {
        if (auto preset = selected(); preset && !filling_) presets_.setPrompt(preset, prompt_->toPlainText().toStdString());
    });
    connect(model_, &QComboBox::currentTextChanged, this, [this](const QString& text) {
        if (auto preset = selected(); preset && !filling_) presets_.setModel(preset, text.trimmed().toStdString());
    });
    reload(nullptr);
}

void AIPane::appear() {
    reload(selected());
    showService();
    showActions();
}

void AIPane::setActionsSource(std::function<std::vector<AIActionRow>()> source) {
    actionsSource_ = std::move(source);
    showActions();
}

void AIPane::showActions() {
    actions_->clear();
    if (!actionsSource_) return;
    for (const auto& action : actionsSource_()) {
        QStringList keys;
        for (const auto& key : action.shortcuts) keys << qs(key);
        const QString shortcut = keys.isEmpty() ? QStringLiteral("—") : keys.join(QStringLiteral(", "));
        auto* item = new QTreeWidgetItem(actions_, {qs(action.row), qs(action.title), shortcut});
        item->setFlags(Qt::ItemIsEnabled);
    }
    for (int column = 0; column < 3; ++column) actions_->resizeColumnToContents(column);
}

void AIPane::showService() {
    serviceURL_->setText(qs(settings_.aiServiceURL()));
    serviceModel_->setText(qs(settings_.aiServiceModel()));
    serviceKey_->clear();
    // The key itself is never shown again, only whether there is one.
    const bool hasKey = settings_.aiServiceKey().has_value();
    serviceKey_->setPlaceholderText(hasKey ? QStringLiteral("a key is stored; type a new one to replace it")
                                           : QStringLiteral("none (a local service needs none)"));
    forgetKey_->setEnabled(hasKey);
    serviceStatus_->clear();
}

void AIPane::applyService() {
    settings_.setAiServiceURL(serviceURL_->text().trimmed().toStdString());
    settings_.setAiServiceModel(serviceModel_->text().trimmed().toStdString());
    const std::string key = serviceKey_->text().trimmed().toStdString();
    if (!key.empty()) {
        if (const std::string error = settings_.setAiServiceKey(key); !error.empty()) {
            serviceStatus_->setText(qs(error));
            return;
        }
    }
    const auto error = applyAiService_ ? applyAiService_() : std::nullopt;
    showService();
    serviceStatus_->setText(error ? QStringLiteral("This service can't be used: ") + qs(*error)
                                  : QStringLiteral("The AI actions use this service from now on."));
}

IntelligencePresetsViewModel::Preset AIPane::selected() const {
    const int row = list_->currentRow();
    if (row < 0 || row >= static_cast<int>(shown_.size())) return nullptr;
    return shown_[static_cast<std::size_t>(row)];
}

void AIPane::reload(const IntelligencePresetsViewModel::Preset& select) {
    filling_ = true;
    shown_ = presets_.presets();
    list_->clear();
    int current = shown_.empty() ? -1 : 0;
    for (std::size_t i = 0; i < shown_.size(); ++i) {
        list_->addItem(titleOf(shown_[i]));
        if (shown_[i] == select) current = static_cast<int>(i);
    }
    model_->clear();
    for (const auto& model : presets_.models()) model_->addItem(qs(model));
    filling_ = false;
    list_->setCurrentRow(current);
    showSelected();
}

void AIPane::showSelected() {
    const auto preset = selected();
    filling_ = true;
    for (QWidget* editor : std::initializer_list<QWidget*>{title_, prompt_, model_, remove_, up_, down_})
        editor->setEnabled(preset != nullptr);
    title_->setText(preset ? qs(preset->title().value_or("")) : QString());
    prompt_->setPlainText(preset ? qs(preset->prompt().value_or("")) : QString());
    model_->setCurrentText(preset ? qs(preset->model().value_or("")) : QString());
    filling_ = false;
}

} // namespace sprelio::platform

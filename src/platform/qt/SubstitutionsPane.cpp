#include "platform/qt/SubstitutionsPane.h"

#include <QApplication>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMouseEvent>
#include <QPainter>
#include <QTableView>
#include <QVBoxLayout>
#include <algorithm>

namespace sprelio::platform {

namespace {

QString qs(const std::optional<std::string>& text) { return QString::fromStdString(text.value_or("")); }

} // namespace

// ---- Model ----

SubstitutionsTableModel::SubstitutionsTableModel(SubstitutionsViewModel& rules, QObject* parent)
    : QAbstractTableModel(parent), rules_(rules) {}

int SubstitutionsTableModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
}

int SubstitutionsTableModel::columnCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : 3; }

bool SubstitutionsTableModel::isBlankRow(int row) const {
    return row >= 0 && row < rowCount() && rowAt(row)->isBlankNew();
}

QVariant SubstitutionsTableModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() >= rowCount()) return {};
    const auto& row = rowAt(index.row());
    switch (index.column()) {
    case searchColumn:
        if (role == Qt::DisplayRole || role == Qt::EditRole) return qs(row->input());
        if (role == Qt::ToolTipRole && row->isBlankNew()) return QStringLiteral("Type a new rule here");
        break;
    case replaceColumn:
        if (role == Qt::DisplayRole || role == Qt::EditRole) return qs(row->output());
        break;
    case deleteColumn:
        if (row->isBlankNew()) break;
        if (role == Qt::DisplayRole) return QStringLiteral("✕");
        if (role == Qt::ToolTipRole) return QStringLiteral("Delete this rule");
        if (role == Qt::TextAlignmentRole) return int(Qt::AlignCenter);
        break;
    default: break;
    }
    return {};
}

Qt::ItemFlags SubstitutionsTableModel::flags(const QModelIndex& index) const {
    if (!index.isValid()) return Qt::NoItemFlags;
    if (index.column() == deleteColumn) return Qt::ItemIsEnabled;
    return Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsEditable;
}

QVariant SubstitutionsTableModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
    if (section == deleteColumn) return QString();
    const bool input = section == searchColumn;
    QString title = input ? QStringLiteral("Search") : QStringLiteral("Replace");
    if (const auto arrow = rules_.headerArrow(input))
        title += *arrow == "arrow.up" ? QStringLiteral("  ▲") : QStringLiteral("  ▼");
    return title;
}

bool SubstitutionsTableModel::setData(const QModelIndex& index, const QVariant& value, int role) {
    if (!index.isValid() || role != Qt::EditRole || index.column() == deleteColumn) return false;
    const auto row = rowAt(index.row());
    const std::string text = value.toString().toStdString();
    const std::string current = (index.column() == searchColumn ? row->input() : row->output()).value_or("");
    if (text == current) return true;
    rules_.beginEditing();
    if (index.column() == searchColumn) rules_.setInput(row, text);
    else rules_.setOutput(row, text);
    emit dataChanged(index, index);
    sync();
    emit rulesChanged();
    return true;
}

void SubstitutionsTableModel::reload() {
    beginResetModel();
    rows_ = rules_.sortedSubstitutions;
    endResetModel();
    emit headerDataChanged(Qt::Horizontal, 0, columnCount() - 1);
}

void SubstitutionsTableModel::sync() {
    const auto& target = rules_.sortedSubstitutions;
    // Rows that went.
    for (int i = rowCount() - 1; i >= 0; --i) {
        if (std::find(target.begin(), target.end(), rows_[static_cast<std::size_t>(i)]) != target.end()) continue;
        beginRemoveRows({}, i, i);
        rows_.erase(rows_.begin() + i);
        endRemoveRows();
    }
    // What is left must be the start of the new list, in the same order; then new rows are appended.
    if (rows_.size() > target.size() || !std::equal(rows_.begin(), rows_.end(), target.begin())) {
        reload();
        return;
    }
    if (target.size() > rows_.size()) {
        beginInsertRows({}, rowCount(), static_cast<int>(target.size()) - 1);
        rows_.assign(target.begin(), target.end());
        endInsertRows();
    }
    // The blank row may have become a rule and the other way round: its delete button follows.
    if (rowCount() > 0) emit dataChanged(index(0, deleteColumn), index(rowCount() - 1, deleteColumn));
    if (rules_.fetchedCountChanged()) emit grew();
}

void SubstitutionsTableModel::headerClicked(int section) {
    if (section == deleteColumn) return;
    rules_.headerClicked(section == searchColumn);
    reload();
}

void SubstitutionsTableModel::deleteRow(int row) {
    if (row < 0 || row >= rowCount() || isBlankRow(row)) return;
    rules_.deleteRow(rowAt(row));
    sync();
    emit rulesChanged();
}

// ---- Delegate ----

QWidget* SubstitutionsDelegate::createEditor(QWidget* parent, const QStyleOptionViewItem&,
                                             const QModelIndex& index) const {
    if (index.column() == SubstitutionsTableModel::deleteColumn) return nullptr;
    auto* editor = new QLineEdit(parent);
    editor->setFrame(false);
    // Every keystroke is saved, as the rule table has no Save button.
    connect(editor, &QLineEdit::textEdited, this, [this, editor] {
        emit const_cast<SubstitutionsDelegate*>(this)->commitData(editor);
    });
    return editor;
}

void SubstitutionsDelegate::setEditorData(QWidget* editor, const QModelIndex& index) const {
    auto* line = static_cast<QLineEdit*>(editor);
    const QString text = index.data(Qt::EditRole).toString();
    // Re-setting the same text would move the cursor to the end while the user types in the middle.
    if (line->text() != text) line->setText(text);
}

void SubstitutionsDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                                  const QModelIndex& index) const {
    const auto* model = qobject_cast<const SubstitutionsTableModel*>(index.model());
    QStyledItemDelegate::paint(painter, option, index);
    if (!model) return;
    if (index.column() != SubstitutionsTableModel::deleteColumn && model->isBlankRow(index.row()) &&
        index.data(Qt::DisplayRole).toString().isEmpty()) {
        painter->save();
        painter->setPen(QColor(150, 150, 150));
        QFont italic = option.font;
        italic.setItalic(true);
        painter->setFont(italic);
        const QString hint = index.column() == SubstitutionsTableModel::searchColumn
                                 ? QStringLiteral("New rule: word to find")
                                 : QStringLiteral("what to write instead");
        painter->drawText(option.rect.adjusted(6, 0, -4, 0), Qt::AlignVCenter | Qt::AlignLeft, hint);
        painter->restore();
    }
}

bool SubstitutionsDelegate::editorEvent(QEvent* event, QAbstractItemModel* model, const QStyleOptionViewItem& option,
                                        const QModelIndex& index) {
    if (index.column() == SubstitutionsTableModel::deleteColumn && event->type() == QEvent::MouseButtonRelease) {
        const auto* mouse = static_cast<QMouseEvent*>(event);
        if (mouse->button() == Qt::LeftButton && option.rect.contains(mouse->position().toPoint())) {
            if (auto* table = qobject_cast<SubstitutionsTableModel*>(model)) table->deleteRow(index.row());
            return true;
        }
    }
    return QStyledItemDelegate::editorEvent(event, model, option, index);
}

// ---- Pane ----

SubstitutionsPane::SubstitutionsPane(SubstitutionsViewModel& rules, Workspace* workspace, QWidget* parent)
    : QWidget(parent), rules_(rules), workspace_(workspace) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 20, 24, 20);
    layout->setSpacing(10);
    auto* title = new QLabel(QStringLiteral("Substitutions"), this);
    QFont font = title->font();
    font.setBold(true);
    font.setPointSizeF(font.pointSizeF() * 1.5);
    title->setFont(font);
    layout->addWidget(title);
    auto* explanation = new QLabel(QStringLiteral("Words you dictate are replaced as they are found here, whole words "
                                                  "only, in the letter case you spoke them."),
                                   this);
    explanation->setWordWrap(true);
    layout->addWidget(explanation);

    model_ = new SubstitutionsTableModel(rules_, this);
    table_ = new QTableView(this);
    table_->setModel(model_);
    table_->setItemDelegate(new SubstitutionsDelegate(table_));
    table_->setEditTriggers(QAbstractItemView::AllEditTriggers);
    table_->setSelectionMode(QAbstractItemView::SingleSelection);
    table_->setSelectionBehavior(QAbstractItemView::SelectItems);
    table_->verticalHeader()->hide();
    table_->setSortingEnabled(false); // the view model sorts, by its own rules
    auto* header = table_->horizontalHeader();
    header->setSectionsClickable(true);
    header->setSectionResizeMode(SubstitutionsTableModel::searchColumn, QHeaderView::Stretch);
    header->setSectionResizeMode(SubstitutionsTableModel::replaceColumn, QHeaderView::Stretch);
    header->setSectionResizeMode(SubstitutionsTableModel::deleteColumn, QHeaderView::Fixed);
    header->resizeSection(SubstitutionsTableModel::deleteColumn, 32);
    connect(header, &QHeaderView::sectionClicked, model_, &SubstitutionsTableModel::headerClicked);
    connect(model_, &SubstitutionsTableModel::rulesChanged, this, &SubstitutionsPane::showTestOutput);
    connect(model_, &SubstitutionsTableModel::grew, table_, &QTableView::scrollToBottom);
    layout->addWidget(table_, 1);

    auto* box = new QGroupBox(QStringLiteral("Try it"), this);
    auto* boxLayout = new QVBoxLayout(box);
    testInput_ = new QLineEdit(box);
    testInput_->setObjectName(QStringLiteral("testInput"));
    testInput_->setPlaceholderText(QStringLiteral("Input some text to test substitutions"));
    auto* extraRow = new QHBoxLayout;
    extraInput_ = new QLineEdit(box);
    extraInput_->setPlaceholderText(QStringLiteral("Extra rule: search (not saved)"));
    extraOutput_ = new QLineEdit(box);
    extraOutput_->setPlaceholderText(QStringLiteral("Extra rule: replace"));
    extraRow->addWidget(extraInput_);
    extraRow->addWidget(extraOutput_);
    testOutput_ = new QLineEdit(box);
    testOutput_->setObjectName(QStringLiteral("testOutput"));
    testOutput_->setReadOnly(true);
    testOutput_->setPlaceholderText(QStringLiteral("Text after substitutions was applied"));
    boxLayout->addWidget(testInput_);
    boxLayout->addLayout(extraRow);
    boxLayout->addWidget(testOutput_);
    layout->addWidget(box);

    connect(testInput_, &QLineEdit::textChanged, this, [this](const QString& text) {
        rules_.setTestInputText(text.toStdString());
        showTestOutput();
    });
    const auto extraChanged = [this] {
        rules_.setExtraRule(extraInput_->text().toStdString(), extraOutput_->text().toStdString());
        showTestOutput();
    };
    connect(extraInput_, &QLineEdit::textChanged, this, extraChanged);
    connect(extraOutput_, &QLineEdit::textChanged, this, extraChanged);
}

void SubstitutionsPane::appear() {
    rules_.onAppear(workspace_);
    model_->reload();
    rules_.fetchedCountChanged();
    rules_.updateTestOutput();
    showTestOutput();
}

void SubstitutionsPane::showTestOutput() { testOutput_->setText(QString::fromStdString(rules_.testOutputText)); }

} // namespace sprelio::platform

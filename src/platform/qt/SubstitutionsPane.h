#pragma once
// The Substitutions tab: the rule table (sortable by either column, always one blank row at the end, each change
// saved as it is typed) and the test box. The rules' logic is SubstitutionsViewModel; this draws it.
#include <QAbstractTableModel>
#include <QStyledItemDelegate>
#include <QWidget>
#include <vector>

#include "text/SubstitutionsViewModel.h"

class QLineEdit;
class QTableView;

namespace sprelio::platform {

class Workspace;

class SubstitutionsTableModel final : public QAbstractTableModel {
    Q_OBJECT
public:
    enum Column { searchColumn = 0, replaceColumn = 1, deleteColumn = 2 };

    explicit SubstitutionsTableModel(SubstitutionsViewModel& rules, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    bool setData(const QModelIndex& index, const QVariant& value, int role) override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

    // Shows the view model's rows as they stand, in their order.
    void reload();
    void headerClicked(int section);
    void deleteRow(int row);
    bool isBlankRow(int row) const;
    const SubstitutionsViewModel::Row& rowAt(int row) const { return rows_.at(static_cast<std::size_t>(row)); }

signals:
    // A rule changed: the test box shows a new result.
    void rulesChanged();
    // The table got rows beyond those it had: the view goes to its end.
    void grew();

private:
    // Follows the view model's rows after an edit without disturbing an open editor: rows that went are removed,
    // rows that came are appended; any other change reloads.
    void sync();

    SubstitutionsViewModel& rules_;
    std::vector<SubstitutionsViewModel::Row> rows_;
};

// Line editors that save at each keystroke, placeholders in the blank row, and the delete button of a row.
class SubstitutionsDelegate final : public QStyledItemDelegate {
    Q_OBJECT
public:
    using QStyledItemDelegate::QStyledItemDelegate;
    QWidget* createEditor(QWidget* parent, const QStyleOptionViewItem& option, const QModelIndex& index) const override;
    void setEditorData(QWidget* editor, const QModelIndex& index) const override;
    void paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const override;
    bool editorEvent(QEvent* event, QAbstractItemModel* model, const QStyleOptionViewItem& option,
                     const QModelIndex& index) override;
};

class SubstitutionsPane final : public QWidget {
    Q_OBJECT
public:
    SubstitutionsPane(SubstitutionsViewModel& rules, Workspace* workspace, QWidget* parent = nullptr);

    // The tab comes into view: seeds the rules when there are none, opens the blank row and sorts.
    void appear();

    QTableView* table() const { return table_; }
    SubstitutionsTableModel* model() const { return model_; }
    QLineEdit* testInput() const { return testInput_; }
    QLineEdit* testOutput() const { return testOutput_; }

private:
    void showTestOutput();

    SubstitutionsViewModel& rules_;
    Workspace* workspace_;
    SubstitutionsTableModel* model_ = nullptr;
    QTableView* table_ = nullptr;
    QLineEdit* testInput_ = nullptr;
    QLineEdit* extraInput_ = nullptr;
    QLineEdit* extraOutput_ = nullptr;
    QLineEdit* testOutput_ = nullptr;
};

} // namespace sprelio::platform

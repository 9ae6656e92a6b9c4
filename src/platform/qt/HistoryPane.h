#pragma once
// The History tab: every request, newest first, with its four actions (transcribe again, play, show in the file
// manager, remove), a copy on a click of the text, and the settings popover ("Wipe all", "Days to keep"). The
// logic is HistoryViewModel; this draws it. Long histories are shown a page at a time.
#include <QFrame>
#include <QLabel>
#include <QWidget>
#include <memory>
#include <vector>

#include "ui/HistoryViewModel.h"

class QPushButton;
class QScrollArea;
class QSpinBox;
class QToolButton;
class QVBoxLayout;

namespace sprelio {
class MaintenanceManager;
namespace store {
class LogEntry;
class Settings;
} // namespace store
} // namespace sprelio

namespace sprelio::platform {

// One entry: its text (a click copies it), its date line and its buttons.
class HistoryRowWidget final : public QFrame {
    Q_OBJECT
public:
    HistoryRowWidget(HistoryViewModel& history, const HistoryRow& row, QWidget* parent = nullptr);
    const std::shared_ptr<store::LogEntry>& entry() const { return entry_; }
    QLabel* textLabel() const { return text_; }
    QToolButton* retryButton() const { return retry_; }
    QToolButton* playButton() const { return play_; }
    QToolButton* showButton() const { return show_; }
    QToolButton* removeButton() const { return remove_; }

signals:
    // The text was put on the clipboard.
    void copied();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    HistoryViewModel& history_;
    std::shared_ptr<store::LogEntry> entry_;
    QLabel* text_ = nullptr;
    QToolButton* retry_ = nullptr;
    QToolButton* play_ = nullptr;
    QToolButton* show_ = nullptr;
    QToolButton* remove_ = nullptr;
};

// "Configure history": wipe everything, or choose how many days entries are kept. Closing it expires what is now
// too old.
class HistorySettingsPopover final : public QFrame {
    Q_OBJECT
public:
    HistorySettingsPopover(HistoryViewModel& history, store::Settings& settings, QWidget* parent = nullptr);
    QPushButton* wipeAllButton() const { return wipeAll_; }
    QPushButton* daysToKeepButton() const { return daysToKeep_; }
    QSpinBox* daysEditor() const { return days_; }

signals:
    void closed();

protected:
    void hideEvent(QHideEvent* event) override;

private:
    void showDays();

    HistoryViewModel& history_;
    store::Settings& settings_;
    QPushButton* wipeAll_ = nullptr;
    QPushButton* daysToKeep_ = nullptr;
    QSpinBox* days_ = nullptr;
};

class HistoryPane final : public QWidget {
    Q_OBJECT
public:
    static constexpr int kPageSize = 200;

    HistoryPane(HistoryViewModel& history, MaintenanceManager& maintenance, store::Settings& settings,
                QWidget* parent = nullptr);
    ~HistoryPane() override;

    // Reads the entries again (coalesced: several changes in one turn of the loop rebuild once).
    void refreshSoon();
    void refreshNow();
    void scrollToTop();

    QLabel* headerLabel() const { return header_; }
    std::vector<HistoryRowWidget*> rows() const;
    QToolButton* configureButton() const { return configure_; }
    HistorySettingsPopover* popover() const { return popover_; }
    void openPopover();

private:
    // A short note of what was copied, where the pointer is.
    void showCopied();

    HistoryViewModel& history_;
    MaintenanceManager& maintenance_;
    store::Settings& settings_;
    QLabel* header_ = nullptr;
    QLabel* progress_ = nullptr;
    QToolButton* configure_ = nullptr;
    QScrollArea* scroll_ = nullptr;
    QWidget* list_ = nullptr;
    QVBoxLayout* listLayout_ = nullptr;
    QPushButton* more_ = nullptr;
    HistorySettingsPopover* popover_ = nullptr;
    int shownCount_ = kPageSize;
    bool refreshPending_ = false;
    bool lastScrollToTop_ = false;
};

} // namespace sprelio::platform

#pragma once
// The simpler tabs of the main window: what Sprelio is doing, its settings, what it is, and the tabs still to come.
#include <QLabel>
#include <QWidget>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "shared/AppActivity.h"
#include "shared/AppState.h"
#include "ui/SettingsPaneItems.h"

class QCheckBox;
class QComboBox;
class QLineEdit;
class QPushButton;
class QSpinBox;
class QVBoxLayout;


namespace sprelio {
namespace store {
class AppConstants;
class ManagedObjectContext;
class Settings;
} // namespace store
} // namespace sprelio

namespace sprelio::platform {

class SoundPlayer;

// The state of the session in words.
QString appActivityDescription(AppActivity status);

class MainPane final : public QWidget {
    Q_OBJECT
public:
    MainPane(std::function<AppActivity()> appStatus, AppState& appState, store::ManagedObjectContext& viewContext,
             QWidget* parent = nullptr);
    // Reads the state, the network and the shortcuts again.
    void refresh();
    QString statusText() const;
    // What keeps Sprelio from working here; none hides the box.
    void setUsabilityWarnings(const std::vector<std::string>& texts);
    QLabel* usabilityLabel() const { return usability_; }
    // Where "Change Shortcuts…" leads; the button shows once this is set.
    void setOpenShortcutEditor(std::function<void()> open);
    QPushButton* changeShortcutsButton() const { return changeShortcuts_; }
    // The account's state in words, with the button that opens the sign-in window; hidden until first set.
    void setAccount(const QString& text, const QString& buttonText, std::function<void()> open);
    QLabel* accountLabel() const { return account_; }
    QPushButton* accountButton() const { return accountButton_; }

private:
    std::function<AppActivity()> appStatus_;
    AppState& appState_;
    store::ManagedObjectContext& viewContext_;
    QLabel* icon_ = nullptr;
    QLabel* status_ = nullptr;
    QLabel* network_ = nullptr;
    QLabel* usability_ = nullptr;
    QLabel* shortcuts_ = nullptr;
    QPushButton* changeShortcuts_ = nullptr;
    std::function<void()> openShortcutEditor;
    QWidget* accountRow_ = nullptr;
    QLabel* account_ = nullptr;
    QPushButton* accountButton_ = nullptr;
    std::function<void()> openAccount_;
};

// One editor per item of settingsPaneItems(), writing through the item's typed accessors as the user changes it.
class SettingsPane final : public QWidget {
    Q_OBJECT
public:
    SettingsPane(store::Settings& settings, SoundPlayer* sounds, QWidget* parent = nullptr);
    // Shows the stored values again (they may have been changed elsewhere).
    void reload();
    // The editor of a key: a QCheckBox, QSpinBox, QComboBox or QLineEdit; nullptr for an unknown key.
    QWidget* editor(const std::string& key) const;
    // The problem shown under a text editor; empty when there is none.
    QString problem(const std::string& key) const;
    // A section of its own above the settings (the hotkey editor).
    void insertSection(QWidget* section);
    // Called with the key after the user changed a toggle, so that what watches the setting follows at once.
    std::function<void(const std::string& key)> onSettingChanged;

private:
    store::Settings& settings_;
    SoundPlayer* sounds_;
    std::map<std::string, QWidget*> editors_;
    std::map<std::string, QLabel*> problems_;
    QVBoxLayout* content_ = nullptr;
};

class AboutPane final : public QWidget {
    Q_OBJECT
public:
    AboutPane(const store::AppConstants& constants,
              std::function<bool(const std::filesystem::path&)> revealInFileManager, QWidget* parent = nullptr);

signals:
    // "Check for Update": the user asks the update feed now.
    void checkForUpdateRequested();
};

// The look every tab shares: a bold heading (`scale` times the normal size) and a grey, wrapping note.
QLabel* heading(const QString& text, QWidget* parent, double scale = 1.5);
QLabel* noteLabel(const QString& text, QWidget* parent);

// A tab whose part could not be made in this session (no history store, say): it says so instead of staying blank.
class UnavailablePane final : public QWidget {
    Q_OBJECT
public:
    UnavailablePane(const QString& title, const QString& text, QWidget* parent = nullptr);
};

} // namespace sprelio::platform

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

private:
    std::function<AppActivity()> appStatus_;
    AppState& appState_;
    store::ManagedObjectContext& viewContext_;
    QLabel* icon_ = nullptr;
    QLabel* status_ = nullptr;
    QLabel* network_ = nullptr;
    QLabel* usability_ = nullptr;
    QLabel* shortcuts_ = nullptr;
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

private:
    store::Settings& settings_;
    SoundPlayer* sounds_;
    std::map<std::string, QWidget*> editors_;
    std::map<std::string, QLabel*> problems_;
};

class AboutPane final : public QWidget {
    Q_OBJECT
public:
    AboutPane(const store::AppConstants& constants,
              std::function<bool(const std::filesystem::path&)> revealInFileManager, QWidget* parent = nullptr);
};

// The look every tab shares: a bold heading (`scale` times the normal size) and a grey, wrapping note.
QLabel* heading(const QString& text, QWidget* parent, double scale = 1.5);
QLabel* noteLabel(const QString& text, QWidget* parent);

// A tab whose feature comes in a later version: it says what it will hold.
class ComingSoonPane final : public QWidget {
    Q_OBJECT
public:
    ComingSoonPane(const QString& title, const QString& text, QWidget* parent = nullptr);
};

} // namespace sprelio::platform

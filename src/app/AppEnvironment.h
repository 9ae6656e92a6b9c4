#pragma once
// What every `sprelio` process sets up before it does anything: folders, constants, the file log and the
// settings file. The desktop application builds on the same set-up.
#include <memory>
#include <string>
#include <vector>

#include "diagnostics/LogManager.h"
#include "platform/linux/SyslogSystemLog.h"
#include "platform/linux/SystemClock.h"
#include "platform/linux/XdgFolders.h"
#include "store/AppConstants.h"
#include "store/JsonFileSettingsStore.h"
#include "store/Persistence.h"
#include "store/Settings.h"

namespace sprelio::app {

class AppEnvironment {
public:
    AppEnvironment();
    ~AppEnvironment();
    AppEnvironment(const AppEnvironment&) = delete;
    AppEnvironment& operator=(const AppEnvironment&) = delete;

    platform::XdgFolders& folders() { return folders_; }
    const store::AppConstants& constants() const { return constants_; }
    LogManager& logManager() { return *logManager_; }
    store::JsonFileSettingsStore& settingsStore() { return settingsStore_; }
    store::Settings& settings() { return settings_; }
    const platform::Clock& clock() const { return clock_; }
    // The store, opened in the support folder on first use (commands that don't need it don't open it).
    store::PersistenceController& persistence();
    // What the user must hear of this start: a settings file or a store that was damaged and set aside. Each is
    // also written to stderr when it happens, for the commands.
    const std::vector<std::string>& damagedFileNotices() const { return damagedFileNotices_; }

private:
    platform::XdgFolders folders_;
    platform::SystemClock clock_;
    platform::SyslogSystemLog systemLog_;
    store::AppConstants constants_;
    std::unique_ptr<LogManager> logManager_;
    store::JsonFileSettingsStore settingsStore_;
    store::Settings settings_;
    std::vector<std::string> damagedFileNotices_;

    void notice(std::string text);
};

} // namespace sprelio::app

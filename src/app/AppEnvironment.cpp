#include "app/AppEnvironment.h"

#include <cstdio>

namespace sprelio::app {

namespace {
// The log must be installed before the settings file is read, so that a file moved aside is on record.
std::unique_ptr<LogManager> startLog(platform::SystemLog& systemLog, const platform::Clock& clock,
                                     const store::AppConstants& constants) {
    auto manager = std::make_unique<LogManager>(systemLog, clock, constants.logsFolder());
    setLogSink(manager.get());
    return manager;
}
} // namespace

AppEnvironment::AppEnvironment()
    : constants_(folders_),
      logManager_(startLog(systemLog_, clock_, constants_)),
      settingsStore_(constants_.settingsFile()),
      settings_(settingsStore_, constants_) {
    if (const auto& aside = settingsStore_.movedAsideTo(); !aside.empty())
        notice("The settings file was damaged. " + constants_.appName() + " keeps it at " + aside.string() +
               " and starts with the default settings.");
}

store::PersistenceController& AppEnvironment::persistence() {
    if (store::PersistenceController::isInstalled()) return store::PersistenceController::shared();
    auto& controller = store::PersistenceController::install(constants_.appSupportFolder());
    if (const auto& aside = controller.movedAsideTo(); !aside.empty())
        notice("The file of your history, shortcuts and presets was damaged. " + constants_.appName() +
               " keeps it at " + aside.string() + " and started a new one.");
    return controller;
}

void AppEnvironment::notice(std::string text) {
    std::fprintf(stderr, "%s\n", text.c_str());
    damagedFileNotices_.push_back(std::move(text));
}

AppEnvironment::~AppEnvironment() {
    setLogSink(nullptr);
    logManager_.reset(); // drains what is queued before the process ends
}

} // namespace sprelio::app

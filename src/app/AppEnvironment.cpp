#include "app/AppEnvironment.h"

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
      settings_(settingsStore_, constants_) {}

store::PersistenceController& AppEnvironment::persistence() {
    if (!store::PersistenceController::isInstalled())
        return store::PersistenceController::install(constants_.appSupportFolder());
    return store::PersistenceController::shared();
}

AppEnvironment::~AppEnvironment() {
    setLogSink(nullptr);
    logManager_.reset(); // drains what is queued before the process ends
}

} // namespace sprelio::app

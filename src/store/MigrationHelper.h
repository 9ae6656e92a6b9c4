#pragma once
// Once-only conversions of stored data, by build number. A build stores its own number in `lastKnownBuild` at its
// first start, so each conversion runs once per data generation and a start never fails here.
#include <string>

namespace sprelio::store {

class AppConstants;
class ManagedObjectContext;
class Settings;

class MigrationHelper {
public:
    // Data of builds up to this one (exclusive) predates the split of shortcut items into actions and translations.
    static constexpr int kSplitCategoriesBuild = 216;

    MigrationHelper(ManagedObjectContext& viewContext, Settings& settings, const AppConstants& constants);

    // Runs what the stored build calls for and stores the current build. Always true.
    bool checkAndMigrate();
    void migratePre_build_216();

    // `appBuild` read as a decimal integer; a text that is no integer counts as 0.
    static int buildNumber(const std::string& appBuild);

private:
    ManagedObjectContext& viewContext_;
    Settings& settings_;
    const AppConstants& constants_;
};

} // namespace sprelio::store

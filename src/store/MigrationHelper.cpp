#include "store/MigrationHelper.h"

#include <algorithm>
#include <charconv>
#include <vector>

#include "base/Log.h"
#include "store/AppConstants.h"
#include "store/DatabaseHelpers.h"
#include "store/Entities.h"
#include "store/Settings.h"

namespace sprelio::store {

MigrationHelper::MigrationHelper(ManagedObjectContext& viewContext, Settings& settings, const AppConstants& constants)
    : viewContext_(viewContext), settings_(settings), constants_(constants) {}

int MigrationHelper::buildNumber(const std::string& appBuild) {
    int value = 0;
    const char* end = appBuild.data() + appBuild.size();
    const auto [stop, error] = std::from_chars(appBuild.data(), end, value);
    // "216b" or "" are not build numbers; neither is a value that overflows.
    if (error != std::errc() || stop != end) return 0;
    return value;
}

bool MigrationHelper::checkAndMigrate() {
    const std::string& build = constants_.appBuild();
    const int current = buildNumber(build);
    const int stored = settings_.lastKnownBuild();
    logInfo("checkAndMigrate() - currentBuild: " + build + " (" + std::to_string(current) +
            ") / lastKnownBuild: " + std::to_string(stored));
    if (stored > kSplitCategoriesBuild - 1) {
        logInfo("checkAndMigrate() - no migration needed this time");
    } else {
        migratePre_build_216();
    }
    settings_.setLastKnownBuild(current);
    return true;
}

void MigrationHelper::migratePre_build_216() {
    logInfo("migratePre_build_216()");
    const auto shortcuts = cdGetEntity<UserShortcut>(viewContext_);
    if (!shortcuts) return;
    // The table's last row has the empty code, so a shortcut without an item id counts as a translation: older
    // builds stored exactly that for their translation shortcuts' defaults, and the conversion keeps it.
    std::vector<std::string> codes;
    for (const auto& language : constants_.languages()) codes.push_back(language.code);
    for (const auto& shortcut : *shortcuts) {
        const std::string item = shortcut->intelligenceActionItemIdString().value_or("");
        const bool translation = std::find(codes.begin(), codes.end(), item) != codes.end();
        logInfo("migratePre_build_216() - migrating shortcut with shortcutActionRawValue: " +
                shortcut->shortcutActionRawValue().value_or("??") + (translation ? " to .translation" : " to .action"));
        shortcut->setIntelligenceActionCategoryRawValue(translation ? "translation" : "action");
    }
    cdSaveContext(&viewContext_, "migratePre_build_216()");
}

} // namespace sprelio::store

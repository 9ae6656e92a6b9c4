#include "app/UpdateCommand.h"

#include <cstdlib>
#include <ostream>

#include "app/AppEnvironment.h"
#include "app/CommandSupport.h"
#include "app/UpdatePublicKey.h"
#include "diagnostics/UpdatePolicy.h"
#include "diagnostics/Updater.h"
#include "platform/linux/CurlHttpClient.h"
#include "platform/loop/RealTimeLoop.h"
#include "store/Settings.h"

// sprelio update check: what the update feed offers, and whether it is newer than this build.
namespace sprelio::app {

namespace {

constexpr auto kCheckLimit = std::chrono::seconds(90);

std::string describe(const std::string& appName, const SUAppcastItem& item) {
    std::string text = appName + " " + item.displayVersionString;
    if (item.displayVersionString != item.versionString) text += " (version " + item.versionString + ")";
    text += item.contentLength ? ", " + std::to_string(*item.contentLength) + " bytes" : ", size not given";
    text += item.edSignature.empty() ? ", not signed" : ", signed";
    if (!item.operatingSystem.empty()) text += ", for " + item.operatingSystem;
    return text + ": " + item.fileURL;
}

} // namespace

std::string configuredUpdateFeedURL(const store::Settings& settings) {
    if (const char* variable = std::getenv(kUpdateFeedURLVariable); variable && *variable) return variable;
    return settings.updateFeedURL();
}

int updateCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() != 3 || args[2] != "check") return fail(err, "update: expected \"update check\"", 2);
    AppEnvironment env;
    const std::string feed = configuredUpdateFeedURL(env.settings());
    if (feed.empty())
        return fail(err, std::string("update check: no update feed is set (the setting updateFeedURL, or $") +
                             kUpdateFeedURLVariable + ")");
    const auto& constants = env.constants();
    platform::RealTimeLoop loop;
    platform::CurlHttpClient http(loop);
    // The command only asks; the delegate's rules of when to offer are the desktop application's.
    SparkleUpdaterDelegate delegate(SparkleUpdaterDelegate::Dependencies{
        loop, constants.appName(), constants.appVersion(), {}, {}, {}, {}, {}});
    SparkleUserDriverDelegate driver;
    SPUUpdater updater(SPUUpdater::Dependencies{loop, http, [feed] { return feed; }, constants.appName(),
                                                constants.appVersion(), kUpdatePublicKey, {}, {}, {}, {}},
                       delegate, driver);
    std::optional<UpdateCheckResult> result;
    updater.probe([&result](UpdateCheckResult found) { result = std::move(found); });
    if (!loop.runUntil([&result] { return result.has_value(); }, kCheckLimit))
        return fail(err, "update check: the feed " + feed + " did not answer in time");
    if (!result->appcast) return fail(err, "update check: " + result->error);

    out << "Feed: " << feed << "\n";
    out << "Running: " << constants.appName() << " " << constants.appVersion() << "\n";
    if (result->appcast->items.empty()) out << "The feed offers no release.\n";
    for (const auto& item : result->appcast->items) out << "Offered: " << describe(constants.appName(), item) << "\n";
    if (result->update) {
        out << "Update available: " << constants.appName() << " " << result->update->displayVersionString << "\n";
    } else {
        out << "No update: " << constants.appName() << " " << constants.appVersion()
            << " is the newest version for this system.\n";
    }
    return 0;
}

} // namespace sprelio::app

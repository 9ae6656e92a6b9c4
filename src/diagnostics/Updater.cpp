#include "diagnostics/Updater.h"

#include <fstream>

#include "base/Log.h"
#include "diagnostics/UpdatePolicy.h"
#include "diagnostics/UpdateSignature.h"

namespace sprelio {

namespace {

constexpr std::chrono::seconds kFeedTimeout{60};
constexpr std::size_t kMaxFeedBytes = 8u * 1024u * 1024u;
constexpr std::size_t kMaxPackageBytes = 1024u * 1024u * 1024u;

// The last segment of the URL's path, if it is a plain file name; the package is saved under it.
std::string packageFileName(const std::string& url) {
    std::string path = url.substr(0, url.find_first_of("?#"));
    const auto slash = path.find_last_of('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const bool plain = !name.empty() && name.front() != '.' &&
                       name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._+-~") ==
                           std::string::npos;
    return plain ? name : "update.deb";
}

// A relative Location is resolved against the URL it answered.
std::string resolveLocation(const std::string& base, const std::string& location) {
    if (location.find("://") != std::string::npos) return location;
    const auto scheme = base.find("://");
    if (scheme == std::string::npos) return location;
    const auto hostEnd = base.find('/', scheme + 3);
    const std::string origin = hostEnd == std::string::npos ? base : base.substr(0, hostEnd);
    if (!location.empty() && location.front() == '/') return origin + location;
    const std::string path = base.substr(0, base.find_first_of("?#"));
    return path.substr(0, path.find_last_of('/') + 1) + location;
}

} // namespace

SPUUpdater::SPUUpdater(Dependencies deps, SparkleUpdaterDelegate& delegate,
                       SparkleUserDriverDelegate& userDriverDelegate)
    : deps_(std::move(deps)), delegate_(delegate), userDriverDelegate_(userDriverDelegate) {}

SPUUpdater::~SPUUpdater() {
    lifetime_.expire();
    if (scheduledCheck_) scheduledCheck_->invalidate();
    if (task_) task_->cancel();
}

void SPUUpdater::startUpdater() {
    if (started_) return;
    started_ = true;
    // The user is never asked whether to look for updates; the answer is logged for the record.
    const bool ask = delegate_.updaterShouldPromptForPermissionToCheckForUpdates(*this);
    logInfo(std::string("SPUUpdater.startUpdater() - started, automatic checks every ") +
            std::to_string(kScheduledCheckInterval.count()) + " h" + (ask ? " (permission asked)" : ""));
    scheduleNextCheck();
}

void SPUUpdater::scheduleNextCheck() {
    scheduledCheck_ = deps_.loop.schedule(kScheduledCheckInterval, lifetime_.guard([this] {
        checkForUpdatesInBackground();
        scheduleNextCheck();
    }));
}

void SPUUpdater::checkForUpdatesInBackground() { check(false); }

void SPUUpdater::checkForUpdates() {
    delegate_.setUserDidClickCheckForUpdateButton(true);
    check(true);
}

void SPUUpdater::check(bool userInitiated) {
    // One check at a time; the flag set by the button makes the running one answer the user.
    if (checking_ || installing_) {
        logInfo("SPUUpdater.check() - a check or an installation is already running");
        return;
    }
    checking_ = true;
    fetchFeed([this, userInitiated](UpdateCheckResult result) {
        checking_ = false;
        if (!result.appcast) {
            if (userInitiated || delegate_.userDidClickCheckForUpdateButton()) {
                logError("checkForUpdate() - error: " + result.error);
                delegate_.setUserDidClickCheckForUpdateButton(false);
                if (deps_.showFailure) deps_.showFailure(deps_.appName + " could not check for updates: " + result.error);
            } else {
                logWarning("SPUUpdater.checkForUpdatesInBackground() - error: " + result.error);
            }
            return;
        }
        delegate_.didFinishLoadingAppcast(*this, *result.appcast);
        const auto update = delegate_.bestValidUpdateInAppcast(*result.appcast, *this);
        if (!update) {
            delegate_.updaterDidNotFindUpdate(*this, "You're up to date! " + deps_.appName + " " +
                                                         deps_.currentVersion +
                                                         " is currently the newest version available.");
            return;
        }
        logInfo("SPUUpdater.check() - found " + deps_.appName + " " + update->displayVersionString + " (" +
                update->versionString + ") at " + update->fileURL);
        if (!delegate_.userDidClickCheckForUpdateButton())
            userDriverDelegate_.standardUserDriverShouldHandleShowingScheduledUpdate(*update, false);
        const SUAppcastItem item = *update;
        delegate_.willInstallUpdateOnQuit(*this, item, lifetime_.guard([this, item] { installUpdate(item); }));
    });
}

void SPUUpdater::probe(std::function<void(UpdateCheckResult)> done) {
    fetchFeed([this, done = std::move(done)](UpdateCheckResult result) {
        if (result.appcast) result.update = bestValidUpdate(*result.appcast, deps_.currentVersion);
        done(std::move(result));
    });
}

void SPUUpdater::fetchFeed(std::function<void(UpdateCheckResult)> done) {
    const std::string url = deps_.feedURL ? deps_.feedURL() : std::string();
    if (url.empty()) {
        done(UpdateCheckResult{std::nullopt, std::nullopt, "no update feed is configured (the setting updateFeedURL)"});
        return;
    }
    logInfo("SPUUpdater.fetchFeed() - reading " + url);
    download(url, 0, kMaxFeedBytes, std::nullopt,
             lifetime_.guard([url, done = std::move(done)](std::optional<std::string> body, std::string error) {
                 UpdateCheckResult result;
                 if (!body) {
                     result.error = "the update feed " + url + " could not be read: " + error;
                 } else if (auto appcast = parseAppcast(*body, error)) {
                     result.appcast = std::move(appcast);
                 } else {
                     result.error = "the update feed " + url + " is not an appcast: " + error;
                 }
                 done(std::move(result));
             }));
}

void SPUUpdater::download(std::string url, int redirects, std::size_t maxBytes,
                          std::optional<std::uint64_t> expectedLength, std::function<void(std::optional<std::string> body, std::string error)> done) {
    platform::HttpRequest request;
    request.url = url;
    request.timeout = kFeedTimeout;
    request.maxBodyBytes = maxBytes;
    task_ = deps_.http.send(std::move(request), lifetime_.guard([this, url, redirects, maxBytes, expectedLength,
                                                                 done = std::move(done)](platform::HttpResult result) {
        task_.reset();
        if (const auto* error = std::get_if<Error>(&result)) {
            done(std::nullopt, error->localizedDescription + " (" + std::to_string(error->code) + ")");
            return;
        }
        auto& response = std::get<platform::HttpResponse>(result);
        if (response.status >= 300 && response.status < 400) {
            const auto location = response.header("Location");
            if (!location || redirects >= kMaxRedirects) {
                done(std::nullopt, "too many redirects or a redirect without a location (HTTP " +
                                       std::to_string(response.status) + ")");
                return;
            }
            download(resolveLocation(url, *location), redirects + 1, maxBytes, expectedLength, done);
            return;
        }
        if (response.status != 200) {
            done(std::nullopt, "the server answered HTTP " + std::to_string(response.status));
            return;
        }
        if (expectedLength && response.body.size() != *expectedLength) {
            done(std::nullopt, "the download is incomplete: " + std::to_string(response.body.size()) + " of " +
                                   std::to_string(*expectedLength) + " bytes");
            return;
        }
        done(std::move(response.body), {});
    }));
}

void SPUUpdater::installUpdate(const SUAppcastItem& item) {
    if (installing_) return;
    installing_ = true;
    logInfo("SPUUpdater.installUpdate() - downloading " + item.fileURL);
    // Without a length in the feed the transport's own checks (the answer's Content-Length) tell a cut-off download.
    download(item.fileURL, 0, kMaxPackageBytes, item.contentLength, [this, item](std::optional<std::string> body, std::string error) {
        if (!body) {
            installationFailed(item, "the download failed: " + error, std::nullopt);
            return;
        }
        std::error_code ec;
        std::filesystem::create_directories(deps_.downloadFolder, ec);
        const auto package = deps_.downloadFolder / packageFileName(item.fileURL);
        {
            std::ofstream out(package, std::ios::binary | std::ios::trunc);
            out.write(body->data(), static_cast<std::streamsize>(body->size()));
            out.close();
            if (!out) {
                installationFailed(item, "the package could not be saved as " + package.string(), package);
                return;
            }
        }
        if (const auto problem = verifyUpdateSignature(package, item.edSignature, deps_.publicKey)) {
            installationFailed(item, *problem, package);
            return;
        }
        logInfo("SPUUpdater.installUpdate() - the signature of " + package.string() +
                " is good, handing it to the package installer");
        if (!deps_.installPackage) {
            installationFailed(item, "there is no package installer", package);
            return;
        }
        deps_.installPackage(package, lifetime_.guard([this, item, package](std::optional<std::string> refusal) {
            if (refusal) {
                installationFailed(item, "the package installer did not install it: " + *refusal, package);
                return;
            }
            std::error_code ignored;
            std::filesystem::remove(package, ignored);
            logInfo("SPUUpdater.installUpdate() - " + deps_.appName + " " + item.displayVersionString +
                    " is installed");
            relaunchWhenIdle(item);
        }));
    });
}

void SPUUpdater::relaunchWhenIdle(const SUAppcastItem& item) {
    if (delegate_.shouldPostponeRelaunchForUpdate(*this, item)) {
        deps_.loop.postAfter(std::chrono::duration_cast<platform::Duration>(
                                 std::chrono::duration<double>(SparkleUpdaterDelegate::kBusyDelay)),
                             lifetime_.guard([this, item] { relaunchWhenIdle(item); }));
        return;
    }
    installing_ = false;
    logInfo("SPUUpdater.relaunch() - starting the installed version");
    if (deps_.relaunch) deps_.relaunch();
}

void SPUUpdater::installationFailed(const SUAppcastItem& item, const std::string& reason,
                                    const std::optional<std::filesystem::path>& package) {
    installing_ = false;
    if (package) {
        std::error_code ignored;
        std::filesystem::remove(*package, ignored);
    }
    logError("SPUUpdater.installUpdate() - " + deps_.appName + " " + item.displayVersionString +
             " was not installed: " + reason);
    if (deps_.showFailure)
        deps_.showFailure("The update to " + deps_.appName + " " + item.displayVersionString +
                          " was not installed: " + reason + ". " + deps_.appName + " " + deps_.currentVersion +
                          " keeps running.");
}

} // namespace sprelio

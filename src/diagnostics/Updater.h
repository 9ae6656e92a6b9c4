#pragma once
// The updater: it reads the update feed, finds the newest release this build may move to and hands it to its
// delegate, which decides when it is offered. When the user accepts, it downloads the package, checks its Ed25519
// signature against the key built into the application and hands it to the system's package installer; only a
// package that was installed relaunches the application. Anything that goes wrong before that leaves the installed
// version running and says why.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/LifetimeGuard.h"
#include "diagnostics/UpdateAppcast.h"
#include "platform/Http.h"
#include "platform/MainLoop.h"

namespace sprelio {

class SparkleUpdaterDelegate;
class SparkleUserDriverDelegate;

// What a check found, for those who only ask (the command line).
struct UpdateCheckResult {
    std::optional<SUAppcast> appcast;    // nothing when the feed could not be read
    std::optional<SUAppcastItem> update; // the best valid update, when there is one
    std::string error;                   // why the feed could not be read
};

class SPUUpdater {
public:
    // Scheduled checks after the one at start.
    static constexpr std::chrono::hours kScheduledCheckInterval{24};
    static constexpr int kMaxRedirects = 5;

    // Runs the installer on the package; `done` gets nothing when it was installed, else why not.
    using InstallPackage = std::function<void(const std::filesystem::path& package,
                                              std::function<void(std::optional<std::string> refusal)> done)>;

    struct Dependencies {
        platform::MainLoop& loop;
        platform::HttpClient& http;
        // The feed's URL, read at each check; "" means that this installation is not updated by Sprelio itself.
        std::function<std::string()> feedURL;
        std::string appName;
        std::string currentVersion;
        // Base64 of the 32-byte Ed25519 public key that signs the packages.
        std::string publicKey;
        // Where packages are downloaded to.
        std::filesystem::path downloadFolder;
        InstallPackage installPackage;
        // Ends this process and starts the installed version.
        std::function<void()> relaunch;
        // Tells the user why the update was not installed (the one message path).
        std::function<void(const std::string& message)> showFailure;
    };

    SPUUpdater(Dependencies deps, SparkleUpdaterDelegate& delegate, SparkleUserDriverDelegate& userDriverDelegate);
    ~SPUUpdater();
    SPUUpdater(const SPUUpdater&) = delete;
    SPUUpdater& operator=(const SPUUpdater&) = delete;

    // At launch: from now on the feed is read every kScheduledCheckInterval.
    void startUpdater();
    bool started() const { return started_; }
    // A check of which only an update is reported (to the delegate, whose prompt follows its rules).
    void checkForUpdatesInBackground();
    // The check the user asked for; the delegate knows that it was asked for.
    void checkForUpdates();
    // Reads the feed and reports what it holds, without a delegate (the command line).
    void probe(std::function<void(UpdateCheckResult)> done);
    // Download, signature, installer, relaunch.
    void installUpdate(const SUAppcastItem& item);

    bool checkInProgress() const { return checking_; }
    bool installInProgress() const { return installing_; }

private:
    void check(bool userInitiated);
    void fetchFeed(std::function<void(UpdateCheckResult)> done);
    // GET with redirects followed; the completion gets the final answer or the failure as a sentence.
    void download(std::string url, int redirects, std::size_t maxBytes, std::optional<std::uint64_t> expectedLength,
                  std::function<void(std::optional<std::string> body, std::string error)> done);
    void installationFailed(const SUAppcastItem& item, const std::string& reason,
                            const std::optional<std::filesystem::path>& package);
    void relaunchWhenIdle(const SUAppcastItem& item);
    void scheduleNextCheck();

    Dependencies deps_;
    SparkleUpdaterDelegate& delegate_;
    SparkleUserDriverDelegate& userDriverDelegate_;
    LifetimeGuard lifetime_;
    bool started_ = false;
    bool checking_ = false;
    bool installing_ = false;
    std::shared_ptr<platform::Timer> scheduledCheck_;
    std::shared_ptr<platform::HttpTask> task_;
};

} // namespace sprelio

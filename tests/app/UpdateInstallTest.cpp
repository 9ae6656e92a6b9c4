// "Quit and Update now" against a release host on 127.0.0.1: the package is downloaded over the real transport, its
// signature checked against the build's test key and handed to an installer program. Whatever goes wrong before
// the installer has succeeded leaves the running version as it is and tells the user why.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "diagnostics/UpdatePolicy.h"
#include "diagnostics/UpdateTestSupport.h"
#include "diagnostics/Updater.h"
#include "app/UpdateTestServer.h"
#include "platform/linux/CurlHttpClient.h"
#include "platform/linux/UpdatePackageInstaller.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/test/TestPlatform.h"

namespace sprelio {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using updatetest::UpdateFeedServer;
using updatetest::UpdateSigningKey;
using Delivery = UpdateFeedServer::Delivery;

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Bytes that stand for a package: what the installer receives must be exactly these.
std::string packageBytes() {
    std::string bytes = "!<arch>\ndebian-binary   1732550000  0     0     100644  4         `\n2.0\n";
    for (int i = 0; i < 20000; ++i) bytes += static_cast<char>((i * 7919) % 251);
    return bytes;
}

class TempFolder {
public:
    TempFolder() {
        std::string pattern = (fs::temp_directory_path() / "sprelio-update-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("no temporary folder");
        path_ = pattern;
    }
    ~TempFolder() { fs::remove_all(path_); }
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

// The application's side: the user asks for the check and answers "Quit and Update now" at once.
struct InstallHarness {
    TempFolder folder;
    platform::test::RecordingLogSink logs;
    UpdateFeedServer server;
    platform::RealTimeLoop loop;
    platform::CurlHttpClient http{loop};
    std::unique_ptr<platform::UpdatePackageInstaller> installer;
    std::vector<std::string> failures;
    std::vector<std::string> toasts;
    int offers = 0;
    int relaunches = 0;
    std::string publicKey = UpdateSigningKey::fromFile(SPRELIO_UPDATE_TEST_KEY).publicKeyBase64();

    SparkleUpdaterDelegate delegate{SparkleUpdaterDelegate::Dependencies{
        loop, "Sprelio", "0.1.0", [] { return std::optional<AppActivity>(AppActivity::idle); }, [] { return false; },
        [this](UpdateAlert, std::function<void(int)> answer) {
            ++offers;
            loop.post([answer = std::move(answer)] { answer(kAlertFirstButtonReturn); });
        },
        [this](std::string title, std::string) { toasts.push_back(std::move(title)); }, {}}};
    SparkleUserDriverDelegate driver;
    std::unique_ptr<SPUUpdater> updater;

    // `installerExit` is the exit status of the installer program, which copies the package it is given.
    explicit InstallHarness(int installerExit = 0) {
        const fs::path script = folder.path() / "installer.sh";
        std::ofstream(script) << "#!/bin/sh\ncp \"$1\" '" << (folder.path() / "installed.deb").string() << "'\n"
                              << (installerExit == 0 ? "" : "echo 'E: Sub-process /usr/bin/dpkg returned an error "
                                                            "code (1)' >&2\n")
                              << "exit " << installerExit << "\n";
        installer = std::make_unique<platform::UpdatePackageInstaller>(
            loop, std::vector<std::string>{"/bin/sh", script.string()});
        updater = std::make_unique<SPUUpdater>(
            SPUUpdater::Dependencies{loop, http, [this] { return server.url("/appcast.xml"); }, "Sprelio", "0.1.0",
                                     publicKey, folder.path() / "downloads",
                                     [this](const fs::path& package, std::function<void(std::optional<std::string>)> done) {
                                         installer->install(package, std::move(done));
                                     },
                                     [this] { ++relaunches; },
                                     [this](const std::string& message) { failures.push_back(message); }},
            delegate, driver);
    }

    void publish(const std::string& packagePath, const std::string& length, const std::string& signature) {
        server.put("/appcast.xml",
                   updatetest::appcastXml({{"0.2.0", "0.2.0", server.url(packagePath), length, signature, "linux"}}),
                   Delivery::whole, "application/rss+xml");
    }
    // Until the update ended either way, or the user was told that there is none.
    bool checkAndAnswer() {
        updater->checkForUpdates();
        return loop.runUntil([this] { return relaunches > 0 || !failures.empty() || !toasts.empty(); }, 30s);
    }
    fs::path installed() const { return folder.path() / "installed.deb"; }
    bool downloadsEmpty() const {
        const auto downloads = folder.path() / "downloads";
        return !fs::exists(downloads) || fs::is_empty(downloads);
    }
};

struct InstallRow {
    const char* name;
    Delivery delivery;
    enum class Signer { buildKey, impostor, none, buildKeyOfOtherBytes } signer;
    bool lengthTooLarge;
    int installerExit;
    const char* failureContains; // nullptr: the update is installed
};

class UpdateInstall : public ::testing::TestWithParam<InstallRow> {};

TEST_P(UpdateInstall, InstallsOnlyASignedWholePackageTheInstallerAccepts) {
    const InstallRow row = GetParam();
    InstallHarness h(row.installerExit);
    const std::string package = packageBytes();
    std::string signature;
    switch (row.signer) {
    case InstallRow::Signer::buildKey: signature = UpdateSigningKey::fromFile(SPRELIO_UPDATE_TEST_KEY).signBase64(package); break;
    case InstallRow::Signer::impostor: signature = UpdateSigningKey::generate().signBase64(package); break;
    case InstallRow::Signer::none: break;
    case InstallRow::Signer::buildKeyOfOtherBytes:
        signature = UpdateSigningKey::fromFile(SPRELIO_UPDATE_TEST_KEY).signBase64(package.substr(1));
        break;
    }
    ASSERT_TRUE(row.signer == InstallRow::Signer::none || !signature.empty());
    if (row.delivery == Delivery::redirect) {
        h.server.put("/latest.deb", "/pool/sprelio_0.2.0_amd64.deb", Delivery::redirect);
        h.server.put("/pool/sprelio_0.2.0_amd64.deb", package);
        h.publish("/latest.deb", std::to_string(package.size()), signature);
    } else {
        h.server.put("/sprelio_0.2.0_amd64.deb", package, row.delivery);
        h.publish("/sprelio_0.2.0_amd64.deb", std::to_string(package.size() + (row.lengthTooLarge ? 100 : 0)),
                  signature);
    }

    ASSERT_TRUE(h.checkAndAnswer()) << row.name << ": the update neither ended nor failed";
    EXPECT_EQ(h.offers, 1) << row.name;
    EXPECT_FALSE(h.updater->installInProgress()) << row.name;
    EXPECT_TRUE(h.downloadsEmpty()) << row.name << ": no package is left behind";
    if (!row.failureContains) {
        EXPECT_TRUE(h.failures.empty()) << row.name << ": " << (h.failures.empty() ? "" : h.failures[0]);
        EXPECT_EQ(h.relaunches, 1) << row.name;
        ASSERT_TRUE(fs::exists(h.installed())) << row.name;
        EXPECT_EQ(readFile(h.installed()), package) << row.name << ": the installer got the package byte for byte";
        return;
    }
    EXPECT_EQ(h.relaunches, 0) << row.name << ": the installed version keeps running";
    ASSERT_EQ(h.failures.size(), 1u) << row.name;
    EXPECT_NE(h.failures[0].find(row.failureContains), std::string::npos) << row.name << ": " << h.failures[0];
    EXPECT_EQ(h.failures[0].rfind("The update to Sprelio 0.2.0 was not installed: ", 0), 0u) << h.failures[0];
    EXPECT_NE(h.failures[0].find("Sprelio 0.1.0 keeps running."), std::string::npos) << h.failures[0];
    // Only a refusal by the installer means that the installer ran.
    EXPECT_EQ(fs::exists(h.installed()), row.installerExit != 0) << row.name;
}

INSTANTIATE_TEST_SUITE_P(
    Rows, UpdateInstall,
    ::testing::Values(
        InstallRow{"good update", Delivery::whole, InstallRow::Signer::buildKey, false, 0, nullptr},
        InstallRow{"good update behind a redirect", Delivery::redirect, InstallRow::Signer::buildKey, false, 0, nullptr},
        InstallRow{"signed by another key", Delivery::whole, InstallRow::Signer::impostor, false, 0,
                   "the package's signature does not match"},
        InstallRow{"the signature of other bytes", Delivery::whole, InstallRow::Signer::buildKeyOfOtherBytes, false, 0,
                   "the package's signature does not match"},
        InstallRow{"no signature in the feed", Delivery::whole, InstallRow::Signer::none, false, 0,
                   "the update feed gives no signature for the package"},
        InstallRow{"connection lost halfway", Delivery::cutOffHalfway, InstallRow::Signer::buildKey, false, 0,
                   "the download failed"},
        InstallRow{"shorter than the feed says", Delivery::whole, InstallRow::Signer::buildKey, true, 0,
                   "the download is incomplete"},
        InstallRow{"refused by the installer", Delivery::whole, InstallRow::Signer::buildKey, false, 100,
                   "exited with status 100 (\"E: Sub-process /usr/bin/dpkg returned an error code (1)\")"}),
    updatetest::RowName());

TEST(UpdateInstall, NoUpdateInTheFeedTellsTheUserWhoAsked) {
    InstallHarness h;
    h.server.put("/appcast.xml",
                 updatetest::appcastXml({{"0.1.0", "0.1.0", h.server.url("/sprelio_0.1.0_amd64.deb"), "10", "x", ""}}),
                 Delivery::whole, "application/rss+xml");
    ASSERT_TRUE(h.checkAndAnswer());
    EXPECT_EQ(h.toasts, std::vector<std::string>{"No updates found!"});
    EXPECT_EQ(h.offers, 0);
    EXPECT_EQ(h.server.requests("/sprelio_0.1.0_amd64.deb"), 0) << "nothing is downloaded";
}

TEST(UpdateInstall, AFeedThatCannotBeReachedIsToldToTheUserWhoAsked) {
    InstallHarness h;
    // Nothing is published: the host answers 404.
    ASSERT_TRUE(h.checkAndAnswer());
    ASSERT_EQ(h.failures.size(), 1u);
    EXPECT_EQ(h.failures[0].rfind("Sprelio could not check for updates: ", 0), 0u) << h.failures[0];
    EXPECT_NE(h.failures[0].find("HTTP 404"), std::string::npos) << h.failures[0];
    EXPECT_TRUE(h.logs.containsPrefix("checkForUpdate() - error: "));
}

} // namespace
} // namespace sprelio

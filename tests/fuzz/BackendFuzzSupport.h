#pragma once
// The services of the backend layer as the application wires them, on the deterministic test platform, with the
// scripted transport of FuzzSupport.h in place of libcurl. One fixture per input: nothing carries over.
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "FuzzSupport.h"
#include "backend/BalancingManager.h"
#include "diagnostics/HistoryManager.h"
#include "platform/test/TemporaryFolder.h"
#include "platform/test/TestPlatform.h"
#include "shared/AppState.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "shared/Errors.h"

namespace sprelio::fuzz {

// The message path: the texts a user would read are made, as the toast would make them, and dropped.
class TextOnlyMessages final : public ErrorPresenter {
public:
    const std::string& appName() const override { return name_; }
    void showAlertForError(std::optional<Error> error, std::optional<int>, bool, bool) override {
        if (error) shown += error->localizedDescription.size();
    }
    void showAlertForError(SPRLocalizedError error, std::optional<int>, bool, bool) override {
        shown += makeError(error, name_).localizedDescription.size();
    }
    std::size_t shown = 0;

private:
    std::string name_ = "Sprelio";
};

class NoHistory final : public HistoryManager {
public:
    void log(HistoryManagerLogLevel, std::string, std::optional<std::filesystem::path>, Uuid, bool) override {}
};

// The account service of an upload: every refresh fails, so that a failing backend ends the chain.
class FailingRefresher final : public UserInfoRefresher {
public:
    void refreshUserInfo(const std::string&, bool, std::function<void(std::optional<Error>)> done) override {
        done(Error{"Fuzz", 1, "account service unreachable", {}});
    }
};

// The platform's folders and temporary files live for the whole run; the services are made per input.
struct FuzzPlatform {
    static FuzzPlatform& instance() {
        static FuzzPlatform platform;
        return platform;
    }
    platform::test::TemporaryFolder folder{"sprelio-fuzz"};
    platform::test::TestPlatform tp{folder.path()};
    std::optional<store::AppConstants> constants;
    std::filesystem::path recording = folder.path() / "rec_20240501-120000-000.caf";

private:
    FuzzPlatform() {
        store::AppConstants::Environment environment;
        environment.getenv = [](const char*) -> std::optional<std::string> { return std::nullopt; };
        environment.osReleasePrettyName = "Debian GNU/Linux 12 (bookworm)";
        environment.kernelRelease = "6.1.0-fuzz";
        constants.emplace(tp, environment);
        tp.screenList = {platform::ScreenInfo{"Main", std::string("1"), {0, 0, 1920, 1080}, 1.0, true}};
        std::ofstream(recording, std::ios::binary) << std::string("caff\0\1\0\0", 8) << std::string(64, '\xA7');
    }
};

struct BackendFixture {
    BackendFixture()
        : fp(FuzzPlatform::instance()), loop(fp.tp.loop()), http(loop), settings(settingsStore, *fp.constants),
          balancing(loop, fp.tp, settings, appState, "Sprelio") {
        settings.setToken(std::string("tok-123"));
        balancing.setService(&refresher);
        balancing.setBalancers({std::make_shared<BackendBalancer>("UUID-B1", "B1", "http://127.0.0.1:9/"),
                                std::make_shared<BackendBalancer>("UUID-B2", "B2", "http://127.0.0.1:9/b2")});
    }
    // Runs what the answers started, moving virtual time on so that retries and their delays play out too.
    void settle() {
        for (int round = 0; round < 8; ++round) {
            fp.tp.runUntilIdle();
            fp.tp.advance(std::chrono::seconds(30));
        }
        fp.tp.runUntilIdle();
    }

    FuzzPlatform& fp;
    platform::test::VirtualLoop& loop;
    ScriptedHttpClient http;
    store::MemorySettingsStore settingsStore;
    store::Settings settings;
    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    NoHistory history;
    FailingRefresher refresher;
    TextOnlyMessages messages;
    BalancingManager balancing;
};

} // namespace sprelio::fuzz

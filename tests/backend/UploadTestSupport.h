#pragma once
// The recording upload with every real part that touches the wire: scripted servers on loopback, the libcurl
// transport, a real-time loop and a worker pool. The services around it (history, the stages of a streamed answer,
// account service) are recorders; the message path is the real one with a recording toast presenter.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "backend/BalancingManager.h"
#include "backend/HttpAudioUploadManager.h"
#include "backend/ScriptedServer.h"
#include "shared/AppState.h"
#include "diagnostics/HistoryManager.h"
#include "platform/linux/CurlHttpClient.h"
#include "platform/linux/SystemClock.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "ui/Messages.h"
#include "shared/OverlayController.h"
#include "platform/test/TemporaryFolder.h"

namespace sprelio::backendtest {

using namespace std::chrono_literals;

inline constexpr auto kWait = std::chrono::seconds(20);

using TempFolder = platform::test::TemporaryFolder;

struct HistoryEntry {
    HistoryManagerLogLevel level;
    std::string message;
    std::optional<std::filesystem::path> fileURL;
    Uuid requestID;
};

class RecordingHistory final : public HistoryManager {
public:
    void log(HistoryManagerLogLevel level, std::string message, std::optional<std::filesystem::path> fileURL,
             Uuid requestID, bool) override {
        entries.push_back({level, std::move(message), std::move(fileURL), requestID});
    }
    std::size_t count(HistoryManagerLogLevel level) const {
        std::size_t n = 0;
        for (const auto& entry : entries) n += entry.level == level ? 1 : 0;
        return n;
    }
    std::vector<HistoryEntry> entries;
};

// The stages of a streamed answer as the owner hears them, in order.
struct RecordedStages {
    HttpAudioUploadManager::StreamStages stages() {
        return {[this] { calls.push_back("aiStepStarted"); }, [this] { calls.push_back("aiStepEnded"); }};
    }
    std::vector<std::string> calls;
};

class RecordingToasts final : public ToastPresenter {
public:
    void showToast(const SPRToastView& toast, const platform::ScreenInfo&, const platform::Rect&,
                   std::function<void()>) override {
        shown.push_back(toast);
    }
    void closeAllToasts() override {}
    std::vector<SPRToastView> shown;
};

// The account service: every refresh fails unless a list is queued for it.
class RecordingRefresher final : public UserInfoRefresher {
public:
    BalancingManager* manager = nullptr;
    std::vector<std::string> callers;
    std::optional<std::vector<BackendBalancerPtr>> nextList;
    void refreshUserInfo(const std::string& caller, bool, std::function<void(std::optional<Error>)> done) override {
        callers.push_back(caller);
        if (nextList) {
            manager->setBalancers(*nextList);
            nextList.reset();
            done(std::nullopt);
            return;
        }
        done(Error{"Test", 1, "account service unreachable", {}});
    }
};

// Forwards to the real transport; lets a test change a server's script just before a request leaves.
class HookedHttpClient final : public platform::HttpClient {
public:
    explicit HookedHttpClient(platform::HttpClient& inner) : inner_(inner) {}
    std::function<void(const platform::HttpRequest&)> beforeSend;
    std::shared_ptr<platform::HttpTask> send(platform::HttpRequest request, Completion completion) override {
        if (beforeSend) beforeSend(request);
        return inner_.send(std::move(request), std::move(completion));
    }

private:
    platform::HttpClient& inner_;
};

struct Outcome {
    struct Call {
        std::optional<nlohmann::json> result;
        std::optional<int> status;
        std::optional<Error> error;
    };
    std::vector<Call> calls;
};

inline Script jsonAnswer(std::string body, int status = 200, std::string contentType = "application/json") {
    Script script;
    script.status = status;
    script.reason = status == 200 ? "OK" : "Error";
    script.headers = {{"Content-Type", std::move(contentType)}};
    script.body = std::move(body);
    return script;
}

inline Script streamAnswer(std::vector<std::string> lines, std::string contentType = "text/event-stream") {
    Script script;
    script.headers = {{"Content-Type", std::move(contentType)}};
    for (auto& line : lines) script.stream.push_back(StreamStep::write(std::move(line)));
    return script;
}

class UploadFixture : public ::testing::Test {
protected:
    UploadFixture() {
        store::AppConstants::Environment environment;
        environment.getenv = [](const char* name) -> std::optional<std::string> {
            if (std::string(name) == "LANGUAGE") return std::string("de:en");
            if (std::string(name) == "LANG") return std::string("de_DE.UTF-8");
            return std::nullopt;
        };
        environment.osReleasePrettyName = "Debian GNU/Linux 12 (bookworm)";
        environment.kernelRelease = "6.1.0-test";
        constants.emplace(tp, environment);
        settings.emplace(settingsStore, *constants);
        settings->setToken(std::string("tok-123"));
        tp.screenList = {platform::ScreenInfo{"Main", std::string("1"), {0, 0, 1920, 1080}, 1.0, true}};
        messages.emplace(platform::Platform{loop, workers, clock, tp, tp, tp, tp, tp, tp, tp}, *settings, appState,
                         toasts, "Sprelio");
        messages->logout = [this] { ++logouts; };
        balancing.emplace(loop, clock, *settings, appState, "Sprelio");
        refresher.manager = &*balancing;
        balancing->setService(&refresher);
        HttpAudioUploadManager::Dependencies deps{loop,     workers,    clock,      hooked, *balancing,
                                                  appState, *settings,  *constants, history, *messages,
                                                  stages.stages(), &refresher, [this] { ++menuRebuilds; }};
        manager = std::make_unique<HttpAudioUploadManager>(std::move(deps));
        recording = folder.path() / "rec_20240501-120000-000.caf";
        std::ofstream(recording, std::ios::binary) << recordingBytes;
    }

    ~UploadFixture() override {
        manager.reset();
        for (auto& server : servers) server->stop();
    }

    // One backend per scripted server, named B1, B2, ... in list order.
    std::vector<BackendBalancerPtr> useBackends(std::size_t count, const std::string& path = "") {
        std::vector<BackendBalancerPtr> list;
        for (std::size_t i = 0; i < count; ++i) {
            servers.push_back(std::make_unique<ScriptedServer>());
            list.push_back(std::make_shared<BackendBalancer>("UUID-B" + std::to_string(i + 1),
                                                             "B" + std::to_string(i + 1), servers.back()->url(path)));
        }
        balancing->setBalancers(list);
        return list;
    }

    std::shared_ptr<Outcome> upload(std::optional<AICompletionPromptId> ai = std::nullopt, bool diarization = false,
                                    std::optional<std::string> languageCode = std::nullopt,
                                    std::string languages = "de,en") {
        auto outcome = std::make_shared<Outcome>();
        manager->uploadRecording(
            recording, requestID,
            [outcome](std::optional<nlohmann::json> result, std::optional<int> status, std::optional<Error> error) {
                outcome->calls.push_back({std::move(result), status, std::move(error)});
            },
            nullptr, languages, diarization, ai, languageCode);
        return outcome;
    }

    // Some conditions change on other threads (a server receiving a request) with nothing queued on the loop, so
    // the loop runs in short slices and the condition is checked between them too.
    bool waitFor(const std::function<bool()>& condition) {
        const auto deadline = std::chrono::steady_clock::now() + kWait;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            loop.runUntil(condition, 5ms);
        }
        return true;
    }

    // Runs everything already queued on the loop, and what that queues in turn, a few rounds deep.
    void drain() {
        for (int round = 0; round < 5; ++round) {
            bool done = false;
            loop.post([&] { done = true; });
            loop.runUntil([&] { return done; }, kWait);
        }
    }

    // The uploads a server received (the latency probes are GETs).
    static std::vector<RecordedRequest> posts(const ScriptedServer& server) {
        std::vector<RecordedRequest> result;
        for (auto& request : server.requests()) {
            if (request.method == "POST") result.push_back(request);
        }
        return result;
    }
    std::size_t totalPosts() const {
        std::size_t n = 0;
        for (const auto& server : servers) n += posts(*server).size();
        return n;
    }

    platform::test::RecordingLogSink logs;
    platform::test::TestPlatform tp;
    platform::RealTimeLoop loop;
    platform::ThreadWorkerPool workers{1};
    platform::SystemClock clock;
    platform::CurlHttpClient http{loop};
    HookedHttpClient hooked{http};
    std::optional<store::AppConstants> constants;
    store::MemorySettingsStore settingsStore;
    std::optional<store::Settings> settings;
    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    RecordingToasts toasts;
    std::optional<MessageCenter> messages;
    RecordingHistory history;
    RecordedStages stages;
    RecordingRefresher refresher;
    std::optional<BalancingManager> balancing;
    int logouts = 0;
    int menuRebuilds = 0;
    std::vector<std::unique_ptr<ScriptedServer>> servers;
    TempFolder folder;
    std::filesystem::path recording;
    std::string recordingBytes = std::string("caff\0\1\0\0", 8) + std::string(300, '\xA7') + "\r\n--tail";
    Uuid requestID = Uuid::random();
    std::unique_ptr<HttpAudioUploadManager> manager;
};

} // namespace sprelio::backendtest

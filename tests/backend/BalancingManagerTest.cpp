// The failover chain of transcription backends, on virtual time.
#include <gtest/gtest.h>

#include <deque>

#include "backend/BalancingManager.h"
#include "shared/AppState.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "ui/Messages.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using platform::test::RecordingLogSink;

// The account service as the manager sees it: each refresh answers with the next scripted list or error.
class FakeRefresher final : public UserInfoRefresher {
public:
    struct Answer {
        std::optional<std::vector<BackendBalancerPtr>> list;
        std::optional<Error> error;
    };
    BalancingManager* manager = nullptr;
    platform::Clock* clock = nullptr;
    std::deque<Answer> answers;
    std::vector<std::pair<std::string, bool>> calls;

    void refreshUserInfo(const std::string& caller, bool ignoreDebounceTime,
                         std::function<void(std::optional<Error>)> completion) override {
        calls.emplace_back(caller, ignoreDebounceTime);
        Answer answer;
        if (!answers.empty()) {
            answer = answers.front();
            answers.pop_front();
        } else {
            answer.error = Error{"Test", 1, "account service unreachable", {}};
        }
        if (answer.list) {
            manager->setBalancers(*answer.list);
            manager->setLastRefreshDate(clock->now());
        }
        completion(answer.error);
    }
};

BackendBalancerPtr backend(const std::string& n, bool online = true) {
    return std::make_shared<BackendBalancer>("UUID-" + n, n, "https://" + n + ".example.com", online);
}

class BalancingManagerTest : public ::testing::Test {
protected:
    BalancingManagerTest() {
        constants.emplace(platform);
        settings.emplace(store, *constants);
    }

    BalancingManager& make() {
        manager.emplace(platform.loop(), platform, *settings, appState, "Sprelio");
        refresher.manager = &*manager;
        refresher.clock = &platform;
        manager->setService(&refresher);
        return *manager;
    }

    // The endpoint a call delivers; the completion runs synchronously unless a refresh is awaited.
    BackendBalancerPtr endpoint(BackendBalancerPtr skip = nullptr) {
        BackendBalancerPtr result;
        bool called = false;
        manager->getEndpoint(std::move(skip), [&](BackendBalancerPtr e) {
            called = true;
            result = std::move(e);
        });
        platform.runUntilIdle();
        EXPECT_TRUE(called);
        return result;
    }

    RecordingLogSink logs;
    platform::test::TestPlatform platform;
    std::optional<store::AppConstants> constants;
    store::MemorySettingsStore store;
    std::optional<store::Settings> settings;
    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    FakeRefresher refresher;
    std::optional<BalancingManager> manager;
};

TEST_F(BalancingManagerTest, BackendCodingKeepsOrderAndDefaultsIsOnline) {
    EXPECT_EQ(backend("a", false)->encode().dump(),
              R"({"uuid":"UUID-a","name":"a","url":"https://a.example.com","isOnline":false})");
    auto decoded = decodeBalancers(nlohmann::json::parse(R"([
        {"uuid":"1","name":"one","url":"https://one"},
        {"uuid":"2","name":"two","url":"https://two","isOnline":"no"},
        {"uuid":"3","name":"three","url":"https://three","isOnline":false},
        {"uuid":4,"name":"bad","url":"https://bad"},
        {"name":"nouuid","url":"https://x"}])"),
                                   "Test");
    ASSERT_EQ(decoded.size(), 3u);
    EXPECT_TRUE(decoded[0]->isOnline);
    EXPECT_TRUE(decoded[1]->isOnline);
    EXPECT_FALSE(decoded[2]->isOnline);
    EXPECT_EQ(*std::make_shared<BackendBalancer>("X", "a", "https://a"),
              *std::make_shared<BackendBalancer>("X", "b", "https://b"));
}

TEST_F(BalancingManagerTest, PersistedListAndMarksSurviveARestart) {
    settings->setBalancers(nlohmann::json::parse(
        R"([{"uuid":"1","name":"one","url":"https://one","isOnline":false},{"uuid":"2","name":"two","url":"https://two"}])"));
    auto& first = make();
    EXPECT_TRUE(logs.contains("BalancingManager.init() - persisted balancers: [\"one\", \"two\"] - lastRefreshDate: " +
                              logDateText(platform.now())));
    ASSERT_EQ(first.balancers().size(), 2u);
    EXPECT_FALSE(first.balancers()[0]->isOnline);
    first.setOnline(first.balancers()[1], false);

    auto& second = make();
    ASSERT_EQ(second.balancers().size(), 2u);
    EXPECT_FALSE(second.balancers()[1]->isOnline);
    second.resetAllServersToOnline();
    EXPECT_TRUE(logs.contains("BalancingManager.resetAllServersToOnline() - resetting all 2 servers to online",
                              LogLevel::warning));
    EXPECT_TRUE(second.lastTranscriptionHadError());
    EXPECT_EQ(settings->balancers(), nlohmann::json::parse(
        R"([{"uuid":"1","name":"one","url":"https://one","isOnline":true},{"uuid":"2","name":"two","url":"https://two","isOnline":true}])"));
}

TEST_F(BalancingManagerTest, FirstOnlineBackendIsTakenWithItsPosition) {
    auto& m = make();
    m.setBalancers({backend("a", false), backend("b"), backend("c")});
    auto chosen = endpoint();
    ASSERT_TRUE(chosen);
    EXPECT_EQ(chosen->name, "b");
    EXPECT_TRUE(logs.contains("BalancingManager.getEndpoint() - balancers: ['a' (offline), 'b' (online), 'c' (online)]"));
    EXPECT_TRUE(logs.contains(
        "BalancingManager.getEndpoint() - returning balancer (2/3): b: https://b.example.com (UUID-b)"));
    EXPECT_TRUE(refresher.calls.empty());

    auto skipped = endpoint(m.balancers()[1]);
    ASSERT_TRUE(skipped);
    EXPECT_EQ(skipped->name, "c");
    EXPECT_TRUE(logs.contains("BalancingManager.getEndpoint() - skipBalancer: b", LogLevel::warning));
}

TEST_F(BalancingManagerTest, EmptyListWaitsForAFreshOne) {
    auto& m = make();
    refresher.answers.push_back({std::vector<BackendBalancerPtr>{backend("fresh")}, std::nullopt});
    auto chosen = endpoint();
    ASSERT_TRUE(chosen);
    EXPECT_EQ(chosen->name, "fresh");
    ASSERT_EQ(refresher.calls.size(), 1u);
    EXPECT_EQ(refresher.calls[0], (std::pair<std::string, bool>{"BalanceManager.getEndpoint()", true}));
    EXPECT_TRUE(logs.contains("BalancingManager.getEndpoint() - balancers: []"));
    EXPECT_EQ(m.balancers().size(), 1u);
}

TEST_F(BalancingManagerTest, SkippingTheOnlyOnlineBackendRefreshesAndForgetsTheSkip) {
    auto& m = make();
    m.setBalancers({backend("only")});
    refresher.answers.push_back({std::vector<BackendBalancerPtr>{backend("only")}, std::nullopt});
    auto chosen = endpoint(m.balancers()[0]);
    ASSERT_TRUE(chosen);
    EXPECT_EQ(chosen->uuid, "UUID-only");
    EXPECT_EQ(refresher.calls.size(), 1u);
}

TEST_F(BalancingManagerTest, FailedRefreshWithNoCandidateGivesNothing) {
    auto& m = make();
    m.setBalancers({backend("down", false)});
    EXPECT_EQ(endpoint(), nullptr);
    EXPECT_TRUE(logs.contains("getEndpoint() - error: account service unreachable", LogLevel::error));
}

TEST_F(BalancingManagerTest, NoInternetTouchesNothing) {
    auto& m = make();
    m.setBalancers({backend("a")});
    appState.setInternetAvailable(false);
    EXPECT_EQ(endpoint(), nullptr);
    EXPECT_TRUE(logs.contains("BalancingManager.getEndpoint() - error: " +
                                  errorDescription(SPRLocalizedError::networkError, "Sprelio"),
                              LogLevel::error));
    EXPECT_TRUE(refresher.calls.empty());
}

TEST_F(BalancingManagerTest, BackgroundRefreshStartsAtExactlyThreeHundredSeconds) {
    auto& m = make();
    m.setBalancers({backend("a"), backend("b")});
    platform.advance(299900ms);
    EXPECT_EQ(endpoint()->name, "a");
    EXPECT_TRUE(refresher.calls.empty());

    platform.advance(100ms);
    refresher.answers.push_back({std::vector<BackendBalancerPtr>{backend("b")}, std::nullopt});
    BackendBalancerPtr chosen;
    m.getEndpoint(nullptr, [&](BackendBalancerPtr e) { chosen = e; });
    // This pick uses the list as it stands; the refresh runs afterwards, without being awaited.
    ASSERT_TRUE(chosen);
    EXPECT_EQ(chosen->name, "a");
    EXPECT_TRUE(refresher.calls.empty());
    platform.runUntilIdle();
    ASSERT_EQ(refresher.calls.size(), 1u);
    EXPECT_EQ(refresher.calls[0].first, "BalancingManager.getEndpoint()");
    EXPECT_EQ(endpoint()->name, "b");
    EXPECT_EQ(refresher.calls.size(), 1u) << "a fresh list resets the five minutes";
}

TEST_F(BalancingManagerTest, InitializeIfNeededFollowsItsReasons) {
    auto& m = make();
    const std::string prefix = "BalancingManager.initializeIfNeeded() - called by X";
    int done = 0;
    m.initializeIfNeeded("X", false, [&] { ++done; });
    EXPECT_TRUE(logs.contains(prefix + " - never initialized before"));
    // The refresh failed, and still counts as an initialisation.
    EXPECT_TRUE(logs.contains("BalancingManager.initializeIfNeeded() - initialization completed"));
    EXPECT_EQ(refresher.calls.back(), (std::pair<std::string, bool>{"BalancingManager.initializeIfNeeded(X)", true}));
    EXPECT_EQ(m.lastInitializationDate(), platform.now());

    platform.advance(299900ms);
    m.initializeIfNeeded("X", false, [&] { ++done; });
    EXPECT_TRUE(logs.contains(prefix + " - skipping, not needed"));
    EXPECT_EQ(refresher.calls.size(), 1u);

    m.resetAllServersToOnline();
    m.initializeIfNeeded("X", false, [&] { ++done; });
    EXPECT_TRUE(logs.contains(prefix + " - last transcription had error"));
    EXPECT_FALSE(m.lastTranscriptionHadError());
    EXPECT_EQ(refresher.calls.size(), 2u);

    platform.advance(300s);
    m.initializeIfNeeded("X", false, [&] { ++done; });
    EXPECT_TRUE(logs.contains(prefix + " - last init was >5min ago"));
    m.initializeIfNeeded("X", true, [&] { ++done; });
    EXPECT_TRUE(logs.contains(prefix + " - force=true"));
    EXPECT_EQ(refresher.calls.size(), 4u);
    EXPECT_EQ(done, 5);
}

} // namespace
} // namespace sprelio

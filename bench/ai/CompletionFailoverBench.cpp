// The completion service's own cost on loopback: one request answered by the first AI server, against the walk
// over three failing servers (an HTML 500, a body that is no JSON, a 200 without a completion) before the fourth
// answers. The difference is what a failing server costs the user beyond its own answer time.
//
//   ninja -C build bench_ai && build/bench/bench_ai --benchmark_filter=Failover
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "BenchDoubles.h"
#include "ai/IntelligenceManager.h"
#include "backend/ScriptedServer.h"
#include "base/Log.h"
#include "platform/linux/CurlHttpClient.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"

using namespace std::chrono_literals;
namespace platform = sprelio::platform;
using sprelio::backendtest::Script;
using sprelio::backendtest::ScriptedServer;

namespace {

Script answer(int status, std::string body, std::string type = "application/json") {
    Script script;
    script.status = status;
    script.reason = status == 200 ? "OK" : "Internal Server Error";
    script.headers = {{"Content-Type", std::move(type)}};
    script.body = std::move(body);
    return script;
}

struct Setup {
    // `failing` servers that fail in turn before the one that answers.
    explicit Setup(int failing) {
        sprelio::setLogSink(&sink);
        settings.setToken(std::string("bench-token"));
        const Script failures[] = {answer(500, "<html><body>Bad Gateway</body></html>", "text/html"),
                                   answer(200, "not json at all"), answer(200, R"({"result":"elsewhere"})")};
        std::vector<sprelio::AIServerItem> items;
        for (int i = 0; i <= failing; ++i) {
            servers.push_back(std::make_unique<ScriptedServer>());
            servers.back()->scriptDefault(i < failing ? failures[i % 3]
                                                      : answer(200, R"({"completion":"Fixed text."})"));
            items.push_back({"S" + std::to_string(i), "ai-" + std::to_string(i),
                             "http://127.0.0.1:" + std::to_string(servers.back()->port()), {"small-1"}});
        }
        manager = std::make_unique<sprelio::IntelligenceManager>(
            sprelio::IntelligenceManager::Dependencies{loop, http, settings, constants, nullptr});
        manager->setAIServerItems(std::move(items));
    }
    ~Setup() {
        manager.reset();
        sprelio::setLogSink(nullptr);
    }
    bool askOnce() {
        bool done = false, ok = false;
        manager->textCompletionWithPromptId(sprelio::AICompletionPromptId{"fix_grammar", "", "teh text", "en", "en"},
                                            [&](std::optional<std::string> text, std::optional<sprelio::AICompletionError>) {
                                                ok = text.has_value();
                                                done = true;
                                            });
        loop.runUntil([&] { return done; }, 10s);
        return ok;
    }

    sprelio::bench::CountingSink sink;
    platform::test::TestPlatform tp;
    platform::RealTimeLoop loop;
    platform::CurlHttpClient http{loop};
    sprelio::store::AppConstants constants{tp};
    sprelio::store::MemorySettingsStore store;
    sprelio::store::Settings settings{store, constants};
    std::vector<std::unique_ptr<ScriptedServer>> servers;
    std::unique_ptr<sprelio::IntelligenceManager> manager;
};

void BM_CompletionFailover(benchmark::State& state) {
    Setup setup(static_cast<int>(state.range(0)));
    if (!setup.askOnce()) {
        state.SkipWithError("no completion from the answering server");
        return;
    }
    for (auto _ : state) {
        if (!setup.askOnce()) {
            state.SkipWithError("no completion from the answering server");
            return;
        }
    }
}

} // namespace

BENCHMARK(BM_CompletionFailover)->Arg(0)->Arg(3)->ArgName("failingServers")->Unit(benchmark::kMicrosecond)
    ->UseRealTime()->Iterations(200);
BENCHMARK_MAIN();

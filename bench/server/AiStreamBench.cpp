// The time the streamed AI answer adds to a recording upload: POST /transcribe of the same half second of
// audio, once plain and once with an AI part, against a chat service on loopback that answers at once. The
// engine answers a fixed text, so both figures hold the same HTTP, multipart and decoding work and differ by
// the AI path: parsing the part, building the prompt, one chat request over libcurl, the event-stream answer.
//
//   ninja -C build-server bench_server && build-server/bench/bench_server --benchmark_filter=AiStream
#include <benchmark/benchmark.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <vector>
#include <thread>

#include <nlohmann/json.hpp>

#include "platform/test/TemporaryFolder.h"
#include "server/BackendServer.h"
#include "server/OpenAiTranscriptionEngine.h"

namespace {

using namespace sprelio::server;

class FixedEngine final : public TranscriptionEngine {
public:
    Transcript transcribe(std::span<const std::int16_t>, const std::string& language) override {
        return {"so we meet on friday at ten in the office", language};
    }
};

struct Setup {
    Setup() {
        chat.Post("/v1/chat/completions", [](const httplib::Request&, httplib::Response& response) {
            nlohmann::json choice = {{"index", 0},
                                     {"message", {{"role", "assistant"}, {"content", "So we meet on Friday at ten."}}},
                                     {"finish_reason", "stop"}};
            response.set_content(nlohmann::json{{"choices", nlohmann::json::array({choice})}}.dump(),
                                 "application/json");
        });
        int chatPort = chat.bind_to_any_port("127.0.0.1");
        chatThread = std::thread([this] { chat.listen_after_bind(); });
        while (!chat.is_running()) std::this_thread::yield();

        ServerConfig config;
        config.host = "127.0.0.1";
        config.port = 0;
        config.dataFolder = folder.path();
        config.aiUrl = "http://127.0.0.1:" + std::to_string(chatPort);
        config.aiModel = "bench";
        server = std::make_unique<BackendServer>(config, EngineDescription{"fixed", {"en"}, false},
                                                 [] { return std::make_unique<FixedEngine>(); });
        server->start();
        client = std::make_unique<httplib::Client>("127.0.0.1", server->port());
        client->set_keep_alive(true);
        // Otherwise Nagle and delayed ACKs add ~40 ms to each multipart request and hide what is measured.
        client->set_tcp_nodelay(true);
        std::vector<std::int16_t> samples(8000);
        for (std::size_t i = 0; i < samples.size(); ++i)
            samples[i] = static_cast<std::int16_t>(8000 * std::sin(0.17 * static_cast<double>(i)));
        wav = OpenAiTranscriptionEngine::wavFile(samples);
    }
    ~Setup() {
        client.reset();
        server->stop();
        chat.stop();
        chatThread.join();
    }

    httplib::Result post(bool withAi) {
        httplib::MultipartFormDataItems items{{"file", wav, "rec.wav", "application/octet-stream"}};
        if (withAi)
            items.push_back({"ai", R"({"prompt_id":"fix_grammar","prompt_param":"","text_lang":"en","app_lang":"en"})",
                             "", "application/json"});
        return client->Post("/transcribe?app=bench&languages=en&os=Linux&diarization=false",
                            {{"Authorization", "Bearer " + server->localAccount().token}}, items);
    }

    sprelio::platform::test::TemporaryFolder folder;
    httplib::Server chat;
    std::thread chatThread;
    std::unique_ptr<BackendServer> server;
    std::unique_ptr<httplib::Client> client;
    std::string wav;
};

// No log sink is installed here, so the server's log lines cost nothing. Each iteration sends one plain and one
// AI upload, in alternating order, so that both see the same load on a shared machine; the figures are the
// medians of the two times and of their difference.
void BM_TranscribeAiStreamAddedTime(benchmark::State& state) {
    Setup setup;
    std::vector<double> plain;
    std::vector<double> withAi;
    std::vector<double> added;
    bool aiFirst = false;
    auto timed = [&](bool ai) {
        auto start = std::chrono::steady_clock::now();
        auto result = setup.post(ai);
        auto us = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
        return result && result->status == 200 ? us : -1.0;
    };
    for (auto _ : state) {
        double first = timed(aiFirst);
        double second = timed(!aiFirst);
        if (first < 0 || second < 0) {
            state.SkipWithError("an upload failed");
            break;
        }
        double ai = aiFirst ? first : second;
        double noAi = aiFirst ? second : first;
        plain.push_back(noAi);
        withAi.push_back(ai);
        added.push_back(ai - noAi);
        aiFirst = !aiFirst;
    }
    auto median = [](std::vector<double> values) {
        if (values.empty()) return 0.0;
        std::sort(values.begin(), values.end());
        return values[values.size() / 2];
    };
    state.counters["plain_us"] = median(plain);
    state.counters["with_ai_us"] = median(withAi);
    state.counters["added_us"] = median(added);
}

BENCHMARK(BM_TranscribeAiStreamAddedTime)->Unit(benchmark::kMicrosecond)->UseRealTime()->Iterations(400);

} // namespace

// From injectTextViaPaste to the text visible in an application, on a real X server (Xvfb with openbox): the
// application is our test client, which writes what it receives to a file the moment it gets it. 10 and 10,000
// characters of dictated-looking text (accents, Japanese, an emoji), by paste and by typing.
//
// The paste route's time includes reading the user's clipboard, taking the clipboard, the keystroke and the
// client's request for the text; the typing route's time is the whole burst of key events, with the keymap
// changes for the characters the layout lacks.
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <string>

#include "BenchDoubles.h"
#include "base/Log.h"
#include "platform/X11TestSupport.h"
#include "text/X11TextDeliveryStack.h"

using namespace std::chrono_literals;
using namespace sprelio;

namespace {

using sprelio::bench::QuietSink;

// `count` characters (code points) of a dictated-looking sentence.
std::string dictation(std::size_t count) {
    static const std::u32string sentence = U"Grüße aus Köln, naïve café — 日本語のテキストです 🎙️ and plain words. ";
    std::u32string text;
    while (text.size() < count) text += sentence;
    text.resize(count);
    std::string utf8;
    for (char32_t c : text) {
        if (c < 0x80) {
            utf8 += static_cast<char>(c);
        } else if (c < 0x800) {
            utf8 += static_cast<char>(0xC0 | (c >> 6));
            utf8 += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            utf8 += static_cast<char>(0xE0 | (c >> 12));
            utf8 += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            utf8 += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            utf8 += static_cast<char>(0xF0 | (c >> 18));
            utf8 += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            utf8 += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            utf8 += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return utf8;
}

struct Desktop {
    QuietSink sink;
    x11test::XServer server;
    texttest::X11TextDeliveryStack delivery;
    bool ready = false;

    Desktop() {
        setLogSink(&sink);
        if (!server.ready() || !server.startWindowManager()) return;
        delivery.start(server.name(), true);
        ready = true;
    }
    ~Desktop() {
        delivery.stop();
        server.stop();
        setLogSink(nullptr);
    }

    // Runs the loop, looking at the client every 200 us, until the condition holds.
    bool until(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
        auto active = std::make_shared<bool>(true);
        auto tick = std::make_shared<std::function<void()>>();
        std::weak_ptr<std::function<void()>> weak = tick;
        *tick = [this, active, weak] {
            if (!*active) return;
            if (auto self = weak.lock()) delivery.loop.postAfter(200us, [self] { (*self)(); });
        };
        (*tick)();
        const bool held = delivery.loop.runUntil(condition, timeout);
        *active = false;
        return held;
    }
};

Desktop& desktop() {
    static Desktop instance;
    return instance;
}

// `className` decides the route: "java" is typed to, anything else pasted into.
void deliver(benchmark::State& state, const std::string& className) {
    Desktop& d = desktop();
    if (!d.ready) {
        state.SkipWithError("Xvfb or openbox did not start");
        return;
    }
    x11test::TestClient::Options options;
    options.className = className;
    x11test::TestClient client(d.server, options);
    if (!client.waitUntilFocused() || !d.until([&] {
            const auto front = d.delivery.workspace->frontmostApplication();
            return front && front->processIdentifier == client.pid();
        }, 10s)) {
        state.SkipWithError("the client did not come to the front");
        return;
    }
    const std::string text = dictation(static_cast<std::size_t>(state.range(0)));
    std::string expected;
    for (auto _ : state) {
        expected += text;
        const auto start = std::chrono::steady_clock::now();
        d.delivery.controller->injectTextViaPaste(text, std::nullopt);
        if (!d.until([&] { return client.textSize() >= expected.size(); }, 120s)) {
            state.SkipWithError("the text did not arrive");
            return;
        }
        const auto end = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
        if (client.text() != expected) {
            state.SkipWithError("the text arrived changed");
            return;
        }
        // Let the clipboard restore and the release of remapped keys happen outside the measured time.
        d.until([] { return false; }, 1600ms);
    }
    state.counters["chars"] = static_cast<double>(state.range(0));
    state.counters["chars/s"] = benchmark::Counter(static_cast<double>(state.range(0)) * state.iterations(),
                                                   benchmark::Counter::kIsRate);
}

void BM_DeliverByPaste(benchmark::State& state) { deliver(state, "gedit"); }
void BM_DeliverByTyping(benchmark::State& state) { deliver(state, "java"); }

} // namespace

BENCHMARK(BM_DeliverByPaste)->Arg(10)->Arg(10000)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DeliverByTyping)->Arg(10)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DeliverByTyping)->Arg(10000)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

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
#include "input/KeyCodes.h"
#include "platform/X11TestSupport.h"
#include "platform/linux/X11Clipboard.h"
#include "platform/linux/X11GlobalInput.h"
#include "platform/linux/X11KeyboardLayout.h"
#include "platform/linux/X11SyntheticKeyboard.h"
#include "platform/linux/X11Workspace.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "text/AccesibilityControllerImpl.h"
#include "text/ClipboardHelper.h"

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
    platform::RealTimeLoop loop;
    platform::test::TestPlatform folders;
    store::AppConstants constants{folders};
    store::MemorySettingsStore defaults;
    store::Settings settings{defaults, constants};
    std::unique_ptr<platform::X11GlobalInput> input;
    std::unique_ptr<platform::X11Clipboard> clipboard;
    std::unique_ptr<platform::X11SyntheticKeyboard> keyboard;
    std::unique_ptr<platform::X11KeyboardLayout> layout;
    std::unique_ptr<KeyCodes> keyCodes;
    std::unique_ptr<platform::X11Workspace> workspace;
    std::unique_ptr<ClipboardHelper> helper;
    std::unique_ptr<AccesibilityControllerImpl> controller;
    bool ready = false;

    Desktop() {
        setLogSink(&sink);
        if (!server.ready() || !server.startWindowManager()) return;
        input = std::make_unique<platform::X11GlobalInput>(loop, server.name());
        clipboard = std::make_unique<platform::X11Clipboard>(loop, server.name());
        keyboard = std::make_unique<platform::X11SyntheticKeyboard>(server.name(), input.get());
        layout = std::make_unique<platform::X11KeyboardLayout>(loop, server.name());
        keyCodes = std::make_unique<KeyCodes>(*layout);
        workspace = std::make_unique<platform::X11Workspace>(loop, server.name());
        helper = std::make_unique<ClipboardHelper>(
            ClipboardHelperDependencies{loop, *clipboard, *keyboard, *workspace, constants, [] { return true; }});
        controller = std::make_unique<AccesibilityControllerImpl>(AccesibilityControllerDependencies{
            loop, settings, *workspace, constants, *helper, *keyboard, *keyCodes, *layout});
        ready = true;
    }
    ~Desktop() {
        controller.reset();
        helper.reset();
        workspace.reset();
        keyCodes.reset();
        layout.reset();
        keyboard.reset();
        clipboard.reset();
        input.reset();
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
            if (auto self = weak.lock()) loop.postAfter(200us, [self] { (*self)(); });
        };
        (*tick)();
        const bool held = loop.runUntil(condition, timeout);
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
            const auto front = d.workspace->frontmostApplication();
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
        d.controller->injectTextViaPaste(text, std::nullopt);
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

// The floating button and its ring of AI actions as a user has them: `sprelio` on a private X desktop with openbox,
// its own PulseAudio daemon, a scripted account API and transcription backend on loopback, our test application in
// front. A click on the button starts a dictation; a click on a ring button ends it, and the upload carries that
// button's item (the "ai" part of the multipart body), whose result reaches the application. Clicks are real X
// input (xdotool); screenshots of the ring go to <build>/screenshots.
#include <gtest/gtest.h>

#include <cmath>
#include <regex>

#include <nlohmann/json.hpp>

// Before the X headers, whose macros (None, Success) clash with the HTTP library's names.
#include "backend/ScriptedServer.h"

#include "DesktopTestFixture.h"
#include "shared/IntelligenceItemIds.h"
#include "store/JsonFileSettingsStore.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using backendtest::RecordedRequest;
using backendtest::Script;
using backendtest::ScriptedServer;
using backendtest::StreamStep;
using nlohmann::json;

constexpr int kScreenHeight = 800;
constexpr const char* kTranscript = "Hello Ring World";
constexpr const char* kCompletionOverlayEnd =
    "BalancingManager.initializeIfNeeded() - called by AudioUploadManager.uploadRecording()";

// The "ai" part of a multipart upload; nothing when the upload has none.
std::optional<json> aiPart(const std::string& body) {
    const auto name = body.find("name=\"ai\"");
    if (name == std::string::npos) return std::nullopt;
    const auto start = body.find("\r\n\r\n", name);
    if (start == std::string::npos) return std::nullopt;
    const auto end = body.find("\r\n", start + 4);
    return json::parse(body.substr(start + 4, end - start - 4), nullptr, false);
}

class FloatingButtonEndToEnd : public apptest::DesktopFixture {
protected:
    FloatingButtonEndToEnd() : DesktopFixture("sprelio-floating") {}
    void SetUp() override {
        DesktopFixture::SetUp();
        if (HasFatalFailure()) return;
        // The account API names the same server as the only transcription backend.
        Script info;
        info.body = json{{"flags", json::object()},
                         {"ai", {{"models", json::array()}, {"servers", json::array()}}},
                         {"balancers", json::array({{{"uuid", "B1"}, {"name", "scripted"}, {"url", backend.url("")}}})},
                         {"user", {{"user", {{"email", "ann@example.org"}}}, {"requests", 3}, {"token", "tok-ann"}}}}
                        .dump();
        backend.script("/users/info", info);
    }

    void launch(int overlaySize) {
        {
            store::JsonFileSettingsStore file(home.path() / ".config/Sprelio/settings.json");
            file.set("apiBaseURL", backend.url(""));
            file.set("floatingButtonActivation", true);
            file.set("floatingRecordShowAITools", true);
            file.set("overlaySize", overlaySize);
        }
        ASSERT_NO_FATAL_FAILURE(DesktopFixture::launch());
        focusClient();
    }

    // The centre of a circular region as last registered, in X coordinates: the log has it in the logic's (origin
    // at the bottom left) and 3 points lower than the part drawn.
    std::optional<std::pair<int, int>> regionCenter(const std::string& id) const {
        const std::string log = app->log();
        const std::regex pattern("OverlayHitRegion\\(id: " + id + ", center: \\((-?[0-9.e+-]+), (-?[0-9.e+-]+)\\)");
        std::optional<std::pair<int, int>> last;
        for (auto it = std::sregex_iterator(log.begin(), log.end(), pattern); it != std::sregex_iterator(); ++it) {
            const double cx = std::stod((*it)[1]), cy = std::stod((*it)[2]) + 3.0;
            last = std::pair{static_cast<int>(std::lround(cx)), static_cast<int>(std::lround(kScreenHeight - cy))};
        }
        return last;
    }
    bool clickAt(const std::pair<int, int>& at) {
        return server.run("xdotool mousemove " + std::to_string(at.first) + " " + std::to_string(at.second) +
                          " click 1");
    }
    std::vector<RecordedRequest> uploads() const {
        std::vector<RecordedRequest> found;
        for (const auto& request : backend.requests())
            if (request.method == "POST" && request.target.rfind("/transcribe", 0) == 0) found.push_back(request);
        return found;
    }
    // What the backend answers the next upload: the transcript, and a completion when the item asked for one.
    void scriptTranscribe(const std::optional<std::string>& completion) {
        Script answer;
        answer.headers = {{"Content-Type", "text/event-stream"}};
        answer.stream = {StreamStep::write(json{{"text", kTranscript}, {"language", "en"}}.dump() + "\n")};
        if (completion) answer.stream.push_back(StreamStep::write(json{{"completion", *completion}}.dump() + "\n"));
        backend.script("/transcribe", answer);
    }
    // A click that the application takes, by the log line it writes for it. The window manager may map a panel
    // a moment after the application has shown it: a click that went to the window below is made again.
    bool clickUntilLogged(const std::pair<int, int>& at, const std::string& line) {
        const std::size_t before = app->count(line);
        for (int attempt = 0; attempt < 3; ++attempt) {
            if (!clickAt(at)) return false;
            if (app->waitForCount(line, before + 1, 4000ms)) return true;
        }
        return false;
    }
    // A click on the floating button starts a dictation; it runs until the ring's regions are there and the
    // recording is longer than the shortest one that counts.
    void startFromTheButton() {
        const std::size_t rings = app->count("FloatingButtonMenu.registerHitTestRegions() - Registered");
        const auto button = regionCenter("button");
        ASSERT_TRUE(button) << "the button is not shown";
        ASSERT_TRUE(clickUntilLogged(*button, "AirButtonView tapped, calling action"));
        ASSERT_TRUE(app->waitForCount("FloatingButtonMenu.registerHitTestRegions() - Registered", rings + 1))
            << "the ring did not register its regions";
        const std::int64_t from = feeder->framesWritten();
        ASSERT_TRUE(x11test::waitFor([&] { return feeder->framesWritten() >= from + 16000; }, 10000ms));
    }
    // The application is idle again once the button is registered anew after `buttons` registrations.
    void waitForTheButton(std::size_t buttons) {
        ASSERT_TRUE(app->waitForCount("OverlayHitRegion(id: button,", buttons + 1)) << "the button did not return";
    }
    std::size_t buttonRegistrations() const { return app->count("OverlayHitRegion(id: button,"); }

    ScriptedServer backend;
};

TEST_F(FloatingButtonEndToEnd, EachRingButtonEndsTheRecordingWithItsItemOnTheUpload) {
    // At 150 points each ring button's drawn centre lies in its own click area.
    launch(150);
    struct Row {
        const char* name;
        std::string itemId;                      // the ring button clicked
        std::optional<std::string> promptId;     // the "ai" part's prompt, none: no "ai" part
        std::optional<std::string> promptParam;
        std::string delivered;                   // what the application gets
    };
    const std::vector<Row> rows = {
        {"Voice to Text", "recordAndTranscribe", std::nullopt, std::nullopt, kTranscript},
        {"Ask AI", intelligenceItemId("askAI"), "ask_ai", "", "[ask_ai]"},
        {"Add Emoji", intelligenceItemId("addEmoji"), "add_emoji", "", "[add_emoji]"},
        {"Improve Writing", intelligenceItemId("improveWriting"), "improve_writing", "", "[improve_writing]"},
        {"Fix Grammar", intelligenceItemId("fixGrammar"), "fix_grammar", "", "[fix_grammar]"},
        {"Uppercase", intelligenceItemId("uppercaseAll"), std::nullopt, std::nullopt, "HELLO RING WORLD"},
        {"Lowercase", intelligenceItemId("lowercaseAll"), std::nullopt, std::nullopt, "hello ring world"},
        {"Fun", intelligenceItemId("fun"), "tone", "fun", "[tone fun]"},
        {"Flirt", intelligenceItemId("flirt"), "tone", "flirt", "[tone flirt]"},
    };
    ASSERT_TRUE(app->waitForCount("OverlayHitRegion(id: button,", 1)) << "the button is not shown";
    std::size_t completionsSeen = app->count(kCompletionOverlayEnd);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        scriptTranscribe(row.promptId ? std::optional("[" + *row.promptId + (row.promptParam->empty() ? "" : " ") +
                                                      *row.promptParam + "]")
                                      : std::nullopt);
        const std::size_t before = uploads().size();
        const std::string textBefore = client->text();
        startFromTheButton();
        const auto at = regionCenter("radial-" + row.itemId);
        ASSERT_TRUE(at) << "no ring button for " << row.itemId;
        const std::size_t buttons = buttonRegistrations();
        ASSERT_TRUE(clickUntilLogged(*at, "FloatingButtonRecordView{} - " + row.itemId + " pressed, will handle action"));
        ASSERT_TRUE(x11test::waitFor([&] { return uploads().size() == before + 1; }, 20000ms))
            << "no upload after the click";
        const auto ai = aiPart(uploads().back().body);
        if (row.promptId) {
            ASSERT_TRUE(ai) << "the upload has no \"ai\" part";
            EXPECT_EQ((*ai)["prompt_id"], *row.promptId);
            EXPECT_EQ((*ai)["prompt_param"], *row.promptParam);
            EXPECT_FALSE(ai->contains("text")) << "the upload drops the text of the prompt";
        } else {
            EXPECT_FALSE(ai) << "an item without a server prompt sends none: " << ai->dump();
        }
        ASSERT_TRUE(x11test::waitFor([&] { return client->text() == textBefore + row.delivered; }, 20000ms))
            << "the application shows: \"" << client->text() << "\"";
        // The button comes back once the dictation is over.
        waitForTheButton(buttons);
        // Half a second after a completion the upload takes its overlay down, whatever shows then: the next
        // dictation starts after that.
        if (row.promptId) {
            ASSERT_TRUE(app->waitForCount(kCompletionOverlayEnd, ++completionsSeen));
        }
    }

    // The stop button: the recording ends without an upload and without text.
    const std::size_t before = uploads().size();
    const std::string textBefore = client->text();
    startFromTheButton();
    screenshot("floating-ring");
    const auto stop = regionCenter("radial-__STOP__");
    ASSERT_TRUE(stop);
    const std::size_t buttons = buttonRegistrations();
    ASSERT_TRUE(clickUntilLogged(*stop, "FloatingButtonMenu{} - STOP pressed"));
    waitForTheButton(buttons);
    EXPECT_EQ(uploads().size(), before) << "a cancelled recording is not uploaded";
    EXPECT_EQ(client->text(), textBefore);

    // The actions dialog: the transcript opens in the results window instead of being typed.
    scriptTranscribe(std::nullopt);
    startFromTheButton();
    const auto dialog = regionCenter("radial-" + intelligenceItemId("showActionsDialog"));
    ASSERT_TRUE(dialog);
    ASSERT_TRUE(clickUntilLogged(*dialog, "FloatingButtonMenu{} - Clicked item: " +
                                              intelligenceItemId("showActionsDialog")));
    ASSERT_TRUE(x11test::waitFor([&] { return uploads().size() == before + 1; }, 20000ms));
    EXPECT_FALSE(aiPart(uploads().back().body));
    ASSERT_TRUE(app->waitForCount("executeActionForItemWithText() - Item == .showActionsDialog: /", 1));
    EXPECT_EQ(client->text(), textBefore) << "nothing is typed while the dialog shows the text";
}

} // namespace
} // namespace sprelio

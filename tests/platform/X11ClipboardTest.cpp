// The clipboard adapter against a real X server: xclip and our test application stand for the other programs of
// the desktop; a client that takes the clipboard and never answers stands for a hung one.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "platform/X11TestSupport.h"
#include "platform/linux/X11Clipboard.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/test/TestPlatform.h"

using namespace std::chrono_literals;
using sprelio::platform::RealTimeLoop;
using sprelio::platform::SelectedText;
using sprelio::platform::X11Clipboard;
using sprelio::x11test::TestClient;
using sprelio::x11test::XServer;

namespace {

const std::string kDictated = "Grüße aus Köln, 日本語のテキスト and an emoji 🎙️ at the end";

class X11ClipboardTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.ready()) << "Xvfb did not start";
        clipboard = std::make_unique<X11Clipboard>(loop, server.name());
        ASSERT_TRUE(clipboard->isAvailable());
    }
    void TearDown() override {
        clipboard.reset();
        server.stop();
    }

    std::optional<std::string> read() {
        bool done = false;
        std::optional<std::string> result;
        clipboard->readString([&](std::optional<std::string> text) {
            result = std::move(text);
            done = true;
        });
        EXPECT_TRUE(loop.runUntil([&] { return done; }, 10s)) << "no answer at all";
        return result;
    }
    // Puts a text on CLIPBOARD from another program (xclip stays in the background serving it).
    bool otherProgramCopies(const std::string& text) {
        const auto file = folder.path() / ("copy" + std::to_string(copies++));
        std::ofstream(file, std::ios::binary) << text;
        // xclip takes the clipboard from its background process, a moment after the command returns.
        return server.run("xclip -selection clipboard -i " + file.string()) &&
               sprelio::x11test::waitFor([&] { return !clipboard->ownsClipboard() && xclipOut("UTF8_STRING") == text; });
    }
    std::string xclipOut(const std::string& target) {
        return server.output("xclip -selection clipboard -o -t " + target);
    }

    XServer server;
    RealTimeLoop loop;
    sprelio::platform::test::TemporaryFolder folder;
    sprelio::platform::test::RecordingLogSink log;
    std::unique_ptr<X11Clipboard> clipboard;
    int copies = 0;
};

TEST_F(X11ClipboardTest, OurTextIsServedInEveryTextFormAndMarkedSecret) {
    ASSERT_TRUE(clipboard->setString(kDictated));
    EXPECT_TRUE(clipboard->ownsClipboard());
    EXPECT_EQ(xclipOut("UTF8_STRING"), kDictated);
    EXPECT_EQ(xclipOut("text/plain\\;charset=utf-8"), kDictated);
    EXPECT_EQ(xclipOut("x-kde-passwordManagerHint"), "secret");
    // STRING is Latin-1: what Latin-1 has survives, the rest becomes '?'.
    EXPECT_EQ(xclipOut("STRING").substr(0, 8), "Gr\xfc\xdf" "e au");
    const std::string targets = xclipOut("TARGETS");
    for (const char* target : {"TARGETS", "TIMESTAMP", "UTF8_STRING", "text/plain;charset=utf-8", "STRING",
                               "x-kde-passwordManagerHint"})
        EXPECT_NE(targets.find(target), std::string::npos) << target << " missing from " << targets;
    // Reading our own clipboard needs nobody else.
    EXPECT_EQ(read(), kDictated);
}

TEST_F(X11ClipboardTest, TextOfAnotherProgramIsReadAndTakingItBackWorks) {
    ASSERT_TRUE(clipboard->setString("ours"));
    ASSERT_TRUE(otherProgramCopies(kDictated));
    EXPECT_EQ(read(), kDictated);
    ASSERT_TRUE(clipboard->setString("ours again"));
    EXPECT_EQ(xclipOut("UTF8_STRING"), "ours again");
    EXPECT_EQ(read(), "ours again");
    // An empty text is a text, not an empty clipboard.
    ASSERT_TRUE(clipboard->setString(""));
    EXPECT_EQ(read(), "");
    clipboard->clearContents();
    EXPECT_FALSE(clipboard->ownsClipboard());
    EXPECT_EQ(read(), std::nullopt);
}

TEST_F(X11ClipboardTest, OneMegabyteGoesBothWaysInPieces) {
    std::string big;
    while (big.size() < 1024 * 1024) big += kDictated + "\n";
    ASSERT_TRUE(clipboard->setString(big));
    EXPECT_TRUE(server.output("xclip -selection clipboard -o -t UTF8_STRING") == big);
    ASSERT_TRUE(otherProgramCopies(big + "tail"));
    const auto received = read();
    ASSERT_TRUE(received.has_value());
    EXPECT_EQ(received->size(), big.size() + 4);
    EXPECT_TRUE(*received == big + "tail");
}

TEST_F(X11ClipboardTest, OwnerThatNeverAnswersGivesNothingAfterTheTimeOutWithoutBlockingTheLoop) {
    Display* hung = XOpenDisplay(server.name().c_str());
    ASSERT_NE(hung, nullptr);
    const Window window = XCreateSimpleWindow(hung, DefaultRootWindow(hung), 0, 0, 1, 1, 0, 0, 0);
    XSetSelectionOwner(hung, XInternAtom(hung, "CLIPBOARD", False), window, CurrentTime);
    XSync(hung, False); // and from now on it never reads its events

    bool answered = false;
    std::optional<std::string> result = "unset";
    int ticks = 0;
    const auto started = std::chrono::steady_clock::now();
    clipboard->readString([&](std::optional<std::string> text) {
        result = std::move(text);
        answered = true;
    });
    // The loop keeps running other work while the read waits.
    // The tick re-posts itself; it holds itself weakly, so that it goes with this test.
    auto tick = std::make_shared<std::function<void()>>();
    *tick = [&, weak = std::weak_ptr<std::function<void()>>(tick)] {
        ++ticks;
        if (const auto self = weak.lock(); self && !answered) loop.postAfter(50ms, *self);
    };
    loop.postAfter(50ms, *tick);
    ASSERT_TRUE(loop.runUntil([&] { return answered; }, 5s));
    const auto waited = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(result, std::nullopt);
    EXPECT_GE(waited, X11Clipboard::kAnswerTimeout);
    EXPECT_GE(ticks, 10);
    EXPECT_TRUE(log.contains("X11Clipboard - the owner of CLIPBOARD did not answer within 1000 ms"));

    // The next owner answers, and the read after the hung one is not stuck behind it.
    XCloseDisplay(hung);
    ASSERT_TRUE(otherProgramCopies("after the hang"));
    EXPECT_EQ(read(), "after the hang");
}

TEST_F(X11ClipboardTest, PrimarySelectionComesWithTheProcessThatHoldsIt) {
    bool done = false;
    std::optional<SelectedText> selected;
    const auto readSelected = [&] {
        done = false;
        clipboard->readSelectedText([&](std::optional<SelectedText> s) {
            selected = std::move(s);
            done = true;
        });
        return loop.runUntil([&] { return done; }, 5s);
    };
    ASSERT_TRUE(readSelected());
    EXPECT_EQ(selected, std::nullopt); // nobody holds it

    TestClient::Options options;
    options.primary = "the selected words ✓";
    TestClient client(server, options);
    ASSERT_TRUE(client.waitUntilFocused()) << client.describe();
    ASSERT_TRUE(readSelected());
    ASSERT_TRUE(selected.has_value());
    EXPECT_EQ(selected->text, "the selected words ✓");
    EXPECT_EQ(selected->ownerProcessIdentifier, client.pid());
}

} // namespace

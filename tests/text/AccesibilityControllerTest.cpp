// The two delivery routes on virtual time: which keys go out, when, and what the clipboard holds at every moment.
#include <gtest/gtest.h>

#include "text/RecordingMessages.h"
#include "text/TextDeliveryTestSupport.h"

using namespace std::chrono_literals;
using namespace sprelio;
using sprelio::texttest::application;
using sprelio::texttest::RecordingMessages;
using sprelio::texttest::TextDelivery;

namespace {

const std::vector<std::string> kCtrlV = {"down:9:0x40000", "up:9:0x40000"};

TEST(AccesibilityController, ClipboardRoutePastesAtOnceAndPutsTheUsersTextBackAfterExactly1500ms) {
    TextDelivery t;
    t.clipboard.text = "the user's own text";
    t.controller.injectTextViaPaste("Grüße, 日本 🎙️", std::nullopt);
    // The clipboard is asked first; nothing else happens before it answers.
    EXPECT_EQ(t.clipboard.calls(), std::vector<std::string>{"readString"});
    EXPECT_TRUE(t.keyboard.log().empty());
    t.tp.runUntilIdle();
    EXPECT_EQ(t.clipboard.calls(), (std::vector<std::string>{"readString", "setString:Grüße, 日本 🎙️"}));
    EXPECT_EQ(t.keyboard.log(), kCtrlV);
    EXPECT_EQ(t.tp.loop().pendingTimers(), 1u);

    t.tp.advance(1499ms);
    EXPECT_EQ(t.clipboard.text, "Grüße, 日本 🎙️");
    t.tp.advance(1ms);
    EXPECT_EQ(t.clipboard.text, "the user's own text");
    EXPECT_EQ(t.tp.loop().pendingTimers(), 0u);

    EXPECT_TRUE(t.log.contains("injectTextViaPaste() - using Clipboard Injection + CMD+V"));
    EXPECT_TRUE(t.log.contains("injectTextViaPaste() - originalClipboardContent: <privatized>"));
    EXPECT_TRUE(t.log.contains("injectTextViaPaste() - text                    : <privatized>"));
    EXPECT_TRUE(t.log.contains("ClipboardHelper.setString() - caller: injectTextViaPaste(text:pid:) - setting "
                               "clipboard to <privatized>"));
    EXPECT_TRUE(t.log.contains("injectTextViaPaste() - target app 'gnome-text-editor' is not listed in "
                               "Constants.appsThatPreferPasteAndMatchStyle - using normal 'Paste' -> Command + V"));
    EXPECT_TRUE(t.log.contains("restoreOriginalContent() - restoring originalContent: <privatized>"));
    EXPECT_TRUE(t.log.contains("ClipboardHelper.setString() - caller: restoreOriginalContent(originalContent:"
                               "forceRestore:) - setting clipboard to <privatized>"));
    EXPECT_TRUE(t.logNeverShows("Grüße"));
    EXPECT_TRUE(t.logNeverShows("the user's own text"));
}

TEST(AccesibilityController, ASecondPasteWithinTheDelaySavesTheFirstTextAndTheLastRestoreWins) {
    TextDelivery t;
    t.clipboard.text = "A";
    t.controller.injectTextViaPaste("one", std::nullopt);
    t.tp.runUntilIdle();
    t.tp.advance(500ms);
    t.controller.injectTextViaPaste("two", std::nullopt);
    t.tp.runUntilIdle();
    EXPECT_EQ(t.clipboard.text, "two");
    t.tp.advance(1000ms); // 1500 ms after the first paste: its restore runs and is not cancelled
    EXPECT_EQ(t.clipboard.text, "A");
    t.tp.advance(500ms); // the second restore puts back what the second paste found: the first text
    EXPECT_EQ(t.clipboard.text, "one");
    EXPECT_EQ(t.keyboard.log(), (std::vector<std::string>{"down:9:0x40000", "up:9:0x40000", "down:9:0x40000",
                                                          "up:9:0x40000"}));
}

TEST(AccesibilityController, TerminalsGetControlShiftVAndAClipboardWithoutTextComesBackEmpty) {
    TextDelivery t;
    t.tp.frontmost = application("xfce4-terminal", std::string("Xfce4-terminal"));
    t.clipboard.text.reset(); // an image or files: no text to keep
    t.controller.injectTextViaPaste("ls -la", std::nullopt);
    t.tp.runUntilIdle();
    EXPECT_EQ(t.keyboard.log(), (std::vector<std::string>{"down:9:0x60000", "up:9:0x60000"}));
    EXPECT_TRUE(t.log.contains("injectTextViaPaste() - target app 'Xfce4-terminal' is listed in "
                               "Constants.appsThatPreferPasteAndMatchStyle - using special 'Paste and Match Style' "
                               "-> Shift + Command + V"));
    t.tp.advance(1500ms);
    EXPECT_EQ(t.clipboard.text, "");

    // Nothing in front: the name is "nil" and the paste is the normal one.
    TextDelivery none;
    none.tp.frontmost.reset();
    none.controller.injectTextViaPaste("x", std::nullopt);
    none.tp.runUntilIdle();
    EXPECT_EQ(none.keyboard.log(), kCtrlV);
    EXPECT_TRUE(none.log.contains("injectTextViaPaste() - target app 'nil' is not listed in "
                                  "Constants.appsThatPreferPasteAndMatchStyle - using normal 'Paste' -> Command + V"));
}

TEST(AccesibilityController, CopyTranscriptKeepsTheTextOnTheClipboardUnlessItIsEmpty) {
    TextDelivery t;
    t.settings.setCopyTranscript(true);
    t.clipboard.text = "old";
    t.controller.injectTextViaPaste("kept", std::nullopt);
    t.tp.runUntilIdle();
    t.tp.advance(5s);
    EXPECT_EQ(t.clipboard.text, "kept");
    EXPECT_TRUE(t.log.contains("injectTextViaPaste() - copyTranscript enabled and text is not empty, will not "
                               "restore original clipboard content"));
    EXPECT_FALSE(t.log.containsPrefix("restoreOriginalContent()"));

    // An empty text (only from other callers than a dictation) is restored all the same.
    t.controller.injectTextViaPaste("", std::nullopt);
    t.tp.runUntilIdle();
    t.tp.advance(1500ms);
    EXPECT_EQ(t.clipboard.text, "kept");
    EXPECT_TRUE(t.log.contains("restoreOriginalContent() - restoring originalContent: <privatized>"));
}

TEST(AccesibilityController, JavaApplicationsGetTheTextTypedAndTheClipboardIsLeftAlone) {
    TextDelivery t;
    t.tp.frontmost = application("com.mojang.minecraft", std::string("java"));
    t.clipboard.text = "untouched";
    t.controller.injectTextViaPaste("typed ✓", std::nullopt);
    t.tp.runUntilIdle();
    EXPECT_EQ(t.keyboard.log(), std::vector<std::string>{"type:typed ✓"});
    EXPECT_TRUE(t.clipboard.calls().empty());
    EXPECT_EQ(t.tp.loop().pendingTimers(), 0u);
    EXPECT_TRUE(t.log.contains("injectTextViaPaste() - using Direct Keyboard Injection"));

    // With copyTranscript the text lands on the clipboard too, and stays there.
    t.settings.setCopyTranscript(true);
    t.controller.injectTextViaPaste("again", std::nullopt);
    t.tp.advance(5s);
    EXPECT_EQ(t.clipboard.calls(), std::vector<std::string>{"setString:again"});
    EXPECT_EQ(t.clipboard.text, "again");

    // A Java client with a remote desktop's identifier is typed to: the route is decided first.
    TextDelivery both;
    both.tp.frontmost = application("com.realvnc.viewer", std::string("java"));
    both.controller.injectTextViaPaste("z", std::nullopt);
    both.tp.runUntilIdle();
    EXPECT_EQ(both.keyboard.log(), std::vector<std::string>{"type:z"});
    EXPECT_FALSE(both.log.containsPrefix("FrontmostAppClassifier.isRemoteDesktopClient()"));
}

TEST(AccesibilityController, RemoteDesktopsGetControlAsAKeyOfItsOwnWithThePausesOnVirtualTime) {
    TextDelivery t;
    t.tp.frontmost = application("org.remmina.Remmina", std::string("Remmina"));
    t.clipboard.text = "mine";
    t.controller.injectTextViaPaste("remote text", std::nullopt);
    t.tp.runUntilIdle();
    EXPECT_TRUE(t.keyboard.log().empty());
    EXPECT_TRUE(t.log.contains("injectTextViaPaste() - Remote desktop client detected, sending Ctrl+V for Windows "
                               "compatibility"));
    t.tp.advance(499ms);
    EXPECT_TRUE(t.keyboard.log().empty());
    t.tp.advance(1ms);
    EXPECT_EQ(t.keyboard.log(), std::vector<std::string>{"down:59:0"});
    t.tp.advance(15ms);
    EXPECT_EQ(t.keyboard.log().back(), "down:9:0");
    t.tp.advance(15ms);
    EXPECT_EQ(t.keyboard.log().back(), "up:9:0");
    EXPECT_FALSE(t.log.containsPrefix("injectTextViaPaste() - Sent Ctrl+V"));
    t.tp.advance(15ms);
    EXPECT_EQ(t.keyboard.log(), (std::vector<std::string>{"down:59:0", "down:9:0", "up:9:0", "up:59:0"}));
    EXPECT_TRUE(t.log.contains("injectTextViaPaste() - Sent Ctrl+V for Windows remote desktop (raw key sequence)"));
    // The restore counts from the end of the sequence: 545 ms + 1500 ms.
    t.tp.advance(1499ms);
    EXPECT_EQ(t.clipboard.text, "remote text");
    t.tp.advance(1ms);
    EXPECT_EQ(t.clipboard.text, "mine");

    // With the setting off, a remote client is pasted to like any other application.
    TextDelivery off;
    off.settings.setPasteCtrlVForRemoteDesktop(false);
    off.tp.frontmost = application("org.remmina.Remmina", std::string("Remmina"));
    off.controller.injectTextViaPaste("y", std::nullopt);
    off.tp.runUntilIdle();
    EXPECT_EQ(off.keyboard.log(), kCtrlV);
}

TEST(AccesibilityController, HeldModifiersAreReleasedAroundEveryKeystrokeAndPressedAgain) {
    TextDelivery t;
    t.keyboard.held = {61}; // right Option still down from the hotkey
    t.controller.injectTextViaPaste("p", std::nullopt);
    t.tp.runUntilIdle();
    EXPECT_EQ(t.keyboard.log(),
              (std::vector<std::string>{"up:61:0", "down:9:0x40000", "up:9:0x40000", "down:61:0"}));

    t.keyboard.clearLog();
    t.tp.frontmost = application("", std::string("java"));
    t.controller.injectTextViaPaste("typed", std::nullopt);
    EXPECT_EQ(t.keyboard.log(), (std::vector<std::string>{"up:61:0", "type:typed", "down:61:0"}));

    t.keyboard.clearLog();
    t.tp.frontmost = application("", std::string("rdesktop"));
    t.controller.injectTextViaPaste("remote", std::nullopt);
    t.tp.runUntilIdle();
    t.tp.advance(545ms);
    EXPECT_EQ(t.keyboard.log(),
              (std::vector<std::string>{"up:61:0", "down:59:0", "down:9:0", "up:9:0", "up:59:0", "down:61:0"}));
}

TEST(AccesibilityController, ThePasteKeyIsWhereTheLayoutHasVUnlessItsNameEndsInTheCommandMark) {
    TextDelivery t;
    t.layout.vKey = 47; // Dvorak: V is where QWERTY has the period
    t.controller.injectTextViaPaste("dvorak", std::nullopt);
    t.tp.runUntilIdle();
    EXPECT_EQ(t.keyboard.log(), (std::vector<std::string>{"down:47:0x40000", "up:47:0x40000"}));

    t.keyboard.clearLog();
    t.layout.name = "Dvorak - QWERTY ⌘";
    t.controller.injectTextViaPaste("qwerty command", std::nullopt);
    t.tp.runUntilIdle();
    EXPECT_EQ(t.keyboard.log(), kCtrlV);
}

} // namespace

// A desktop that refuses the clipboard or the keys: the text goes by the route that is left, and where it can't
// be delivered or waits on the clipboard the user is told. The paste key is never pressed over a clipboard that
// still holds the user's own text.
TEST(AccesibilityController, ARefusedClipboardOrKeyboardLeavesTheRouteThatIsLeftAndNeverPastesTheOldText) {
    struct Row {
        const char* name;
        bool keys;
        bool clipboardTakesText;
        std::vector<std::string> sent;
        std::string clipboardAfterwards;
        std::string told; // empty: nothing to say
    };
    const std::vector<Row> rows = {
        {"both", true, true, kCtrlV, "the user's", ""},
        {"no clipboard", true, false, {"type:dictated"}, "the user's", ""},
        {"no keys", false, true, {}, "dictated",
         "This desktop does not let Sprelio press keys, so the dictated text was not pasted. It is on the "
         "clipboard: paste it with Ctrl+V."},
        {"neither", false, false, {}, "the user's",
         "This desktop let Sprelio neither use the clipboard nor press keys, so the dictated text could not be "
         "pasted. It is in the history, from where you can copy it."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TextDelivery t;
        RecordingMessages messages;
        t.controller.setMessages(&messages);
        t.keyboard.available = row.keys;
        t.clipboard.refuseSetString = !row.clipboardTakesText;
        t.clipboard.text = "the user's";
        t.controller.injectTextViaPaste("dictated", std::nullopt);
        t.tp.runUntilIdle();
        t.tp.advance(5s);
        EXPECT_EQ(t.keyboard.log(), row.sent);
        EXPECT_EQ(t.clipboard.text, row.clipboardAfterwards);
        if (row.told.empty()) {
            EXPECT_TRUE(messages.shown.empty()) << messages.shown[0];
        } else {
            ASSERT_EQ(messages.shown.size(), 1u);
            EXPECT_EQ(messages.shown[0], row.told);
        }
        EXPECT_TRUE(t.logNeverShows("dictated"));
    }
}

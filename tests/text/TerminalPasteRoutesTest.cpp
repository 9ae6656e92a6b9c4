// The route of each kind of terminal on virtual time: what goes out, what the clipboard holds afterwards, and
// whether the user is told. The real programs are tried in TerminalDeliveryTest.
#include <gtest/gtest.h>

#include <set>

#include "text/RecordingMessages.h"
#include "text/TerminalPasteRoutes.h"
#include "text/TextDeliveryTestSupport.h"

using namespace std::chrono_literals;
using namespace sprelio;
using sprelio::texttest::application;
using sprelio::texttest::TextDelivery;

namespace {

using sprelio::texttest::RecordingMessages;

const std::string kDictated = "naïve café — 東京";
const std::vector<std::string> kControlShiftV = {"down:9:0x60000", "up:9:0x60000"};
const std::vector<std::string> kTyped = {"type:" + kDictated};

struct Row {
    std::string bundle;
    std::string name; // the window class, as the desktop reports it
    std::vector<std::string> keys;
    std::string clipboardAfterwards;
    bool told;
};

TEST(TerminalPasteRoutes, EachTerminalGetsItsRouteAndOnlyAnUntriedOneLeavesTheTextOnTheClipboard) {
    const std::vector<Row> rows = {
        {"xterm", "XTerm", kTyped, "the user's", false},
        {"xterm", "UXTerm", kTyped, "the user's", false},
        {"urxvt", "URxvt", kTyped, "the user's", false},
        {"mlterm", "mlterm", kTyped, "the user's", false},
        {"st-256color", "st-256color", kControlShiftV, "the user's", false},
        {"org.gnome.Terminal", "Gnome-terminal", kControlShiftV, kDictated, true},
        {"Alacritty", "Alacritty", kControlShiftV, "the user's", false},
        {"konsole", "konsole", kControlShiftV, "the user's", false},
        {"org.wezfurlong.wezterm", "wezterm", kControlShiftV, kDictated, true},
        {"com.mitchellh.ghostty", "ghostty", kControlShiftV, kDictated, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TextDelivery t;
        RecordingMessages messages;
        t.controller.setMessages(&messages);
        t.tp.frontmost = application(row.bundle, row.name);
        t.clipboard.text = "the user's";
        t.controller.injectTextViaPaste(kDictated, std::nullopt);
        t.tp.runUntilIdle();
        t.tp.advance(5s);
        EXPECT_EQ(t.keyboard.log(), row.keys);
        EXPECT_EQ(t.clipboard.text, row.clipboardAfterwards);
        if (row.told) {
            ASSERT_EQ(messages.shown.size(), 1u);
            EXPECT_EQ(messages.shown[0], "Sprelio could not confirm that " + row.name +
                                             " received the dictated text. It is on the clipboard: paste it with "
                                             "Ctrl+Shift+V.");
        } else {
            EXPECT_TRUE(messages.shown.empty()) << messages.shown[0];
        }
        if (row.keys == kTyped) {
            // Typed: the clipboard was never touched, not even read.
            EXPECT_TRUE(t.clipboard.calls().empty()) << ::testing::PrintToString(t.clipboard.calls());
            EXPECT_TRUE(t.log.contains("injectTextViaPaste() - using Direct Keyboard Injection"));
        }
        EXPECT_TRUE(t.logNeverShows(kDictated));
    }
}

TEST(TerminalPasteRoutes, TypingIntoATerminalWithCopyTranscriptLeavesTheTextOnTheClipboard) {
    TextDelivery t;
    t.settings.setCopyTranscript(true);
    t.tp.frontmost = application("xterm", std::string("XTerm"));
    t.clipboard.text = "the user's";
    t.controller.injectTextViaPaste(kDictated, std::nullopt);
    t.tp.runUntilIdle();
    t.tp.advance(5s);
    EXPECT_EQ(t.keyboard.log(), kTyped);
    EXPECT_EQ(t.clipboard.text, kDictated);
}

TEST(TerminalPasteRoutes, EveryKnownTerminalHasARouteAndEveryRouteIsAKnownTerminal) {
    TextDelivery t;
    std::set<std::string> routed;
    for (const auto& rule : terminalPasteRules()) {
        EXPECT_TRUE(routed.insert(rule.name).second) << "twice: " << rule.name;
        EXPECT_TRUE(t.constants.prefersPasteAndMatchStyle(rule.name)) << rule.name;
    }
    EXPECT_EQ(routed, t.constants.appsThatPreferPasteAndMatchStyle());
    EXPECT_EQ(terminalPasteRule("Xfce4-Terminal")->name, "xfce4-terminal");
    EXPECT_FALSE(terminalPasteRule("gedit"));
    EXPECT_FALSE(terminalPasteRule(""));
}

} // namespace

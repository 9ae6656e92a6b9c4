// Reading the user's selection for the AI actions, and the clipboard operations, on virtual time.
#include <gtest/gtest.h>

#include "text/TextDeliveryTestSupport.h"

using namespace std::chrono_literals;
using namespace sprelio;
using sprelio::platform::SelectedText;
using sprelio::texttest::application;
using sprelio::texttest::TextDelivery;

namespace {

struct Answer {
    bool called = false;
    std::optional<std::string> text;
    std::function<void(std::optional<std::string>)> completion() {
        return [this](std::optional<std::string> t) {
            called = true;
            text = std::move(t);
        };
    }
};

TEST(ClipboardHelper, SelectedTextIsTheOneHeldByTheApplicationInFront) {
    TextDelivery t;
    t.tp.frontmost = application("org.gnome.TextEditor", std::string("gnome-text-editor"), 100);
    t.clipboard.selection = SelectedText{"selected words", 100};
    Answer answer;
    t.helper.getSelectedTextFromFrontmostApp(answer.completion());
    t.tp.runUntilIdle();
    EXPECT_TRUE(answer.called);
    EXPECT_EQ(answer.text, "selected words");

    // Selected in another application, or with a holder nobody can name: not the focused application's selection.
    for (std::optional<pid_t> owner : {std::optional<pid_t>(200), std::optional<pid_t>()}) {
        t.log.clear();
        t.clipboard.selection = SelectedText{"elsewhere", owner};
        Answer other;
        t.helper.getSelectedTextFromFrontmostApp(other.completion());
        t.tp.runUntilIdle();
        EXPECT_TRUE(other.called);
        EXPECT_EQ(other.text, std::nullopt);
        EXPECT_TRUE(t.log.contains("getSelectedTextFromFrontmostApp() - error: failed to get selected text"));
    }

    // An empty selection is nothing, without a word in the log.
    t.log.clear();
    t.clipboard.selection = SelectedText{"", 100};
    Answer empty;
    t.helper.getSelectedTextFromFrontmostApp(empty.completion());
    t.tp.runUntilIdle();
    EXPECT_TRUE(empty.called);
    EXPECT_EQ(empty.text, std::nullopt);
    EXPECT_TRUE(t.log.lines().empty());
}

TEST(ClipboardHelper, WithoutPermissionOrAnApplicationInFrontThereIsNoSelection) {
    TextDelivery t;
    t.clipboard.selection = SelectedText{"never read", 4242};
    t.trusted = false;
    Answer untrusted;
    t.helper.getSelectedTextFromFrontmostApp(untrusted.completion());
    EXPECT_FALSE(untrusted.called); // the answer comes on the loop, never inside the call
    t.tp.runUntilIdle();
    EXPECT_TRUE(untrusted.called);
    EXPECT_EQ(untrusted.text, std::nullopt);
    EXPECT_TRUE(t.log.contains("getSelectedTextFromFrontmostApp() - error: need Accessibility permissions",
                               LogLevel::error));

    t.trusted = true;
    t.tp.frontmost.reset();
    Answer nobody;
    t.helper.getSelectedTextFromFrontmostApp(nobody.completion());
    t.tp.runUntilIdle();
    EXPECT_EQ(nobody.text, std::nullopt);
    EXPECT_TRUE(t.log.contains("getSelectedTextFromFrontmostApp() - error: failed to get focused application"));
    EXPECT_TRUE(t.clipboard.calls().empty());
}

TEST(ClipboardHelper, CopyCommandThenTheClipboardHalfASecondLater) {
    TextDelivery t;
    t.clipboard.text = "before";
    // The application in front copies its selection when it gets the copy keystroke.
    t.keyboard.onKeyEvents = [&](const std::vector<platform::SyntheticKeyEvent>& events) {
        for (const auto& e : events)
            if (e.keyCode == 8 && e.down && (e.flags & platform::event_flags_mask::kControl)) t.clipboard.text = "copied";
    };
    Answer answer;
    t.helper.getStringWithCommandC(answer.completion());
    EXPECT_EQ(t.keyboard.log(), (std::vector<std::string>{"down:8:0x40000", "up:8:0x40000"}));
    t.tp.advance(499ms);
    EXPECT_FALSE(answer.called);
    t.tp.advance(1ms);
    EXPECT_TRUE(answer.called);
    EXPECT_EQ(answer.text, "copied");
    EXPECT_EQ(t.clipboard.text, "copied"); // the copy stays; the caller puts the old text back

    // Terminals copy with Control+Shift+C; an empty clipboard answers nothing.
    TextDelivery terminal;
    terminal.tp.frontmost = application("org.wezfurlong.wezterm", std::string("WezTerm"));
    Answer none;
    terminal.helper.getStringWithCommandC(none.completion());
    EXPECT_EQ(terminal.keyboard.log(), (std::vector<std::string>{"down:8:0x60000", "up:8:0x60000"}));
    terminal.tp.advance(500ms);
    EXPECT_TRUE(none.called);
    EXPECT_EQ(none.text, std::nullopt);
}

TEST(ClipboardHelper, SetStringClearsWithoutATextAndGetStringGivesEmptyForNoText) {
    TextDelivery t;
    t.helper.setString(std::string("x"), "tester");
    EXPECT_EQ(t.clipboard.text, "x");
    t.helper.setString(std::nullopt, "tester");
    EXPECT_EQ(t.clipboard.calls(), (std::vector<std::string>{"setString:x", "clearContents"}));
    EXPECT_TRUE(t.log.contains("ClipboardHelper.setString() - caller: tester - setting clipboard to nil"));
    std::optional<std::string> got;
    t.helper.getString([&](std::string text) { got = std::move(text); });
    t.tp.runUntilIdle();
    EXPECT_EQ(got, "");

    // A clipboard the desktop refuses is logged as an error, not thrown.
    t.clipboard.refuseSetString = true;
    t.helper.setString(std::string("y"), "tester");
    EXPECT_TRUE(t.log.contains("ClipboardHelper.setString() - the clipboard could not be set (caller: tester)",
                               LogLevel::error));
}

} // namespace

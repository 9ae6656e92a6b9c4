// The sway lines the shortcut editor shows in a Wayland session, for the key names the editor itself writes.
#include <gtest/gtest.h>

#include "ui/CompositorBindings.h"

namespace sprelio {
namespace {

ShortcutRow row(const std::string& keys, bool hold) {
    ShortcutRow r;
    r.uuid = *Uuid::parse("1A2B3C4D-0000-4000-8000-000000000000");
    r.keys = keys;
    r.hold = hold;
    return r;
}

struct KeyRow {
    const char* keys;
    const char* sway;
};

class SwayKeyNames : public ::testing::TestWithParam<KeyRow> {};

TEST_P(SwayKeyNames, AreWhatBindsymReads) { EXPECT_EQ(swayKeyName(GetParam().keys), GetParam().sway); }

INSTANTIATE_TEST_SUITE_P(Keys, SwayKeyNames,
                         ::testing::Values(KeyRow{"Right Alt", "Alt_R"}, KeyRow{"Right Ctrl", "Control_R"},
                                           KeyRow{"Alt+S", "Mod1+s"}, KeyRow{"Ctrl+Shift+U", "Ctrl+Shift+u"},
                                           KeyRow{"Super+F5", "Mod4+F5"}, KeyRow{"Ctrl+,", "Ctrl+comma"},
                                           KeyRow{"Ctrl++", "Ctrl+plus"}, KeyRow{"Page Up", "Prior"},
                                           KeyRow{"Button 8", "--whole-window button8"}, KeyRow{"Fn", ""},
                                           KeyRow{"Fn+A", ""}));

TEST(SwayBindingLines, AHeldShortcutPressesOnceAndReleasesOnTheRelease) {
    EXPECT_EQ(swayBindingLines(row("Right Alt", true)),
              (std::vector<std::string>{"bindsym --no-repeat Alt_R exec sprelio shortcuts press 1a2b3c4d",
                                        "bindsym --release Alt_R exec sprelio shortcuts release 1a2b3c4d"}));
}

TEST(SwayBindingLines, ATappedShortcutTapsOnce) {
    EXPECT_EQ(swayBindingLines(row("Alt+S", false)),
              (std::vector<std::string>{"bindsym --no-repeat Mod1+s exec sprelio shortcuts tap 1a2b3c4d"}));
}

TEST(SwayBindingLines, NoneWithoutAKeyOrForAKeySwayCannotName) {
    EXPECT_TRUE(swayBindingLines(row("", false)).empty());
    EXPECT_TRUE(swayBindingLines(row("Fn", true)).empty());
}

} // namespace
} // namespace sprelio

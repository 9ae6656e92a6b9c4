// The keyboard layout adapter against a real X server whose layout the test changes with setxkbmap and the group
// switch, and the key vocabulary built on it: where the V key is, whatever the layout.
#include <gtest/gtest.h>

#include <X11/XKBlib.h>

#include "input/KeyCodes.h"
#include "platform/X11TestSupport.h"
#include "platform/linux/X11KeyboardLayout.h"
#include "platform/loop/RealTimeLoop.h"

using namespace std::chrono_literals;
using sprelio::Key;
using sprelio::KeyCodes;
using sprelio::platform::RealTimeLoop;
using sprelio::platform::X11KeyboardLayout;
using sprelio::x11test::XServer;

namespace {

class X11KeyboardLayoutTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.ready()) << "Xvfb did not start";
        layout = std::make_unique<X11KeyboardLayout>(loop, server.name());
        ASSERT_TRUE(layout->isAvailable());
        codes = std::make_unique<KeyCodes>(*layout);
    }
    void TearDown() override {
        codes.reset();
        layout.reset();
        server.stop();
    }
    // Changes the layout and waits until the adapter has the new one and has told the key vocabulary.
    // The keymap and the layout names arrive as separate changes; `loaded` tells that the keymap is there.
    bool change(const std::string& command, const std::string& identifier, const std::function<bool()>& loaded) {
        const std::size_t before = changes;
        if (!server.run(command)) return false;
        return loop.runUntil([&] {
            return changes > before && layout->currentLayoutIdentifier() == identifier && loaded() &&
                   codes->cachedLayoutCount() == 0;
        }, 5s);
    }
    // Selects a group as the user's layout switch would, and waits until the adapter has seen it.
    bool selectGroup(unsigned group, const std::string& name) {
        const std::size_t before = changes;
        Display* d = XOpenDisplay(server.name().c_str());
        XkbLockGroup(d, XkbUseCoreKbd, group);
        XSync(d, False);
        XCloseDisplay(d);
        return loop.runUntil([&] { return changes > before && layout->currentLayoutLocalizedName() == name; }, 5s);
    }

    XServer server;
    RealTimeLoop loop;
    std::unique_ptr<X11KeyboardLayout> layout;
    std::unique_ptr<KeyCodes> codes;
    std::size_t changes = 0;
};

TEST_F(X11KeyboardLayoutTest, CharactersNamesAndTheVKeyFollowTheLayout) {
    // The vocabulary takes the layout's change handler; count the changes through it.
    layout->setLayoutChangedHandler([&] {
        ++changes;
        codes->layoutChanged();
    });
    EXPECT_EQ(layout->currentLayoutIdentifier(), "us");
    EXPECT_EQ(layout->currentLayoutLocalizedName(), "English (US)");
    EXPECT_EQ(layout->character(9), "v");
    EXPECT_EQ(layout->character(16), "y");
    EXPECT_EQ(layout->character(49), std::nullopt); // the space bar shows nothing
    EXPECT_EQ(layout->character(36), std::nullopt); // Return is the same on every layout
    EXPECT_EQ(codes->keyCode(Key::v), 9);
    EXPECT_FALSE(layout->rightAltIsAltGr()) << "the US layout's right Alt is a plain Alt";

    ASSERT_TRUE(change("setxkbmap de", "de", [&] { return layout->character(16) == "z"; }));
    EXPECT_EQ(layout->currentLayoutLocalizedName(), "German");
    EXPECT_TRUE(layout->rightAltIsAltGr()) << "German types @ and € with the right Alt";
    EXPECT_EQ(layout->character(16), "z");
    EXPECT_EQ(layout->character(6), "y");
    EXPECT_EQ(layout->character(41), "ö");
    EXPECT_EQ(codes->keyCode(Key::z), 16);
    EXPECT_EQ(codes->keyCode(Key::v), 9);

    // Dvorak puts V where QWERTY has the period.
    ASSERT_TRUE(change("setxkbmap us -variant dvorak", "us(dvorak)", [&] { return layout->character(47) == "v"; }));
    EXPECT_EQ(layout->character(47), "v");
    EXPECT_EQ(codes->keyCode(Key::v), 47);

    // With Russian selected the ASCII-capable layout is still the US one; the name is the selected group's.
    ASSERT_TRUE(change("setxkbmap -layout us,ru", "us", [&] { return layout->character(47) == "."; }));
    EXPECT_EQ(codes->keyCode(Key::v), 9);
    ASSERT_TRUE(selectGroup(1, "Russian"));
    EXPECT_EQ(layout->currentLayoutIdentifier(), "us");
    EXPECT_EQ(layout->character(9), "v");
    EXPECT_EQ(codes->keyCode(Key::v), 9);
    ASSERT_TRUE(selectGroup(0, "English (US)"));
}

} // namespace

// The login item: a desktop entry in the autostart folder that starts Sprelio, written and removed.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "platform/linux/XdgAutostart.h"
#include "platform/test/TemporaryFolder.h"

namespace sprelio::platform {
namespace {

TEST(XdgAutostart, TheEntryStartsTheProgramAndGoesAgainWhenTurnedOff) {
    test::TemporaryFolder config("sprelio-autostart");
    XdgAutostart autostart(config.path(), "/opt/my \"apps\"/sprelio");
    EXPECT_FALSE(autostart.isLoginItem());
    ASSERT_TRUE(autostart.setLoginItem(true));
    EXPECT_EQ(autostart.entryPath(), config.path() / "autostart" / "com.sprelio.app.desktop");
    std::ifstream in(autostart.entryPath());
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ(text.str().rfind("[Desktop Entry]\nType=Application\nName=Sprelio\n", 0), 0u) << text.str();
    EXPECT_NE(text.str().find("Exec=\"/opt/my \\\"apps\\\"/sprelio\"\n"), std::string::npos) << text.str();
    EXPECT_TRUE(autostart.isLoginItem());

    ASSERT_TRUE(autostart.setLoginItem(false));
    EXPECT_FALSE(autostart.isLoginItem());
    EXPECT_TRUE(autostart.setLoginItem(false)) << "turning off what is off is no failure";
}

} // namespace
} // namespace sprelio::platform

// The login item as the desktop reads it: the entry Sprelio writes must pass freedesktop's own validator, or a
// session may skip it at log-in without a word.
#include <gtest/gtest.h>

#include "audio/AudioTestSupport.h"
#include "platform/linux/XdgAutostart.h"
#include "platform/test/TemporaryFolder.h"

namespace sprelio::platform {
namespace {

TEST(XdgAutostart, TheEntryPassesTheDesktopEntryValidator) {
    test::TemporaryFolder config("sprelio-autostart-valid");
    // A path with a space, as an installed build under a home folder may have.
    XdgAutostart autostart(config.path(), "/home/ann/my apps/sprelio");
    ASSERT_TRUE(autostart.setLoginItem(true));
    const auto r = audio_test::runCommand("desktop-file-validate " +
                                          audio_test::shellQuoted(autostart.entryPath().string()) + " 2>&1");
    EXPECT_EQ(r.exitCode, 0) << "desktop-file-validate (desktop-file-utils) failed or is missing:\n" << r.out;
    EXPECT_EQ(r.out, "") << "no error, warning or hint";
}

} // namespace
} // namespace sprelio::platform

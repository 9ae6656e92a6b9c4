#include <gtest/gtest.h>

#include <map>

#include "platform/linux/XdgFolders.h"

using sprelio::platform::XdgFolders;

namespace {
XdgFolders::Getenv env(std::map<std::string, std::string> vars) {
    return [vars](const char* name) -> std::optional<std::string> {
        auto it = vars.find(name);
        if (it == vars.end()) return std::nullopt;
        return it->second;
    };
}
} // namespace

TEST(XdgFolders, DefaultsUnderHome) {
    XdgFolders f(env({{"HOME", "/home/u"}}));
    EXPECT_EQ(f.home(), "/home/u");
    EXPECT_EQ(f.dataHome(), "/home/u/.local/share");
    EXPECT_EQ(f.configHome(), "/home/u/.config");
}

TEST(XdgFolders, AbsoluteXdgValuesWin) {
    XdgFolders f(env({{"HOME", "/home/u"}, {"XDG_DATA_HOME", "/data"}, {"XDG_CONFIG_HOME", "/cfg"}}));
    EXPECT_EQ(f.dataHome(), "/data");
    EXPECT_EQ(f.configHome(), "/cfg");
}

TEST(XdgFolders, RelativeOrEmptyValuesAreIgnored) {
    XdgFolders f(env({{"HOME", "/home/u"}, {"XDG_DATA_HOME", "data"}, {"XDG_CONFIG_HOME", ""}}));
    EXPECT_EQ(f.dataHome(), "/home/u/.local/share");
    EXPECT_EQ(f.configHome(), "/home/u/.config");
}

TEST(XdgFolders, WithoutHomeThePasswordDatabaseIsUsed) {
    XdgFolders f(env({{"HOME", "relative"}}));
    EXPECT_TRUE(f.home().is_absolute()) << f.home();
    EXPECT_EQ(f.configHome(), f.home() / ".config");
}

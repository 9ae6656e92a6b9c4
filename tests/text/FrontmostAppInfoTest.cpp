// Classification of the application in front against the two rule tables.
#include <gtest/gtest.h>

#include "platform/test/TestPlatform.h"
#include "text/FrontmostAppInfo.h"

using namespace sprelio;
using platform::RunningApplication;

namespace {

RunningApplication app(std::string bundle, std::optional<std::string> name,
                       std::optional<std::string> title = std::nullopt) {
    RunningApplication a;
    a.processIdentifier = 42;
    a.bundleIdentifier = std::move(bundle);
    a.localizedName = std::move(name);
    a.windowTitle = std::move(title);
    return a;
}

} // namespace

TEST(FrontmostAppClassifier, RecordComesFromTheWorkspaceWithGapsAbsent) {
    platform::test::TestPlatform tp;
    auto empty = FrontmostAppClassifier::frontmostAppInfo(tp);
    EXPECT_FALSE(empty.bundleID || empty.appName || empty.windowTitle);

    tp.frontmost = app("", std::string("Xterm"), std::string("~/src"));
    auto info = FrontmostAppClassifier::frontmostAppInfo(tp);
    EXPECT_EQ(info.bundleID, std::nullopt);
    EXPECT_EQ(info.appName, "Xterm");
    EXPECT_EQ(info.windowTitle, "~/src");
}

TEST(FrontmostAppClassifier, KeyboardInjectionForJavaInAnyLetterCase) {
    platform::test::TestPlatform tp;
    platform::test::RecordingLogSink log;
    tp.frontmost = app("minecraft", std::string("JavaScript Console"));
    EXPECT_TRUE(FrontmostAppClassifier::shouldUseKeyboardInjection(tp, true));
    EXPECT_TRUE(log.contains("FrontmostAppClassifier.shouldUseKeyboardInjection() - Classifying frontmost app:\n"
                             "- Bundle ID: minecraft\n- App Name: JavaScript Console\n- Window Title: nil"));
    EXPECT_TRUE(log.contains("FrontmostAppClassifier.shouldUseKeyboardInjection() - Matched rule: Minecraft or any Java"));

    log.clear();
    tp.frontmost = app("org.gnome.TextEditor", std::string("gnome-text-editor"));
    EXPECT_FALSE(FrontmostAppClassifier::shouldUseKeyboardInjection(tp, true));
    EXPECT_TRUE(log.contains("FrontmostAppClassifier.shouldUseKeyboardInjection() - No matching rule found — using "
                             "clipboard injection"));

    // Nothing in front: every rule with a field fails, and nothing is logged when not asked.
    log.clear();
    tp.frontmost.reset();
    EXPECT_FALSE(FrontmostAppClassifier::shouldUseKeyboardInjection(tp, false));
    EXPECT_TRUE(log.lines().empty());
}

TEST(FrontmostAppClassifier, RemoteDesktopTableKeepsItsRowsAndGainsTheLinuxClients) {
    const auto& rules = FrontmostAppClassifier::remoteDesktopRules();
    ASSERT_GE(rules.size(), 14u);
    EXPECT_EQ(rules[0].name, "VNC Viewer");
    EXPECT_EQ(rules[11].name, "Chrome Remote Desktop");
    EXPECT_EQ(rules[13].name, "Jump Desktop");

    platform::test::TestPlatform tp;
    struct Case {
        std::string bundle;
        std::string name;
        std::string expectedRule;
    };
    const Case linuxClients[] = {
        {"org.remmina.Remmina", "org.remmina.Remmina", "Remmina"},
        {"", "Vncviewer", "TigerVNC vncviewer"},
        {"", "xfreerdp", "xfreerdp"},
        {"", "wlfreerdp", "wlfreerdp"},
        {"", "rdesktop", "rdesktop"},
        {"org.kde.krdc", "krdc", "KRDC"},
        {"org.gnome.Connections", "Gnome-connections", "GNOME Connections"},
        {"", "Anydesk", "AnyDesk"},
        {"", "TeamViewer", "TeamViewer"},
        {"", "rustdesk", "Rustdesk"},
    };
    platform::test::RecordingLogSink log;
    for (const auto& c : linuxClients) {
        log.clear();
        tp.frontmost = app(c.bundle, c.name);
        EXPECT_TRUE(FrontmostAppClassifier::isRemoteDesktopClient(tp, true)) << c.name;
        EXPECT_TRUE(log.contains("FrontmostAppClassifier.isRemoteDesktopClient() - Matched remote desktop client: " +
                                 c.expectedRule))
            << c.name;
    }
    log.clear();
    tp.frontmost = app("org.mozilla.firefox", std::string("firefox"), std::string("Remote work tips"));
    EXPECT_FALSE(FrontmostAppClassifier::isRemoteDesktopClient(tp, true));
    EXPECT_TRUE(log.contains("FrontmostAppClassifier.isRemoteDesktopClient() - Not a remote desktop client"));
}

TEST(FrontmostAppClassifier, ChromeRemoteDesktopNeedsBothNameAndTitle) {
    platform::test::TestPlatform tp;
    tp.frontmost = app("google-chrome", std::string("Google-chrome"), std::string("Chrome Remote Desktop - Access"));
    EXPECT_TRUE(FrontmostAppClassifier::isRemoteDesktopClient(tp, false));
    tp.frontmost = app("google-chrome", std::string("Google-chrome"), std::string("News"));
    EXPECT_FALSE(FrontmostAppClassifier::isRemoteDesktopClient(tp, false));
    tp.frontmost = app("org.gnome.TextEditor", std::string("gnome-text-editor"), std::string("Chrome Remote Desktop"));
    EXPECT_FALSE(FrontmostAppClassifier::isRemoteDesktopClient(tp, false));
    tp.frontmost = app("google-chrome", std::string("Google-chrome"), std::nullopt);
    EXPECT_FALSE(FrontmostAppClassifier::isRemoteDesktopClient(tp, false));
}

TEST(FrontmostAppClassifier, EitherRustdeskRowIsEnoughAndMatchingFoldsCase) {
    FrontmostAppInfo byBundle{std::string("com.carriez.RustDesk"), std::nullopt, std::nullopt};
    FrontmostAppInfo byName{std::nullopt, std::string("RUSTDESK"), std::nullopt};
    const auto* first = FrontmostAppClassifier::firstMatch(FrontmostAppClassifier::remoteDesktopRules(), byBundle);
    const auto* second = FrontmostAppClassifier::firstMatch(FrontmostAppClassifier::remoteDesktopRules(), byName);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->name, "Rustdesk");
    EXPECT_EQ(second->name, "Rustdesk");
    EXPECT_NE(first, second);
    EXPECT_TRUE(localizedCaseInsensitiveContains("STRASSE", "straße"));
    EXPECT_FALSE(localizedCaseInsensitiveContains("java", "javascript"));
}

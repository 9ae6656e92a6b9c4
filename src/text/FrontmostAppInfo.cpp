#include "text/FrontmostAppInfo.h"

#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include "base/Utf8.h"
#include "base/Log.h"
#include "base/TextCase.h"

namespace sprelio {

namespace {

std::optional<std::string> none() { return std::nullopt; }

std::string orNil(const std::optional<std::string>& value) { return value ? *value : "nil"; }

bool fieldMatches(const std::optional<std::string>& wanted, const std::optional<std::string>& actual) {
    if (!wanted) return true;
    if (!actual) return false;
    return localizedCaseInsensitiveContains(*actual, *wanted);
}

} // namespace

bool localizedCaseInsensitiveContains(const std::string& haystack, const std::string& needle) {
    if (!isValidUtf8(haystack) || !isValidUtf8(needle)) return haystack.find(needle) != std::string::npos;
    icu::UnicodeString h = icu::UnicodeString::fromUTF8(haystack);
    icu::UnicodeString n = icu::UnicodeString::fromUTF8(needle);
    h.foldCase(U_FOLD_CASE_DEFAULT);
    n.foldCase(U_FOLD_CASE_DEFAULT);
    return h.indexOf(n) >= 0;
}

FrontmostAppInfo FrontmostAppClassifier::frontmostAppInfo(const platform::Workspace& workspace) {
    FrontmostAppInfo info;
    if (auto app = workspace.frontmostApplication()) {
        if (!app->bundleIdentifier.empty()) info.bundleID = app->bundleIdentifier;
        info.appName = app->localizedName;
        info.windowTitle = app->windowTitle;
    }
    return info;
}

bool FrontmostAppClassifier::matches(const AppDetectionRule& rule, const FrontmostAppInfo& info) {
    return fieldMatches(rule.bundleIDContains, info.bundleID) && fieldMatches(rule.appNameContains, info.appName) &&
           fieldMatches(rule.windowTitleContains, info.windowTitle);
}

const AppDetectionRule* FrontmostAppClassifier::firstMatch(const std::vector<AppDetectionRule>& rules,
                                                           const FrontmostAppInfo& info) {
    for (const auto& rule : rules)
        if (matches(rule, info)) return &rule;
    return nullptr;
}

const std::vector<AppDetectionRule>& FrontmostAppClassifier::keyboardInjectionRules() {
    static const std::vector<AppDetectionRule> rules = {
        {"Minecraft or any Java", none(), "java", none()},
    };
    return rules;
}

const std::vector<AppDetectionRule>& FrontmostAppClassifier::remoteDesktopRules() {
    // On Linux the application name is the WM_CLASS class and the bundle identifier the application id where the
    // window has one; the clients below are matched by what they set there.
    static const std::vector<AppDetectionRule> rules = {
        {"VNC Viewer", "com.realvnc", none(), none()},
        {"Screen Sharing", "com.apple.ScreenSharing", none(), none()},
        {"Chicken of the VNC", "net.sourceforge.chicken", none(), none()},
        {"TigerVNC", none(), "TigerVNC", none()},
        {"Microsoft Remote Desktop", "com.microsoft.rdc", none(), none()},
        {"Windows App", "com.microsoft.windows", none(), none()},
        {"Royal TSX", "com.lemonmojo.RoyalTSX", none(), none()},
        {"Rustdesk", "com.carriez.rustdesk", none(), none()},
        {"Rustdesk", none(), "rustdesk", none()},
        {"TeamViewer", "com.teamviewer", none(), none()},
        {"AnyDesk", "com.philandro.anydesk", none(), none()},
        {"Chrome Remote Desktop", none(), "Chrome", "Chrome Remote Desktop"},
        {"Parsec", "tv.parsec", none(), none()},
        {"Jump Desktop", "com.p5sys.jump", none(), none()},
        {"Remmina", none(), "remmina", none()},
        {"TigerVNC vncviewer", none(), "vncviewer", none()},
        {"xfreerdp", none(), "xfreerdp", none()},
        {"wlfreerdp", none(), "wlfreerdp", none()},
        {"rdesktop", none(), "rdesktop", none()},
        {"KRDC", none(), "krdc", none()},
        {"GNOME Connections", "org.gnome.Connections", none(), none()},
        {"GNOME Connections", none(), "gnome-connections", none()},
        {"AnyDesk", none(), "anydesk", none()},
        {"TeamViewer", none(), "teamviewer", none()},
        {"RustDesk", "rustdesk", none(), none()},
    };
    return rules;
}

bool FrontmostAppClassifier::shouldUseKeyboardInjection(const platform::Workspace& workspace, bool logResult) {
    const FrontmostAppInfo info = frontmostAppInfo(workspace);
    if (logResult)
        logInfo("FrontmostAppClassifier.shouldUseKeyboardInjection() - Classifying frontmost app:\n- Bundle ID: " +
                orNil(info.bundleID) + "\n- App Name: " + orNil(info.appName) +
                "\n- Window Title: " + orNil(info.windowTitle));
    if (const auto* rule = firstMatch(keyboardInjectionRules(), info)) {
        if (logResult) logInfo("FrontmostAppClassifier.shouldUseKeyboardInjection() - Matched rule: " + rule->name);
        return true;
    }
    if (logResult)
        logInfo("FrontmostAppClassifier.shouldUseKeyboardInjection() - No matching rule found — using clipboard "
                "injection");
    return false;
}

bool FrontmostAppClassifier::isRemoteDesktopClient(const platform::Workspace& workspace, bool logResult) {
    const FrontmostAppInfo info = frontmostAppInfo(workspace);
    if (logResult)
        logInfo("FrontmostAppClassifier.isRemoteDesktopClient() - Checking frontmost app:\n- Bundle ID: " +
                orNil(info.bundleID) + "\n- App Name: " + orNil(info.appName) +
                "\n- Window Title: " + orNil(info.windowTitle));
    if (const auto* rule = firstMatch(remoteDesktopRules(), info)) {
        if (logResult)
            logInfo("FrontmostAppClassifier.isRemoteDesktopClient() - Matched remote desktop client: " + rule->name);
        return true;
    }
    if (logResult) logInfo("FrontmostAppClassifier.isRemoteDesktopClient() - Not a remote desktop client");
    return false;
}

} // namespace sprelio

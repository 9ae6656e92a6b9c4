#pragma once
// What the application in front is, and the two questions asked of it at the moment of delivery: does it need its
// text typed key by key, and is it a remote desktop client? Nothing is kept: every question reads the workspace
// afresh, so a change of focus between the hotkey and the text is followed.
#include <optional>
#include <string>
#include <vector>

#include "platform/FrontmostApp.h"

namespace sprelio {

struct AppDetectionRule {
    std::string name; // used in log lines
    std::optional<std::string> bundleIDContains;
    std::optional<std::string> appNameContains;
    std::optional<std::string> windowTitleContains;
};

struct FrontmostAppInfo {
    std::optional<std::string> bundleID;
    std::optional<std::string> appName;
    std::optional<std::string> windowTitle;
};

// Case-insensitive substring search under full Unicode case folding.
bool localizedCaseInsensitiveContains(const std::string& haystack, const std::string& needle);

class FrontmostAppClassifier {
public:
    static FrontmostAppInfo frontmostAppInfo(const platform::Workspace& workspace);
    static bool shouldUseKeyboardInjection(const platform::Workspace& workspace, bool logResult);
    static bool isRemoteDesktopClient(const platform::Workspace& workspace, bool logResult);

    // All present fields of the rule must be found in the record; an absent field matches anything, a present one
    // never matches a missing value.
    static bool matches(const AppDetectionRule& rule, const FrontmostAppInfo& info);
    // The first matching rule of the table, in table order.
    static const AppDetectionRule* firstMatch(const std::vector<AppDetectionRule>& rules, const FrontmostAppInfo& info);

    static const std::vector<AppDetectionRule>& keyboardInjectionRules();
    static const std::vector<AppDetectionRule>& remoteDesktopRules();
};

} // namespace sprelio

#include "platform/linux/SwayWorkspace.h"

#include <unistd.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "base/Log.h"
#include "platform/linux/ChildProcess.h"
#include "platform/linux/X11Workspace.h"

namespace sprelio::platform {

namespace {

constexpr std::chrono::milliseconds kIpcTimeout{1000};

const nlohmann::json* findFocused(const nlohmann::json& node) {
    if (node.value("focused", false) && node.contains("pid")) return &node;
    for (const char* children : {"nodes", "floating_nodes"}) {
        if (!node.contains(children) || !node[children].is_array()) continue;
        for (const auto& child : node[children])
            if (const auto* found = findFocused(child)) return found;
    }
    return nullptr;
}

bool swayCommand(const std::string& command) {
    const auto result = runProgram({"swaymsg", command}, {}, kIpcTimeout);
    if (result.exitCode == 0) return true;
    // sway answers in indented JSON; the log keeps one line per event.
    std::string answer = result.errorOutput + result.output;
    std::string line;
    bool space = false;
    for (char c : answer) {
        const bool blank = c == '\n' || c == ' ' || c == '\t';
        if (blank && !space) line += ' ';
        if (!blank) line += c;
        space = blank;
    }
    logWarning("SwayWorkspace - \"" + command + "\" failed:" + line);
    return false;
}

} // namespace

SwayWorkspace::SwayWorkspace(X11Workspace& fallback, std::string ownBundleIdentifier)
    : fallback_(fallback), ownBundleIdentifier_(std::move(ownBundleIdentifier)) {
    const char* socket = std::getenv("SWAYSOCK");
    sway_ = socket && *socket && programOnPath("swaymsg");
    logInfo(std::string("SwayWorkspace - the window in front from ") + (sway_ ? "sway's IPC" : "Xwayland (X11 windows only)"));
}

bool SwayWorkspace::isAvailable() const { return sway_; }

std::optional<RunningApplication> SwayWorkspace::focusedApplication(const std::string& treeJson, pid_t ownProcess,
                                                                    const std::string& ownBundleIdentifier) {
    const auto tree = nlohmann::json::parse(treeJson, nullptr, false);
    if (tree.is_discarded()) return std::nullopt;
    const auto* node = findFocused(tree);
    if (!node) return std::nullopt;
    RunningApplication app;
    app.processIdentifier = node->value("pid", 0);
    std::string id;
    if (node->contains("app_id") && (*node)["app_id"].is_string()) id = (*node)["app_id"].get<std::string>();
    std::string name = id;
    if (id.empty() && node->contains("window_properties")) {
        const auto& properties = (*node)["window_properties"];
        if (properties.contains("class") && properties["class"].is_string()) id = name = properties["class"].get<std::string>();
    }
    // "org.gnome.Zenity" is named "Zenity" by its last part, as a class would name it.
    if (const auto dot = name.rfind('.'); dot != std::string::npos && dot + 1 < name.size()) name = name.substr(dot + 1);
    app.bundleIdentifier = (!ownBundleIdentifier.empty() && app.processIdentifier == ownProcess) ? ownBundleIdentifier : id;
    if (!name.empty()) app.localizedName = name;
    if (node->contains("name") && (*node)["name"].is_string()) app.windowTitle = (*node)["name"].get<std::string>();
    return app;
}

std::optional<RunningApplication> SwayWorkspace::frontmostApplication() const {
    if (!sway_) return fallback_.frontmostApplication();
    const auto result = runProgram({"swaymsg", "-t", "get_tree", "-r"}, {}, kIpcTimeout);
    if (result.exitCode != 0) {
        logWarning("SwayWorkspace.frontmostApplication() - sway did not answer; asking Xwayland");
        return fallback_.frontmostApplication();
    }
    return focusedApplication(result.output, ::getpid(), ownBundleIdentifier_);
}

bool SwayWorkspace::activate(const RunningApplication& app, unsigned options) {
    if (!sway_ || app.processIdentifier <= 0) return fallback_.activate(app, options);
    return swayCommand("[pid=" + std::to_string(app.processIdentifier) + "] focus");
}

void SwayWorkspace::activateSelf() {
    if (!sway_) return fallback_.activateSelf();
    swayCommand("[pid=" + std::to_string(::getpid()) + "] focus");
}

void SwayWorkspace::setDidActivateApplicationHandler(ActivationHandler handler) {
    fallback_.setDidActivateApplicationHandler(std::move(handler));
}

} // namespace sprelio::platform

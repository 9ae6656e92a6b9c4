#include "store/AppConstants.h"

#include <sys/utsname.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <system_error>

#include "base/BuildInfo.h"
#include "base/Log.h"

namespace sprelio::store {
namespace {

// The value of PRETTY_NAME in an os-release file, unquoted; "" when missing.
std::string prettyNameFrom(const std::filesystem::path& file) {
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("PRETTY_NAME=", 0) != 0) continue;
        std::string value = line.substr(12);
        while (!value.empty() && (value.back() == '\r' || value.back() == ' ')) value.pop_back();
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
            char quote = value.front();
            value = value.substr(1, value.size() - 2);
            if (quote == '"') { // shell-style escapes: \" \\ \$ \`
                std::string unescaped;
                for (std::size_t i = 0; i < value.size(); ++i) {
                    if (value[i] == '\\' && i + 1 < value.size()) ++i;
                    unescaped += value[i];
                }
                value = unescaped;
            }
        }
        return value;
    }
    return {};
}

// Window classes of terminal emulators, lower case. Each has its paste route in text/TerminalPasteRoutes.cpp.
const char* const kTerminals[] = {"xterm",      "urxvt",       "gnome-terminal", "konsole",       "kitty",
                                  "alacritty",  "wezterm",     "foot",           "terminator",    "tilix",
                                  "xfce4-terminal", "mate-terminal", "lxterminal", "qterminal",  "st",
                                  "termite",    "ghostty",     "uxterm",         "mlterm",        "st-256color",
                                  "sakura",     "kgx"};

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

} // namespace

AppConstants::Environment AppConstants::Environment::fromProcess() {
    Environment env;
    env.getenv = [](const char* name) -> std::optional<std::string> {
        const char* value = std::getenv(name);
        if (!value) return std::nullopt;
        return std::string(value);
    };
    env.osReleasePrettyName = prettyNameFrom("/etc/os-release");
    if (env.osReleasePrettyName.empty()) env.osReleasePrettyName = prettyNameFrom("/usr/lib/os-release");
    struct utsname names {};
    if (uname(&names) == 0) env.kernelRelease = names.release;
    return env;
}

AppConstants::AppConstants(const platform::Folders& folders) : AppConstants(folders, Environment::fromProcess()) {}

AppConstants::AppConstants(const platform::Folders& folders, const Environment& environment) {
    appName_ = "Sprelio";
    bundleIdentifier_ = "com.sprelio.app";
    osName_ = "Linux";
    if (!environment.osReleasePrettyName.empty()) osName_ += " " + environment.osReleasePrettyName;
    if (!environment.kernelRelease.empty()) osName_ += " " + environment.kernelRelease;
    appVersion_ = build::kVersion;
    if (appVersion_.empty()) appVersion_ = "0.0.0";
    appBuild_ = build::kBuild;
    if (appBuild_.empty()) appBuild_ = "0";
    appVersionLong_ = appName_ + " v" + appVersion_;
    clientVersion_ = "linux-" + appVersion_;

    // POSIX precedence: the first of LC_ALL, LC_MESSAGES, LANG that is set and not empty decides the language
    // of messages. When that one is "C" or "POSIX" the process has no language: "??".
    auto get = [&](const char* name) -> std::string {
        if (!environment.getenv) return {};
        auto value = environment.getenv(name);
        return value ? *value : std::string();
    };
    systemLanguageCode_ = "??";
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        std::string value = get(name);
        if (value.empty()) continue;
        std::string code = languageCodeFromLocale(value);
        if (!code.empty()) systemLanguageCode_ = code;
        break;
    }
    appLanguageCode_ = "en";
    if (systemLanguageCode_ != "??") {
        std::string list = get("LANGUAGE");
        std::size_t start = 0;
        while (start <= list.size() && !list.empty()) {
            auto colon = list.find(':', start);
            std::string code =
                languageCodeFromLocale(std::string_view(list).substr(start, colon == std::string::npos ? std::string::npos : colon - start));
            if (!code.empty() && std::find(preferredLanguages_.begin(), preferredLanguages_.end(), code) ==
                                     preferredLanguages_.end())
                preferredLanguages_.push_back(code);
            if (colon == std::string::npos) break;
            start = colon + 1;
        }
        if (preferredLanguages_.empty()) preferredLanguages_.push_back(systemLanguageCode_);
    }

    appSupportFolder_ = folders.dataHome() / "Sprelio";
    std::error_code ec;
    if (!std::filesystem::is_directory(appSupportFolder_, ec)) {
        ec.clear();
        std::filesystem::create_directories(appSupportFolder_, ec);
        if (ec) logError("Failed to create Application Support directory: " + ec.message() + " (" +
                         appSupportFolder_.string() + ")");
    }
    recordingsFolder_ = appSupportFolder_ / "recordings";
    recordingsFolderURL_ = fileURL(recordingsFolder_, true);
    logsFolder_ = appSupportFolder_ / "logs";
    aiServerItemsFile_ = appSupportFolder_ / "AIServerItems";
    aiModelItemsFile_ = appSupportFolder_ / "AIModelItems";
    settingsFile_ = folders.configHome() / "Sprelio" / "settings.json";

    for (const char* terminal : kTerminals) appsThatPreferPaste_.insert(terminal);
}

bool AppConstants::prefersPasteAndMatchStyle(std::string_view applicationName) const {
    return appsThatPreferPaste_.count(lower(applicationName)) > 0;
}

std::string AppConstants::formatShortDate(std::chrono::system_clock::time_point time) const {
    std::time_t t = std::chrono::system_clock::to_time_t(time);
    std::tm local{};
    localtime_r(&t, &local);
    char buffer[128];
    std::size_t n = std::strftime(buffer, sizeof buffer, "%x", &local);
    return std::string(buffer, n);
}

std::string AppConstants::languageCodeFromLocale(std::string_view locale) {
    auto cut = locale.find_first_of("_-.@");
    std::string_view code = locale.substr(0, cut);
    if (code.empty() || code == "C" || code == "POSIX") return {};
    return lower(code);
}

std::string AppConstants::fileURL(const std::filesystem::path& path, bool directory) {
    static const char* const kHex = "0123456789ABCDEF";
    std::string text = path.string();
    std::string out = "file://";
    for (unsigned char c : text) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 0xF];
        }
    }
    if (directory && (out.empty() || out.back() != '/')) out += '/';
    return out;
}

std::filesystem::path AppConstants::pathFromFileURLOrPath(std::string_view text) {
    constexpr std::string_view kScheme = "file://";
    if (text.size() < kScheme.size() || lower(text.substr(0, kScheme.size())) != kScheme)
        return std::filesystem::path(std::string(text));
    std::string_view rest = text.substr(kScheme.size());
    // "file://localhost/path" and "file:///path".
    if (rest.rfind("localhost/", 0) == 0) rest.remove_prefix(9);
    auto hex = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    std::string decoded;
    for (std::size_t i = 0; i < rest.size(); ++i) {
        if (rest[i] == '%' && i + 2 < rest.size() && hex(rest[i + 1]) >= 0 && hex(rest[i + 2]) >= 0) {
            decoded += static_cast<char>(hex(rest[i + 1]) * 16 + hex(rest[i + 2]));
            i += 2;
        } else {
            decoded += rest[i];
        }
    }
    std::filesystem::path path(decoded);
    // A directory URL ends in "/"; the path is the folder itself.
    if (decoded.size() > 1 && decoded.back() == '/') path = path.parent_path();
    return path;
}

} // namespace sprelio::store

#pragma once
// AppConstants: identity, folders and fixed names of Sprelio on Linux.
// Every value is computed once, in the constructor, and never changes.
#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Folders.h"
#include "base/LocalizedLanguage.h"

namespace sprelio::store {

class AppConstants {
public:
    // Where the constants that depend on the machine come from. `fromProcess()` reads the real environment,
    // /etc/os-release and uname; tests fill it by hand.
    struct Environment {
        std::function<std::optional<std::string>(const char*)> getenv; // nullopt when unset
        std::string osReleasePrettyName;                                // PRETTY_NAME, "" when unknown
        std::string kernelRelease;                                      // uname -r, "" when unknown
        static Environment fromProcess();
    };

    explicit AppConstants(const platform::Folders& folders);
    AppConstants(const platform::Folders& folders, const Environment& environment);

    const std::string& appName() const { return appName_; }                   // "Sprelio"
    const std::string& bundleIdentifier() const { return bundleIdentifier_; } // "com.sprelio.app"
    // "Linux " + PRETTY_NAME + " " + kernel release; parts that are unknown are left out (no double spaces).
    const std::string& osName() const { return osName_; }
    const std::string& appVersion() const { return appVersion_; }         // build::kVersion, "0.0.0" when empty
    const std::string& appBuild() const { return appBuild_; }             // build::kBuild, "0" when empty
    const std::string& appVersionLong() const { return appVersionLong_; } // "Sprelio v1.2.3"
    const std::string& clientVersion() const { return clientVersion_; }   // "linux-" + appVersion
    // The first of LC_ALL, LC_MESSAGES, LANG that is set, not empty and not "C"/"POSIX" (or "C.UTF-8" etc.),
    // cut at the first "_", "-", "." or "@"; "??" when there is none. (LANGUAGE is not consulted here: glibc
    // ignores it under the C locale, and one code is wanted here.)
    const std::string& systemLanguageCode() const { return systemLanguageCode_; }
    // Only English ships: "en".
    const std::string& appLanguageCode() const { return appLanguageCode_; }
    // The user's preferred languages, the Linux stand-in for the system's "AppleLanguages": the entries of
    // LANGUAGE (colon list, cut like systemLanguageCode), or else [systemLanguageCode]; empty when "??".
    const std::vector<std::string>& preferredLanguages() const { return preferredLanguages_; }
    bool isBelowMacOS15() const { return false; }

    // $XDG_DATA_HOME/Sprelio, created (with parents) in the constructor; a failure logs at error level
    // "Failed to create Application Support directory: <error>".
    const std::filesystem::path& appSupportFolder() const { return appSupportFolder_; }
    const std::filesystem::path& recordingsFolder() const { return recordingsFolder_; } // <support>/recordings
    // "file://" + recordingsFolder + "/", percent-encoded (the URL form of the folder).
    const std::string& recordingsFolderURL() const { return recordingsFolderURL_; }
    const std::filesystem::path& logsFolder() const { return logsFolder_; }             // <support>/logs
    const std::filesystem::path& aiServerItemsFile() const { return aiServerItemsFile_; } // <support>/AIServerItems
    const std::filesystem::path& aiModelItemsFile() const { return aiModelItemsFile_; }   // <support>/AIModelItems
    const std::filesystem::path& settingsFile() const { return settingsFile_; } // <configHome>/Sprelio/settings.json

    // Lower-case application names of terminal emulators; compare with a lower-cased name.
    const std::set<std::string>& appsThatPreferPasteAndMatchStyle() const { return appsThatPreferPaste_; }
    bool prefersPasteAndMatchStyle(std::string_view applicationName) const; // case-insensitive

    // The shared "short date style" formatter: the date in local time as the locale's short form
    // ("%x" of the C library under the process locale, e.g. "11/21/26" in en_US, "21.11.26" in de_DE).
    std::string formatShortDate(std::chrono::system_clock::time_point time) const;

    const std::vector<LocalizedLanguage>& languages() const { return languageTable(); }

    // Helpers, public for tests.
    // Cuts a locale name ("de_DE.UTF-8", "pt-BR", "sr@latin") to its language code; "" for "", "C", "POSIX"
    // and their variants ("C.UTF-8").
    static std::string languageCodeFromLocale(std::string_view locale);
    // "file://" URL of an absolute path (unreserved characters and "/" kept, others percent-encoded).
    static std::string fileURL(const std::filesystem::path& path, bool directory);
    // The path of a "file://" URL (percent-decoded), or the text itself when it is not a file URL.
    static std::filesystem::path pathFromFileURLOrPath(std::string_view text);

private:
    std::string appName_, bundleIdentifier_, osName_, appVersion_, appBuild_, appVersionLong_, clientVersion_;
    std::string systemLanguageCode_, appLanguageCode_;
    std::vector<std::string> preferredLanguages_;
    std::filesystem::path appSupportFolder_, recordingsFolder_, logsFolder_, aiServerItemsFile_,
        aiModelItemsFile_, settingsFile_;
    std::string recordingsFolderURL_;
    std::set<std::string> appsThatPreferPaste_;
};

} // namespace sprelio::store

#pragma once
// The settings catalogue: one typed getter and setter per key, each with the key's exact default.
// Naming: the getter is the key name, the setter "set" + the key with its first letter capitalised;
// "floatingRecord.selectedItemIDs.json" becomes floatingRecordSelectedItemIDsJson().
//
// Reading: a key that was never written reads as its default. A stored value of the wrong JSON type reads as
// the default too and is logged once per key at error level:
//   "Settings.<getter>() - stored value of \"<key>\" is not a <type>, using the default"
// Writing goes straight to the store (and, for the file store, to disk). Keys with no default (optional
// values) return std::optional; setting nullopt removes the key. Thread-safe as far as the store is.
//
// Choices made here (documented in the catalogue too):
// - saveRecordingsFolder is stored as a plain absolute path text; a "file://" URL text is also accepted when
//   reading (percent-decoded). Default: AppConstants::recordingsFolder().
// - Points are stored as "x,y", rectangles as "x,y,width,height" (see store/PointText.h).
// - localizedTranslationLanguages / aiLocalizedTranslationLanguages are stored as a JSON array of
//   LocalizedLanguage objects (a JSON text holding such an array is accepted when reading). Default, "built
//   from the language table": the row of AppConstants::systemLanguageCode() when the table has it and it is not
//   English, then the English row (so [English] on an English or C-locale system, [German, English] under
//   de_DE). The whole table would make every request's fallback "languages" list all 100 codes.
// - filesMenuRecordingMode is the enumeration's raw value; there is no natural default, and
//   `none` is "invalid for a start", so the default is "microphoneOnly". filesMenuViewSpeakerSeparation: false.
// - lastKnownLoginState is the raw value of LoginState, default "logout"; balancers is the JSON
//   array of BackendBalancer, default []; their owners decode them.
// - SelectedFolderBookmark ("data" on macOS) is the chosen folder's path text on Linux; written, never read.
// - AppleLanguages defaults to AppConstants::preferredLanguages().
// - apiBaseURL defaults to "embedded".
// - aiServiceURL / aiServiceModel (default "" each) name the embedded server's AI service; with no URL it
//   looks for a local one. The service's key is no setting, so that no listing or copy of the settings shows
//   it: it is a file of its own beside the settings file (aiServiceKeyFile(), mode 0600).
// - "KeyboardShortcuts_<UUID>" keys stay plain keys of the store; see kKeyboardShortcutsPrefix.
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "store/AppConstants.h"
#include "base/LocalizedLanguage.h"
#include "store/PointText.h"
#include "store/SettingsStore.h"

namespace sprelio::store {

inline constexpr std::string_view kKeyboardShortcutsPrefix = "KeyboardShortcuts_";

enum class SettingType {
    boolean,         // JSON true/false
    integer,         // JSON integer
    string,          // JSON string
    path,            // JSON string: an absolute path (saveRecordingsFolder)
    jsonText,        // JSON string holding JSON text (floatingRecord.selectedItemIDs.json)
    stringArray,     // JSON array of strings
    dictionary,      // JSON object string -> string
    pointDictionary, // JSON object string -> point text "x,y"
    rectangle,       // JSON string "x,y,width,height"
    languages,       // JSON array of LocalizedLanguage objects
    array,           // JSON array (balancers)
    object,          // JSON object (userDetailsResponse)
    data,            // JSON string (SelectedFolderBookmark)
};
// "boolean", "integer", "string", "path", "JSON text", "string array", "dictionary", "point dictionary",
// "rectangle", "languages", "array", "object", "data".
std::string_view settingTypeName(SettingType type);

struct SettingDescription {
    std::string key;
    SettingType type;
    bool optional = false; // no default: reads as no value when absent
    std::string meaning;   // short text for the command line
};

class Settings {
public:
    Settings(SettingsStore& store, const AppConstants& constants);

    SettingsStore& store() const { return store_; }
    const AppConstants& constants() const { return constants_; }

    // ---- The catalogue, for the command line ----
    static const std::vector<SettingDescription>& catalogue();
    static const SettingDescription* describe(std::string_view key); // nullptr for an unknown key
    // The default as JSON (null for optional keys and unknown keys).
    nlohmann::json defaultValue(std::string_view key) const;
    // The stored value when it has the key's type, else the default (null for an absent optional key).
    nlohmann::json value(std::string_view key) const;
    // True when `value` has the JSON shape of the key's type (unknown keys: any value).
    static bool isValidValue(std::string_view key, const nlohmann::json& value);
    // Turns a command-line text into the key's JSON value: booleans true/false/1/0/yes/no (any case), integers
    // (decimal, optional sign, in range of int), strings as they are, point dictionaries / dictionaries /
    // arrays / objects / languages as JSON, rectangles as "x,y,width,height". Unknown keys: the text as JSON
    // when it parses, else as a string. Returns nullopt and fills `reason` (when given) for bad input.
    static std::optional<nlohmann::json> parseValue(std::string_view key, std::string_view text,
                                                    std::string* reason = nullptr);

    // ---- Sounds ----
    bool soundEnabled() const;                        // false
    void setSoundEnabled(bool value);
    bool playSoundOnRecordingStart() const;           // false
    void setPlaySoundOnRecordingStart(bool value);
    std::string recordingStartSoundName() const;      // "Pop"
    void setRecordingStartSoundName(std::string value);
    bool playSoundOnRecordingStop() const;            // false
    void setPlaySoundOnRecordingStop(bool value);
    std::string recordingStopSoundName() const;       // "Blow"
    void setRecordingStopSoundName(std::string value);

    // ---- Microphone and recording ----
    bool preferExternalMicrophone() const;            // true
    void setPreferExternalMicrophone(bool value);
    std::string userSelectedMicDeviceName() const;    // ""
    void setUserSelectedMicDeviceName(std::string value);
    int lastKnownInputDeviceID() const;               // -1
    void setLastKnownInputDeviceID(int value);
    bool setMicrophoneLevelToMaximum() const;         // true
    void setSetMicrophoneLevelToMaximum(bool value);
    int minimumRecordingDuration() const;             // 400 (ms)
    void setMinimumRecordingDuration(int value);
    int tapAndRecordTimeoutMinutes() const;           // 10
    void setTapAndRecordTimeoutMinutes(int value);
    int cttsSilenceTresholdMs() const;                // 1500
    void setCttsSilenceTresholdMs(int value);
    std::filesystem::path saveRecordingsFolder() const; // AppConstants::recordingsFolder()
    void setSaveRecordingsFolder(const std::filesystem::path& value);

    // ---- Text delivery ----
    bool copyTranscript() const;                      // false
    void setCopyTranscript(bool value);
    bool pasteCtrlVForRemoteDesktop() const;          // true
    void setPasteCtrlVForRemoteDesktop(bool value);

    // ---- Application ----
    bool isLoginItem() const;                         // true
    void setIsLoginItem(bool value);
    bool appShowDockIcon() const;                     // true
    void setAppShowDockIcon(bool value);
    bool isFirstLaunch() const;                       // true
    void setIsFirstLaunch(bool value);
    int lastKnownBuild() const;                       // 0
    void setLastKnownBuild(int value);
    std::string apiBaseURL() const;                   // "embedded" (Linux)
    void setApiBaseURL(std::string value);
    std::string aiServiceURL() const;                 // "" (look for a local service)
    void setAiServiceURL(std::string value);
    std::string aiServiceModel() const;               // "" (the service's first model)
    void setAiServiceModel(std::string value);
    std::string updateFeedURL() const;                // the project's appcast; "" turns update checks off
    void setUpdateFeedURL(std::string value);

    // ---- The AI service's key: a file of its own, never a setting ----
    // <configHome>/Sprelio/ai-service-key, next to the settings file.
    std::filesystem::path aiServiceKeyFile() const;
    // None when no key is stored (or the file can't be read).
    std::optional<std::string> aiServiceKey() const;
    // Writes the key atomically with mode 0600; a key is one line of printable text, surrounding spaces dropped.
    // "" on success, else why it was not stored.
    std::string setAiServiceKey(std::string_view key);
    // Removes the file; "" on success (also when there was none), else why not.
    std::string clearAiServiceKey();
    std::vector<std::string> AppleLanguages() const;  // AppConstants::preferredLanguages()
    void setAppleLanguages(std::vector<std::string> value);

    // ---- Overlay and floating button ----
    int overlaySize() const;                          // 112
    void setOverlaySize(int value);
    bool floatingButtonActivation() const;            // true
    void setFloatingButtonActivation(bool value);
    int floatingRecordButtonSize() const;             // 48
    void setFloatingRecordButtonSize(int value);
    int floatingRecordButtonTransparency() const;     // 0
    void setFloatingRecordButtonTransparency(int value);
    bool floatingRecordShowAITools() const;           // false
    void setFloatingRecordShowAITools(bool value);
    std::string floatingRecordSelectedItemIDsJson() const; // "[]"  (key "floatingRecord.selectedItemIDs.json")
    void setFloatingRecordSelectedItemIDsJson(std::string value);
    bool showRecordingTimer() const;                  // true
    void setShowRecordingTimer(bool value);
    std::map<std::string, std::string> overlayPositionPerScreen() const; // empty; screen key -> OverlayPosition raw
    void setOverlayPositionPerScreen(const std::map<std::string, std::string>& value);
    // empty; screen key -> point. Entries whose text is not a point are left out.
    std::map<std::string, Point> draggedOverlayPositionPerScreen() const;
    void setDraggedOverlayPositionPerScreen(const std::map<std::string, Point>& value);
    std::string buttonPrefersDisplayUniqueID() const; // ""
    void setButtonPrefersDisplayUniqueID(std::string value);

    // ---- Windows ----
    std::optional<Rect> tutorialViewFrame() const;    // nil; a text that is not a rectangle reads as nil
    void setTutorialViewFrame(std::optional<Rect> value);
    std::optional<Rect> intelligenceResultsViewFrame() const; // nil
    void setIntelligenceResultsViewFrame(std::optional<Rect> value);
    std::string intelligenceResultsView_selectedItemId() const; // ""
    void setIntelligenceResultsView_selectedItemId(std::string value);
    bool showAIResultsViewAtCursorPosition() const;   // false
    void setShowAIResultsViewAtCursorPosition(bool value);

    // ---- Messages, languages ----
    std::vector<std::string> messagesToNeverShowAgain() const; // empty
    void setMessagesToNeverShowAgain(std::vector<std::string> value);
    std::string lastDetectedLanguageCode() const;     // AppConstants::appLanguageCode() ("en")
    void setLastDetectedLanguageCode(std::string value);
    std::vector<LocalizedLanguage> localizedTranslationLanguages() const;   // [system row,] English row
    void setLocalizedTranslationLanguages(const std::vector<LocalizedLanguage>& value);
    std::vector<LocalizedLanguage> aiLocalizedTranslationLanguages() const; // [system row,] English row
    void setAiLocalizedTranslationLanguages(const std::vector<LocalizedLanguage>& value);

    // ---- Files tab ----
    std::string filesMenuRecordingMode() const;       // "microphoneOnly" (FilesMenuRecordingMode raw value)
    void setFilesMenuRecordingMode(std::string value);
    bool filesMenuViewSpeakerSeparation() const;      // false
    void setFilesMenuViewSpeakerSeparation(bool value);

    // ---- History, substitutions ----
    int historyRetentionDays() const;                 // 365
    void setHistoryRetentionDays(int value);
    bool subSortInput() const;                        // true
    void setSubSortInput(bool value);
    std::string subSortOrder() const;                 // "ascend"
    void setSubSortOrder(std::string value);

    // ---- Backend and account ----
    nlohmann::json balancers() const;                 // [] (JSON array of BackendBalancer)
    void setBalancers(nlohmann::json value);
    std::string lastKnownLoginState() const;          // "logout" (LoginState raw value)
    void setLastKnownLoginState(std::string value);
    std::optional<std::string> token() const;         // none; the bearer token of the account
    void setToken(std::optional<std::string> value);
    std::optional<std::string> userEmail() const;     // none
    void setUserEmail(std::optional<std::string> value);
    std::optional<nlohmann::json> userDetailsResponse() const; // none (a JSON object)
    void setUserDetailsResponse(std::optional<nlohmann::json> value);

    // ---- Problem report ----
    std::string sendReportViewPhone() const;          // ""
    void setSendReportViewPhone(std::string value);
    std::string sendReportViewMessage() const;        // ""
    void setSendReportViewMessage(std::string value);

    // ---- Written, never read ----
    std::optional<std::string> SelectedFolderBookmark() const; // none
    void setSelectedFolderBookmark(std::optional<std::string> value);

private:
    // The stored value when present and of the right shape; nullopt otherwise (wrong type logged once).
    std::optional<nlohmann::json> typed(std::string_view key) const;
    void reportWrongType(std::string_view key) const;

    SettingsStore& store_;
    const AppConstants& constants_;
    mutable std::mutex loggedMutex_;
    mutable std::set<std::string, std::less<>> loggedWrongType_;
};

} // namespace sprelio::store

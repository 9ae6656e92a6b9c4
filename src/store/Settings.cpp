#include "store/Settings.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <cmath>
#include <fstream>

#include "base/Log.h"
#include "store/AtomicFile.h"

namespace sprelio::store {

using nlohmann::json;

std::string_view settingTypeName(SettingType type) {
    switch (type) {
    case SettingType::boolean: return "boolean";
    case SettingType::integer: return "integer";
    case SettingType::string: return "string";
    case SettingType::path: return "path";
    case SettingType::jsonText: return "JSON text";
    case SettingType::stringArray: return "string array";
    case SettingType::dictionary: return "dictionary";
    case SettingType::pointDictionary: return "point dictionary";
    case SettingType::rectangle: return "rectangle";
    case SettingType::languages: return "languages";
    case SettingType::array: return "array";
    case SettingType::object: return "object";
    case SettingType::data: return "data";
    }
    return "unknown";
}

namespace K {
constexpr const char* soundEnabled = "soundEnabled";
constexpr const char* playSoundOnRecordingStart = "playSoundOnRecordingStart";
constexpr const char* recordingStartSoundName = "recordingStartSoundName";
constexpr const char* playSoundOnRecordingStop = "playSoundOnRecordingStop";
constexpr const char* recordingStopSoundName = "recordingStopSoundName";
constexpr const char* preferExternalMicrophone = "preferExternalMicrophone";
constexpr const char* userSelectedMicDeviceName = "userSelectedMicDeviceName";
constexpr const char* lastKnownInputDeviceID = "lastKnownInputDeviceID";
constexpr const char* setMicrophoneLevelToMaximum = "setMicrophoneLevelToMaximum";
constexpr const char* minimumRecordingDuration = "minimumRecordingDuration";
constexpr const char* tapAndRecordTimeoutMinutes = "tapAndRecordTimeoutMinutes";
constexpr const char* cttsSilenceTresholdMs = "cttsSilenceTresholdMs";
constexpr const char* saveRecordingsFolder = "saveRecordingsFolder";
constexpr const char* copyTranscript = "copyTranscript";
constexpr const char* pasteCtrlVForRemoteDesktop = "pasteCtrlVForRemoteDesktop";
constexpr const char* isLoginItem = "isLoginItem";
constexpr const char* appShowDockIcon = "appShowDockIcon";
constexpr const char* isFirstLaunch = "isFirstLaunch";
constexpr const char* lastKnownBuild = "lastKnownBuild";
constexpr const char* overlaySize = "overlaySize";
constexpr const char* floatingButtonActivation = "floatingButtonActivation";
constexpr const char* floatingRecordButtonSize = "floatingRecordButtonSize";
constexpr const char* floatingRecordButtonTransparency = "floatingRecordButtonTransparency";
constexpr const char* floatingRecordShowAITools = "floatingRecordShowAITools";
constexpr const char* floatingRecordSelectedItemIDsJson = "floatingRecord.selectedItemIDs.json";
constexpr const char* showRecordingTimer = "showRecordingTimer";
constexpr const char* overlayPositionPerScreen = "overlayPositionPerScreen";
constexpr const char* draggedOverlayPositionPerScreen = "draggedOverlayPositionPerScreen";
constexpr const char* buttonPrefersDisplayUniqueID = "buttonPrefersDisplayUniqueID";
constexpr const char* tutorialViewFrame = "tutorialViewFrame";
constexpr const char* intelligenceResultsViewFrame = "intelligenceResultsViewFrame";
constexpr const char* intelligenceResultsView_selectedItemId = "intelligenceResultsView_selectedItemId";
constexpr const char* showAIResultsViewAtCursorPosition = "showAIResultsViewAtCursorPosition";
constexpr const char* messagesToNeverShowAgain = "messagesToNeverShowAgain";
constexpr const char* lastDetectedLanguageCode = "lastDetectedLanguageCode";
constexpr const char* localizedTranslationLanguages = "localizedTranslationLanguages";
constexpr const char* aiLocalizedTranslationLanguages = "aiLocalizedTranslationLanguages";
constexpr const char* filesMenuRecordingMode = "filesMenuRecordingMode";
constexpr const char* filesMenuViewSpeakerSeparation = "filesMenuViewSpeakerSeparation";
constexpr const char* historyRetentionDays = "historyRetentionDays";
constexpr const char* subSortInput = "subSortInput";
constexpr const char* subSortOrder = "subSortOrder";
constexpr const char* balancers = "balancers";
constexpr const char* lastKnownLoginState = "lastKnownLoginState";
constexpr const char* token = "token";
constexpr const char* userEmail = "userEmail";
constexpr const char* userDetailsResponse = "userDetailsResponse";
constexpr const char* sendReportViewPhone = "sendReportViewPhone";
constexpr const char* sendReportViewMessage = "sendReportViewMessage";
constexpr const char* SelectedFolderBookmark = "SelectedFolderBookmark";
constexpr const char* AppleLanguages = "AppleLanguages";
constexpr const char* apiBaseURL = "apiBaseURL";
constexpr const char* aiServiceURL = "aiServiceURL";
constexpr const char* aiServiceModel = "aiServiceModel";
constexpr const char* updateFeedURL = "updateFeedURL";
} // namespace K

constexpr const char* kAiServiceKeyFileName = "ai-service-key";

const std::vector<SettingDescription>& Settings::catalogue() {
    using T = SettingType;
    static const std::vector<SettingDescription> list = {
        {K::soundEnabled, T::boolean, false, "refusal sound and speech sounds"},
        {K::playSoundOnRecordingStart, T::boolean, false, "play a sound when recording starts"},
        {K::recordingStartSoundName, T::string, false, "sound played at the start"},
        {K::playSoundOnRecordingStop, T::boolean, false, "play a sound when recording stops"},
        {K::recordingStopSoundName, T::string, false, "sound played at the stop"},
        {K::preferExternalMicrophone, T::boolean, false, "prefer an external microphone"},
        {K::userSelectedMicDeviceName, T::string, false, "microphone chosen by the user"},
        {K::lastKnownInputDeviceID, T::integer, false, "last input device id"},
        {K::setMicrophoneLevelToMaximum, T::boolean, false, "raise the input level to maximum while recording"},
        {K::minimumRecordingDuration, T::integer, false, "shortest recording that is sent, ms"},
        {K::tapAndRecordTimeoutMinutes, T::integer, false, "limit of a tapped recording, minutes"},
        {K::cttsSilenceTresholdMs, T::integer, false, "pause that cuts continuous speech, ms"},
        {K::saveRecordingsFolder, T::path, false, "folder of the recordings (absolute path)"},
        {K::copyTranscript, T::boolean, false, "leave the transcript on the clipboard"},
        {K::pasteCtrlVForRemoteDesktop, T::boolean, false, "paste with Ctrl+V into remote desktops"},
        {K::isLoginItem, T::boolean, false, "start at login"},
        {K::appShowDockIcon, T::boolean, false, "main window has a taskbar entry"},
        {K::isFirstLaunch, T::boolean, false, "first launch not yet done"},
        {K::lastKnownBuild, T::integer, false, "build of the last launch"},
        {K::overlaySize, T::integer, false, "overlay size, points"},
        {K::floatingButtonActivation, T::boolean, false, "show the floating button"},
        {K::floatingRecordButtonSize, T::integer, false, "floating button size, points"},
        {K::floatingRecordButtonTransparency, T::integer, false, "floating button transparency"},
        {K::floatingRecordShowAITools, T::boolean, false, "floating button shows the AI tools"},
        {K::floatingRecordSelectedItemIDsJson, T::jsonText, false, "items of the radial menu, JSON text"},
        {K::showRecordingTimer, T::boolean, false, "show the recording timer"},
        {K::overlayPositionPerScreen, T::dictionary, false, "screen key to overlay position"},
        {K::draggedOverlayPositionPerScreen, T::pointDictionary, false, "screen key to dragged point \"x,y\""},
        {K::buttonPrefersDisplayUniqueID, T::string, false, "display the floating button prefers"},
        {K::tutorialViewFrame, T::rectangle, true, "tutorial window frame \"x,y,width,height\""},
        {K::intelligenceResultsViewFrame, T::rectangle, true, "results dialog frame \"x,y,width,height\""},
        {K::intelligenceResultsView_selectedItemId, T::string, false, "selected action of the results dialog"},
        {K::showAIResultsViewAtCursorPosition, T::boolean, false, "results dialog at the cursor"},
        {K::messagesToNeverShowAgain, T::stringArray, false, "messages the user silenced"},
        {K::lastDetectedLanguageCode, T::string, false, "language of the last transcript"},
        {K::localizedTranslationLanguages, T::languages, false, "the user's spoken languages"},
        {K::aiLocalizedTranslationLanguages, T::languages, false, "targets offered for translation"},
        {K::filesMenuRecordingMode, T::string, false, "none, microphoneOnly, systemOnly or both"},
        {K::filesMenuViewSpeakerSeparation, T::boolean, false, "speaker separation in the Files tab"},
        {K::historyRetentionDays, T::integer, false, "days the history is kept"},
        {K::subSortInput, T::boolean, false, "sort substitutions by input"},
        {K::subSortOrder, T::string, false, "substitution sort order"},
        {K::balancers, T::array, false, "transcription backends (JSON)"},
        {K::lastKnownLoginState, T::string, false, "last login state"},
        {K::token, T::string, true, "bearer token of the account"},
        {K::userEmail, T::string, true, "account e-mail address"},
        {K::userDetailsResponse, T::object, true, "account details (JSON)"},
        {K::sendReportViewPhone, T::string, false, "phone field of the problem report"},
        {K::sendReportViewMessage, T::string, false, "message field of the problem report"},
        {K::SelectedFolderBookmark, T::data, true, "chosen recordings folder (written, never read)"},
        {K::AppleLanguages, T::stringArray, false, "preferred languages"},
        {K::apiBaseURL, T::string, false, "account API base URL, or \"embedded\""},
        {K::aiServiceURL, T::string, false, "OpenAI-compatible AI service of the embedded server (\"\": a local one)"},
        {K::aiServiceModel, T::string, false, "model of that AI service (\"\": its first)"},
        {K::updateFeedURL, T::string, false, "update feed (appcast) URL; \"\": no update checks"},
    };
    return list;
}

const SettingDescription* Settings::describe(std::string_view key) {
    for (const auto& description : catalogue())
        if (description.key == key) return &description;
    return nullptr;
}

Settings::Settings(SettingsStore& store, const AppConstants& constants) : store_(store), constants_(constants) {}

namespace {

bool isIntValue(const json& value) {
    if (value.is_number_integer()) {
        if (value.is_number_unsigned()) return value.get<std::uint64_t>() <= static_cast<std::uint64_t>(INT_MAX);
        auto v = value.get<std::int64_t>();
        return v >= INT_MIN && v <= INT_MAX;
    }
    if (value.is_number_float()) {
        double d = value.get<double>();
        return std::isfinite(d) && std::floor(d) == d && d >= INT_MIN && d <= INT_MAX;
    }
    return false;
}

int intOf(const json& value) {
    if (value.is_number_float()) return static_cast<int>(value.get<double>());
    return static_cast<int>(value.get<std::int64_t>());
}

bool isStringArray(const json& value) {
    return value.is_array() && std::all_of(value.begin(), value.end(), [](const json& e) { return e.is_string(); });
}

bool isStringDictionary(const json& value) {
    return value.is_object() && std::all_of(value.begin(), value.end(), [](const json& e) { return e.is_string(); });
}

// A languages value: an array of LocalizedLanguage objects, or a JSON text holding one.
std::optional<std::vector<LocalizedLanguage>> decodeLanguages(const json& value) {
    try {
        if (value.is_string()) {
            auto inner = json::parse(value.get<std::string>());
            if (inner.is_string()) return std::nullopt;
            return decodeLanguages(inner);
        }
        if (!value.is_array()) return std::nullopt;
        return value.get<std::vector<LocalizedLanguage>>();
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string trim(std::string_view s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
    return std::string(s);
}

// The default of the two language lists: the table row of the system language (when it is in the table and not
// English), then English.
std::vector<LocalizedLanguage> defaultLanguages(const AppConstants& constants) {
    std::vector<LocalizedLanguage> out;
    const auto& table = languageTable();
    const std::string& system = constants.systemLanguageCode();
    if (system != "en" && system != "??") {
        for (const auto& row : table)
            if (!row.code.empty() && row.code == system) out.push_back(row);
    }
    out.push_back(table.front());
    return out;
}

} // namespace

bool Settings::isValidValue(std::string_view key, const json& value) {
    const auto* description = describe(key);
    if (!description) return true;
    switch (description->type) {
    case SettingType::boolean: return value.is_boolean();
    case SettingType::integer: return isIntValue(value);
    case SettingType::string:
    case SettingType::path:
    case SettingType::jsonText:
    case SettingType::data:
    case SettingType::rectangle: return value.is_string();
    case SettingType::stringArray: return isStringArray(value);
    case SettingType::dictionary:
    case SettingType::pointDictionary: return isStringDictionary(value);
    case SettingType::languages: return decodeLanguages(value).has_value();
    case SettingType::array: return value.is_array();
    case SettingType::object: return value.is_object();
    }
    return false;
}

void Settings::reportWrongType(std::string_view key) const {
    {
        std::lock_guard lock(loggedMutex_);
        if (!loggedWrongType_.insert(std::string(key)).second) return;
    }
    const auto* description = describe(key);
    std::string type = description ? std::string(settingTypeName(description->type)) : "value";
    logError("Settings.read() - stored value of \"" + std::string(key) + "\" is not a " + type +
             ", using the default");
}

std::optional<json> Settings::typed(std::string_view key) const {
    auto stored = store_.object(key);
    if (!stored) return std::nullopt;
    if (!isValidValue(key, *stored)) {
        reportWrongType(key);
        return std::nullopt;
    }
    return stored;
}

json Settings::defaultValue(std::string_view key) const {
    const auto* description = describe(key);
    if (!description || description->optional) return nullptr;
    static const std::map<std::string, json, std::less<>> fixed = {
        {K::soundEnabled, false},
        {K::playSoundOnRecordingStart, false},
        {K::recordingStartSoundName, "Pop"},
        {K::playSoundOnRecordingStop, false},
        {K::recordingStopSoundName, "Blow"},
        {K::preferExternalMicrophone, true},
        {K::userSelectedMicDeviceName, ""},
        {K::lastKnownInputDeviceID, -1},
        {K::setMicrophoneLevelToMaximum, true},
        {K::minimumRecordingDuration, 400},
        {K::tapAndRecordTimeoutMinutes, 10},
        {K::cttsSilenceTresholdMs, 1500},
        {K::copyTranscript, false},
        {K::pasteCtrlVForRemoteDesktop, true},
        {K::isLoginItem, true},
        {K::appShowDockIcon, true},
        {K::isFirstLaunch, true},
        {K::lastKnownBuild, 0},
        {K::overlaySize, 112},
        {K::floatingButtonActivation, true},
        {K::floatingRecordButtonSize, 48},
        {K::floatingRecordButtonTransparency, 0},
        {K::floatingRecordShowAITools, false},
        {K::floatingRecordSelectedItemIDsJson, "[]"},
        {K::showRecordingTimer, true},
        {K::overlayPositionPerScreen, json::object()},
        {K::draggedOverlayPositionPerScreen, json::object()},
        {K::buttonPrefersDisplayUniqueID, ""},
        {K::intelligenceResultsView_selectedItemId, ""},
        {K::showAIResultsViewAtCursorPosition, false},
        {K::messagesToNeverShowAgain, json::array()},
        {K::filesMenuRecordingMode, "microphoneOnly"},
        {K::filesMenuViewSpeakerSeparation, false},
        {K::historyRetentionDays, 365},
        {K::subSortInput, true},
        {K::subSortOrder, "ascend"},
        {K::balancers, json::array()},
        {K::lastKnownLoginState, "logout"},
        {K::sendReportViewPhone, ""},
        {K::sendReportViewMessage, ""},
        {K::apiBaseURL, "embedded"},
        {K::aiServiceURL, ""},
        {K::aiServiceModel, ""},
        {K::updateFeedURL, "https://updates.sprelio.com/linux/appcast.xml"},
    };
    if (auto it = fixed.find(key); it != fixed.end()) return it->second;
    if (key == K::saveRecordingsFolder) return constants_.recordingsFolder().string();
    if (key == K::lastDetectedLanguageCode) return constants_.appLanguageCode();
    if (key == K::localizedTranslationLanguages || key == K::aiLocalizedTranslationLanguages)
        return json(defaultLanguages(constants_));
    if (key == K::AppleLanguages) return json(constants_.preferredLanguages());
    return nullptr;
}

json Settings::value(std::string_view key) const {
    const auto* description = describe(key);
    if (!description) {
        auto stored = store_.object(key);
        return stored ? *stored : json(nullptr);
    }
    auto stored = typed(key);
    if (!stored) return defaultValue(key);
    if (description->type == SettingType::rectangle && !RectText::parse(stored->get<std::string>()))
        return nullptr;
    if (description->type == SettingType::languages) return json(*decodeLanguages(*stored));
    return *stored;
}

std::optional<json> Settings::parseValue(std::string_view key, std::string_view text, std::string* reason) {
    auto fail = [&](std::string why) -> std::optional<json> {
        if (reason) *reason = std::move(why);
        return std::nullopt;
    };
    auto parseJson = [&](std::string_view source) -> std::optional<json> {
        try {
            return json::parse(source);
        } catch (const std::exception& e) {
            if (reason) *reason = std::string("not valid JSON: ") + e.what();
            return std::nullopt;
        }
    };
    const auto* description = describe(key);
    if (!description) {
        try {
            return json::parse(text);
        } catch (const std::exception&) {
            return json(std::string(text));
        }
    }
    switch (description->type) {
    case SettingType::boolean: {
        std::string t = lower(trim(text));
        if (t == "true" || t == "1" || t == "yes") return json(true);
        if (t == "false" || t == "0" || t == "no") return json(false);
        return fail("\"" + std::string(text) + "\" is not a boolean (true/false, 1/0, yes/no)");
    }
    case SettingType::integer: {
        std::string t = trim(text);
        std::string_view digits = t;
        if (!digits.empty() && digits.front() == '+') digits.remove_prefix(1);
        long long v = 0;
        auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), v);
        if (digits.empty() || ec == std::errc::invalid_argument || end != digits.data() + digits.size())
            return fail("\"" + std::string(text) + "\" is not an integer");
        if (ec == std::errc::result_out_of_range || v < INT_MIN || v > INT_MAX)
            return fail("\"" + std::string(text) + "\" is out of the integer range");
        return json(static_cast<int>(v));
    }
    case SettingType::string:
    case SettingType::data: return json(std::string(text));
    case SettingType::path: {
        auto path = AppConstants::pathFromFileURLOrPath(trim(text));
        if (path.empty() || !path.is_absolute())
            return fail("\"" + std::string(text) + "\" is not an absolute path or file:// URL");
        return json(path.string());
    }
    case SettingType::jsonText: {
        if (!parseJson(text)) return std::nullopt;
        return json(std::string(text));
    }
    case SettingType::rectangle: {
        auto rect = RectText::parse(text);
        if (!rect) return fail("\"" + std::string(text) + "\" is not a rectangle \"x,y,width,height\"");
        return json(RectText::format(*rect));
    }
    case SettingType::stringArray: {
        auto v = parseJson(text);
        if (!v) return std::nullopt;
        if (!isStringArray(*v)) return fail("expected a JSON array of strings");
        return v;
    }
    case SettingType::dictionary: {
        auto v = parseJson(text);
        if (!v) return std::nullopt;
        if (!isStringDictionary(*v)) return fail("expected a JSON object with string values");
        return v;
    }
    case SettingType::pointDictionary: {
        auto v = parseJson(text);
        if (!v) return std::nullopt;
        if (!v->is_object()) return fail("expected a JSON object of screen key to point");
        json out = json::object();
        for (auto it = v->begin(); it != v->end(); ++it) {
            std::optional<Point> point;
            if (it->is_string()) {
                point = PointText::parse(it->get<std::string>());
            } else if (it->is_array() && it->size() == 2 && (*it)[0].is_number() && (*it)[1].is_number()) {
                point = Point{(*it)[0].get<double>(), (*it)[1].get<double>()};
            }
            if (!point) return fail("the value of \"" + it.key() + "\" is not a point \"x,y\"");
            out[it.key()] = PointText::format(*point);
        }
        return out;
    }
    case SettingType::languages: {
        std::string t = trim(text);
        if (!t.empty() && (t.front() == '[' || t.front() == '"')) {
            auto v = parseJson(t);
            if (!v) return std::nullopt;
            auto languages = decodeLanguages(*v);
            if (!languages) return fail("expected a JSON array of LocalizedLanguage objects");
            return json(*languages);
        }
        // A comma-separated list of codes of the table: "de,en".
        std::vector<LocalizedLanguage> languages;
        std::string_view rest = t;
        while (!rest.empty()) {
            auto comma = rest.find(',');
            std::string code = lower(trim(rest.substr(0, comma)));
            const auto& table = languageTable();
            auto it = std::find_if(table.begin(), table.end(),
                                   [&](const LocalizedLanguage& l) { return !l.code.empty() && l.code == code; });
            if (it == table.end()) return fail("\"" + code + "\" is not a language code of the table");
            languages.push_back(*it);
            if (comma == std::string_view::npos) break;
            rest.remove_prefix(comma + 1);
        }
        return json(languages);
    }
    case SettingType::array: {
        auto v = parseJson(text);
        if (!v) return std::nullopt;
        if (!v->is_array()) return fail("expected a JSON array");
        return v;
    }
    case SettingType::object: {
        auto v = parseJson(text);
        if (!v) return std::nullopt;
        if (!v->is_object()) return fail("expected a JSON object");
        return v;
    }
    }
    return fail("unknown type");
}

// ---- Typed accessors ----

#define SPR_BOOL(name, Name)                                                                                    \
    bool Settings::name() const {                                                                                \
        auto v = typed(K::name);                                                                                 \
        return v ? v->get<bool>() : defaultValue(K::name).get<bool>();                                           \
    }                                                                                                            \
    void Settings::set##Name(bool value) { store_.set(K::name, value); }

#define SPR_INT(name, Name)                                                                                     \
    int Settings::name() const {                                                                                 \
        auto v = typed(K::name);                                                                                 \
        return v ? intOf(*v) : defaultValue(K::name).get<int>();                                                 \
    }                                                                                                            \
    void Settings::set##Name(int value) { store_.set(K::name, value); }

#define SPR_STRING(name, Name)                                                                                  \
    std::string Settings::name() const {                                                                         \
        auto v = typed(K::name);                                                                                 \
        return v ? v->get<std::string>() : defaultValue(K::name).get<std::string>();                             \
    }                                                                                                            \
    void Settings::set##Name(std::string value) { store_.set(K::name, std::move(value)); }

#define SPR_OPTIONAL_STRING(name, Name)                                                                         \
    std::optional<std::string> Settings::name() const {                                                          \
        auto v = typed(K::name);                                                                                 \
        if (!v) return std::nullopt;                                                                             \
        return v->get<std::string>();                                                                            \
    }                                                                                                            \
    void Settings::set##Name(std::optional<std::string> value) {                                                 \
        if (value)                                                                                               \
            store_.set(K::name, std::move(*value));                                                              \
        else                                                                                                     \
            store_.remove(K::name);                                                                              \
    }

#define SPR_STRING_ARRAY(name, Name)                                                                            \
    std::vector<std::string> Settings::name() const {                                                            \
        auto v = typed(K::name);                                                                                 \
        return v ? v->get<std::vector<std::string>>() : defaultValue(K::name).get<std::vector<std::string>>();   \
    }                                                                                                            \
    void Settings::set##Name(std::vector<std::string> value) { store_.set(K::name, json(std::move(value))); }

#define SPR_RECT(name, Name)                                                                                    \
    std::optional<Rect> Settings::name() const {                                                                 \
        auto v = typed(K::name);                                                                                 \
        if (!v) return std::nullopt;                                                                             \
        return RectText::parse(v->get<std::string>());                                                           \
    }                                                                                                            \
    void Settings::set##Name(std::optional<Rect> value) {                                                        \
        if (value)                                                                                               \
            store_.set(K::name, RectText::format(*value));                                                       \
        else                                                                                                     \
            store_.remove(K::name);                                                                              \
    }

#define SPR_LANGUAGES(name, Name)                                                                               \
    std::vector<LocalizedLanguage> Settings::name() const {                                                      \
        if (auto v = typed(K::name)) return *decodeLanguages(*v);                                                \
        return defaultLanguages(constants_);                                                                     \
    }                                                                                                            \
    void Settings::set##Name(const std::vector<LocalizedLanguage>& value) { store_.set(K::name, json(value)); }

SPR_BOOL(soundEnabled, SoundEnabled)
SPR_BOOL(playSoundOnRecordingStart, PlaySoundOnRecordingStart)
SPR_STRING(recordingStartSoundName, RecordingStartSoundName)
SPR_BOOL(playSoundOnRecordingStop, PlaySoundOnRecordingStop)
SPR_STRING(recordingStopSoundName, RecordingStopSoundName)
SPR_BOOL(preferExternalMicrophone, PreferExternalMicrophone)
SPR_STRING(userSelectedMicDeviceName, UserSelectedMicDeviceName)
SPR_INT(lastKnownInputDeviceID, LastKnownInputDeviceID)
SPR_BOOL(setMicrophoneLevelToMaximum, SetMicrophoneLevelToMaximum)
SPR_INT(minimumRecordingDuration, MinimumRecordingDuration)
SPR_INT(tapAndRecordTimeoutMinutes, TapAndRecordTimeoutMinutes)
SPR_INT(cttsSilenceTresholdMs, CttsSilenceTresholdMs)
SPR_BOOL(copyTranscript, CopyTranscript)
SPR_BOOL(pasteCtrlVForRemoteDesktop, PasteCtrlVForRemoteDesktop)
SPR_BOOL(isLoginItem, IsLoginItem)
SPR_BOOL(appShowDockIcon, AppShowDockIcon)
SPR_BOOL(isFirstLaunch, IsFirstLaunch)
SPR_INT(lastKnownBuild, LastKnownBuild)
SPR_STRING(apiBaseURL, ApiBaseURL)
SPR_STRING(aiServiceURL, AiServiceURL)
SPR_STRING(aiServiceModel, AiServiceModel)
SPR_STRING(updateFeedURL, UpdateFeedURL)
SPR_STRING_ARRAY(AppleLanguages, AppleLanguages)
SPR_INT(overlaySize, OverlaySize)
SPR_BOOL(floatingButtonActivation, FloatingButtonActivation)
SPR_INT(floatingRecordButtonSize, FloatingRecordButtonSize)
SPR_INT(floatingRecordButtonTransparency, FloatingRecordButtonTransparency)
SPR_BOOL(floatingRecordShowAITools, FloatingRecordShowAITools)
SPR_STRING(floatingRecordSelectedItemIDsJson, FloatingRecordSelectedItemIDsJson)
SPR_BOOL(showRecordingTimer, ShowRecordingTimer)
SPR_STRING(buttonPrefersDisplayUniqueID, ButtonPrefersDisplayUniqueID)
SPR_RECT(tutorialViewFrame, TutorialViewFrame)
SPR_RECT(intelligenceResultsViewFrame, IntelligenceResultsViewFrame)
SPR_STRING(intelligenceResultsView_selectedItemId, IntelligenceResultsView_selectedItemId)
SPR_BOOL(showAIResultsViewAtCursorPosition, ShowAIResultsViewAtCursorPosition)
SPR_STRING_ARRAY(messagesToNeverShowAgain, MessagesToNeverShowAgain)
SPR_STRING(lastDetectedLanguageCode, LastDetectedLanguageCode)
SPR_LANGUAGES(localizedTranslationLanguages, LocalizedTranslationLanguages)
SPR_LANGUAGES(aiLocalizedTranslationLanguages, AiLocalizedTranslationLanguages)
SPR_STRING(filesMenuRecordingMode, FilesMenuRecordingMode)
SPR_BOOL(filesMenuViewSpeakerSeparation, FilesMenuViewSpeakerSeparation)
SPR_INT(historyRetentionDays, HistoryRetentionDays)
SPR_BOOL(subSortInput, SubSortInput)
SPR_STRING(subSortOrder, SubSortOrder)
SPR_STRING(lastKnownLoginState, LastKnownLoginState)
SPR_OPTIONAL_STRING(token, Token)
SPR_OPTIONAL_STRING(userEmail, UserEmail)
SPR_STRING(sendReportViewPhone, SendReportViewPhone)
SPR_STRING(sendReportViewMessage, SendReportViewMessage)
SPR_OPTIONAL_STRING(SelectedFolderBookmark, SelectedFolderBookmark)

std::filesystem::path Settings::saveRecordingsFolder() const {
    if (auto v = typed(K::saveRecordingsFolder)) {
        auto path = AppConstants::pathFromFileURLOrPath(v->get<std::string>());
        if (!path.empty()) return path;
    }
    return constants_.recordingsFolder();
}

void Settings::setSaveRecordingsFolder(const std::filesystem::path& value) {
    store_.set(K::saveRecordingsFolder, value.string());
}

std::map<std::string, std::string> Settings::overlayPositionPerScreen() const {
    auto v = typed(K::overlayPositionPerScreen);
    if (!v) return {};
    return v->get<std::map<std::string, std::string>>();
}

void Settings::setOverlayPositionPerScreen(const std::map<std::string, std::string>& value) {
    store_.set(K::overlayPositionPerScreen, json(value));
}

std::map<std::string, Point> Settings::draggedOverlayPositionPerScreen() const {
    std::map<std::string, Point> out;
    auto v = typed(K::draggedOverlayPositionPerScreen);
    if (!v) return out;
    for (auto it = v->begin(); it != v->end(); ++it)
        if (auto point = PointText::parse(it->get<std::string>())) out.emplace(it.key(), *point);
    return out;
}

void Settings::setDraggedOverlayPositionPerScreen(const std::map<std::string, Point>& value) {
    json object = json::object();
    for (const auto& [screen, point] : value) object[screen] = PointText::format(point);
    store_.set(K::draggedOverlayPositionPerScreen, std::move(object));
}

json Settings::balancers() const {
    auto v = typed(K::balancers);
    return v ? *v : json::array();
}

void Settings::setBalancers(json value) { store_.set(K::balancers, std::move(value)); }

std::optional<json> Settings::userDetailsResponse() const { return typed(K::userDetailsResponse); }

void Settings::setUserDetailsResponse(std::optional<json> value) {
    if (value)
        store_.set(K::userDetailsResponse, std::move(*value));
    else
        store_.remove(K::userDetailsResponse);
}

std::filesystem::path Settings::aiServiceKeyFile() const {
    return constants_.settingsFile().parent_path() / kAiServiceKeyFileName;
}

std::optional<std::string> Settings::aiServiceKey() const {
    std::ifstream in(aiServiceKeyFile(), std::ios::binary);
    if (!in) return std::nullopt;
    std::string line;
    std::getline(in, line);
    line = trim(line);
    if (line.empty()) return std::nullopt;
    return line;
}

std::string Settings::setAiServiceKey(std::string_view key) {
    const std::string text = trim(key);
    if (text.empty()) return "the key is empty";
    // The server reads the first line as the key; anything else in it would end up in a request header.
    if (std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }))
        return "the key must be one line of printable text";
    const auto file = aiServiceKeyFile();
    std::error_code ec;
    std::filesystem::create_directories(file.parent_path(), ec);
    if (ec) return "cannot create " + file.parent_path().string() + ": " + ec.message();
    auto error = writeFileAtomically(file, text + "\n", 0600);
    // Never the key itself: the log goes into problem reports.
    if (error.empty())
        logInfo("Settings.setAiServiceKey() - key stored in " + file.string());
    else
        logError("Settings.setAiServiceKey() - cannot write " + file.string() + ": " + error);
    return error;
}

std::string Settings::clearAiServiceKey() {
    std::error_code ec;
    std::filesystem::remove(aiServiceKeyFile(), ec);
    if (ec) return "cannot remove " + aiServiceKeyFile().string() + ": " + ec.message();
    logInfo("Settings.clearAiServiceKey() - key removed");
    return {};
}

} // namespace sprelio::store

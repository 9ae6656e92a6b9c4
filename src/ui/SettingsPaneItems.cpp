#include "ui/SettingsPaneItems.h"

#include "store/Settings.h"

namespace sprelio {

using store::Settings;

const std::vector<std::string>& namedSoundNames() {
    static const std::vector<std::string> names = {"Basso", "Blow",  "Bottle", "Frog",   "Funk",      "Glass", "Hero",
                                                   "Morse", "Ping",  "Pop",    "Purr",   "Sosumi", "Submarine", "Tink"};
    return names;
}

namespace {

ToggleBinding toggle(bool (Settings::*get)() const, void (Settings::*set)(bool)) {
    return ToggleBinding{[get](const Settings& s) { return (s.*get)(); }, [set](Settings& s, bool v) { (s.*set)(v); }};
}

IntegerBinding integer(int (Settings::*get)() const, void (Settings::*set)(int), int minimum, int maximum,
                       std::string unit) {
    return IntegerBinding{[get](const Settings& s) { return (s.*get)(); }, [set](Settings& s, int v) { (s.*set)(v); },
                          minimum, maximum, std::move(unit)};
}

ChoiceBinding sound(std::string (Settings::*get)() const, void (Settings::*set)(std::string)) {
    return ChoiceBinding{[get](const Settings& s) { return (s.*get)(); },
                         [set](Settings& s, std::string v) { (s.*set)(std::move(v)); }, namedSoundNames()};
}

std::optional<std::string> apiBaseURLProblem(const std::string& text) {
    if (text == "embedded") return std::nullopt;
    const bool web = text.rfind("http://", 0) == 0 || text.rfind("https://", 0) == 0;
    if (web && text.find_first_of(" \t\r\n") == std::string::npos && text.size() > text.find("://") + 3)
        return std::nullopt;
    return "Enter \"embedded\" or the address of a server, beginning with https:// or http://.";
}

std::vector<SettingsPaneItem> makeItems() {
    std::vector<SettingsPaneItem> items;
    const auto add = [&](std::string key, std::string section, std::string label, std::string note,
                         SettingsBinding binding) {
        items.push_back(SettingsPaneItem{std::move(key), std::move(section), std::move(label), std::move(note),
                                         std::move(binding)});
    };

    add("soundEnabled", "Sounds", "Play sounds", "A sound when a dictation is refused, fails or is copied.",
        toggle(&Settings::soundEnabled, &Settings::setSoundEnabled));
    add("playSoundOnRecordingStart", "Sounds", "Sound when recording starts", "",
        toggle(&Settings::playSoundOnRecordingStart, &Settings::setPlaySoundOnRecordingStart));
    add("recordingStartSoundName", "Sounds", "Start sound", "",
        sound(&Settings::recordingStartSoundName, &Settings::setRecordingStartSoundName));
    add("playSoundOnRecordingStop", "Sounds", "Sound when recording stops", "",
        toggle(&Settings::playSoundOnRecordingStop, &Settings::setPlaySoundOnRecordingStop));
    add("recordingStopSoundName", "Sounds", "Stop sound", "",
        sound(&Settings::recordingStopSoundName, &Settings::setRecordingStopSoundName));

    add("preferExternalMicrophone", "Microphone", "Prefer an external microphone",
        "A USB or other plugged-in microphone is used as soon as it is connected.",
        toggle(&Settings::preferExternalMicrophone, &Settings::setPreferExternalMicrophone));
    add("setMicrophoneLevelToMaximum", "Microphone", "Raise the microphone level to the maximum", "",
        toggle(&Settings::setMicrophoneLevelToMaximum, &Settings::setSetMicrophoneLevelToMaximum));

    add("minimumRecordingDuration", "Recording", "Shortest recording that is transcribed",
        "Shorter presses are taken as accidental.",
        integer(&Settings::minimumRecordingDuration, &Settings::setMinimumRecordingDuration, 0, 10000, " ms"));
    add("tapAndRecordTimeoutMinutes", "Recording", "A tapped recording stops after", "",
        integer(&Settings::tapAndRecordTimeoutMinutes, &Settings::setTapAndRecordTimeoutMinutes, 1, 120, " min"));
    add("saveRecordingsFolder", "Recording", "Recordings folder", "",
        FolderBinding{[](const Settings& s) { return s.saveRecordingsFolder(); },
                      [](Settings& s, const std::filesystem::path& p) { s.setSaveRecordingsFolder(p); }});

    add("floatingButtonActivation", "Floating button", "Show the floating record button", "",
        toggle(&Settings::floatingButtonActivation, &Settings::setFloatingButtonActivation));

    add("apiBaseURL", "Account", "Account server",
        "\"embedded\" runs the built-in server on this computer. Used from the next start.",
        TextBinding{[](const Settings& s) { return s.apiBaseURL(); },
                    [](Settings& s, std::string v) { s.setApiBaseURL(std::move(v)); }, &apiBaseURLProblem});
    return items;
}

} // namespace

const std::vector<SettingsPaneItem>& settingsPaneItems() {
    static const std::vector<SettingsPaneItem> items = makeItems();
    return items;
}

} // namespace sprelio

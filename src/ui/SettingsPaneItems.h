#pragma once
// What the Settings tab offers: the settings that working features read, grouped into sections, each with the
// kind of editor it needs and the typed accessors it reads and writes through. The tab draws this list; a new
// setting becomes editable by one more item here.
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace sprelio::store {
class Settings;
}

namespace sprelio {

struct ToggleBinding {
    std::function<bool(const store::Settings&)> get;
    std::function<void(store::Settings&, bool)> set;
};

struct IntegerBinding {
    std::function<int(const store::Settings&)> get;
    std::function<void(store::Settings&, int)> set;
    int minimum = 0;
    int maximum = 0;
    std::string unit; // " ms", " min"
};

// One of a fixed list of texts.
struct ChoiceBinding {
    std::function<std::string(const store::Settings&)> get;
    std::function<void(store::Settings&, std::string)> set;
    std::vector<std::string> choices;
};

struct FolderBinding {
    std::function<std::filesystem::path(const store::Settings&)> get;
    std::function<void(store::Settings&, const std::filesystem::path&)> set;
};

struct TextBinding {
    std::function<std::string(const store::Settings&)> get;
    std::function<void(store::Settings&, std::string)> set;
    // What is wrong with a text the user typed; nothing when it may be stored.
    std::function<std::optional<std::string>(const std::string&)> validate;
};

using SettingsBinding = std::variant<ToggleBinding, IntegerBinding, ChoiceBinding, FolderBinding, TextBinding>;

struct SettingsPaneItem {
    std::string key;     // the settings key it edits
    std::string section; // heading it stands under
    std::string label;
    std::string note;    // a line under the editor; empty for none
    SettingsBinding binding;
};

// The named sounds the application ships, in the order the pickers show them.
const std::vector<std::string>& namedSoundNames();

// In display order; items of one section stand together.
const std::vector<SettingsPaneItem>& settingsPaneItems();

} // namespace sprelio

// The Settings tab's list: every editor is bound to the catalogue key it names, with an editor of the key's type,
// starts from the key's default and writes where the readers of that key look.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <variant>

#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "ui/SettingsPaneItems.h"

namespace sprelio {
namespace {

using store::SettingType;

class SettingsPaneItemsTest : public ::testing::Test {
protected:
    platform::test::TestPlatform tp;
    store::MemorySettingsStore defaults;
    store::AppConstants constants{tp};
    store::Settings settings{defaults, constants};
};

TEST_F(SettingsPaneItemsTest, EveryEditorIsBoundToItsOwnCatalogueKeyWithAMatchingType) {
    std::set<std::string> keys;
    for (const auto& item : settingsPaneItems()) {
        SCOPED_TRACE(item.key);
        EXPECT_TRUE(keys.insert(item.key).second) << "one editor per key";
        const auto* description = store::Settings::describe(item.key);
        ASSERT_NE(description, nullptr) << "not a key of the catalogue";
        EXPECT_FALSE(item.label.empty());
        EXPECT_FALSE(item.section.empty());

        std::visit(
            [&](const auto& binding) {
                using B = std::decay_t<decltype(binding)>;
                if constexpr (std::is_same_v<B, ToggleBinding>) {
                    ASSERT_EQ(description->type, SettingType::boolean);
                    const bool initial = binding.get(settings);
                    EXPECT_EQ(nlohmann::json(initial), settings.defaultValue(item.key));
                    binding.set(settings, !initial);
                    EXPECT_EQ(settings.value(item.key), nlohmann::json(!initial));
                    EXPECT_EQ(binding.get(settings), !initial);
                } else if constexpr (std::is_same_v<B, IntegerBinding>) {
                    ASSERT_EQ(description->type, SettingType::integer);
                    const int initial = binding.get(settings);
                    EXPECT_EQ(nlohmann::json(initial), settings.defaultValue(item.key));
                    EXPECT_LE(binding.minimum, initial);
                    EXPECT_GE(binding.maximum, initial) << "the editor must be able to show the default";
                    const int other = initial == binding.minimum ? binding.minimum + 1 : binding.minimum;
                    binding.set(settings, other);
                    EXPECT_EQ(settings.value(item.key), nlohmann::json(other));
                } else if constexpr (std::is_same_v<B, ChoiceBinding>) {
                    ASSERT_EQ(description->type, SettingType::string);
                    const std::string initial = binding.get(settings);
                    EXPECT_EQ(nlohmann::json(initial), settings.defaultValue(item.key));
                    ASSERT_NE(std::find(binding.choices.begin(), binding.choices.end(), initial), binding.choices.end())
                        << "the default must be one of the choices";
                    const std::string other = binding.choices.front() == initial ? binding.choices.back()
                                                                                 : binding.choices.front();
                    binding.set(settings, other);
                    EXPECT_EQ(settings.value(item.key), nlohmann::json(other));
                } else if constexpr (std::is_same_v<B, FolderBinding>) {
                    ASSERT_EQ(description->type, SettingType::path);
                    EXPECT_EQ(binding.get(settings), constants.recordingsFolder());
                    binding.set(settings, tp.root() / "elsewhere");
                    EXPECT_EQ(settings.value(item.key), nlohmann::json((tp.root() / "elsewhere").string()));
                } else if constexpr (std::is_same_v<B, TextBinding>) {
                    ASSERT_EQ(description->type, SettingType::string);
                    EXPECT_EQ(nlohmann::json(binding.get(settings)), settings.defaultValue(item.key));
                    if (binding.validate) {
                        EXPECT_FALSE(binding.validate(binding.get(settings)).has_value()) << "the default is valid";
                    }
                    binding.set(settings, "http://127.0.0.1:9");
                    EXPECT_EQ(settings.value(item.key), nlohmann::json("http://127.0.0.1:9"));
                }
            },
            item.binding);
    }
    // The settings that the session reads on every dictation are all there.
    for (const char* key : {"soundEnabled", "playSoundOnRecordingStart", "recordingStartSoundName",
                            "playSoundOnRecordingStop", "recordingStopSoundName", "preferExternalMicrophone",
                            "setMicrophoneLevelToMaximum", "minimumRecordingDuration", "tapAndRecordTimeoutMinutes",
                            "saveRecordingsFolder"})
        EXPECT_TRUE(keys.count(key)) << key;
}

TEST_F(SettingsPaneItemsTest, AccountServerTakesEmbeddedOrAWebAddressOnly) {
    const auto it = std::find_if(settingsPaneItems().begin(), settingsPaneItems().end(),
                                 [](const SettingsPaneItem& item) { return item.key == "apiBaseURL"; });
    ASSERT_NE(it, settingsPaneItems().end());
    const auto& binding = std::get<TextBinding>(it->binding);
    ASSERT_TRUE(binding.validate);
    for (const char* good : {"embedded", "https://api.example.org", "http://127.0.0.1:8080/base"})
        EXPECT_FALSE(binding.validate(good).has_value()) << good;
    for (const char* bad : {"", "Embedded", "api.example.org", "https://", "ftp://host", "https://a b"})
        EXPECT_TRUE(binding.validate(bad).has_value()) << bad;
}

TEST_F(SettingsPaneItemsTest, SectionsStandTogether) {
    std::vector<std::string> order;
    for (const auto& item : settingsPaneItems())
        if (order.empty() || order.back() != item.section) order.push_back(item.section);
    std::set<std::string> distinct(order.begin(), order.end());
    EXPECT_EQ(distinct.size(), order.size()) << "a section is split by another";
}

} // namespace
} // namespace sprelio

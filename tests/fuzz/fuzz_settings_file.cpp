// The settings file as it may be found on disk: written by hand, by an older or newer build, cut short, or not
// JSON at all. The store loads it (moving a bad one aside), every setting of the catalogue is read through it,
// and a write persists the whole object again.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>

#include "FuzzSupport.h"
#include "platform/test/TemporaryFolder.h"
#include "platform/Folders.h"
#include "store/AppConstants.h"
#include "store/JsonFileSettingsStore.h"
#include "store/Settings.h"

using namespace sprelio;

namespace {

struct Environment final : platform::Folders {
    platform::test::TemporaryFolder folder{"sprelio-fuzz-settings"};
    std::filesystem::path home() const override { return folder.path() / "home"; }
    std::filesystem::path dataHome() const override { return folder.path() / "data"; }
    std::filesystem::path configHome() const override { return folder.path() / "config"; }
    store::AppConstants constants{*this};
    std::filesystem::path configFolder = folder.path() / "config/Sprelio";
};

Environment& environment() {
    static Environment env;
    return env;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto& env = environment();
    std::error_code ignored;
    std::filesystem::remove_all(env.configFolder, ignored);
    std::filesystem::create_directories(env.configFolder);
    const auto file = env.configFolder / "settings.json";
    {
        std::ofstream out(file, std::ios::binary);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }

    store::JsonFileSettingsStore fileStore(file);
    store::Settings settings(fileStore, env.constants);
    for (const auto& description : store::Settings::catalogue()) {
        const auto value = settings.value(description.key);
        if (!store::Settings::isValidValue(description.key, value) && !value.is_null()) __builtin_trap();
    }
    (void)settings.saveRecordingsFolder();
    (void)settings.localizedTranslationLanguages();
    (void)settings.balancers();
    settings.setSoundEnabled(!settings.soundEnabled());
    // What was written reads back the same from a fresh load.
    store::JsonFileSettingsStore again(file);
    store::Settings reread(again, env.constants);
    if (reread.soundEnabled() != settings.soundEnabled() && fileStore.lastWriteSucceeded()) __builtin_trap();
    return 0;
}

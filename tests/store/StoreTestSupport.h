#pragma once
// Shared set-up of the store tests: a TestPlatform's folders and AppConstants with a fixed environment.
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Settings.h"

namespace sprelio::store::storetest {

inline AppConstants::Environment fixedEnvironment(std::map<std::string, std::string> vars = {{"LANG", "en_US.UTF-8"}},
                                                  std::string prettyName = "Test Linux 1.0",
                                                  std::string kernel = "6.1.0-test") {
    AppConstants::Environment env;
    env.getenv = [vars](const char* name) -> std::optional<std::string> {
        auto it = vars.find(name);
        if (it == vars.end()) return std::nullopt;
        return it->second;
    };
    env.osReleasePrettyName = std::move(prettyName);
    env.kernelRelease = std::move(kernel);
    return env;
}

inline std::string readAll(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

inline void writeAll(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

// Settings over an empty memory store, with constants from a fixed environment.
struct SettingsFixture {
    platform::test::TestPlatform platform;
    AppConstants constants{platform, fixedEnvironment()};
    MemorySettingsStore store;
    Settings settings{store, constants};
};

} // namespace sprelio::store::storetest

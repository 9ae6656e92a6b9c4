#pragma once
// A fresh folder under the system's temporary folder, removed with everything in it when the object goes.
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace sprelio::platform::test {

class TemporaryFolder {
public:
    explicit TemporaryFolder(const std::string& prefix = "sprelio-test") {
        std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
        path_ = pattern;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

} // namespace sprelio::platform::test

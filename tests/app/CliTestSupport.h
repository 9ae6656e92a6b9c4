#pragma once
// Runs the real `sprelio` binary as a user would: a fresh, empty home in a temporary folder, nothing inherited
// from the environment but PATH.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace clitest {

namespace fs = std::filesystem;

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

inline std::string readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

inline std::string quote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

class CliFixture : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "sprelio-cli-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root_ = pattern;
    }
    void TearDown() override { fs::remove_all(root_); }

    Result run(const std::vector<std::string>& args) {
        std::string cmd = "env -i PATH=/usr/bin:/bin HOME=" + quote(root_.string()) + " " + quote(SPRELIO_BINARY);
        for (const auto& a : args) cmd += " " + quote(a);
        cmd += " >" + quote((root_ / "out").string()) + " 2>" + quote((root_ / "err").string());
        int raw = std::system(cmd.c_str());
        Result r;
        r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
        r.out = readFile(root_ / "out");
        r.err = readFile(root_ / "err");
        return r;
    }

    fs::path settingsFile() const { return root_ / ".config/Sprelio/settings.json"; }
    fs::path storeFile() const { return root_ / ".local/share/Sprelio/Persistence.sqlite"; }
    fs::path logFile() const { return root_ / ".local/share/Sprelio/logs/app_log.txt"; }

    fs::path root_;
};

} // namespace clitest

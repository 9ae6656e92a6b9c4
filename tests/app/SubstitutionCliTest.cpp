// `sprelio substitute` and `sprelio substitutions` as a user runs them: a fresh home, the real store file.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace {

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

std::string readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string quote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

class SubstitutionCli : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "sprelio-subst-XXXXXX").string();
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

    fs::path storeFile() const { return root_ / ".local/share/Sprelio/Persistence.sqlite"; }
    fs::path logFile() const { return root_ / ".local/share/Sprelio/logs/app_log.txt"; }

    fs::path root_;
};

} // namespace

TEST_F(SubstitutionCli, RulesAddedAreListedAppliedAndRemoved) {
    auto empty = run({"substitute", "teh cat"});
    ASSERT_EQ(empty.status, 0) << empty.err;
    EXPECT_EQ(empty.out, "teh cat\n");

    ASSERT_EQ(run({"substitutions", "add", "teh", "the"}).status, 0);
    ASSERT_EQ(run({"substitutions", "add", "gonna", "Going to"}).status, 0);
    EXPECT_TRUE(fs::exists(storeFile()));

    auto list = run({"substitutions", "list"});
    ASSERT_EQ(list.status, 0) << list.err;
    EXPECT_EQ(list.out, "teh\tthe\ngonna\tGoing to\n");

    auto applied = run({"substitute", "Teh plan: GONNA win, tehran gonna."});
    ASSERT_EQ(applied.status, 0) << applied.err;
    EXPECT_EQ(applied.out, "The plan: GOING TO win, tehran going to.\n");

    ASSERT_EQ(run({"substitutions", "remove", "teh"}).status, 0);
    EXPECT_EQ(run({"substitutions", "list"}).out, "gonna\tGoing to\n");
    EXPECT_EQ(run({"substitute", "teh"}).out, "teh\n");

    // Rule texts are the user's: the log mentions the commands, never the words.
    const std::string log = readFile(logFile());
    EXPECT_NE(log.find("sprelio substitutions add - added a rule"), std::string::npos);
    EXPECT_EQ(log.find("gonna"), std::string::npos);
    EXPECT_EQ(log.find("Going to"), std::string::npos);
}

TEST_F(SubstitutionCli, BadArgumentsFailClearlyAndChangeNothing) {
    auto missing = run({"substitute"});
    EXPECT_EQ(missing.status, 2);
    EXPECT_NE(missing.err.find("substitute: expected one TEXT argument"), std::string::npos);

    auto verb = run({"substitutions", "rename", "a", "b"});
    EXPECT_EQ(verb.status, 2);
    EXPECT_NE(verb.err.find("unknown action \"rename\""), std::string::npos);

    EXPECT_EQ(run({"substitutions", "add", "only-input"}).status, 2);
    auto blank = run({"substitutions", "add", "", ""});
    EXPECT_EQ(blank.status, 1);
    EXPECT_NE(blank.err.find("both empty"), std::string::npos);

    auto gone = run({"substitutions", "remove", "nothing"});
    EXPECT_EQ(gone.status, 1);
    EXPECT_NE(gone.err.find("no rule with the input \"nothing\""), std::string::npos);
    EXPECT_EQ(run({"substitutions", "list"}).out, "");

    auto help = run({"--help"});
    EXPECT_NE(help.out.find("substitutions add INPUT OUTPUT"), std::string::npos);
}

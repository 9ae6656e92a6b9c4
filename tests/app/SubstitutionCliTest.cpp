// `sprelio substitute` and `sprelio substitutions` as a user runs them: a fresh home, the real store file.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "CliTestSupport.h"

namespace fs = std::filesystem;
using clitest::readFile;
using SubstitutionCli = clitest::CliFixture;

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

// `sprelio shortcuts` without a running application: the store and the settings file change directly, with the
// editor's rules, and what is typed wrong is said clearly.
#include <gtest/gtest.h>

#include <sstream>

#include "CliTestSupport.h"

namespace {

using clitest::CliFixture;
using clitest::Result;

std::vector<std::vector<std::string>> lines(const std::string& text) {
    std::vector<std::vector<std::string>> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> fields;
        std::istringstream parts(line);
        for (std::string field; std::getline(parts, field, '\t');) fields.push_back(field);
        out.push_back(fields);
    }
    return out;
}

class ShortcutCli : public CliFixture {
protected:
    std::vector<std::vector<std::string>> list() {
        const Result r = run({"shortcuts", "list"});
        EXPECT_EQ(r.status, 0) << r.err;
        return lines(r.out);
    }
    std::string idOf(const std::string& keys) {
        for (const auto& row : list())
            if (row.size() > 1 && row[1] == keys) return row[0];
        ADD_FAILURE() << "no shortcut on " << keys;
        return {};
    }
    std::string settingsText() const { return clitest::readFile(settingsFile()); }
};

TEST_F(ShortcutCli, AFreshHomeListsTheDefaultSetInLinuxNames) {
    const auto rows = list();
    ASSERT_EQ(rows.size(), 13u);
    EXPECT_EQ(rows[0], (std::vector<std::string>{rows[0][0], "Right Alt", "recordAndTranscribe", "-", "tap", "-"}));
    EXPECT_EQ(rows[0][0].size(), 8u) << "a short id";
    EXPECT_EQ(rows[1][1], "Alt+S");
    EXPECT_EQ(rows[1][2], "recordAndProcessWithAI");
    EXPECT_NE(rows[1][3].find("(paste)"), std::string::npos) << rows[1][3];
    EXPECT_EQ(rows[9][1], "Ctrl+Alt+U");
    EXPECT_EQ(rows[12], (std::vector<std::string>{rows[12][0], "Alt+H", "showHistory", "-", "tap", "-"}));
}

TEST_F(ShortcutCli, SetAddRemoveAndResetChangeTheStoreAndTheSettingsFile) {
    const std::string dictation = idOf("Right Alt");
    Result r = run({"shortcuts", "set", dictation, "--key", "Right Ctrl", "--hold"});
    ASSERT_EQ(r.status, 0) << r.err;
    auto rows = list();
    EXPECT_EQ(rows[0][1], "Right Ctrl");
    EXPECT_EQ(rows[0][4], "hold");

    r = run({"shortcuts", "add", "copyTextAndAskAI", "--item", "de", "--key", "Alt+Shift+D"});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string added = r.out.substr(0, 8);
    rows = list();
    ASSERT_EQ(rows.size(), 14u);
    EXPECT_EQ(rows.back()[0], added);
    EXPECT_EQ(rows.back()[1], "Alt+Shift+D");
    EXPECT_EQ(rows.back()[2], "copyTextAndAskAI");
    // The combination is where the application registers it at its start: option and shift, key code 2.
    EXPECT_NE(settingsText().find("{\\\"carbonKeyCode\\\":2,\\\"carbonModifiers\\\":2560}"), std::string::npos)
        << settingsText();

    r = run({"shortcuts", "set", added, "--key", "Button 8"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(list().back()[1], "Button 8");
    EXPECT_EQ(settingsText().find("\\\"carbonKeyCode\\\":2,"), std::string::npos) << "the combination is gone";

    r = run({"shortcuts", "remove", added});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(list().size(), 13u);

    r = run({"shortcuts", "reset"});
    ASSERT_EQ(r.status, 0) << r.err;
    rows = list();
    ASSERT_EQ(rows.size(), 13u);
    EXPECT_EQ(rows[0][1], "Right Alt");
    EXPECT_EQ(rows[0][4], "tap");
}

TEST_F(ShortcutCli, WhatCantBeDoneIsSaidAndChangesNothing) {
    const std::string dictation = idOf("Right Alt");
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string says;
    };
    const Case cases[] = {
        {{"shortcuts"}, 2, "expected list"},
        {{"shortcuts", "rename"}, 2, "expected list"},
        {{"shortcuts", "set", dictation}, 2, "nothing to change"},
        {{"shortcuts", "set", dictation, "--key", "Alt+S"}, 1, "Alt+S is already the key of another shortcut"},
        {{"shortcuts", "set", dictation, "--key", "Space"}, 1, "Space can't be a shortcut"},
        {{"shortcuts", "set", dictation, "--key", "Button 5"}, 2, "mouse wheel"},
        {{"shortcuts", "set", dictation, "--key", "Alt"}, 2, "\"Left Alt\" or \"Right Alt\""},
        {{"shortcuts", "set", dictation, "--key"}, 2, "--key needs a value"},
        {{"shortcuts", "set", "zzzzzzzz", "--tap"}, 1, "no shortcut has the id"},
        {{"shortcuts", "set", idOf("Alt+H"), "--hold"}, 1, "only the actions that record speech can be held"},
        {{"shortcuts", "add", "dance", "--key", "F5"}, 2, "unknown action \"dance\""},
        {{"shortcuts", "add", "recordAndTranscribe"}, 2, "--key KEY is needed"},
        {{"shortcuts", "add", "recordAndTranscribe", "--item", "de", "--key", "F5"}, 1, "run an AI item"},
        {{"shortcuts", "add", "copyTextAndAskAI", "--item", "nonsense", "--key", "F5"}, 2, "unknown AI item"},
    };
    for (const auto& c : cases) {
        const Result r = run(c.args);
        std::string shown;
        for (const auto& a : c.args) shown += a + " ";
        EXPECT_EQ(r.status, c.status) << shown << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << shown << r.err;
    }
    const auto rows = list();
    ASSERT_EQ(rows.size(), 13u) << "nothing was added";
    EXPECT_EQ(rows[0][1], "Right Alt");
}

} // namespace

// sprelio report: a problem report from a terminal, to the embedded server (where an operator finds it) and to
// servers that refuse it or are not there.
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "../backend/ScriptedServer.h"
#include "CliTestSupport.h"

namespace {

using clitest::readFile;
using nlohmann::json;
namespace fs = std::filesystem;

class ReportCli : public clitest::CliFixture {
protected:
    fs::path reportsFolder() const { return root_ / ".local/share/Sprelio/server/reports"; }

    // Every report the embedded server kept: one folder each.
    std::vector<fs::path> reports() const {
        std::vector<fs::path> found;
        if (!fs::exists(reportsFolder())) return found;
        for (const auto& entry : fs::directory_iterator(reportsFolder()))
            if (entry.is_directory()) found.push_back(entry.path());
        return found;
    }

    static std::string fileNamed(const fs::path& folder, const std::string& stem) {
        for (const auto& entry : fs::recursive_directory_iterator(folder))
            if (entry.path().filename().string().find(stem) != std::string::npos) return entry.path().string();
        return {};
    }
};

TEST_F(ReportCli, TheEmbeddedServerKeepsTheReportWithTheTextAndBothArchives) {
    const struct {
        std::vector<std::string> args;
        const char* text;
    } rows[] = {
        {{"report", "the", "overlay", "stays", "after", "cancel"}, "the overlay stays after cancel"},
        {{"report", "--no-logs", "keys do nothing"}, "keys do nothing"},
    };
    // The largest log a report carries: the log is rotated beyond 5 MB, so just below that, sent whole.
    {
        fs::create_directories(logFile().parent_path());
        std::ofstream log(logFile(), std::ios::app);
        for (int i = 0; log && i < 4'700'000 / 64; ++i)
            log << "2026-11-25 10:00:00.000000 [INFO]: line " << i << " of a long day's work\n";
    }
    ASSERT_GE(fs::file_size(logFile()), 4'000'000u);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const auto before = reports().size();
        const auto r = run(row.args);
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, "The report was sent!\n");
        const auto kept = reports();
        ASSERT_EQ(kept.size(), before + 1) << "one report folder more";
        // The newest folder is the one just sent.
        fs::path newest = kept.front();
        for (const auto& folder : kept)
            if (fs::last_write_time(folder) > fs::last_write_time(newest)) newest = folder;
        const std::string data = fileNamed(newest, "data");
        ASSERT_FALSE(data.empty()) << newest;
        const auto parsed = json::parse(readFile(data), nullptr, false);
        ASSERT_TRUE(parsed.is_object()) << readFile(data);
        EXPECT_EQ(parsed.value("text", ""), row.text);
        const std::string logs = fileNamed(newest, "logs");
        ASSERT_FALSE(logs.empty());
        // The long log is in the archive (compressed, but far more than a note); the note alone is small.
        if (row.args[1] == "--no-logs") {
            EXPECT_LT(fs::file_size(logs), 4096u);
        } else {
            EXPECT_GT(fs::file_size(logs), 100u * 1024);
        }
        EXPECT_FALSE(fileNamed(newest, "config").empty());
        EXPECT_EQ(readFile(data).find("token"), std::string::npos) << "the token is never part of a report";
    }
}

TEST_F(ReportCli, AServerThatRefusesOrIsGoneGivesAMessageAndTheReportCanBeSentAgain) {
    sprelio::backendtest::ScriptedServer server;
    sprelio::backendtest::Script info;
    info.body = json{{"flags", json::object()},
                     {"balancers", json::array()},
                     {"user", {{"user", {{"email", "ann@example.org"}}}, {"requests", 3}, {"token", "tok-ann"}}}}
                    .dump();
    server.script("/users/info", info);
    sprelio::backendtest::Script refused;
    refused.status = 500;
    refused.body = R"({"error":"disk full"})";
    server.script("/users/report", refused);
    environment = {{"SPRELIO_API_BASE_URL", server.url("")}};

    auto r = run({"report", "it broke"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("The report failed to send, can you please try again?"), std::string::npos) << r.err;

    sprelio::backendtest::Script taken;
    taken.body = R"({"id":"r-1"})";
    server.script("/users/report", taken);
    r = run({"report", "it broke"});
    EXPECT_EQ(r.status, 0) << r.err;
    std::size_t posted = 0;
    for (const auto& request : server.requests())
        if (request.method == "POST" && request.target == "/users/report") ++posted;
    EXPECT_EQ(posted, 2u);

    environment = {{"SPRELIO_API_BASE_URL", "http://127.0.0.1:9"}}; // nothing listens on the discard port
    r = run({"report", "it broke"});
    EXPECT_NE(r.status, 0);
    EXPECT_FALSE(r.err.empty());
}

TEST_F(ReportCli, WithoutTextItSaysWhatItNeeds) {
    const auto r = run({"report", "--no-logs"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("expected TEXT"), std::string::npos) << r.err;
}

} // namespace

// sprelio update check: the real binary asks a feed on 127.0.0.1 and prints what it offers.
#include <gtest/gtest.h>

#include "app/CliTestSupport.h"
#include "app/UpdateTestServer.h"
#include "diagnostics/UpdateTestSupport.h"

namespace {

using sprelio::updatetest::UpdateFeedServer;

class UpdateCheckCli : public clitest::CliFixture {
protected:
    UpdateFeedServer server;
    void useFeed(const std::string& path) { environment = {{"SPRELIO_UPDATE_FEED_URL", server.url(path)}}; }
};

TEST_F(UpdateCheckCli, PrintsTheOfferedReleasesAndTheUpdate) {
    server.put("/appcast.xml",
               sprelio::updatetest::appcastXml(
                   {{"0.2.0", "0.2 Beta", "https://example.org/sprelio_0.2.0_amd64.deb", "4096", "c2ln", "linux"},
                    {"0.0.5", "0.0.5", "https://example.org/sprelio_0.0.5_amd64.deb", "", "", ""}}),
               UpdateFeedServer::Delivery::whole, "application/rss+xml");
    useFeed("/appcast.xml");
    const auto r = run({"update", "check"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Feed: " + server.url("/appcast.xml") + "\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Running: Sprelio 0.1.0\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Offered: Sprelio 0.2 Beta (version 0.2.0), 4096 bytes, signed, for linux: "
                         "https://example.org/sprelio_0.2.0_amd64.deb\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("Offered: Sprelio 0.0.5, size not given, not signed: "
                         "https://example.org/sprelio_0.0.5_amd64.deb\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("Update available: Sprelio 0.2 Beta\n"), std::string::npos) << r.out;
    EXPECT_EQ(server.requests("/appcast.xml"), 1);
}

TEST_F(UpdateCheckCli, SaysWhenThereIsNoUpdate) {
    server.put("/appcast.xml",
               sprelio::updatetest::appcastXml({{"0.1.0", "0.1.0", "https://example.org/a.deb", "", "", ""}}));
    useFeed("/appcast.xml");
    const auto r = run({"update", "check"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("No update: Sprelio 0.1.0 is the newest version for this system.\n"), std::string::npos)
        << r.out;
}

struct FailureRow {
    const char* name;
    std::vector<std::string> args;
    const char* path; // what the feed variable names; nullptr: the setting, set to ""
    int status;
    const char* errorContains;
};

class UpdateCheckCliFailure : public UpdateCheckCli, public ::testing::WithParamInterface<FailureRow> {};

TEST_P(UpdateCheckCliFailure, SaysWhyOnStandardError) {
    const FailureRow row = GetParam();
    server.put("/not-a-feed", "<html><body>Welcome</body></html>");
    if (row.path) {
        useFeed(row.path);
    } else {
        ASSERT_EQ(run({"settings", "set", "updateFeedURL", ""}).status, 0);
    }
    const auto r = run(row.args);
    EXPECT_EQ(r.status, row.status) << row.name << ": " << r.out << r.err;
    EXPECT_NE(r.err.find(row.errorContains), std::string::npos) << row.name << ": " << r.err;
    EXPECT_TRUE(r.out.empty()) << row.name << ": " << r.out;
}

INSTANTIATE_TEST_SUITE_P(
    Rows, UpdateCheckCliFailure,
    ::testing::Values(FailureRow{"feed missing", {"update", "check"}, "/appcast.xml", 1, "HTTP 404"},
                      FailureRow{"not a feed", {"update", "check"}, "/not-a-feed", 1, "is not an appcast"},
                      FailureRow{"checks turned off", {"update", "check"}, nullptr, 1, "no update feed is set"},
                      FailureRow{"no verb", {"update"}, "/appcast.xml", 2, "expected \"update check\""},
                      FailureRow{"unknown verb", {"update", "install"}, "/appcast.xml", 2, "expected \"update check\""}),
    sprelio::updatetest::RowName());

} // namespace

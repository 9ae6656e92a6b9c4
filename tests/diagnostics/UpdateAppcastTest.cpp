// The update feed as it is read: items, their versions and signatures, the order of versions and the choice of
// the update.
#include <gtest/gtest.h>

#include "diagnostics/UpdateAppcast.h"
#include "diagnostics/UpdateSignature.h"
#include "diagnostics/UpdateTestSupport.h"

namespace sprelio {
namespace {

TEST(UpdateAppcast, ReadsTheEnclosureAndTheSparkleAttributes) {
    std::string error;
    const auto appcast = parseAppcast(
        updatetest::appcastXml({{"0.2.0", "0.2 Beta", "https://example.org/a/sprelio_0.2.0_amd64.deb", "123456",
                                 "c2lnbmF0dXJl", "linux"}}),
        error);
    ASSERT_TRUE(appcast) << error;
    ASSERT_EQ(appcast->items.size(), 1u);
    const auto& item = appcast->items[0];
    EXPECT_EQ(item.title, "Version 0.2 Beta");
    EXPECT_EQ(item.versionString, "0.2.0");
    EXPECT_EQ(item.displayVersionString, "0.2 Beta");
    EXPECT_EQ(item.fileURL, "https://example.org/a/sprelio_0.2.0_amd64.deb");
    EXPECT_EQ(item.contentLength, 123456u);
    EXPECT_EQ(item.edSignature, "c2lnbmF0dXJl");
    EXPECT_EQ(item.operatingSystem, "linux");
    EXPECT_EQ(item.pubDate, "Mon, 23 Nov 2026 10:00:00 +0000");
}

TEST(UpdateAppcast, TakesTheVersionFromItsElementsWhenTheEnclosureHasNone) {
    const std::string xml = R"(<rss xmlns:sparkle="http://www.andymatuschak.org/xml-namespaces/sparkle"><channel>
        <item><title>Two</title><sparkle:version>2.0</sparkle:version>
        <sparkle:shortVersionString>2.0 &amp; more</sparkle:shortVersionString>
        <sparkle:releaseNotesLink>https://example.org/notes</sparkle:releaseNotesLink>
        <enclosure url="https://example.org/two.deb" length="0" sparkle:edSignature="x"/></item>
        <item><title>No enclosure</title><sparkle:version>3.0</sparkle:version></item>
        <item><title>No version</title><enclosure url="https://example.org/x.deb"/></item>
        </channel></rss>)";
    std::string error;
    const auto appcast = parseAppcast(xml, error);
    ASSERT_TRUE(appcast) << error;
    ASSERT_EQ(appcast->items.size(), 1u) << "items without an enclosure or a version can't be offered";
    EXPECT_EQ(appcast->items[0].versionString, "2.0");
    EXPECT_EQ(appcast->items[0].displayVersionString, "2.0 & more");
    EXPECT_EQ(appcast->items[0].releaseNotesURL, "https://example.org/notes");
    EXPECT_FALSE(appcast->items[0].contentLength) << "a length of 0 is no length";
}

struct BadFeedRow {
    const char* name;
    std::string xml;
    std::string errorStart;
};

class UpdateAppcastRefuses : public ::testing::TestWithParam<BadFeedRow> {};

TEST_P(UpdateAppcastRefuses, WhatIsNotAnRssFeed) {
    std::string error;
    EXPECT_FALSE(parseAppcast(GetParam().xml, error)) << GetParam().name;
    EXPECT_EQ(error.rfind(GetParam().errorStart, 0), 0u) << GetParam().name << ": " << error;
}

INSTANTIATE_TEST_SUITE_P(
    Rows, UpdateAppcastRefuses,
    ::testing::Values(BadFeedRow{"empty", "", "not a valid XML document"},
                      BadFeedRow{"HTML error page", "<html><body>502 Bad Gateway</html>", "not a valid XML document"},
                      BadFeedRow{"cut off", "<rss><channel><item><enclosure url=\"x\"", "not a valid XML document"},
                      BadFeedRow{"JSON", "{\"items\": []}", "not a valid XML document"},
                      BadFeedRow{"XML without a channel", "<feed><entry/></feed>", "the document has no RSS channel"}),
    updatetest::RowName());

struct VersionRow {
    const char* a;
    const char* b;
    int order;
};

class UpdateVersionOrder : public ::testing::TestWithParam<VersionRow> {};

TEST_P(UpdateVersionOrder, ReadsReleaseNumbers) {
    const auto& row = GetParam();
    EXPECT_EQ(compareVersions(row.a, row.b), row.order) << row.a << " vs " << row.b;
    EXPECT_EQ(compareVersions(row.b, row.a), -row.order) << row.b << " vs " << row.a;
}

INSTANTIATE_TEST_SUITE_P(Rows, UpdateVersionOrder,
                         ::testing::Values(VersionRow{"0.1.0", "0.1.0", 0}, VersionRow{"0.1.0", "0.2.0", -1},
                                           VersionRow{"0.10.0", "0.9.9", 1}, VersionRow{"1.0", "1.0.1", -1},
                                           VersionRow{"1.0b1", "1.0", -1}, VersionRow{"1.0b2", "1.0rc1", -1},
                                           VersionRow{"1.0b1", "1.0.1", -1}, VersionRow{"2", "1.99.99", 1},
                                           VersionRow{"1.02", "1.2", 0}, VersionRow{"1.0-1", "1.0-2", -1},
                                           VersionRow{"10000000000000000000001", "9", 1}),
                         updatetest::RowName());

TEST(UpdateAppcast, TheBestUpdateIsTheNewestForThisSystem) {
    std::string error;
    const auto appcast = parseAppcast(
        updatetest::appcastXml({{"0.2.0", "0.2.0", "https://e/0.2.deb", "", "", ""},
                                {"0.4.0", "0.4.0", "https://e/0.4.dmg", "", "", "macos"},
                                {"0.3.0", "0.3.0", "https://e/0.3.deb", "", "", "linux"},
                                {"0.0.9", "0.0.9", "https://e/0.0.9.deb", "", "", ""}}),
        error);
    ASSERT_TRUE(appcast) << error;
    const auto best = bestValidUpdate(*appcast, "0.1.0");
    ASSERT_TRUE(best);
    EXPECT_EQ(best->versionString, "0.3.0") << "0.4.0 is for another system";
    EXPECT_FALSE(bestValidUpdate(*appcast, "0.3.0")) << "the running version is no update";
    EXPECT_FALSE(bestValidUpdate(*appcast, "1.0")) << "nor is an older one";
}

struct Base64Row {
    const char* text;
    std::optional<std::string> bytes;
};

class UpdateBase64 : public ::testing::TestWithParam<Base64Row> {};

TEST_P(UpdateBase64, DecodesStandardBase64) { EXPECT_EQ(decodeBase64(GetParam().text), GetParam().bytes); }

INSTANTIATE_TEST_SUITE_P(Rows, UpdateBase64,
                         ::testing::Values(Base64Row{"", std::string()}, Base64Row{"TWFu", std::string("Man")},
                                           Base64Row{"TWE=", std::string("Ma")}, Base64Row{"TQ==", std::string("M")},
                                           Base64Row{" TW\nE ", std::string("Ma")}, Base64Row{"TQ", std::string("M")},
                                           Base64Row{"T", std::nullopt}, Base64Row{"TW-_", std::nullopt}),
                         updatetest::RowName());

} // namespace
} // namespace sprelio

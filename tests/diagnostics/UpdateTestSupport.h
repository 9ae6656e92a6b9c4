#pragma once
// What the update tests share: appcast texts and, for the tests on virtual time, a transport that serves fixed
// answers by URL as tasks on the virtual loop.
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/Http.h"
#include "platform/test/TestPlatform.h"

namespace sprelio::updatetest {

// Table rows are named by their place in the table; each row carries its own description for the messages.
struct RowName {
    template <class Row> std::string operator()(const ::testing::TestParamInfo<Row>& row) const {
        return "row" + std::to_string(row.index);
    }
};

struct FeedItem {
    std::string version;
    std::string shortVersion;
    std::string url;
    std::string length;
    std::string signature;
    std::string os;
};

inline std::string appcastXml(const std::vector<FeedItem>& items) {
    std::string xml = R"(<?xml version="1.0" encoding="utf-8"?>
<rss version="2.0" xmlns:sparkle="http://www.andymatuschak.org/xml-namespaces/sparkle" xmlns:dc="http://purl.org/dc/elements/1.1/">
  <channel>
    <title>Sprelio</title>
)";
    for (const auto& item : items) {
        xml += "    <item>\n      <title>Version " + item.shortVersion + "</title>\n";
        xml += "      <pubDate>Mon, 23 Nov 2026 10:00:00 +0000</pubDate>\n";
        xml += "      <enclosure url=\"" + item.url + "\"";
        if (!item.version.empty()) xml += " sparkle:version=\"" + item.version + "\"";
        if (!item.shortVersion.empty()) xml += " sparkle:shortVersionString=\"" + item.shortVersion + "\"";
        if (!item.length.empty()) xml += " length=\"" + item.length + "\"";
        if (!item.os.empty()) xml += " sparkle:os=\"" + item.os + "\"";
        xml += " type=\"application/vnd.debian.binary-package\"";
        if (!item.signature.empty()) xml += " sparkle:edSignature=\"" + item.signature + "\"";
        xml += "/>\n    </item>\n";
    }
    xml += "  </channel>\n</rss>\n";
    return xml;
}

// Serves the scripted answer of a URL (404 for any other) one task after the request, and counts the requests.
class FeedOnVirtualTime final : public platform::HttpClient {
public:
    explicit FeedOnVirtualTime(platform::test::TestPlatform& tp) : tp_(tp) {}
    std::map<std::string, platform::HttpResult> answers;
    std::vector<std::string> requested;

    void serve(const std::string& url, std::string body) {
        platform::HttpResponse response;
        response.status = 200;
        response.body = std::move(body);
        answers[url] = response;
    }

    std::shared_ptr<platform::HttpTask> send(platform::HttpRequest request, Completion completion) override {
        requested.push_back(request.url);
        platform::HttpResponse missing;
        missing.status = 404;
        platform::HttpResult result = missing;
        if (auto it = answers.find(request.url); it != answers.end()) result = it->second;
        tp_.loop().post([completion = std::move(completion), result] { completion(result); });
        return nullptr;
    }

private:
    platform::test::TestPlatform& tp_;
};

} // namespace sprelio::updatetest

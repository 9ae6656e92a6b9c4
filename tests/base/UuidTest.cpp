#include <gtest/gtest.h>

#include <unordered_set>

#include "base/Error.h"
#include "base/Uuid.h"

using sprelio::Uuid;

TEST(Uuid, RandomIdsAreVersion4UpperCaseAndRoundTrip) {
    std::unordered_set<std::string> seen;
    for (int i = 0; i < 10000; ++i) {
        Uuid u = Uuid::random();
        std::string s = u.string();
        ASSERT_EQ(s.size(), 36u);
        EXPECT_EQ(s[14], '4');
        EXPECT_NE(std::string("89AB").find(s[19]), std::string::npos) << s;
        for (char c : s) EXPECT_FALSE(c >= 'a' && c <= 'z') << s;
        EXPECT_EQ(Uuid::parse(s), u);
        EXPECT_TRUE(seen.insert(s).second) << "repeated id " << s;
    }
}

TEST(Uuid, ParseAcceptsLowerCaseAndRejectsMalformedText) {
    auto u = Uuid::parse("0f8fad5b-d9cb-469f-a165-70867728950e");
    ASSERT_TRUE(u);
    EXPECT_EQ(u->string(), "0F8FAD5B-D9CB-469F-A165-70867728950E");
    EXPECT_FALSE(Uuid::parse(""));
    EXPECT_FALSE(Uuid::parse("0f8fad5b-d9cb-469f-a165-70867728950"));   // short
    EXPECT_FALSE(Uuid::parse("0f8fad5bd-9cb-469f-a165-70867728950e"));  // dash misplaced
    EXPECT_FALSE(Uuid::parse("0f8fad5b-d9cb-469f-a165-70867728950g"));  // not hex
    EXPECT_TRUE(Uuid{}.isNil());
    EXPECT_FALSE(u->isNil());
}

TEST(Error, DebugDescriptionNamesDomainCodeAndText) {
    sprelio::Error e{sprelio::url_error::kDomain, sprelio::url_error::kTimedOut, "The request timed out.", {}};
    EXPECT_EQ(e.debugDescription(), "Error Domain=NSURLErrorDomain Code=-1001 \"The request timed out.\"");
}

#include <gtest/gtest.h>

#include <string>

#include "base/JsonAccess.h"
#include "base/Utf8.h"

using namespace sprelio;

TEST(Utf8, AcceptsWellFormedTextAndRefusesEveryIllFormedSequence) {
    struct Row {
        std::string bytes;
        bool valid;
    };
    const Row rows[] = {
        {"", true},
        {"plain ASCII", true},
        {"Gr\xC3\xBC\xC3\x9F" "e", true},            // two-byte
        {"\xE2\x82\xAC", true},                       // three-byte (euro sign)
        {"\xF0\x9F\x98\x80", true},                   // four-byte (emoji)
        {"\xF4\x8F\xBF\xBF", true},                   // U+10FFFF, the last code point
        {"\xC0\xAF", false},                          // overlong slash
        {"\xE0\x80\xAF", false},                      // overlong three-byte
        {"\xF0\x80\x80\xAF", false},                  // overlong four-byte
        {"\xED\xA0\x80", false},                      // a surrogate
        {"\xF4\x90\x80\x80", false},                  // past U+10FFFF
        {"\xE2\x82", false},                          // cut short at the end
        {"\xE2\x28\xA1", false},                      // continuation byte missing
        {"\x80", false},                              // lone continuation byte
        {"\xFF", false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(isValidUtf8(row.bytes), row.valid) << testing::PrintToString(row.bytes);
    }
    EXPECT_EQ(utf8SequenceLength("a\xF0\x9F\x98\x80", 1), 4u);
    EXPECT_EQ(utf8SequenceLength("\xF0\x9F\x98", 0), 0u);
}

TEST(JsonAccess, ReadsMembersOfTheirOwnTypeOnly) {
    const auto answer = nlohmann::json::parse(R"({"text":"hi","count":3,"ratio":0.5,"stop":true,"n":null})");
    EXPECT_EQ(stringValue(answer, "text"), "hi");
    EXPECT_EQ(stringValue(answer, "count"), std::nullopt);
    EXPECT_EQ(stringValue(answer, "missing"), std::nullopt);
    EXPECT_EQ(stringValue(std::optional<nlohmann::json>{}, "text"), std::nullopt);
    EXPECT_EQ(stringValue(std::optional<nlohmann::json>{answer}, "text"), "hi");
    EXPECT_EQ(stringValue(nlohmann::json::array({"text"}), "text"), std::nullopt);
    EXPECT_EQ(integerValue(answer, "count"), 3);
    EXPECT_EQ(integerValue(answer, "ratio"), std::nullopt);
    EXPECT_EQ(boolValue(answer, "stop"), true);
    EXPECT_EQ(boolValue(answer, "n"), std::nullopt);
    EXPECT_EQ(boolValue(nlohmann::json("stop"), "stop"), std::nullopt);
}

TEST(JsonAccess, DoubleTextAlwaysReadsAsADouble) {
    EXPECT_EQ(doubleText(2), "2.0");
    EXPECT_EQ(doubleText(0.25), "0.25");
    EXPECT_EQ(doubleText(1e21), "1e+21");
    EXPECT_EQ(doubleText(-3), "-3.0");
}

#include <gtest/gtest.h>

#include "StoreTestSupport.h"
#include "store/CodableHelpers.h"

using namespace sprelio;
using namespace sprelio::store;
using platform::test::RecordingLogSink;
using nlohmann::json;

namespace {
struct Item {
    std::string name;
    int size = 0;
    bool operator==(const Item&) const = default;
};
void to_json(json& j, const Item& i) { j = json{{"name", i.name}, {"size", i.size}}; }
void from_json(const json& j, Item& i) {
    j.at("name").get_to(i.name);
    j.at("size").get_to(i.size);
}
} // namespace

TEST(CodableHelpers, PersistAndRetrieveRoundTrip) {
    platform::test::TestPlatform p;
    RecordingLogSink sink;
    auto path = p.root() / "AIServerItems";
    std::vector<Item> items = {{"a", 1}, {"b", 2}};
    CodableHelpers::persistArray(items, path);
    EXPECT_EQ(CodableHelpers::retrieveArray<Item>(path), items);
    EXPECT_EQ(json::parse(storetest::readAll(path)), json(items));
    EXPECT_TRUE(sink.lines().empty());
    CodableHelpers::persistArray(std::vector<Item>{}, path);
    EXPECT_TRUE(CodableHelpers::retrieveArray<Item>(path).empty());
}

TEST(CodableHelpers, AMissingFileIsOnlyAWarningAndEmpty) {
    platform::test::TestPlatform p;
    RecordingLogSink sink;
    auto path = p.root() / "AIModelItems";
    EXPECT_TRUE(CodableHelpers::retrieveArray<Item>(path).empty());
    EXPECT_TRUE(sink.contains("CodableHelpers.retrieveArray() - failed to load " + path.string() +
                                  ", will treat it as empty!",
                              LogLevel::warning));
    EXPECT_EQ(sink.lines().size(), 1u);
}

TEST(CodableHelpers, CorruptContentIsAnErrorAndEmpty) {
    platform::test::TestPlatform p;
    auto path = p.root() / "AIModelItems";
    for (const char* content : {"[{\"name\":", "{\"name\":\"a\",\"size\":1}", "[{\"name\":\"a\"}]", "[1,2]"}) {
        RecordingLogSink sink;
        storetest::writeAll(path, content);
        EXPECT_TRUE(CodableHelpers::retrieveArray<Item>(path).empty()) << content;
        ASSERT_EQ(sink.lines().size(), 1u) << content;
        EXPECT_EQ(sink.lines()[0].level, LogLevel::error);
        EXPECT_EQ(sink.lines()[0].message.rfind("CodableHelpers.retrieveArray() - error loading " + path.string() +
                                                    ", error: ",
                                                0),
                  0u)
            << sink.lines()[0].message;
        EXPECT_EQ(storetest::readAll(path), content) << "a corrupt file is left as it is";
    }
}

TEST(CodableHelpers, AFailedSaveIsLoggedAndIgnored) {
    platform::test::TestPlatform p;
    RecordingLogSink sink;
    auto path = p.root() / "no-such-folder" / "AIServerItems";
    CodableHelpers::persistArray(std::vector<Item>{{"a", 1}}, path);
    EXPECT_TRUE(sink.containsPrefix("CodableHelpers.persistArray() - error saving " + path.string() + ", error: "));
    EXPECT_FALSE(std::filesystem::exists(path));
}

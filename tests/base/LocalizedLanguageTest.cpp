#include <gtest/gtest.h>

#include <set>

#include "base/LocalizedLanguage.h"

using namespace sprelio;
using nlohmann::json;

TEST(LanguageTable, Has101RowsEnglishFirstEmptyLastCodesAscending) {
    const auto& table = languageTable();
    ASSERT_EQ(table.size(), 101u);
    EXPECT_EQ(table.front(), (LocalizedLanguage{"en", "English", "English", "English"}));
    EXPECT_EQ(table.back(), (LocalizedLanguage{"", "", "", ""}));
    for (std::size_t i = 2; i + 1 < table.size(); ++i)
        EXPECT_LT(table[i - 1].code, table[i].code) << "row " << i;
    std::set<std::string> codes;
    for (std::size_t i = 0; i + 1 < table.size(); ++i) {
        const auto& row = table[i];
        EXPECT_TRUE(codes.insert(row.code).second) << row.code;
        EXPECT_FALSE(row.code.empty());
        EXPECT_FALSE(row.fallbackName.empty()) << row.code;
        EXPECT_FALSE(row.endonym.empty()) << row.code;
        EXPECT_EQ(row.localized, row.fallbackName) << row.code;
    }
    EXPECT_EQ(codes.size(), 100u);
}

TEST(LanguageTable, TellingRows) {
    auto find = [](const std::string& code) {
        for (const auto& row : languageTable())
            if (row.code == code) return row;
        return LocalizedLanguage{};
    };
    EXPECT_EQ(find("en").endonym, "English");
    EXPECT_EQ(find("ar"), (LocalizedLanguage{"ar", "Arabic", "Arabic", "العربية"}));
    EXPECT_EQ(find("zh"), (LocalizedLanguage{"zh", "Chinese", "Chinese", "中文"}));
    EXPECT_EQ(find("yue"), (LocalizedLanguage{"yue", "Cantonese", "Cantonese", "粵語"}));
    EXPECT_EQ(find("mi").fallbackName, "Māori");
    EXPECT_EQ(find("ht").fallbackName, "Haitian Creole");
    EXPECT_EQ(find("nn").fallbackName, "Norwegian Nynorsk");
    EXPECT_EQ(find("jw").fallbackName, "Javanese");
    EXPECT_EQ(find("de").endonym, "Deutsch");
    EXPECT_EQ(find("ja").endonym, "日本語");
    EXPECT_EQ(find("ru").endonym, "Русский");
}

TEST(LanguageTable, TheCodeListInOrder) {
    const std::vector<std::string> codes = {
        "en", "af", "am", "ar", "as", "az", "ba", "be", "bg", "bn", "bo", "br", "bs", "ca", "cs", "cy", "da",
        "de", "el", "es", "et", "eu", "fa", "fi", "fo", "fr", "gl", "gu", "ha", "haw", "he", "hi", "hr", "ht",
        "hu", "hy", "id", "is", "it", "ja", "jw", "ka", "kk", "km", "kn", "ko", "la", "lb", "ln", "lo", "lt",
        "lv", "mg", "mi", "mk", "ml", "mn", "mr", "ms", "mt", "my", "ne", "nl", "nn", "no", "oc", "pa", "pl",
        "ps", "pt", "ro", "ru", "sa", "sd", "si", "sk", "sl", "sn", "so", "sq", "sr", "su", "sv", "sw", "ta",
        "te", "tg", "th", "tk", "tl", "tr", "tt", "uk", "ur", "uz", "vi", "yi", "yo", "yue", "zh", ""};
    ASSERT_EQ(codes.size(), 101u);
    for (std::size_t i = 0; i < codes.size(); ++i) EXPECT_EQ(languageTable()[i].code, codes[i]) << i;
}

TEST(LanguageTable, JsonCodingRoundTrips) {
    json encoded = languageTable()[3];
    EXPECT_EQ(encoded, (json{{"code", "ar"}, {"fallbackName", "Arabic"}, {"localized", "Arabic"}, {"endonym", "العربية"}}));
    EXPECT_EQ(encoded.get<LocalizedLanguage>(), languageTable()[3]);
    auto all = json(languageTable()).get<std::vector<LocalizedLanguage>>();
    EXPECT_EQ(all, languageTable());
    EXPECT_EQ((json{{"code", "xx"}}.get<LocalizedLanguage>()), (LocalizedLanguage{"xx", "", "", ""}));
    EXPECT_THROW((json{{"code", 5}}.get<LocalizedLanguage>()), json::exception);
    EXPECT_THROW(json::array().get<LocalizedLanguage>(), json::exception);
}

TEST(LanguageTable, SortedCopyIsOrderedByLocalizedNameWithTheEmptyRowFirst) {
    const auto& sorted = sortedLanguageTable();
    ASSERT_EQ(sorted.size(), 101u);
    EXPECT_EQ(sorted.front().code, "");
    EXPECT_EQ(sorted[1].fallbackName, "Afrikaans");
    EXPECT_EQ(sorted[2].fallbackName, "Albanian");
    EXPECT_EQ(sorted.back().fallbackName, "Yoruba");
    std::size_t maori = 0, malay = 0, marathi = 0;
    for (std::size_t i = 0; i < sorted.size(); ++i) {
        if (sorted[i].code == "mi") maori = i;
        if (sorted[i].code == "ms") malay = i;
        if (sorted[i].code == "mr") marathi = i;
    }
    EXPECT_LT(malay, maori);
    EXPECT_LT(maori, marathi); // "Māori" sorts as "maori"
    std::set<std::string> codes;
    for (const auto& row : sorted) codes.insert(row.code);
    EXPECT_EQ(codes.size(), 101u);
}

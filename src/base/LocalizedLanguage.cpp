#include "base/LocalizedLanguage.h"

#include <algorithm>
#include <cctype>

namespace sprelio {

void to_json(nlohmann::json& j, const LocalizedLanguage& language) {
    j = nlohmann::json{{"code", language.code},
                       {"fallbackName", language.fallbackName},
                       {"localized", language.localized},
                       {"endonym", language.endonym}};
}

void from_json(const nlohmann::json& j, LocalizedLanguage& language) {
    if (!j.is_object()) throw nlohmann::json::type_error::create(302, "a LocalizedLanguage must be an object", &j);
    auto field = [&](const char* name) -> std::string {
        auto it = j.find(name);
        if (it == j.end() || it->is_null()) return {};
        return it->get<std::string>(); // throws on a non-string
    };
    language.code = field("code");
    language.fallbackName = field("fallbackName");
    language.localized = field("localized");
    language.endonym = field("endonym");
}

namespace {

// code, English name, the name in the language itself.
struct Row {
    const char* code;
    const char* fallbackName;
    const char* endonym;
};

constexpr Row kRows[] = {
    {"en", "English", "English"},
    {"af", "Afrikaans", "Afrikaans"},
    {"am", "Amharic", "አማርኛ"},
    {"ar", "Arabic", "العربية"},
    {"as", "Assamese", "অসমীয়া"},
    {"az", "Azerbaijani", "Azərbaycan dili"},
    {"ba", "Bashkir", "Башҡорт теле"},
    {"be", "Belarusian", "Беларуская"},
    {"bg", "Bulgarian", "Български"},
    {"bn", "Bengali", "বাংলা"},
    {"bo", "Tibetan", "བོད་སྐད་"},
    {"br", "Breton", "Brezhoneg"},
    {"bs", "Bosnian", "Bosanski"},
    {"ca", "Catalan", "Català"},
    {"cs", "Czech", "Čeština"},
    {"cy", "Welsh", "Cymraeg"},
    {"da", "Danish", "Dansk"},
    {"de", "German", "Deutsch"},
    {"el", "Greek", "Ελληνικά"},
    {"es", "Spanish", "Español"},
    {"et", "Estonian", "Eesti"},
    {"eu", "Basque", "Euskara"},
    {"fa", "Persian", "فارسی"},
    {"fi", "Finnish", "Suomi"},
    {"fo", "Faroese", "Føroyskt"},
    {"fr", "French", "Français"},
    {"gl", "Galician", "Galego"},
    {"gu", "Gujarati", "ગુજરાતી"},
    {"ha", "Hausa", "Hausa"},
    {"haw", "Hawaiian", "ʻŌlelo Hawaiʻi"},
    {"he", "Hebrew", "עברית"},
    {"hi", "Hindi", "हिन्दी"},
    {"hr", "Croatian", "Hrvatski"},
    {"ht", "Haitian Creole", "Kreyòl ayisyen"},
    {"hu", "Hungarian", "Magyar"},
    {"hy", "Armenian", "Հայերեն"},
    {"id", "Indonesian", "Bahasa Indonesia"},
    {"is", "Icelandic", "Íslenska"},
    {"it", "Italian", "Italiano"},
    {"ja", "Japanese", "日本語"},
    {"jw", "Javanese", "Basa Jawa"},
    {"ka", "Georgian", "ქართული"},
    {"kk", "Kazakh", "Қазақ тілі"},
    {"km", "Khmer", "ខ្មែរ"},
    {"kn", "Kannada", "ಕನ್ನಡ"},
    {"ko", "Korean", "한국어"},
    {"la", "Latin", "Latina"},
    {"lb", "Luxembourgish", "Lëtzebuergesch"},
    {"ln", "Lingala", "Lingála"},
    {"lo", "Lao", "ລາວ"},
    {"lt", "Lithuanian", "Lietuvių"},
    {"lv", "Latvian", "Latviešu"},
    {"mg", "Malagasy", "Malagasy"},
    {"mi", "Māori", "Te reo Māori"},
    {"mk", "Macedonian", "Македонски"},
    {"ml", "Malayalam", "മലയാളം"},
    {"mn", "Mongolian", "Монгол"},
    {"mr", "Marathi", "मराठी"},
    {"ms", "Malay", "Bahasa Melayu"},
    {"mt", "Maltese", "Malti"},
    {"my", "Myanmar", "မြန်မာ"},
    {"ne", "Nepali", "नेपाली"},
    {"nl", "Dutch", "Nederlands"},
    {"nn", "Norwegian Nynorsk", "Norsk nynorsk"},
    {"no", "Norwegian", "Norsk"},
    {"oc", "Occitan", "Occitan"},
    {"pa", "Punjabi", "ਪੰਜਾਬੀ"},
    {"pl", "Polish", "Polski"},
    {"ps", "Pashto", "پښتو"},
    {"pt", "Portuguese", "Português"},
    {"ro", "Romanian", "Română"},
    {"ru", "Russian", "Русский"},
    {"sa", "Sanskrit", "संस्कृतम्"},
    {"sd", "Sindhi", "سنڌي"},
    {"si", "Sinhala", "සිංහල"},
    {"sk", "Slovak", "Slovenčina"},
    {"sl", "Slovenian", "Slovenščina"},
    {"sn", "Shona", "chiShona"},
    {"so", "Somali", "Soomaali"},
    {"sq", "Albanian", "Shqip"},
    {"sr", "Serbian", "Српски"},
    {"su", "Sundanese", "Basa Sunda"},
    {"sv", "Swedish", "Svenska"},
    {"sw", "Swahili", "Kiswahili"},
    {"ta", "Tamil", "தமிழ்"},
    {"te", "Telugu", "తెలుగు"},
    {"tg", "Tajik", "Тоҷикӣ"},
    {"th", "Thai", "ไทย"},
    {"tk", "Turkmen", "Türkmençe"},
    {"tl", "Tagalog", "Tagalog"},
    {"tr", "Turkish", "Türkçe"},
    {"tt", "Tatar", "Татарча"},
    {"uk", "Ukrainian", "Українська"},
    {"ur", "Urdu", "اردو"},
    {"uz", "Uzbek", "Oʻzbekcha"},
    {"vi", "Vietnamese", "Tiếng Việt"},
    {"yi", "Yiddish", "ייִדיש"},
    {"yo", "Yoruba", "Yorùbá"},
    {"yue", "Cantonese", "粵語"},
    {"zh", "Chinese", "中文"},
    {"", "", ""},
};

// A sort key for the English names: ASCII lower case, with the few accented Latin letters the names use folded
// to their base letter, so that "Māori" sorts among the M's.
std::string sortKey(const std::string& name) {
    std::string out;
    for (std::size_t i = 0; i < name.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(name[i]);
        if (c < 0x80) {
            out += static_cast<char>(std::tolower(c));
            continue;
        }
        // Two-byte UTF-8 sequences of Latin-1 Supplement and Latin Extended-A.
        if ((c == 0xC3 || c == 0xC4 || c == 0xC5) && i + 1 < name.size()) {
            unsigned code = ((c & 0x1Fu) << 6) | (static_cast<unsigned char>(name[i + 1]) & 0x3Fu);
            static const struct {
                unsigned from, to;
                char letter;
            } kFold[] = {{0xC0, 0xC5, 'a'}, {0xE0, 0xE5, 'a'}, {0x100, 0x105, 'a'}, {0xC7, 0xC7, 'c'},
                         {0xE7, 0xE7, 'c'}, {0x106, 0x10D, 'c'}, {0xC8, 0xCB, 'e'}, {0xE8, 0xEB, 'e'},
                         {0x112, 0x11B, 'e'}, {0xCC, 0xCF, 'i'}, {0xEC, 0xEF, 'i'}, {0x128, 0x131, 'i'},
                         {0xD1, 0xD1, 'n'}, {0xF1, 0xF1, 'n'}, {0xD2, 0xD6, 'o'}, {0xF2, 0xF6, 'o'},
                         {0x14C, 0x151, 'o'}, {0xD9, 0xDC, 'u'}, {0xF9, 0xFC, 'u'}, {0x168, 0x173, 'u'}};
            char folded = 0;
            for (const auto& f : kFold)
                if (code >= f.from && code <= f.to) folded = f.letter;
            if (folded) {
                out += folded;
                ++i;
                continue;
            }
        }
        out += static_cast<char>(c);
    }
    return out;
}

} // namespace

const std::vector<LocalizedLanguage>& languageTable() {
    static const std::vector<LocalizedLanguage> table = [] {
        std::vector<LocalizedLanguage> rows;
        rows.reserve(std::size(kRows));
        for (const auto& row : kRows) rows.push_back({row.code, row.fallbackName, row.fallbackName, row.endonym});
        return rows;
    }();
    return table;
}

std::vector<LocalizedLanguage> sortedLanguages(const std::vector<LocalizedLanguage>& languages) {
    std::vector<LocalizedLanguage> sorted = languages;
    std::stable_sort(sorted.begin(), sorted.end(), [](const LocalizedLanguage& a, const LocalizedLanguage& b) {
        auto ka = sortKey(a.localized), kb = sortKey(b.localized);
        if (ka != kb) return ka < kb;
        return a.code < b.code;
    });
    return sorted;
}

const std::vector<LocalizedLanguage>& sortedLanguageTable() {
    static const std::vector<LocalizedLanguage> sorted = sortedLanguages(languageTable());
    return sorted;
}

} // namespace sprelio

#pragma once
// The table of languages the user can speak or translate into.
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace sprelio {

struct LocalizedLanguage {
    std::string code;         // "en", "yue", ... ; "" in the last row (no language chosen)
    std::string fallbackName; // English name
    std::string localized;    // name in the user's language; only English ships, so the same as fallbackName
    std::string endonym;      // the name in the language itself
    bool operator==(const LocalizedLanguage&) const = default;
};

// JSON coding: {"code":..,"fallbackName":..,"localized":..,"endonym":..}. Missing fields decode as "".
void to_json(nlohmann::json& j, const LocalizedLanguage& language);
void from_json(const nlohmann::json& j, LocalizedLanguage& language);

// The 101 rows: English first, then by ascending code, the last row all empty.
const std::vector<LocalizedLanguage>& languageTable();
// The copy for pickers: sorted by `localized` (case-insensitive, accents folded, then by code). The empty row
// (no language chosen) has the empty name and so comes first.
std::vector<LocalizedLanguage> sortedLanguages(const std::vector<LocalizedLanguage>& languages);
const std::vector<LocalizedLanguage>& sortedLanguageTable();

} // namespace sprelio

#pragma once
// Unicode text operations on UTF-8 strings: full case mappings independent of the user's locale, canonical
// equivalence, and user-perceived characters. Text that is not valid UTF-8 comes back unchanged.
#include <string>
#include <string_view>
#include <vector>

namespace sprelio::text {

// Full Unicode case mappings with the root locale ("ß" upper-cases to "SS", "İ" lower-cases to "i̇").
std::string lowercased(std::string_view text);
std::string uppercased(std::string_view text);
// Every word (a run of characters between white space) gets its first character in title case and all others in
// lower case: "hello wORLD" → "Hello World", "(hello" → "(hello", "o'neil" → "O'neil".
std::string capitalized(std::string_view text);
// True when both texts are canonically equivalent ("é" precomposed equals "e" + U+0301).
bool canonicallyEqual(std::string_view a, std::string_view b);
// Canonical composition (NFC); compare the results byte-wise to order texts by code points of their canonical form.
std::string canonicalForm(std::string_view text);
// The user-perceived characters (extended grapheme clusters) of the text.
std::vector<std::string> graphemes(std::string_view text);

} // namespace sprelio::text

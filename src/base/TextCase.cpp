#include "base/TextCase.h"

#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/ucasemap.h>
#include <unicode/unistr.h>

#include <memory>

#include "base/Utf8.h"

namespace sprelio::text {

namespace {

icu::UnicodeString toUnicode(std::string_view text) {
    return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

std::string toUtf8(const icu::UnicodeString& text) {
    std::string out;
    text.toUTF8String(out);
    return out;
}

// Applies `map` to valid UTF-8; anything else is handed back untouched, since a case mapping must never lose text.
template <class Map> std::string mapped(std::string_view text, Map map) {
    if (text.empty() || !isValidUtf8(text)) return std::string(text);
    icu::UnicodeString unicode = toUnicode(text);
    map(unicode);
    return toUtf8(unicode);
}

} // namespace

std::string lowercased(std::string_view text) {
    return mapped(text, [](icu::UnicodeString& s) { s.toLower(icu::Locale::getRoot()); });
}

std::string uppercased(std::string_view text) {
    return mapped(text, [](icu::UnicodeString& s) { s.toUpper(icu::Locale::getRoot()); });
}

std::string capitalized(std::string_view text) {
    return mapped(text, [](icu::UnicodeString& s) {
        // Words are split at white space only, so punctuation inside a word ("o'neil", "e-mail") starts no new
        // word. Each word is title-cased as a whole: the exact first character in title case, the rest lowered
        // with their context (a Greek final sigma stays final).
        icu::UnicodeString out;
        int32_t i = 0;
        const int32_t length = s.length();
        while (i < length) {
            int32_t start = i;
            UChar32 c = s.char32At(i);
            const bool space = u_isUWhiteSpace(c);
            while (i < length && static_cast<bool>(u_isUWhiteSpace(s.char32At(i))) == space) i = s.moveIndex32(i, 1);
            icu::UnicodeString run(s, start, i - start);
            if (!space)
                run.toTitle(nullptr, icu::Locale::getRoot(), U_TITLECASE_WHOLE_STRING | U_TITLECASE_NO_BREAK_ADJUSTMENT);
            out += run;
        }
        s = out;
    });
}

std::string canonicalForm(std::string_view text) {
    if (text.empty() || !isValidUtf8(text)) return std::string(text);
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
    if (U_FAILURE(status)) return std::string(text);
    icu::UnicodeString normalized = nfc->normalize(toUnicode(text), status);
    if (U_FAILURE(status)) return std::string(text);
    return toUtf8(normalized);
}

bool canonicallyEqual(std::string_view a, std::string_view b) {
    if (a == b) return true;
    return canonicalForm(a) == canonicalForm(b);
}

std::vector<std::string> graphemes(std::string_view text) {
    std::vector<std::string> out;
    if (text.empty()) return out;
    if (!isValidUtf8(text)) {
        for (char c : text) out.emplace_back(1, c);
        return out;
    }
    icu::UnicodeString unicode = toUnicode(text);
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> it(icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status) || !it) {
        out.emplace_back(text);
        return out;
    }
    it->setText(unicode);
    int32_t start = it->first();
    for (int32_t end = it->next(); end != icu::BreakIterator::DONE; start = end, end = it->next())
        out.push_back(toUtf8(icu::UnicodeString(unicode, start, end - start)));
    return out;
}

} // namespace sprelio::text

#include "text/SubstitutionHelpers.h"

#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "base/Utf8.h"
#include "base/Log.h"
#include "store/Persistence.h"
#include "base/TextCase.h"

namespace sprelio {

namespace {

using icu::UnicodeString;

UnicodeString toUnicode(const std::string& text) { return UnicodeString::fromUTF8(icu::StringPiece(text)); }

std::string toUtf8(const UnicodeString& text) {
    std::string out;
    text.toUTF8String(out);
    return out;
}

UnicodeString lower(const UnicodeString& s) {
    UnicodeString out(s);
    return out.toLower(icu::Locale::getRoot());
}

UnicodeString upper(const UnicodeString& s) {
    UnicodeString out(s);
    return out.toUpper(icu::Locale::getRoot());
}

// Title case for the first character of every white-space separated word, lower case for the rest.
UnicodeString capitalize(const UnicodeString& s) {
    if (s.isEmpty()) return s;
    return toUnicode(text::capitalized(toUtf8(s)));
}

bool canonicalEqual(const UnicodeString& a, const UnicodeString& b) {
    if (a == b) return true;
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
    if (U_FAILURE(status)) return false;
    UnicodeString na = nfd->normalize(a, status);
    UnicodeString nb = nfd->normalize(b, status);
    return U_SUCCESS(status) && na == nb;
}

// Every ASCII punctuation character is escaped; a backslash before one is always a literal in ICU patterns, and
// nothing else in a rule can be read as syntax (no flags that give meaning to white space or '#').
UnicodeString escapedPattern(const UnicodeString& literal) {
    UnicodeString out;
    for (int32_t i = 0; i < literal.length(); ++i) {
        char16_t c = literal.charAt(i);
        const bool asciiPunct = (c >= 0x21 && c <= 0x2F) || (c >= 0x3A && c <= 0x40) || (c >= 0x5B && c <= 0x60) ||
                                (c >= 0x7B && c <= 0x7E);
        if (asciiPunct) out.append(u'\\');
        out.append(c);
    }
    return out;
}

// Compiling a rule's pattern costs far more than matching it, and the same rules run on every dictation, on
// the main loop. Compiled patterns are immutable and may be shared between threads; the cache is dropped whole
// when it grows past any plausible rule table, so edited or removed rules cannot pile up.
std::shared_ptr<const icu::RegexPattern> compiledRule(const UnicodeString& from) {
    static std::mutex mutex;
    static std::unordered_map<std::u16string, std::shared_ptr<const icu::RegexPattern>> cache;
    constexpr std::size_t kMaxCachedRules = 4096;

    const std::u16string key(from.getBuffer(), static_cast<std::size_t>(from.length()));
    {
        std::lock_guard lock(mutex);
        if (auto it = cache.find(key); it != cache.end()) return it->second;
    }
    UnicodeString pattern(u"\\b");
    pattern += escapedPattern(from);
    pattern += UnicodeString(u"(?=[\\s\\p{P}\\p{S}]|$)");

    UErrorCode status = U_ZERO_ERROR;
    UParseError parseError{};
    std::shared_ptr<const icu::RegexPattern> regex(
        icu::RegexPattern::compile(pattern, UREGEX_CASE_INSENSITIVE, parseError, status));
    if (U_FAILURE(status) || !regex) {
        // The rule text is escaped, so only a fault in this function can get here.
        logCritical(std::string("replaceWords() - could not compile the rule pattern: ") + u_errorName(status));
        std::abort();
    }
    std::lock_guard lock(mutex);
    if (cache.size() >= kMaxCachedRules) cache.clear();
    cache.emplace(key, regex);
    return regex;
}

UnicodeString replaceWordsUnicode(const UnicodeString& text, const UnicodeString& from, const UnicodeString& to) {
    const auto regex = compiledRule(from);
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexMatcher> matcher(regex->matcher(text, status));
    if (U_FAILURE(status) || !matcher) {
        logCritical(std::string("replaceWords() - could not start matching: ") + u_errorName(status));
        std::abort();
    }

    // All matches first: the replacement must not see its own output.
    std::vector<std::pair<int32_t, int32_t>> matches;
    while (matcher->find(status) && U_SUCCESS(status)) {
        int32_t start = matcher->start(status);
        int32_t end = matcher->end(status);
        matches.emplace_back(start, end);
    }
    if (matches.empty()) return text;

    const UnicodeString lowerFrom = lower(from);
    UnicodeString result(text);
    // From the end, so that the earlier ranges stay valid while the text changes length.
    for (auto it = matches.rbegin(); it != matches.rend(); ++it) {
        const UnicodeString matched(text, it->first, it->second - it->first);
        // Case folding in the pattern and plain lower-casing disagree on a few characters ("SS" folds like "ß");
        // such a match is not the rule's word.
        if (!canonicalEqual(lower(matched), lowerFrom)) continue;
        UnicodeString base = canonicalEqual(matched, from)        ? to
                             : canonicalEqual(matched, lowerFrom) ? lower(to)
                                                                  : upper(to);
        UnicodeString finalText;
        if (canonicalEqual(matched, capitalize(matched)))
            finalText = capitalize(base);
        else if (canonicalEqual(matched, upper(matched)))
            finalText = upper(base);
        else
            finalText = lower(base);
        result.replace(it->first, it->second - it->first, finalText);
    }
    return result;
}

} // namespace

std::vector<std::shared_ptr<store::Substitution>>
cdGetSubstitutions(store::ManagedObjectContext& context, std::optional<std::vector<store::SortDescriptor>> sortDescriptors) {
    std::vector<std::shared_ptr<store::Substitution>> out;
    try {
        store::FetchRequest request;
        request.entityName = store::Substitution::kEntityName;
        if (sortDescriptors) request.sortDescriptors = std::move(*sortDescriptors);
        for (auto& object : context.fetch(request)) out.push_back(std::static_pointer_cast<store::Substitution>(object));
    } catch (const store::StoreError& e) {
        logError("cdGetSubstitutions() - error while fetching existing substitutions: " + e.error().debugDescription());
        return {};
    } catch (const std::exception& e) {
        logError(std::string("cdGetSubstitutions() - error while fetching existing substitutions: ") + e.what());
        return {};
    }
    return out;
}

std::string replaceWords(const std::string& text, const std::string& from, const std::string& to) {
    if (!isValidUtf8(text) || !isValidUtf8(from) || !isValidUtf8(to)) {
        logError("replaceWords() - text or rule is not valid UTF-8, text left unchanged");
        return text;
    }
    return toUtf8(replaceWordsUnicode(toUnicode(text), toUnicode(from), toUnicode(to)));
}

std::string applySubstitutions(store::ManagedObjectContext& context, const std::string& text,
                               const std::optional<std::string>& extraInput, const std::string& extraOutput) {
    if (!isValidUtf8(text)) {
        logError("applySubstitutions() - text is not valid UTF-8, delivered without substitutions");
        return text;
    }
    const auto rules = cdGetSubstitutions(context);
    if (rules.empty()) return extraInput ? replaceWords(text, *extraInput, extraOutput) : text;

    // The text stays in UTF-16 across all rules; only the ends convert.
    UnicodeString current = toUnicode(text);
    for (const auto& rule : rules) {
        const std::string input = rule->input().value_or("");
        const std::string output = rule->output().value_or("");
        if (!isValidUtf8(input) || !isValidUtf8(output)) {
            logError("applySubstitutions() - a stored rule is not valid UTF-8 and was skipped");
            continue;
        }
        current = replaceWordsUnicode(current, lower(toUnicode(input)), toUnicode(output));
    }
    std::string result = toUtf8(current);
    if (extraInput) result = replaceWords(result, *extraInput, extraOutput);
    return result;
}

StoreSubstitutionHelpers::StoreSubstitutionHelpers(std::function<store::ManagedObjectContext&()> contextProvider)
    : contextProvider_(std::move(contextProvider)) {}

std::string StoreSubstitutionHelpers::applySubstitutions(const std::string& text) {
    return applySubstitutions(text, std::nullopt, "");
}

std::string StoreSubstitutionHelpers::applySubstitutions(const std::string& text,
                                                         const std::optional<std::string>& extraInput,
                                                         const std::string& extraOutput) {
    store::ManagedObjectContext& context =
        contextProvider_ ? contextProvider_() : store::PersistenceController::shared().container().viewContext();
    return sprelio::applySubstitutions(context, text, extraInput, extraOutput);
}

} // namespace sprelio

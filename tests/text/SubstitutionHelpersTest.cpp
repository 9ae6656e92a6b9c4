// The rule engine: whole words, case-insensitive, the case of the spoken word carried over.
#include <gtest/gtest.h>

#include "platform/test/TestPlatform.h"
#include "store/Persistence.h"
#include "text/SubstitutionHelpers.h"
#include "base/TextCase.h"

using namespace sprelio;

namespace {

// NFC and NFD spellings of the same letters.
const std::string kCafeComposed = "caf\xC3\xA9";     // café, U+00E9
const std::string kCafeDecomposed = "cafe\xCC\x81";  // cafe + U+0301

class StoredRules : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(container_.loadPersistentStores().has_value()); }
    store::ManagedObjectContext& context() { return container_.viewContext(); }
    void addRule(std::optional<std::string> input, std::optional<std::string> output, bool blank = false) {
        auto rule = context().insertNew<store::Substitution>();
        rule->setInput(std::move(input));
        rule->setOutput(std::move(output));
        rule->setIsBlankNew(blank);
        rule->setTimestamp(1.0);
        context().save();
    }
    store::PersistentContainer container_{"Persistence", store::PersistentContainer::kInMemoryStoreFile};
};

} // namespace

TEST(ReplaceWords, TheCaseOfTheMatchDecidesTheCaseOfTheReplacement) {
    EXPECT_EQ(replaceWords("gonna", "gonna", "Going to"), "going to");
    EXPECT_EQ(replaceWords("Gonna", "gonna", "Going to"), "Going To");
    EXPECT_EQ(replaceWords("GONNA", "gonna", "Going to"), "GOING TO");
    EXPECT_EQ(replaceWords("gOnNa", "gonna", "Going to"), "going to");
    EXPECT_EQ(replaceWords("I'm gonna go, Gonna go. GONNA!", "gonna", "Going to"),
              "I'm going to go, Going To go. GOING TO!");
    // A rule differing from its match in case only changes nothing visible.
    EXPECT_EQ(replaceWords("iphone IPHONE Iphone", "iphone", "iPhone"), "iphone IPHONE Iphone");
    // Digits or punctuation only: the match counts as capitalized.
    EXPECT_EQ(replaceWords("buy 1 now", "1", "one apple"), "buy One Apple now");
}

TEST(ReplaceWords, NeedsAWordBoundaryBeforeAndSpacePunctuationSymbolOrEndAfter) {
    EXPECT_EQ(replaceWords("tehran", "teh", "the"), "tehran");
    EXPECT_EQ(replaceWords("teh, teh", "teh", "the"), "the, the");
    EXPECT_EQ(replaceWords("steh teh", "teh", "the"), "steh the");
    EXPECT_EQ(replaceWords("teh+teh$teh\tteh\nteh", "teh", "the"), "the+the$the\tthe\nthe");
    // A combining mark is neither space, punctuation nor symbol: "cafe" is not a word of "café" spelled decomposed.
    EXPECT_EQ(replaceWords(kCafeDecomposed + " cafe", "cafe", "bar"), kCafeDecomposed + " bar");
    // A rule starting with a non-word character needs a word character right before it.
    EXPECT_EQ(replaceWords("wait... and ... then", "...", ""), "wait and ... then");
    // Regular-expression syntax in a rule is literal.
    EXPECT_EQ(replaceWords("a.b axb (x) x* [y]", "a.b", "Z"), "z axb (x) x* [y]");
    EXPECT_EQ(replaceWords("c++ is c", "c++", "cpp"), "cpp is c");
}

TEST(ReplaceWords, EmptyInputInsertsAtEveryWordEndAndTheBlankRowInsertsNothing) {
    EXPECT_EQ(replaceWords("a, b", "", "x"), "aX, bX");
    EXPECT_EQ(replaceWords("a, b", "", ""), "a, b");
    EXPECT_EQ(replaceWords("", "teh", "the"), "");
    EXPECT_EQ(replaceWords("teh teh", "teh", ""), " ");
}

TEST(ReplaceWords, ReplacementsAreNotMatchedAgainAndMatchesWorkFromTheEnd) {
    EXPECT_EQ(replaceWords("go go go", "go", "go go"), "go go go go go go");
    EXPECT_EQ(replaceWords("ab ab", "ab", "a much longer ab text"), "a much longer ab text a much longer ab text");
}

TEST(ReplaceWords, FullCaseMappingsAndCanonicalEquivalence) {
    // Upper-casing is the full mapping: "ß" becomes "SS".
    EXPECT_EQ(replaceWords("STRASSE", "strasse", "straße"), "STRASSE");
    EXPECT_EQ(replaceWords("strasse", "strasse", "Straße"), "straße");
    // Folding lets "SS" match "ß", but lower-casing disagrees, so that match is not the rule's word.
    EXPECT_EQ(replaceWords("STRASSE", "straße", "road"), "STRASSE");
    EXPECT_EQ(replaceWords("STRAẞE", "straße", "road"), "ROAD");
    // The same letters composed and decomposed are equal in the case tests: K and the Kelvin sign are canonically
    // equivalent, so the match counts as the rule spelled exactly and `to` keeps its "ß".
    EXPECT_EQ(replaceWords("a\xE2\x84\xAA", "aK", "Straße"), "straße");
    // Precomposed and decomposed spellings are different text to the pattern.
    EXPECT_EQ(replaceWords(kCafeDecomposed, kCafeComposed, "bar"), kCafeDecomposed);
    EXPECT_EQ(replaceWords(kCafeComposed, kCafeComposed, "bar"), "bar");
    EXPECT_EQ(replaceWords("CAF\xC3\x89", kCafeComposed, "bar"), "BAR");
}

TEST(ReplaceWords, NoLocaleSpecialCasesForTheDottedI) {
    EXPECT_EQ(replaceWords("ISTANBUL", "istanbul", "city"), "CITY");
    EXPECT_EQ(replaceWords("x", "x", "TITLE"), "title");
    // Root lower-casing of "İ" is "i" + combining dot, not a Turkish dotless form.
    EXPECT_EQ(text::lowercased("\xC4\xB0"), "i\xCC\x87");
    EXPECT_EQ(text::uppercased("i"), "I");
}

TEST(TextCase, CapitalizedSplitsWordsAtWhiteSpaceOnly) {
    EXPECT_EQ(text::capitalized("hello wORLD"), "Hello World");
    EXPECT_EQ(text::capitalized("o'neil e-mail"), "O'neil E-mail");
    EXPECT_EQ(text::capitalized("(hello)  x\ty\nz"), "(hello)  X\tY\nZ");
    EXPECT_EQ(text::capitalized("\xC3\x9F" "x"), "Ssx"); // ß title-cases to "Ss"
    EXPECT_EQ(text::capitalized(""), "");
    EXPECT_TRUE(text::canonicallyEqual(kCafeComposed, kCafeDecomposed));
    EXPECT_FALSE(text::canonicallyEqual("cafe", kCafeDecomposed));
}

TEST(ReplaceWords, InvalidUtf8IsLeftAloneWithALogLine) {
    platform::test::RecordingLogSink log;
    const std::string broken = "teh \xFF\xFE";
    EXPECT_EQ(replaceWords(broken, "teh", "the"), broken);
    EXPECT_TRUE(log.containsPrefix("replaceWords() - "));
}

TEST_F(StoredRules, RulesApplyInStoreOrderEachOnTheResultOfTheOneBefore) {
    addRule("alpha", "beta");
    addRule("beta", "gamma");
    EXPECT_EQ(applySubstitutions(context(), "alpha beta"), "gamma gamma");

    addRule("gamma", "alpha");
    EXPECT_EQ(applySubstitutions(context(), "alpha"), "alpha");
}

TEST_F(StoredRules, StoredInputIsLowerCasedTheExtraRuleIsNot) {
    addRule("GONNA", "going to");
    EXPECT_EQ(applySubstitutions(context(), "gonna Gonna"), "going to Going To");
    // The extra rule comes last and matches case-insensitively even when typed with capitals.
    EXPECT_EQ(applySubstitutions(context(), "gonna wanna", std::string("WANNA"), "want to"), "going to want to");
    // Without stored rules the extra rule still applies.
    for (auto& r : context().fetchAll<store::Substitution>()) context().deleteObject(r);
    context().save();
    EXPECT_EQ(applySubstitutions(context(), "Wanna", std::string("wanna"), "want to"), "Want To");
    EXPECT_EQ(applySubstitutions(context(), "wanna"), "wanna");
}

TEST_F(StoredRules, NilAndBlankRowsAreHarmless) {
    addRule(std::nullopt, std::nullopt, true);
    addRule("teh", std::nullopt);
    EXPECT_EQ(applySubstitutions(context(), "teh cat, teh"), " cat, ");
}

TEST_F(StoredRules, TheSessionInterfaceReadsTheRulesAfresh) {
    StoreSubstitutionHelpers helpers([this]() -> store::ManagedObjectContext& { return context(); });
    SubstitutionHelpers& session = helpers;
    EXPECT_EQ(session.applySubstitutions("teh"), "teh");
    addRule("teh", "the");
    EXPECT_EQ(session.applySubstitutions("Teh"), "The");
}

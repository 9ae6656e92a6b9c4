// applySubstitutions over a full rule table: every rule is compiled and run for each text, as in a dictation.
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "BenchDoubles.h"
#include "base/Log.h"
#include "store/Persistence.h"
#include "text/SubstitutionHelpers.h"

using namespace sprelio;

namespace {

using sprelio::bench::QuietSink;

std::string word(std::mt19937& rng) {
    static const char* letters = "abcdefghijklmnopqrstuvwxyz";
    std::uniform_int_distribution<int> length(2, 9), letter(0, 25);
    std::string w;
    for (int i = length(rng); i > 0; --i) w += letters[letter(rng)];
    return w;
}

void BM_ApplySubstitutions(benchmark::State& state) {
    QuietSink sink;
    setLogSink(&sink);
    const auto ruleCount = static_cast<int>(state.range(0));
    const auto wordCount = static_cast<int>(state.range(1));
    store::PersistentContainer container("Persistence", store::PersistentContainer::kInMemoryStoreFile);
    if (container.loadPersistentStores()) {
        state.SkipWithError("store did not open");
        return;
    }
    auto& context = container.viewContext();
    std::mt19937 rng(7);
    std::vector<std::string> vocabulary;
    for (int i = 0; i < ruleCount; ++i) {
        auto rule = context.insertNew<store::Substitution>();
        std::string input = word(rng);
        vocabulary.push_back(input);
        rule->setInput(input);
        rule->setOutput(word(rng) + " " + word(rng));
        rule->setTimestamp(1.0);
    }
    context.save();
    // One word in ten is a rule's input, with some capitals and punctuation, like dictated prose.
    std::string text;
    std::uniform_int_distribution<int> pick(0, 9);
    std::uniform_int_distribution<std::size_t> ruleWord(0, vocabulary.size() - 1);
    for (int i = 0; i < wordCount; ++i) {
        std::string w = pick(rng) == 0 ? vocabulary[ruleWord(rng)] : word(rng);
        if (i % 12 == 0) w[0] = static_cast<char>(w[0] - 'a' + 'A');
        text += w;
        text += (i % 15 == 14) ? ". " : " ";
    }
    for (auto _ : state) benchmark::DoNotOptimize(applySubstitutions(context, text));
    state.counters["rules"] = ruleCount;
    state.counters["words"] = wordCount;
    setLogSink(nullptr);
}

} // namespace

BENCHMARK(BM_ApplySubstitutions)->Args({500, 2000})->Args({10, 200})->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();

// The substitution engine with hostile rules: huge ones, ones that look like regular expressions, Unicode edge
// cases (invalid UTF-8, lone combining marks, case mappings that change the length, private use, NUL). The first
// part is the dictated text; the others are rules "<input>=><output>", applied from the store as the session does
// and one of them through the test box.
#include <cstddef>
#include <cstdint>

#include "FuzzSupport.h"
#include "store/Entities.h"
#include "store/Persistence.h"
#include "text/SubstitutionHelpers.h"

using namespace sprelio;

namespace {

store::PersistentContainer& container() {
    static store::PersistentContainer* instance = [] {
        auto* c = new store::PersistentContainer{"Persistence", store::PersistentContainer::kInMemoryStoreFile};
        if (c->loadPersistentStores()) std::abort();
        return c;
    }();
    return *instance;
}

std::pair<std::string, std::string> rule(const std::string& part) {
    const std::size_t arrow = part.find("=>");
    if (arrow == std::string::npos) return {part, std::string()};
    return {part.substr(0, arrow), part.substr(arrow + 2)};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto parts = fuzz::splitParts(data, size);
    const std::string text = parts.front();

    auto& context = container().viewContext();
    for (const auto& old : cdGetSubstitutions(context)) context.deleteObject(old);
    context.save();
    std::string chained = text;
    for (std::size_t i = 1; i < parts.size() && i < 16; ++i) {
        auto [from, to] = rule(parts[i]);
        chained = replaceWords(chained, from, to);
        auto row = context.insertNew<store::Substitution>();
        row->setInput(from);
        row->setOutput(to);
        row->setIsBlankNew(i == 1 && from.empty());
        row->setTimestamp(static_cast<double>(i));
    }
    // The store refuses what its validation refuses (text that is not UTF-8, ...), as it does for the editor.
    try {
        context.save();
    } catch (const store::StoreError&) {
        context.rollback();
    }

    const auto extra = parts.size() > 1 ? rule(parts.back()) : std::pair<std::string, std::string>{};
    (void)applySubstitutions(context, text);
    (void)applySubstitutions(context, text, extra.first, extra.second);
    return 0;
}

#pragma once
// The user's substitution rules, applied to a text on the main loop before it is delivered.
//
// A rule rewrites whole words, case-insensitively, and the case of what was spoken decides the case of what is
// written: the stored output only supplies the letters.
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "store/Entities.h"
#include "store/ManagedObjectContext.h"

namespace sprelio {

class SubstitutionHelpers {
public:
    virtual ~SubstitutionHelpers() = default;
    virtual std::string applySubstitutions(const std::string& text) = 0;
};

// All Substitution records, the blank row included; sorted only when `sortDescriptors` is given. A failed fetch
// logs "cdGetSubstitutions() - error while fetching existing substitutions: <error>" and returns no rows.
std::vector<std::shared_ptr<store::Substitution>>
cdGetSubstitutions(store::ManagedObjectContext& context,
                   std::optional<std::vector<store::SortDescriptor>> sortDescriptors = std::nullopt);

// One rule over a text: every whole-word occurrence of `from` (case-insensitive; followed by white space,
// punctuation, a symbol or the end) becomes `to` in the letter case of the occurrence.
std::string replaceWords(const std::string& text, const std::string& from, const std::string& to);

// Every stored rule in the store's order, each on the result of the one before (the input lower-cased), then the
// extra rule of the test box, if any, with its input as typed. Text that is not valid UTF-8 is returned unchanged.
std::string applySubstitutions(store::ManagedObjectContext& context, const std::string& text,
                               const std::optional<std::string>& extraInput = std::nullopt,
                               const std::string& extraOutput = "");

// The rules of the shared store's view context, read afresh for every text so that an edit counts at once.
class StoreSubstitutionHelpers final : public SubstitutionHelpers {
public:
    // Without a context provider the view context of PersistenceController::shared() is used.
    explicit StoreSubstitutionHelpers(std::function<store::ManagedObjectContext&()> contextProvider = {});
    std::string applySubstitutions(const std::string& text) override;
    std::string applySubstitutions(const std::string& text, const std::optional<std::string>& extraInput,
                                   const std::string& extraOutput);

private:
    std::function<store::ManagedObjectContext&()> contextProvider_;
};

} // namespace sprelio

#pragma once
// The user's substitution rules, applied to a text on the main loop before it is delivered.
#include <string>

namespace sprelio {

class SubstitutionHelpers {
public:
    virtual ~SubstitutionHelpers() = default;
    virtual std::string applySubstitutions(const std::string& text) = 0;
};

} // namespace sprelio

#include "base/Error.h"

namespace sprelio {

std::string Error::debugDescription() const {
    std::string s = "Error Domain=" + domain + " Code=" + std::to_string(code) + " \"" + localizedDescription + "\"";
    if (!userInfo.empty()) {
        s += " UserInfo={";
        bool first = true;
        for (const auto& [k, v] : userInfo) {
            if (!first) s += ", ";
            first = false;
            s += k + "=" + v;
        }
        s += "}";
    }
    return s;
}

} // namespace sprelio

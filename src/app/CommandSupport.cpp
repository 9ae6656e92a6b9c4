#include "app/CommandSupport.h"

#include <ostream>

namespace sprelio::app {

int fail(std::ostream& err, const std::string& message, int code) {
    err << "sprelio: " << message << "\n";
    return code;
}

std::string joined(const std::vector<std::string>& items, const std::string& separator) {
    std::string text;
    for (const auto& item : items) text += (text.empty() ? "" : separator) + item;
    return text;
}

} // namespace sprelio::app

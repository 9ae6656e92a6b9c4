#include "platform/FrontmostApp.h"

namespace sprelio::platform {

std::string RunningApplication::description() const {
    return "<" + (bundleIdentifier.empty() ? std::string("?") : bundleIdentifier) + " pid=" +
           std::to_string(processIdentifier) + " name=" + localizedName.value_or("unknown") + ">";
}

} // namespace sprelio::platform

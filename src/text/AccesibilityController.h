#pragma once
// Delivery of text to the application that was in front at key down.
#include <optional>
#include <string>
#include <sys/types.h>

namespace sprelio {

class AccesibilityController {
public:
    virtual ~AccesibilityController() = default;
    virtual void injectTextViaPaste(const std::string& text, std::optional<pid_t> pid) = 0;
};

} // namespace sprelio

#pragma once
// The window that shows an AI result instead of pasting it.
#include <string>

namespace sprelio {

class ResultsWindow {
public:
    virtual ~ResultsWindow() = default;
    virtual void showCompletion(const std::string& text) = 0;
};

} // namespace sprelio

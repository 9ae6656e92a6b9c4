#include "platform/test/FakeSyntheticKeyboard.h"

#include <cstdio>

namespace sprelio::platform::test {

void FakeSyntheticKeyboard::postKeyEvents(std::vector<SyntheticKeyEvent> events) {
    for (const auto& event : events) {
        char flags[32];
        std::snprintf(flags, sizeof flags, "%#llx", static_cast<unsigned long long>(event.flags));
        log_.push_back(std::string(event.down ? "down:" : "up:") + std::to_string(event.keyCode) + ":" + flags);
    }
    batches_.push_back(events);
    if (onKeyEvents) onKeyEvents(events);
}

void FakeSyntheticKeyboard::typeText(std::string text) { log_.push_back("type:" + text); }

} // namespace sprelio::platform::test

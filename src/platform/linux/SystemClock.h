#pragma once
#include "platform/Clock.h"

namespace sprelio::platform {

class SystemClock final : public Clock {
public:
    std::chrono::system_clock::time_point now() const override { return std::chrono::system_clock::now(); }
    std::chrono::steady_clock::time_point steadyNow() const override { return std::chrono::steady_clock::now(); }
};

} // namespace sprelio::platform

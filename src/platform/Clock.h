#pragma once
#include <chrono>

namespace sprelio::platform {

// Dates come from the wall clock, durations from the steady clock; tests replace both with virtual time.
class Clock {
public:
    virtual ~Clock() = default;
    virtual std::chrono::system_clock::time_point now() const = 0;
    virtual std::chrono::steady_clock::time_point steadyNow() const = 0;
};

} // namespace sprelio::platform

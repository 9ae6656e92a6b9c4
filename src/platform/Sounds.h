#pragma once
#include <string>

namespace sprelio::platform {

// Named short sounds ("Basso", "Glass", "Pop", ...). Playing never blocks the caller.
class SoundPlayer {
public:
    virtual ~SoundPlayer() = default;
    virtual void play(const std::string& name) = 0;
};

} // namespace sprelio::platform

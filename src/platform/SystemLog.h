#pragma once
#include <string_view>

namespace sprelio::platform {

enum class SystemLogType { debug, info, error, fault };

// journald or syslog. Must be callable from any thread.
class SystemLog {
public:
    virtual ~SystemLog() = default;
    virtual void write(SystemLogType type, std::string_view text) = 0;
};

} // namespace sprelio::platform

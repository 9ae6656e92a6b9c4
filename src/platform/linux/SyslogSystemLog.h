#pragma once
// The system log over syslog(3). On systemd machines /dev/log belongs to journald, so lines land in the journal
// under the identifier "com.sprelio.app".
#include <string_view>

#include "platform/SystemLog.h"

namespace sprelio::platform {

class SyslogSystemLog final : public SystemLog {
public:
    static constexpr const char* kIdentifier = "com.sprelio.app";

    SyslogSystemLog();
    ~SyslogSystemLog() override;

    SyslogSystemLog(const SyslogSystemLog&) = delete;
    SyslogSystemLog& operator=(const SyslogSystemLog&) = delete;

    // glibc serialises syslog() internally, so any thread may call this.
    void write(SystemLogType type, std::string_view text) override;

    static int priority(SystemLogType type);
};

} // namespace sprelio::platform

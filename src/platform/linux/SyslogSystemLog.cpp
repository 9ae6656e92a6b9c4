#include "platform/linux/SyslogSystemLog.h"

#include <syslog.h>

#include <climits>

namespace sprelio::platform {

SyslogSystemLog::SyslogSystemLog() {
    // The identifier must stay valid for as long as the connection is open: a literal does.
    ::openlog(kIdentifier, LOG_PID | LOG_NDELAY, LOG_USER);
}

SyslogSystemLog::~SyslogSystemLog() { ::closelog(); }

int SyslogSystemLog::priority(SystemLogType type) {
    switch (type) {
    case SystemLogType::debug:
        return LOG_DEBUG;
    case SystemLogType::info:
        return LOG_INFO;
    case SystemLogType::error:
        return LOG_ERR;
    case SystemLogType::fault:
        return LOG_CRIT;
    }
    return LOG_ERR;
}

void SyslogSystemLog::write(SystemLogType type, std::string_view text) {
    // Lines end with a line feed of their own; the journal would keep it as part of the message.
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    const int length = text.size() > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<int>(text.size());
    // Never pass the text as the format: a '%' in a message must stay a '%'.
    ::syslog(LOG_USER | priority(type), "%.*s", length, text.data());
}

} // namespace sprelio::platform

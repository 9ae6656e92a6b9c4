#include "platform/linux/SyslogSystemLog.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <string>
#include <thread>
#include <vector>

namespace sprelio::platform {
namespace {

TEST(SyslogSystemLogTest, MapsEachTypeToItsPriority) {
    EXPECT_EQ(SyslogSystemLog::priority(SystemLogType::debug), LOG_DEBUG);
    EXPECT_EQ(SyslogSystemLog::priority(SystemLogType::info), LOG_INFO);
    EXPECT_EQ(SyslogSystemLog::priority(SystemLogType::error), LOG_ERR);
    EXPECT_EQ(SyslogSystemLog::priority(SystemLogType::fault), LOG_CRIT);
}

// Writes reach whatever listens on /dev/log, or nothing when no one does; either way the caller goes on.
TEST(SyslogSystemLogTest, AcceptsTextWithFormatCharactersFromManyThreads) {
    SyslogSystemLog log;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&log, t] {
            for (int i = 0; i < 50; ++i) {
                log.write(static_cast<SystemLogType>(i % 4),
                          "SyslogSystemLogTest - %s %n %d stays literal " + std::to_string(t) + "\n");
            }
        });
    }
    for (auto& thread : threads) thread.join();
    log.write(SystemLogType::info, std::string_view("not terminated here", 3));
    log.write(SystemLogType::info, "");
    SUCCEED();
}

} // namespace
} // namespace sprelio::platform

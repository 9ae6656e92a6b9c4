#pragma once
// The diagnostic log of the application: every line goes to the system log and to "app_log.txt" in the logs
// folder, flushed to disk line by line so that a crash loses nothing already logged. Callers only enqueue;
// one writer thread owned by the instance does all file work, one block at a time, in order of arrival.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "base/Log.h"
#include "base/LogLevel.h"
#include "platform/Clock.h"
#include "platform/SystemLog.h"

namespace sprelio {

// Which system-log type carries a line of this level.
platform::SystemLogType systemLogType(LogLevel level);

// "yyyy-MM-dd HH:mm:ss.SSS" in local time, then the microseconds of the second modulo 1000 as three digits.
std::string formatLogTimestamp(std::chrono::system_clock::time_point time);
// "yyyy-MM-dd_HH-mm-ss" in local time, as used in the names of rotated files.
std::string formatRotationDate(std::chrono::system_clock::time_point time);

// The contents of "process_details.txt": every process in /proc that has a name and a command line (no
// kernel threads).
std::string processDetailsText();
// The contents of "os_details.txt": distribution, kernel, host, memory, processors, architecture.
std::string osDetailsText();

class LogManager final : public LogSink {
public:
    static constexpr std::uint64_t kMaxLogFileSize = 5'000'000;
    static constexpr std::size_t kShortLogCharacters = 15'000;
    static constexpr const char* kLogFileName = "app_log.txt";
    static constexpr const char* kShortLogFileName = "short_log.txt";
    static constexpr const char* kZipFileName = "SPR_logs.zip";

    // Starts the writer thread and, on it, the set-up of the log file. `systemLog` and `clock` must outlive
    // the instance; both are used from the writer thread and from callers' threads.
    LogManager(platform::SystemLog& systemLog, const platform::Clock& clock, std::filesystem::path logsFolder);
    // Writes everything still queued, then stops the writer and closes the file.
    ~LogManager() override;

    LogManager(const LogManager&) = delete;
    LogManager& operator=(const LogManager&) = delete;

    // Stamps the time now, on the caller's thread, enqueues and returns. Lines reach the file in the order
    // of these calls.
    void log(LogLevel level, std::string message) override;

    // Blocks until everything enqueued before the call has been done, including the rotation and the
    // set-up that a line may have set off. For tests, shutdown and measurements; never for ordinary logging.
    void flush() override;

    // Each of these enqueues its work on the writer thread and returns at once.
    void setupLogFile();
    void rotateLogFiles();
    void maintainLogFileSize(std::uint64_t maximumBytes);

    // The last `characters` characters (Unicode code points) of the log, written to "short_log.txt" beside
    // it. Runs on the caller's thread while lines may still be appended.
    std::optional<std::filesystem::path> getShortLog(std::size_t characters);
    // "SPR_logs.zip" beside the log with the short log, the log, the running processes and the machine.
    std::optional<std::filesystem::path> getLogZip();

    // The current file once the set-up has named it.
    std::optional<std::filesystem::path> logFileURL() const;
    const std::filesystem::path& logsFolder() const { return logsFolder_; }

private:
    struct Item {
        LogLevel level = LogLevel::info;
        bool followUp = false;
        std::uint64_t generation = 0;
        std::chrono::system_clock::time_point time;
        std::string message;
        std::function<void()> task; // empty for a line
    };

    void enqueueTask(std::function<void()> task);
    // From the writer thread: work that the block being run sets off; a flush waits for it as well.
    void enqueueFollowUp(std::function<void()> task);
    void writerLoop();
    void run(Item& item);

    // Writer thread only.
    void writeLine(const Item& item);
    void setupLogFileNow();
    void rotateLogFilesNow();
    void maintainLogFileSizeNow(std::uint64_t maximumBytes);
    void replaceHandle(int fd);
    const std::string& timestampPrefix(std::chrono::system_clock::time_point time);

    void setLogFileURL(std::filesystem::path path);
    void writeSystemLog(platform::SystemLogType type, std::string_view text) { systemLog_.write(type, text); }

    platform::SystemLog& systemLog_;
    const platform::Clock& clock_;
    const std::filesystem::path logsFolder_;

    mutable std::mutex urlMutex_;
    std::optional<std::filesystem::path> logFileURL_;

    // Writer thread only.
    int fd_ = -1;
    std::uint64_t currentGeneration_ = 0;
    bool rotationUnderWay_ = false; // from the size check's request until the new file is set up
    std::int64_t cachedSecond_ = INT64_MIN;
    std::string cachedSecondText_;
    std::string lineBuffer_;

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable done_;
    std::deque<Item> queue_;
    std::uint64_t enqueued_ = 0;
    std::uint64_t completed_ = 0;
    std::multiset<std::uint64_t> pendingFollowUps_;
    bool writerWaiting_ = false;
    int flushWaiters_ = 0;
    bool stopping_ = false;
    std::thread writer_;
};

} // namespace sprelio

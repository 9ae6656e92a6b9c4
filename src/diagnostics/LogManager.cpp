#include "diagnostics/LogManager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <vector>

#include "base/Utf8.h"
#include "diagnostics/ZipArchive.h"

namespace sprelio {

namespace fs = std::filesystem;
using platform::SystemLogType;

namespace {

std::string describe(const std::string& what, const fs::path& path, const std::error_code& ec) {
    return what + " \"" + path.string() + "\": " + ec.message();
}

std::string describeErrno(const std::string& what, const fs::path& path, int error) {
    return describe(what, path, std::error_code(error, std::generic_category()));
}

// The file must stay readable as UTF-8, so bytes that are not UTF-8 become U+FFFD.
void appendSanitizedUtf8(std::string& out, std::string_view s) {
    std::size_t i = 0;
    while (i < s.size()) {
        const std::size_t len = utf8SequenceLength(s, i);
        if (len == 0) {
            out += "\xEF\xBF\xBD";
            ++i;
        } else {
            out.append(s.substr(i, len));
            i += len;
        }
    }
}

// Byte offset where the last `count` code points of valid UTF-8 text begin.
std::size_t offsetOfLastCodePoints(std::string_view s, std::size_t count) {
    if (count == 0) return s.size();
    std::size_t seen = 0;
    for (std::size_t i = s.size(); i > 0; --i) {
        if ((static_cast<unsigned char>(s[i - 1]) & 0xC0) != 0x80 && ++seen == count) return i - 1;
    }
    return 0;
}

std::tm localTime(std::time_t seconds) {
    std::tm tm{};
    localtime_r(&seconds, &tm);
    return tm;
}

std::optional<std::string> readWholeFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream buffer;
    buffer << in.rdbuf();
    if (in.bad()) return std::nullopt;
    return std::move(buffer).str();
}

std::string trimmed(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ')) s.pop_back();
    return s;
}

// Writes beside the target and renames, so readers see either the old file or the whole new one.
bool writeFileAtomically(const fs::path& path, std::string_view data, std::string& error) {
    std::string pattern = (path.parent_path() / ("." + path.filename().string() + ".XXXXXX")).string();
    const int fd = mkstemp(pattern.data());
    if (fd < 0) {
        error = describeErrno("cannot create a temporary file for", path, errno);
        return false;
    }
    std::size_t written = 0;
    while (written < data.size()) {
        const ssize_t n = ::write(fd, data.data() + written, data.size() - written);
        if (n < 0) {
            if (errno == EINTR) continue;
            error = describeErrno("cannot write", path, errno);
            ::close(fd);
            ::unlink(pattern.c_str());
            return false;
        }
        written += static_cast<std::size_t>(n);
    }
    ::fchmod(fd, 0644);
    ::close(fd);
    if (::rename(pattern.c_str(), path.c_str()) != 0) {
        error = describeErrno("cannot rename a temporary file to", path, errno);
        ::unlink(pattern.c_str());
        return false;
    }
    return true;
}

bool writeFile(const fs::path& path, std::string_view data, std::string& error) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) {
        error = describeErrno("cannot open", path, errno);
        return false;
    }
    out.write(data.data(), static_cast<std::streamsize>(data.size()));
    out.close();
    if (!out) {
        error = describeErrno("cannot write", path, errno);
        return false;
    }
    return true;
}

std::string osReleasePrettyName() {
    for (const char* file : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::ifstream in(file);
        if (!in) continue;
        std::string line;
        while (std::getline(in, line)) {
            if (!line.starts_with("PRETTY_NAME=")) continue;
            std::string value = trimmed(line.substr(12));
            if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
                value = value.substr(1, value.size() - 2);
            }
            std::string unescaped;
            for (std::size_t i = 0; i < value.size(); ++i) {
                if (value[i] == '\\' && i + 1 < value.size()) ++i;
                unescaped += value[i];
            }
            return unescaped;
        }
    }
    return "Linux";
}

std::uint64_t physicalMemoryBytes() {
    std::ifstream in("/proc/meminfo");
    std::string key;
    std::uint64_t value = 0;
    std::string unit;
    while (in >> key >> value) {
        std::getline(in, unit);
        if (key == "MemTotal:") return value * 1024; // reported in kB
    }
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long pageSize = sysconf(_SC_PAGESIZE);
    if (pages > 0 && pageSize > 0) return static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(pageSize);
    return 0;
}

} // namespace

SystemLogType systemLogType(LogLevel level) {
    switch (level) {
    case LogLevel::debug:
        return SystemLogType::debug;
    case LogLevel::info:
        return SystemLogType::info;
    case LogLevel::warning:
    case LogLevel::error:
        return SystemLogType::error;
    case LogLevel::critical:
        return SystemLogType::fault;
    }
    return SystemLogType::error;
}

namespace {

struct SplitTime {
    std::int64_t seconds;
    int microseconds; // of the second, 0..999999
};

SplitTime splitTime(std::chrono::system_clock::time_point time) {
    using namespace std::chrono;
    const auto us = floor<microseconds>(time.time_since_epoch());
    const auto s = floor<seconds>(us);
    return {s.count(), static_cast<int>((us - s).count())};
}

std::string formatSecond(std::int64_t seconds) {
    const std::tm tm = localTime(static_cast<std::time_t>(seconds));
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d %02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buffer;
}

std::string formatFraction(int microseconds) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, ".%03d%03d", microseconds / 1000, microseconds % 1000);
    return buffer;
}

} // namespace

std::string formatLogTimestamp(std::chrono::system_clock::time_point time) {
    const SplitTime split = splitTime(time);
    return formatSecond(split.seconds) + formatFraction(split.microseconds);
}

std::string formatRotationDate(std::chrono::system_clock::time_point time) {
    const std::tm tm = localTime(std::chrono::system_clock::to_time_t(time));
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d_%02d-%02d-%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buffer;
}

std::string processDetailsText() {
    std::vector<long> pids;
    std::error_code ec;
    for (fs::directory_iterator it("/proc", ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (name.empty() || !std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; })) {
            continue;
        }
        pids.push_back(std::stol(name));
    }
    std::sort(pids.begin(), pids.end());

    std::string text = "Running Applications:\n\n";
    for (long pid : pids) {
        const fs::path dir = fs::path("/proc") / std::to_string(pid);
        // Kernel threads and zombies have no command line; they are not applications anyone runs.
        std::ifstream cmdline(dir / "cmdline", std::ios::binary);
        if (!cmdline || cmdline.peek() == std::char_traits<char>::eof()) continue;
        std::ifstream commFile(dir / "comm");
        std::string comm;
        if (!commFile || !std::getline(commFile, comm)) continue; // gone meanwhile
        comm = trimmed(comm);
        if (comm.empty()) continue;
        std::error_code exeError;
        fs::path exe = fs::read_symlink(dir / "exe", exeError);
        const std::string identifier = exeError || exe.empty() ? comm : exe.string();
        text += comm + "\nBundle ID: " + identifier + "\n" + "PID: " + std::to_string(pid) + "\n\n";
    }
    return text;
}

std::string osDetailsText() {
    utsname uts{};
    const bool haveUname = ::uname(&uts) == 0;
    const std::string release = haveUname ? uts.release : "";
    const std::string machine = haveUname ? uts.machine : "";
    std::string host = haveUname ? uts.nodename : "";
    char hostBuffer[256] = {};
    if (host.empty() && ::gethostname(hostBuffer, sizeof hostBuffer - 1) == 0) host = hostBuffer;

    const long configured = sysconf(_SC_NPROCESSORS_CONF);
    const long online = sysconf(_SC_NPROCESSORS_ONLN);

    std::string text = "---- Linux System Details ----\nOS Name: Linux\n";
    text += "OS Version: " + osReleasePrettyName() + (release.empty() ? "" : " " + release) + "\n";
    text += "Host Name: " + host + "\n";
    text += "Physical Memory: " + std::to_string(physicalMemoryBytes() >> 20) + " MB\n";
    text += "Processor Count: " + std::to_string(configured > 0 ? configured : 0) + "\n";
    text += "Active Process Count: " + std::to_string(online > 0 ? online : 0) + "\n";
    text += "Architecture: " + machine + "\n";
    return text;
}

LogManager::LogManager(platform::SystemLog& systemLog, const platform::Clock& clock, fs::path logsFolder)
    : systemLog_(systemLog), clock_(clock), logsFolder_(std::move(logsFolder)) {
    writer_ = std::thread([this] { writerLoop(); });
    setupLogFile();
}

LogManager::~LogManager() {
    if (logSink() == this) setLogSink(nullptr);
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    writer_.join();
    if (fd_ >= 0) ::close(fd_);
}

void LogManager::log(LogLevel level, std::string message) {
    std::unique_lock lock(mutex_);
    // Stamped under the lock: the file's order is the order of the stamps.
    queue_.push_back(Item{level, false, ++enqueued_, clock_.now(), std::move(message), {}});
    const bool wake = writerWaiting_;
    lock.unlock();
    if (wake) wake_.notify_one();
}

void LogManager::enqueueTask(std::function<void()> task) {
    std::unique_lock lock(mutex_);
    queue_.push_back(Item{LogLevel::info, false, ++enqueued_, {}, {}, std::move(task)});
    const bool wake = writerWaiting_;
    lock.unlock();
    if (wake) wake_.notify_one();
}

void LogManager::enqueueFollowUp(std::function<void()> task) {
    // Only the writer enqueues follow-ups, so it is awake and needs no notification.
    std::lock_guard lock(mutex_);
    pendingFollowUps_.insert(currentGeneration_);
    queue_.push_back(Item{LogLevel::info, true, currentGeneration_, {}, {}, std::move(task)});
}

void LogManager::flush() {
    std::unique_lock lock(mutex_);
    const std::uint64_t target = enqueued_;
    ++flushWaiters_;
    done_.wait(lock, [&] {
        return completed_ >= target && (pendingFollowUps_.empty() || *pendingFollowUps_.begin() > target);
    });
    --flushWaiters_;
}

void LogManager::setupLogFile() {
    enqueueTask([this] { setupLogFileNow(); });
}

void LogManager::rotateLogFiles() {
    enqueueTask([this] { rotateLogFilesNow(); });
}

void LogManager::maintainLogFileSize(std::uint64_t maximumBytes) {
    enqueueTask([this, maximumBytes] { maintainLogFileSizeNow(maximumBytes); });
}

void LogManager::writerLoop() {
    std::deque<Item> batch;
    std::vector<std::uint64_t> finishedFollowUps;
    for (;;) {
        {
            std::unique_lock lock(mutex_);
            while (queue_.empty() && !stopping_) {
                writerWaiting_ = true;
                wake_.wait(lock);
                writerWaiting_ = false;
            }
            if (queue_.empty()) return; // stopping, and everything is written
            batch.swap(queue_);
        }
        std::uint64_t lastCompleted = 0;
        finishedFollowUps.clear();
        for (Item& item : batch) {
            currentGeneration_ = item.generation;
            run(item);
            if (item.followUp) {
                finishedFollowUps.push_back(item.generation);
            } else {
                lastCompleted = item.generation;
            }
        }
        batch.clear();
        bool notify;
        {
            std::lock_guard lock(mutex_);
            if (lastCompleted != 0) completed_ = lastCompleted;
            for (std::uint64_t generation : finishedFollowUps) {
                pendingFollowUps_.erase(pendingFollowUps_.find(generation));
            }
            notify = flushWaiters_ > 0;
        }
        if (notify) done_.notify_all();
    }
}

void LogManager::run(Item& item) {
    try {
        if (item.task) {
            item.task();
        } else {
            writeLine(item);
        }
    } catch (const std::exception& e) {
        // The writer must survive whatever one block does; the block is lost, the log goes on.
        writeSystemLog(SystemLogType::error, std::string("LogManager - writer block failed: ") + e.what());
    }
}

void LogManager::replaceHandle(int fd) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
}

void LogManager::setLogFileURL(fs::path path) {
    std::lock_guard lock(urlMutex_);
    logFileURL_ = std::move(path);
}

std::optional<fs::path> LogManager::logFileURL() const {
    std::lock_guard lock(urlMutex_);
    return logFileURL_;
}

void LogManager::setupLogFileNow() {
    rotationUnderWay_ = false;
    const fs::path file = logsFolder_ / kLogFileName;
    setLogFileURL(file);
    writeSystemLog(SystemLogType::info, "setupLogFile() - Log file URL: " + file.string());

    std::error_code ec;
    if (!fs::exists(logsFolder_, ec)) {
        if (fs::create_directories(logsFolder_, ec) || (!ec && fs::is_directory(logsFolder_))) {
            writeSystemLog(SystemLogType::info, "LogManager.setupLogFile() - Log folder created at: " + logsFolder_.string());
        } else {
            writeSystemLog(SystemLogType::error, "LogManager.setupLogFile() - Failed to create log folder: " +
                                                     describe("cannot create folder", logsFolder_, ec));
        }
    }

    if (!fs::exists(file, ec)) {
        const int created = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (created >= 0) {
            ::close(created);
            writeSystemLog(SystemLogType::info, "LogManager.setupLogFile() - Log file created at: " + file.string());
        }
    }

    // O_APPEND puts every write at the end of the file, whoever else has written to it meanwhile.
    const int fd = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0) {
        writeSystemLog(SystemLogType::error, "LogManager.setupLogFile() - Failed to open file handle: " +
                                                 describeErrno("cannot open", file, errno));
        return;
    }
    replaceHandle(fd);
}

const std::string& LogManager::timestampPrefix(std::chrono::system_clock::time_point time) {
    const SplitTime split = splitTime(time);
    if (split.seconds != cachedSecond_) {
        cachedSecond_ = split.seconds;
        cachedSecondText_ = formatSecond(split.seconds);
    }
    return cachedSecondText_;
}

void LogManager::writeLine(const Item& item) {
    const std::optional<fs::path> url = logFileURL();
    if (fd_ < 0 && url) {
        const int fd = ::open(url->c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
        if (fd >= 0) {
            replaceHandle(fd);
            writeSystemLog(SystemLogType::info, "LogManager.log(level:) - Reopened file handle on demand.");
        } else {
            writeSystemLog(SystemLogType::error, "LogManager.log(level:) - Failed to reopen file handle: " +
                                                     describeErrno("cannot open", *url, errno));
        }
    }

    std::string& line = lineBuffer_;
    line.clear();
    line += timestampPrefix(item.time);
    line += formatFraction(splitTime(item.time).microseconds);
    line += " [";
    line += logLevelWord(item.level);
    line += "]: ";
    if (isValidUtf8(item.message)) {
        line += item.message;
    } else {
        appendSanitizedUtf8(line, item.message);
    }
    line += '\n';

    writeSystemLog(systemLogType(item.level), line);

    if (fd_ >= 0) {
        std::size_t written = 0;
        while (written < line.size()) {
            const ssize_t n = ::write(fd_, line.data() + written, line.size() - written);
            if (n < 0) {
                if (errno == EINTR) continue;
                writeSystemLog(SystemLogType::error, "LogManager.log(level:) - failed to write to file: " +
                                                         describeErrno("cannot write", url.value_or(fs::path()), errno));
                break;
            }
            written += static_cast<std::size_t>(n);
        }
        // Data and the new size reach the disk before the next line; other metadata can wait.
        ::fdatasync(fd_);
    } else {
        writeSystemLog(SystemLogType::error, "LogManager.log(level:) - fileHandle was nil, skipping file write.");
    }

    maintainLogFileSizeNow(kMaxLogFileSize);
}

void LogManager::maintainLogFileSizeNow(std::uint64_t maximumBytes) {
    const std::optional<fs::path> url = logFileURL();
    if (!url) return;
    // Lines already queued behind a rotation would each ask for another one; the second, within the same
    // second, would replace the freshly rotated file with an almost empty one.
    if (rotationUnderWay_) return;
    struct stat st {};
    if (::stat(url->c_str(), &st) != 0) {
        writeSystemLog(SystemLogType::error, "LogManager.maintainLogFileSize() - error retrieving file attributes: " +
                                                 describeErrno("cannot read the attributes of", *url, errno));
        return;
    }
    if (maximumBytes < static_cast<std::uint64_t>(st.st_size)) {
        rotationUnderWay_ = true;
        enqueueFollowUp([this] { rotateLogFilesNow(); });
    }
}

void LogManager::rotateLogFilesNow() {
    const std::optional<fs::path> url = logFileURL();
    if (!url) {
        rotationUnderWay_ = false;
        return;
    }
    rotationUnderWay_ = true;
    const fs::path rotated = url->parent_path() / ("app_log_" + formatRotationDate(clock_.now()) + ".txt");
    std::error_code ec;
    if (fs::exists(rotated, ec)) {
        if (!fs::remove(rotated, ec) && ec) {
            writeSystemLog(SystemLogType::error, "LogManager.rotateLogFiles() - error rotating log files: " +
                                                     describe("cannot remove", rotated, ec));
            rotationUnderWay_ = false;
            return;
        }
    }
    if (::rename(url->c_str(), rotated.c_str()) != 0) {
        writeSystemLog(SystemLogType::error, "LogManager.rotateLogFiles() - error rotating log files: " +
                                                 describeErrno("cannot move", *url, errno));
        rotationUnderWay_ = false;
        return;
    }
    // Lines queued before the set-up still go to the moved file through the open handle.
    enqueueFollowUp([this] { setupLogFileNow(); });
}

std::optional<fs::path> LogManager::getShortLog(std::size_t characters) {
    const std::optional<fs::path> url = logFileURL();
    if (!url) return std::nullopt;
    const std::optional<std::string> text = readWholeFile(*url);
    if (!text || !isValidUtf8(*text)) return std::nullopt;

    const std::string_view tail = std::string_view(*text).substr(offsetOfLastCodePoints(*text, characters));
    const fs::path shortLog = url->parent_path() / kShortLogFileName;
    std::string error;
    if (!writeFileAtomically(shortLog, tail, error)) {
        writeSystemLog(SystemLogType::error, "LogManager.getShortLog() - failed to write short log: " + error);
        return std::nullopt;
    }
    return shortLog;
}

std::optional<fs::path> LogManager::getLogZip() {
    const std::optional<fs::path> url = logFileURL();
    if (!url) {
        writeSystemLog(SystemLogType::info, "LogManager.getLogZip() - logFileURL is nil");
        return std::nullopt;
    }
    const fs::path folder = url->parent_path();
    const fs::path zipFile = folder / kZipFileName;
    writeSystemLog(SystemLogType::info, "LogManager.getLogZip() - zipFileURL: " + zipFile.string());
    std::error_code ec;
    if (fs::exists(zipFile, ec)) {
        if (!fs::remove(zipFile, ec) && ec) {
            writeSystemLog(SystemLogType::info, "LogManager.getLogZip() - failed to remove existing zip file: " +
                                                    describe("cannot remove", zipFile, ec));
            return std::nullopt;
        }
    }

    const fs::path temporary = folder / zipFile.stem();
    if (fs::exists(temporary, ec)) fs::remove_all(temporary, ec);
    ec.clear();
    fs::create_directories(temporary, ec);
    if (ec || !fs::is_directory(temporary)) {
        writeSystemLog(SystemLogType::info, "LogManager.getLogZip() - failed to create temporary directory: " +
                                                describe("cannot create folder", temporary, ec));
        return std::nullopt;
    }

    if (const std::optional<fs::path> shortLog = getShortLog(kShortLogCharacters)) {
        fs::copy_file(*shortLog, temporary / kShortLogFileName, fs::copy_options::overwrite_existing, ec);
        if (ec) {
            writeSystemLog(SystemLogType::info, "LogManager.getLogZip() - failed to copy short log file: " +
                                                    describe("cannot copy", *shortLog, ec));
        }
    } else {
        writeSystemLog(SystemLogType::info, "LogManager.getLogZip() - failed to copy short log file: " +
                                                describe("no short log from", *url,
                                                         std::make_error_code(std::errc::no_such_file_or_directory)));
    }

    fs::copy_file(*url, temporary / url->filename(), fs::copy_options::overwrite_existing, ec);
    if (ec) {
        writeSystemLog(SystemLogType::info,
                       "LogManager.getLogZip() - failed to copy log file: " + describe("cannot copy", *url, ec));
        return std::nullopt;
    }

    std::string error;
    if (!writeFileAtomically(temporary / "process_details.txt", processDetailsText(), error)) {
        writeSystemLog(SystemLogType::info, "LogManager.getLogZip() - failed to write process details: " + error);
    }
    if (!writeFile(temporary / "os_details.txt", osDetailsText(), error)) {
        writeSystemLog(SystemLogType::info, "LogManager.getLogZip() - failed to write OS details: " + error);
    }

    const std::string zipError = "Zipping failed.";
    const bool zipped = zipFolderContents(temporary, zipFile);
    if (!zipped) {
        writeSystemLog(SystemLogType::info,
                       "LogManager.getLogZip() - error creating zip or process details file: " + zipError);
        return std::nullopt;
    }

    fs::remove_all(temporary, ec);
    if (ec) {
        writeSystemLog(SystemLogType::info, "LogManager.getLogZip() - error creating zip or process details file: " +
                                                describe("cannot remove", temporary, ec));
        return std::nullopt;
    }
    return zipFile;
}

} // namespace sprelio

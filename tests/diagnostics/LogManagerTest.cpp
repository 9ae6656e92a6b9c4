#include "diagnostics/LogManager.h"
#include "platform/test/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <zip.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <map>
#include <mutex>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

namespace sprelio {
namespace {

namespace fs = std::filesystem;
using platform::SystemLogType;
using namespace std::chrono_literals;

// Virtual wall time that any thread may read while the test moves it.
class ManualClock final : public platform::Clock {
public:
    // 2026-01-01 10:00:00.034005 UTC
    ManualClock() : nanos_(1'767'261'600'000'000'000LL + 34'005'000LL) {}
    std::chrono::system_clock::time_point now() const override {
        return std::chrono::system_clock::time_point{
            std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::nanoseconds(nanos_.load()))};
    }
    std::chrono::steady_clock::time_point steadyNow() const override {
        return std::chrono::steady_clock::time_point{
            std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::nanoseconds(nanos_.load()))};
    }
    void advance(std::chrono::nanoseconds by) { nanos_ += by.count(); }

private:
    std::atomic<std::int64_t> nanos_;
};

class RealClock final : public platform::Clock {
public:
    std::chrono::system_clock::time_point now() const override { return std::chrono::system_clock::now(); }
    std::chrono::steady_clock::time_point steadyNow() const override { return std::chrono::steady_clock::now(); }
};

class RecordingSystemLog final : public platform::SystemLog {
public:
    void write(SystemLogType type, std::string_view text) override {
        std::lock_guard lock(mutex_);
        lines_.emplace_back(type, std::string(text));
    }
    std::vector<std::pair<SystemLogType, std::string>> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    bool hasPrefix(const std::string& prefix, std::optional<SystemLogType> type = std::nullopt) const {
        std::lock_guard lock(mutex_);
        for (const auto& [t, text] : lines_) {
            if (text.starts_with(prefix) && (!type || *type == t)) return true;
        }
        return false;
    }
    std::size_t countPrefix(const std::string& prefix) const {
        std::lock_guard lock(mutex_);
        std::size_t n = 0;
        for (const auto& line : lines_) n += line.second.starts_with(prefix) ? 1 : 0;
        return n;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::pair<SystemLogType, std::string>> lines_;
};

using TempFolder = platform::test::TemporaryFolder;

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void writeFile(const fs::path& path, const std::string& data) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << data;
}

std::vector<std::string> physicalLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

// Independent of the code under test: strftime over the local time.
std::string localDate(std::chrono::system_clock::time_point time, const char* format) {
    const std::time_t t = std::chrono::system_clock::to_time_t(time);
    std::tm tm{};
    localtime_r(&t, &tm);
    char buffer[64];
    std::strftime(buffer, sizeof buffer, format, &tm);
    return buffer;
}

std::vector<fs::path> rotatedFiles(const fs::path& folder) {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(folder)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with("app_log_")) found.push_back(entry.path());
    }
    std::sort(found.begin(), found.end());
    return found;
}

const std::string kTimestamp = R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{6})";
constexpr std::size_t kTimestampLength = 26; // "yyyy-MM-dd HH:mm:ss.SSS" + three digits

class LogManagerTest : public ::testing::Test {
protected:
    fs::path logs() const { return temp_.path() / "Sprelio" / "logs"; }
    fs::path logFile() const { return logs() / "app_log.txt"; }
    std::unique_ptr<LogManager> make() { return std::make_unique<LogManager>(systemLog_, clock_, logs()); }

    TempFolder temp_;
    ManualClock clock_;
    RecordingSystemLog systemLog_;
};

// ---- Line format and the system log

TEST_F(LogManagerTest, WritesOneLineWithSixDecimalsAndTheLevelWord) {
    auto manager = make();
    manager->log(LogLevel::info, "HistoryManager started");
    manager->log(LogLevel::warning, "AudioUploadManager.uploadRecording() - retrying");
    manager->flush();

    const std::string text = readFile(logFile());
    const std::regex line("^" + kTimestamp + R"( \[INFO\]: HistoryManager started\n)" + kTimestamp +
                          R"( \[WARNING\]: AudioUploadManager\.uploadRecording\(\) - retrying\n$)");
    EXPECT_TRUE(std::regex_match(text, line)) << text;

    // The date is local time from the injected clock; the six decimals are milliseconds then microseconds.
    const std::string expected = localDate(clock_.now(), "%Y-%m-%d %H:%M:%S") + ".034005 [INFO]: HistoryManager started\n";
    EXPECT_TRUE(text.starts_with(expected)) << text;
}

TEST_F(LogManagerTest, TimestampSplitsMillisecondsAndMicrosecondsOfTheSecond) {
    using namespace std::chrono;
    const system_clock::time_point base{seconds{1'767'261'600}};
    const std::string day = localDate(base, "%Y-%m-%d %H:%M:%S");
    EXPECT_EQ(formatLogTimestamp(base), day + ".000000");
    EXPECT_EQ(formatLogTimestamp(base + microseconds{999'999}), day + ".999999");
    EXPECT_EQ(formatLogTimestamp(base + microseconds{1'001}), day + ".001001");
    // Below a microsecond is cut, never rounded up into the next second.
    EXPECT_EQ(formatLogTimestamp(base + nanoseconds{999'999'999}), day + ".999999");
    EXPECT_EQ(formatRotationDate(base + milliseconds{999}), localDate(base, "%Y-%m-%d_%H-%M-%S"));
}

TEST_F(LogManagerTest, EveryLevelHasItsWordAndSystemLogType) {
    auto manager = make();
    const std::vector<std::tuple<LogLevel, std::string, SystemLogType>> cases{
        {LogLevel::debug, "DEBUG", SystemLogType::debug},
        {LogLevel::info, "INFO", SystemLogType::info},
        {LogLevel::warning, "WARNING", SystemLogType::error},
        {LogLevel::error, "ERROR", SystemLogType::error},
        {LogLevel::critical, "CRITICAL", SystemLogType::fault},
    };
    for (const auto& [level, word, type] : cases) manager->log(level, "Test.levels() - " + word);
    manager->flush();

    const auto fileLines = physicalLines(readFile(logFile()));
    ASSERT_EQ(fileLines.size(), cases.size());
    std::vector<std::pair<SystemLogType, std::string>> sent;
    for (const auto& entry : systemLog_.lines()) {
        if (entry.second.find("Test.levels()") != std::string::npos) sent.push_back(entry);
    }
    ASSERT_EQ(sent.size(), cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto& [level, word, type] = cases[i];
        EXPECT_NE(fileLines[i].find(" [" + word + "]: Test.levels() - " + word), std::string::npos) << fileLines[i];
        // The system log gets the very line of the file.
        EXPECT_EQ(sent[i].second, fileLines[i] + "\n");
        EXPECT_EQ(sent[i].first, type) << word;
        EXPECT_EQ(systemLogType(level), type);
    }
}

TEST_F(LogManagerTest, SetUpReportsToTheSystemLogOnly) {
    auto manager = make();
    manager->flush();
    EXPECT_TRUE(systemLog_.hasPrefix("setupLogFile() - Log file URL: " + logFile().string()));
    EXPECT_TRUE(systemLog_.hasPrefix("LogManager.setupLogFile() - Log folder created at: " + logs().string()));
    EXPECT_TRUE(systemLog_.hasPrefix("LogManager.setupLogFile() - Log file created at: " + logFile().string()));
    EXPECT_TRUE(fs::exists(logFile()));
    EXPECT_EQ(fs::file_size(logFile()), 0u);
    EXPECT_EQ(manager->logFileURL(), logFile());

    // An existing file is appended to, and announced as neither created folder nor file.
    manager->log(LogLevel::info, "first run");
    manager.reset();
    RecordingSystemLog second;
    LogManager again(second, clock_, logs());
    again.log(LogLevel::info, "second run");
    again.flush();
    EXPECT_FALSE(second.hasPrefix("LogManager.setupLogFile() - Log folder created at:"));
    EXPECT_FALSE(second.hasPrefix("LogManager.setupLogFile() - Log file created at:"));
    const auto lines = physicalLines(readFile(logFile()));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].ends_with("first run"));
    EXPECT_TRUE(lines[1].ends_with("second run"));
}

TEST_F(LogManagerTest, MessageWithLineBreaksStaysAsItIs) {
    auto manager = make();
    manager->log(LogLevel::error, "Parser.parse() - bad body:\n{\n  \"error\": 1\n}\r\ntail\twith tab");
    manager->log(LogLevel::info, "100% done, %s %n %@ stay");
    manager->flush();
    const std::string text = readFile(logFile());
    EXPECT_TRUE(std::regex_search(text, std::regex("^" + kTimestamp + R"( \[ERROR\]: )")));
    EXPECT_NE(text.find("]: Parser.parse() - bad body:\n{\n  \"error\": 1\n}\r\ntail\twith tab\n"), std::string::npos);
    EXPECT_NE(text.find("[INFO]: 100% done, %s %n %@ stay\n"), std::string::npos);
}

TEST_F(LogManagerTest, BytesThatAreNotUtf8BecomeReplacementCharacters) {
    auto manager = make();
    manager->log(LogLevel::info, std::string("bad \xff\xfe and cut \xe2\x82 end \xc3\xa9"));
    manager->flush();
    const std::string text = readFile(logFile());
    EXPECT_NE(text.find("]: bad \xEF\xBF\xBD\xEF\xBF\xBD and cut \xEF\xBF\xBD\xEF\xBF\xBD end \xc3\xa9\n"),
              std::string::npos)
        << text;
    // The file stays readable as UTF-8, so the short log still works.
    EXPECT_TRUE(manager->getShortLog(100).has_value());
}

TEST_F(LogManagerTest, DestructorWritesEverythingStillQueued) {
    auto manager = make();
    for (int i = 0; i < 300; ++i) manager->log(LogLevel::debug, "line " + std::to_string(i));
    manager.reset();
    const auto lines = physicalLines(readFile(logFile()));
    ASSERT_EQ(lines.size(), 300u);
    EXPECT_TRUE(lines.back().ends_with("[DEBUG]: line 299"));
}

TEST_F(LogManagerTest, DestructorUninstallsItselfAsTheProcessSink) {
    auto manager = make();
    setLogSink(manager.get());
    sprelio::log(LogLevel::info, "through the facade");
    manager->flush();
    EXPECT_NE(readFile(logFile()).find("[INFO]: through the facade\n"), std::string::npos);
    manager.reset();
    EXPECT_EQ(logSink(), nullptr);
    sprelio::log(LogLevel::info, "dropped"); // no sink: must not crash
}

// ---- Handle failures

TEST_F(LogManagerTest, UnopenableFileGoesToTheSystemLogAndIsReopenedOnDemand) {
    // A folder in place of the file makes every open fail.
    fs::create_directories(logFile());
    auto manager = make();
    manager->log(LogLevel::info, "while broken");
    manager->flush();
    EXPECT_TRUE(systemLog_.hasPrefix("LogManager.setupLogFile() - Failed to open file handle: ", SystemLogType::error));
    EXPECT_TRUE(systemLog_.hasPrefix("LogManager.log(level:) - Failed to reopen file handle: ", SystemLogType::error));
    EXPECT_TRUE(systemLog_.hasPrefix("LogManager.log(level:) - fileHandle was nil, skipping file write.",
                                     SystemLogType::error));
    bool lineInSystemLog = false;
    for (const auto& [type, text] : systemLog_.lines()) lineInSystemLog |= text.ends_with("[INFO]: while broken\n");
    EXPECT_TRUE(lineInSystemLog);

    fs::remove(logFile());
    writeFile(logFile(), "");
    manager->log(LogLevel::info, "after repair");
    manager->flush();
    EXPECT_TRUE(systemLog_.hasPrefix("LogManager.log(level:) - Reopened file handle on demand.", SystemLogType::info));
    const auto lines = physicalLines(readFile(logFile()));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with("[INFO]: after repair"));
}

TEST_F(LogManagerTest, DeletedLogFolderKeepsWorkingOnTheUnlinkedFileAndNextStartMakesANewOne) {
    auto manager = make();
    manager->log(LogLevel::info, "before deletion");
    manager->flush();
    fs::remove_all(logs());

    manager->log(LogLevel::info, "after deletion");
    manager->log(LogLevel::error, "still accepted");
    manager->flush();
    EXPECT_FALSE(fs::exists(logs()));
    EXPECT_TRUE(systemLog_.hasPrefix("LogManager.maintainLogFileSize() - error retrieving file attributes: ",
                                     SystemLogType::error));

    // The open handle still points at the unlinked file, and the lines landed there.
    std::string unlinkedText;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code ec;
        const std::string target = fs::read_symlink(entry.path(), ec).string();
        if (!ec && target == logFile().string() + " (deleted)") unlinkedText = readFile(entry.path());
    }
    EXPECT_NE(unlinkedText.find("]: before deletion\n"), std::string::npos) << unlinkedText;
    EXPECT_NE(unlinkedText.find("]: after deletion\n"), std::string::npos);
    EXPECT_NE(unlinkedText.find("]: still accepted\n"), std::string::npos);

    EXPECT_EQ(manager->getShortLog(100), std::nullopt);
    EXPECT_EQ(manager->getLogZip(), std::nullopt);
    manager.reset();

    auto next = make();
    next->log(LogLevel::info, "next start");
    next->flush();
    const auto lines = physicalLines(readFile(logFile()));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with("]: next start"));
}

// ---- Rotation

TEST_F(LogManagerTest, FileOfExactlyTheMaximumStaysAndTheNextLineRotatesIt) {
    const std::string message = "Boundary.test() - fills the file to the byte";
    const std::size_t lineLength = kTimestampLength + std::string(" [INFO]: ").size() + message.size() + 1;
    fs::create_directories(logs());
    {
        std::string filler;
        const std::size_t fillerSize = LogManager::kMaxLogFileSize - lineLength;
        filler.reserve(fillerSize);
        while (filler.size() < fillerSize) {
            const std::size_t n = std::min<std::size_t>(99, fillerSize - filler.size() - 1);
            filler.append(n, 'x');
            filler += '\n';
        }
        ASSERT_EQ(filler.size(), fillerSize);
        writeFile(logFile(), filler);
    }

    auto manager = make();
    manager->log(LogLevel::info, message);
    manager->flush();
    EXPECT_EQ(fs::file_size(logFile()), 5'000'000u);
    EXPECT_TRUE(rotatedFiles(logs()).empty());

    clock_.advance(3s);
    const std::string rotatedName = "app_log_" + localDate(clock_.now(), "%Y-%m-%d_%H-%M-%S") + ".txt";
    manager->log(LogLevel::info, "one byte too many");
    manager->flush();

    const auto rotated = rotatedFiles(logs());
    ASSERT_EQ(rotated.size(), 1u);
    EXPECT_EQ(rotated[0].filename().string(), rotatedName);
    const std::string old = readFile(rotated[0]);
    EXPECT_GT(old.size(), 5'000'000u);
    EXPECT_TRUE(old.ends_with("]: one byte too many\n"));
    ASSERT_TRUE(fs::exists(logFile()));
    EXPECT_EQ(fs::file_size(logFile()), 0u);
    EXPECT_EQ(systemLog_.countPrefix("LogManager.setupLogFile() - Log file created at: "), 1u);

    manager->log(LogLevel::info, "into the fresh file");
    manager->flush();
    const auto lines = physicalLines(readFile(logFile()));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with("]: into the fresh file"));
    EXPECT_EQ(rotatedFiles(logs()).size(), 1u);
}

TEST_F(LogManagerTest, ABurstPastTheMaximumRotatesOnceAndLosesNothing) {
    fs::create_directories(logs());
    writeFile(logFile(), std::string(LogManager::kMaxLogFileSize - 10, 'x') + "\n");

    auto manager = make();
    // Many lines are queued behind the one that crosses the limit; each sees an oversized file.
    for (int i = 0; i < 200; ++i) manager->log(LogLevel::info, "burst " + std::to_string(i));
    manager->flush();

    const auto rotated = rotatedFiles(logs());
    ASSERT_EQ(rotated.size(), 1u);
    const std::string all = readFile(rotated[0]) + readFile(logFile());
    for (int i = 0; i < 200; ++i) {
        EXPECT_NE(all.find("]: burst " + std::to_string(i) + "\n"), std::string::npos) << i;
    }
    EXPECT_FALSE(systemLog_.hasPrefix("LogManager.rotateLogFiles() - error rotating log files: "));
}

TEST_F(LogManagerTest, RotationsWithinOneSecondReplaceAndOthersAreKept) {
    auto manager = make();
    manager->log(LogLevel::info, "first");
    manager->rotateLogFiles();
    manager->flush();
    manager->log(LogLevel::info, "second");
    manager->rotateLogFiles();
    manager->flush();

    auto rotated = rotatedFiles(logs());
    ASSERT_EQ(rotated.size(), 1u);
    const std::string content = readFile(rotated[0]);
    EXPECT_NE(content.find("]: second\n"), std::string::npos);
    EXPECT_EQ(content.find("]: first\n"), std::string::npos);
    EXPECT_EQ(fs::file_size(logFile()), 0u);

    clock_.advance(1s);
    manager->log(LogLevel::info, "third");
    manager->rotateLogFiles();
    manager->flush();
    rotated = rotatedFiles(logs());
    ASSERT_EQ(rotated.size(), 2u);
    EXPECT_NE(readFile(rotated[1]).find("]: third\n"), std::string::npos);
    EXPECT_FALSE(systemLog_.hasPrefix("LogManager.rotateLogFiles() - error rotating log files: "));
}

TEST_F(LogManagerTest, ExplicitSizeCheckRotatesOnlyAboveTheMaximum) {
    auto manager = make();
    manager->log(LogLevel::info, "0123456789");
    manager->flush();
    const auto size = fs::file_size(logFile());
    manager->maintainLogFileSize(size);
    manager->flush();
    EXPECT_TRUE(rotatedFiles(logs()).empty());
    manager->maintainLogFileSize(size - 1);
    manager->flush();
    EXPECT_EQ(rotatedFiles(logs()).size(), 1u);
    EXPECT_EQ(fs::file_size(logFile()), 0u);
}

TEST_F(LogManagerTest, FailedRotationKeepsTheCurrentFileAndSaysWhy) {
    auto manager = make();
    manager->log(LogLevel::info, "kept");
    manager->flush();
    // A non-empty folder under the rotated name can be neither removed by a file removal nor replaced.
    const fs::path blocker = logs() / ("app_log_" + localDate(clock_.now(), "%Y-%m-%d_%H-%M-%S") + ".txt");
    fs::create_directories(blocker / "inside");
    manager->rotateLogFiles();
    manager->flush();
    EXPECT_TRUE(systemLog_.hasPrefix("LogManager.rotateLogFiles() - error rotating log files: ", SystemLogType::error));
    EXPECT_NE(readFile(logFile()).find("]: kept\n"), std::string::npos);
    manager->log(LogLevel::info, "still here");
    manager->flush();
    EXPECT_NE(readFile(logFile()).find("]: still here\n"), std::string::npos);
}

// ---- Concurrency

TEST(LogManagerConcurrencyTest, ManyThreadsKeepTheirOwnOrderAndNoLineIsLostOrTorn) {
    TempFolder temp;
    RealClock clock;
    RecordingSystemLog systemLog;
    const fs::path logs = temp.path() / "logs";
    constexpr int kThreads = 8;
    constexpr int kLines = 400; // every line is synced to disk: keep the run short
    {
        LogManager manager(systemLog, clock, logs);
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                while (!go.load()) std::this_thread::yield();
                for (int i = 0; i < kLines; ++i) {
                    manager.log(LogLevel::info, "T" + std::to_string(t) + " #" + std::to_string(i) + " " +
                                                    std::string(static_cast<std::size_t>(i % 50), 'a' + t));
                }
            });
        }
        go = true;
        for (auto& thread : threads) thread.join();
        manager.flush();
    }

    const auto lines = physicalLines(readFile(logs / "app_log.txt"));
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines));
    const std::regex shape("^(" + kTimestamp + R"() \[INFO\]: T(\d) #(\d+) ([a-h]*)$)");
    std::vector<int> next(kThreads, 0);
    std::string previousStamp;
    for (const std::string& line : lines) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, shape)) << line;
        const int t = std::stoi(m[2]);
        const int i = std::stoi(m[3]);
        ASSERT_EQ(i, next[t]) << "thread " << t;
        ++next[t];
        EXPECT_EQ(m[4].str(), std::string(static_cast<std::size_t>(i % 50), static_cast<char>('a' + t)));
        // Stamped when enqueued, so the file's order is the order of the stamps.
        ASSERT_GE(m[1].str(), previousStamp);
        previousStamp = m[1].str();
    }
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(next[t], kLines);

    // The system log saw the same lines in the same order.
    std::vector<std::string> sent;
    for (const auto& [type, text] : systemLog.lines()) {
        if (text.find("]: T") != std::string::npos) sent.push_back(text.substr(0, text.size() - 1));
    }
    EXPECT_EQ(sent, lines);
}

TEST_F(LogManagerTest, FlushWhileAnotherThreadLogsReturnsOnceItsOwnLinesAreWritten) {
    auto manager = make();
    std::thread other([&] {
        for (int i = 0; i < 300; ++i) manager->log(LogLevel::debug, "other " + std::to_string(i));
    });
    for (int round = 0; round < 20; ++round) {
        const std::string mine = "mine " + std::to_string(round);
        manager->log(LogLevel::info, mine);
        manager->flush();
        ASSERT_NE(readFile(logFile()).find("]: " + mine + "\n"), std::string::npos) << round;
    }
    other.join();
    manager->flush();
    EXPECT_EQ(physicalLines(readFile(logFile())).size(), 320u);
}

// ---- Short log

TEST_F(LogManagerTest, ShortLogOfAShortFileIsTheWholeFile) {
    auto manager = make();
    manager->log(LogLevel::info, "one");
    manager->log(LogLevel::info, "two");
    manager->flush();
    const auto shortLog = manager->getShortLog(15000);
    ASSERT_TRUE(shortLog);
    EXPECT_EQ(*shortLog, logs() / "short_log.txt");
    EXPECT_EQ(readFile(*shortLog), readFile(logFile()));
}

TEST_F(LogManagerTest, ShortLogTakesTheLastCharactersNotBytes) {
    auto manager = make();
    manager->log(LogLevel::info, "plain start");
    manager->log(LogLevel::info, "x\xce\xb1\xce\xb2\xce\xb3\xe2\x82\xac\xf0\x9f\x98\x80"); // xαβγ€😀
    manager->flush();

    auto shortLog = manager->getShortLog(4);
    ASSERT_TRUE(shortLog);
    EXPECT_EQ(readFile(*shortLog), "\xce\xb3\xe2\x82\xac\xf0\x9f\x98\x80\n"); // γ€😀 and the line feed
    shortLog = manager->getShortLog(7);
    ASSERT_TRUE(shortLog);
    EXPECT_EQ(readFile(*shortLog), "x\xce\xb1\xce\xb2\xce\xb3\xe2\x82\xac\xf0\x9f\x98\x80\n");
    shortLog = manager->getShortLog(0);
    ASSERT_TRUE(shortLog);
    EXPECT_EQ(readFile(*shortLog), "");
    // No temporary files are left beside it.
    for (const auto& entry : fs::directory_iterator(logs())) {
        EXPECT_FALSE(entry.path().filename().string().starts_with(".")) << entry.path();
    }
}

TEST_F(LogManagerTest, ShortLogOfAFileThatIsNotUtf8IsNothing) {
    fs::create_directories(logs());
    writeFile(logFile(), "written by something else \xff\xfe\n");
    auto manager = make();
    manager->flush();
    EXPECT_EQ(manager->getShortLog(10), std::nullopt);
    EXPECT_FALSE(fs::exists(logs() / "short_log.txt"));
}

// ---- Zip

struct ZipEntries {
    std::map<std::string, std::string> files;
    std::size_t count = 0;
};

ZipEntries readZip(const fs::path& path) {
    ZipEntries result;
    int error = 0;
    zip_t* archive = zip_open(path.c_str(), ZIP_RDONLY, &error);
    if (!archive) return result;
    const zip_int64_t n = zip_get_num_entries(archive, 0);
    result.count = static_cast<std::size_t>(n);
    for (zip_int64_t i = 0; i < n; ++i) {
        zip_stat_t st;
        zip_stat_init(&st);
        if (zip_stat_index(archive, static_cast<zip_uint64_t>(i), 0, &st) != 0) continue;
        std::string data(static_cast<std::size_t>(st.size), '\0');
        zip_file_t* file = zip_fopen_index(archive, static_cast<zip_uint64_t>(i), 0);
        if (!file) continue;
        const zip_int64_t got = zip_fread(file, data.data(), data.size());
        zip_fclose(file);
        if (got != static_cast<zip_int64_t>(data.size())) continue;
        result.files[st.name] = std::move(data);
    }
    zip_close(archive);
    return result;
}

TEST_F(LogManagerTest, ZipHoldsShortLogLogProcessesAndMachineFlat) {
    auto manager = make();
    // Over 15000 characters, so the short log is a true tail.
    for (int i = 0; i < 400; ++i) manager->log(LogLevel::info, "Zip.test() - line " + std::to_string(i) + " \xc3\xa9t\xc3\xa9");
    manager->flush();

    const auto zip = manager->getLogZip();
    ASSERT_TRUE(zip);
    EXPECT_EQ(*zip, logs() / "SPR_logs.zip");
    EXPECT_TRUE(systemLog_.hasPrefix("LogManager.getLogZip() - zipFileURL: " + zip->string()));
    EXPECT_FALSE(fs::exists(logs() / "SPR_logs"));

    const ZipEntries entries = readZip(*zip);
    ASSERT_EQ(entries.count, 4u);
    ASSERT_EQ(entries.files.size(), 4u);
    for (const char* name : {"short_log.txt", "app_log.txt", "process_details.txt", "os_details.txt"}) {
        EXPECT_TRUE(entries.files.contains(name)) << name;
    }

    const std::string log = readFile(logFile());
    EXPECT_EQ(entries.files.at("app_log.txt"), log);
    const std::string& shortLog = entries.files.at("short_log.txt");
    EXPECT_TRUE(log.ends_with(shortLog));
    EXPECT_LT(shortLog.size(), log.size());
    std::size_t codePoints = 0;
    for (unsigned char c : shortLog) codePoints += (c & 0xC0) != 0x80 ? 1 : 0;
    EXPECT_EQ(codePoints, 15000u);

    const std::string& processes = entries.files.at("process_details.txt");
    EXPECT_TRUE(processes.starts_with("Running Applications:\n\n")) << processes.substr(0, 200);
    std::string comm = readFile("/proc/self/comm");
    comm.pop_back();
    const std::string self = fs::read_symlink("/proc/self/exe").string();
    EXPECT_NE(processes.find(comm + "\nBundle ID: " + self + "\nPID: " + std::to_string(getpid()) + "\n\n"),
              std::string::npos);

    const std::string& os = entries.files.at("os_details.txt");
    EXPECT_TRUE(os.starts_with("---- Linux System Details ----\nOS Name: Linux\nOS Version: ")) << os;
    const std::regex osShape("OS Version: .+\nHost Name: .*\nPhysical Memory: [1-9]\\d* MB\nProcessor Count: [1-9]\\d*\n"
                             "Active Process Count: [1-9]\\d*\nArchitecture: .+\n$");
    EXPECT_TRUE(std::regex_search(os, osShape)) << os;
    EXPECT_EQ(os, osDetailsText());

    // A second archive replaces the first.
    manager->log(LogLevel::info, "after the first zip");
    manager->flush();
    ASSERT_TRUE(manager->getLogZip());
    const ZipEntries again = readZip(*zip);
    EXPECT_EQ(again.count, 4u);
    EXPECT_NE(again.files.at("app_log.txt").find("]: after the first zip\n"), std::string::npos);
}

TEST_F(LogManagerTest, ZipWithoutALogFileFails) {
    auto manager = make();
    manager->flush();
    fs::remove(logFile());
    EXPECT_EQ(manager->getLogZip(), std::nullopt);
    EXPECT_TRUE(systemLog_.hasPrefix("LogManager.getLogZip() - failed to copy short log file: "));
    EXPECT_TRUE(systemLog_.hasPrefix("LogManager.getLogZip() - failed to copy log file: "));
    EXPECT_FALSE(fs::exists(logs() / "SPR_logs.zip"));
}

TEST_F(LogManagerTest, ZipReplacesAStaleTemporaryFolder) {
    auto manager = make();
    manager->log(LogLevel::info, "x");
    manager->flush();
    fs::create_directories(logs() / "SPR_logs");
    writeFile(logs() / "SPR_logs" / "leftover.txt", "old");
    const auto zip = manager->getLogZip();
    ASSERT_TRUE(zip);
    const ZipEntries entries = readZip(*zip);
    EXPECT_EQ(entries.count, 4u);
    EXPECT_FALSE(entries.files.contains("leftover.txt"));
}

TEST(ProcessDetailsTest, ListsProcessesWithNameIdentifierAndPid) {
    const std::string text = processDetailsText();
    ASSERT_TRUE(text.starts_with("Running Applications:\n\n"));
    // Every entry is four lines: name, identifier, pid, empty.
    const std::regex entry(R"(([^\n]+)\nBundle ID: ([^\n]+)\nPID: (\d+)\n\n)");
    std::size_t entries = 0;
    std::string rest = text.substr(std::string("Running Applications:\n\n").size());
    std::smatch m;
    while (std::regex_search(rest, m, entry, std::regex_constants::match_continuous)) {
        ++entries;
        rest = m.suffix();
    }
    EXPECT_TRUE(rest.empty()) << rest.substr(0, 200);
    EXPECT_GE(entries, 1u);
}

} // namespace
} // namespace sprelio

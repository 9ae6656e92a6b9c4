#pragma once
// A deterministic platform for tests and benchmarks: virtual time, a main loop that runs only when told,
// and every call to the machine recorded in order in `calls()`.
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/Log.h"
#include "platform/Platform.h"
#include "platform/TimerQueue.h"

namespace sprelio::platform::test {

class TestPlatform;

class VirtualLoop final : public MainLoop, public WorkerPool {
public:
    explicit VirtualLoop(TestPlatform& owner);
    void post(Task task) override;
    std::shared_ptr<Timer> schedule(Duration delay, Task task) override;
    bool isMainThread() const override;
    void submit(Task task) override;

    // Runs posted tasks and worker tasks (in the order they were queued) until none is left. Timers do not fire.
    std::size_t runUntilIdle();
    // Moves virtual time forward, firing due timers in order and running what they post, up to `by` in total.
    void advance(Duration by);
    std::size_t pendingTimers() const;
    std::size_t pendingTasks() const;

private:
    struct Queued {
        Task task;
        bool worker;
    };
    TestPlatform& owner_;
    // Timers on the virtual time line; its mutex is the loop's.
    TimerQueue<Duration> timers_;
    std::deque<Queued> queue_;
    std::thread::id mainThread_ = std::this_thread::get_id();
};

class TestPlatform final : public Clock,
                           public Workspace,
                           public WorkspaceNotifications,
                           public SoundPlayer,
                           public InputDeviceLevels,
                           public StatusImage,
                           public SystemLog,
                           public Folders,
                           public Screens {
public:
    // `root` is an empty temporary folder in which home, data and config folders are made.
    explicit TestPlatform(std::filesystem::path root = {});
    ~TestPlatform() override;

    Platform platform();
    VirtualLoop& loop() { return loop_; }
    std::size_t runUntilIdle() { return loop_.runUntilIdle(); }
    void advance(Duration by) { loop_.advance(by); }

    // Recorded calls, in order, as short texts: "sound:Basso", "statusImage:rec_status", "writeMute:7:0", ...
    std::vector<std::string> calls() const;
    void clearCalls();
    bool called(const std::string& call) const;
    void record(std::string call);

    // Clock
    std::chrono::system_clock::time_point now() const override;
    std::chrono::steady_clock::time_point steadyNow() const override;
    Duration elapsed() const { return elapsed_; }

    // Workspace
    std::optional<RunningApplication> frontmost;
    std::optional<RunningApplication> frontmostApplication() const override { return frontmost; }
    bool activate(const RunningApplication& app, unsigned options) override;
    void activateSelf() override;
    // Workspace notifications: the test makes an application the active one (or reports an activation without
    // one); the handler runs on the loop, as the desktop's notice would.
    void setDidActivateApplicationHandler(ActivationHandler handler) override { activationHandler_ = std::move(handler); }
    void activateApplication(std::optional<RunningApplication> app);

    // Sounds, status image, system log
    void play(const std::string& name) override;
    void setImage(const std::string& name) override;
    void write(SystemLogType type, std::string_view text) override;
    std::vector<std::pair<SystemLogType, std::string>> systemLogLines() const;

    // Input device levels: a device exists when it has an entry; a missing optional makes the read fail.
    struct Device {
        std::optional<std::uint32_t> mute = 0;
        std::optional<float> volume = 1.0f;
        bool muteWritable = true;
        bool volumeWritable = true;
    };
    std::map<AudioDeviceID, Device> devices;
    std::optional<std::uint32_t> readMute(AudioDeviceID device) override;
    bool writeMute(AudioDeviceID device, std::uint32_t muted) override;
    std::optional<float> readVolume(AudioDeviceID device) override;
    bool writeVolume(AudioDeviceID device, float volume) override;

    // Folders
    std::filesystem::path root() const { return root_; }
    std::filesystem::path home() const override { return root_ / "home"; }
    std::filesystem::path dataHome() const override { return root_ / "home/.local/share"; }
    std::filesystem::path configHome() const override { return root_ / "home/.config"; }

    // Screens
    std::vector<ScreenInfo> screenList;
    std::vector<ScreenInfo> screens() const override { return screenList; }

private:
    friend class VirtualLoop;
    VirtualLoop loop_;
    std::filesystem::path root_;
    bool ownsRoot_ = false;
    Duration elapsed_{0};
    std::chrono::system_clock::time_point epoch_;
    mutable std::mutex callsMutex_;
    std::vector<std::string> calls_;
    std::vector<std::pair<SystemLogType, std::string>> systemLog_;
    ActivationHandler activationHandler_;
};

// Collects log lines in memory; installs itself as the process sink for its lifetime.
class RecordingLogSink final : public LogSink {
public:
    RecordingLogSink();
    ~RecordingLogSink() override;
    void log(LogLevel level, std::string message) override;
    struct Line {
        LogLevel level;
        std::string message;
    };
    std::vector<Line> lines() const;
    // True when a line with this exact text (and level, when given) was logged.
    bool contains(const std::string& message, std::optional<LogLevel> level = std::nullopt) const;
    // True when a line that begins with this text was logged.
    bool containsPrefix(const std::string& prefix) const;
    std::size_t count(const std::string& message) const;
    void clear();

private:
    LogSink* previous_;
    mutable std::mutex mutex_;
    std::vector<Line> lines_;
};

} // namespace sprelio::platform::test

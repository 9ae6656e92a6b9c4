#include "platform/test/TestPlatform.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace sprelio::platform::test {

VirtualLoop::VirtualLoop(TestPlatform& owner) : owner_(owner), timers_([&owner] { return owner.elapsed(); }) {}

void VirtualLoop::post(Task task) {
    std::lock_guard lock(timers_.mutex());
    queue_.push_back({std::move(task), false});
}

void VirtualLoop::submit(Task task) {
    std::lock_guard lock(timers_.mutex());
    queue_.push_back({std::move(task), true});
}

std::shared_ptr<Timer> VirtualLoop::schedule(Duration delay, Task task) {
    std::lock_guard lock(timers_.mutex());
    return timers_.add(delay, std::move(task));
}

bool VirtualLoop::isMainThread() const { return std::this_thread::get_id() == mainThread_; }

std::size_t VirtualLoop::runUntilIdle() {
    std::size_t ran = 0;
    for (;;) {
        Task task;
        {
            std::lock_guard lock(timers_.mutex());
            if (queue_.empty()) break;
            task = std::move(queue_.front().task);
            queue_.pop_front();
        }
        task();
        if (++ran > 1'000'000) throw std::runtime_error("VirtualLoop: tasks keep posting themselves");
    }
    return ran;
}

void VirtualLoop::advance(Duration by) {
    const Duration target = owner_.elapsed_ + by;
    runUntilIdle();
    for (;;) {
        std::optional<TimerQueue<Duration>::Fired> next;
        {
            std::lock_guard lock(timers_.mutex());
            next = timers_.takeDue(target);
            if (next && next->due > owner_.elapsed_) owner_.elapsed_ = next->due;
        }
        if (!next) break;
        next->task();
        runUntilIdle();
    }
    owner_.elapsed_ = target;
    runUntilIdle();
}

std::size_t VirtualLoop::pendingTimers() const {
    std::lock_guard lock(timers_.mutex());
    return timers_.pending();
}

std::size_t VirtualLoop::pendingTasks() const {
    std::lock_guard lock(timers_.mutex());
    return queue_.size();
}

TestPlatform::TestPlatform(std::filesystem::path root) : loop_(*this), root_(std::move(root)) {
    if (root_.empty()) {
        std::string pattern = (std::filesystem::temp_directory_path() / "sprelio-test-XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw std::runtime_error("TestPlatform: mkdtemp failed");
        root_ = pattern;
        ownsRoot_ = true;
    }
    std::filesystem::create_directories(home());
    // A fixed, ordinary date so that dated paths and log lines are reproducible.
    epoch_ = std::chrono::system_clock::time_point{std::chrono::seconds{1'767'261'600}}; // 2026-01-01 10:00:00 UTC
}

TestPlatform::~TestPlatform() {
    if (ownsRoot_) {
        std::error_code ec;
        std::filesystem::permissions(root_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ec);
        std::filesystem::remove_all(root_, ec);
    }
}

Platform TestPlatform::platform() {
    return Platform{loop_, loop_, *this, *this, *this, *this, *this, *this, *this, *this};
}

std::vector<std::string> TestPlatform::calls() const {
    std::lock_guard lock(callsMutex_);
    return calls_;
}

void TestPlatform::clearCalls() {
    std::lock_guard lock(callsMutex_);
    calls_.clear();
}

bool TestPlatform::called(const std::string& call) const {
    std::lock_guard lock(callsMutex_);
    return std::find(calls_.begin(), calls_.end(), call) != calls_.end();
}

void TestPlatform::record(std::string call) {
    std::lock_guard lock(callsMutex_);
    calls_.push_back(std::move(call));
}

std::chrono::system_clock::time_point TestPlatform::now() const {
    return epoch_ + std::chrono::duration_cast<std::chrono::system_clock::duration>(elapsed_);
}

std::chrono::steady_clock::time_point TestPlatform::steadyNow() const {
    return std::chrono::steady_clock::time_point{} + std::chrono::duration_cast<std::chrono::steady_clock::duration>(elapsed_);
}

bool TestPlatform::activate(const RunningApplication& app, unsigned options) {
    record("activate:" + std::to_string(app.processIdentifier) + ":" + std::to_string(options));
    return true;
}

void TestPlatform::activateSelf() { record("activateSelf"); }

void TestPlatform::activateApplication(std::optional<RunningApplication> app) {
    if (app) frontmost = app;
    loop_.post([this, app = std::move(app)] {
        if (activationHandler_) activationHandler_(app);
    });
}
void TestPlatform::play(const std::string& name) { record("sound:" + name); }
void TestPlatform::setImage(const std::string& name) { record("statusImage:" + name); }

void TestPlatform::write(SystemLogType type, std::string_view text) {
    std::lock_guard lock(callsMutex_);
    systemLog_.emplace_back(type, std::string(text));
}

std::vector<std::pair<SystemLogType, std::string>> TestPlatform::systemLogLines() const {
    std::lock_guard lock(callsMutex_);
    return systemLog_;
}

std::optional<std::uint32_t> TestPlatform::readMute(AudioDeviceID device) {
    record("readMute:" + std::to_string(device));
    auto it = devices.find(device);
    return it == devices.end() ? std::nullopt : it->second.mute;
}

bool TestPlatform::writeMute(AudioDeviceID device, std::uint32_t muted) {
    record("writeMute:" + std::to_string(device) + ":" + std::to_string(muted));
    auto it = devices.find(device);
    if (it == devices.end() || !it->second.muteWritable) return false;
    it->second.mute = muted;
    return true;
}

std::optional<float> TestPlatform::readVolume(AudioDeviceID device) {
    record("readVolume:" + std::to_string(device));
    auto it = devices.find(device);
    return it == devices.end() ? std::nullopt : it->second.volume;
}

bool TestPlatform::writeVolume(AudioDeviceID device, float volume) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.2f", static_cast<double>(volume));
    record("writeVolume:" + std::to_string(device) + ":" + buf);
    auto it = devices.find(device);
    if (it == devices.end() || !it->second.volumeWritable) return false;
    it->second.volume = volume;
    return true;
}

RecordingLogSink::RecordingLogSink() : previous_(logSink()) { setLogSink(this); }
RecordingLogSink::~RecordingLogSink() { setLogSink(previous_); }

void RecordingLogSink::log(LogLevel level, std::string message) {
    std::lock_guard lock(mutex_);
    lines_.push_back({level, std::move(message)});
}

std::vector<RecordingLogSink::Line> RecordingLogSink::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

bool RecordingLogSink::contains(const std::string& message, std::optional<LogLevel> level) const {
    std::lock_guard lock(mutex_);
    return std::any_of(lines_.begin(), lines_.end(),
                       [&](const Line& l) { return l.message == message && (!level || l.level == *level); });
}

bool RecordingLogSink::containsPrefix(const std::string& prefix) const {
    std::lock_guard lock(mutex_);
    return std::any_of(lines_.begin(), lines_.end(), [&](const Line& l) { return l.message.starts_with(prefix); });
}

std::size_t RecordingLogSink::count(const std::string& message) const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(lines_.begin(), lines_.end(), [&](const Line& l) { return l.message == message; }));
}

void RecordingLogSink::clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
}

} // namespace sprelio::platform::test

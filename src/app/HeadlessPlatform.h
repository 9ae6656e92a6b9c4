#pragma once
// The platform of a command-line process: no desktop, no tray, no windows. What the logic asks of a desktop gets
// the answer a process without one has (no application in front, no screens); messages meant for the user go to the
// terminal's error stream; sounds go through the sound server when there is one and are skipped, with a log line,
// when there is none.
#include <chrono>
#include <memory>
#include <mutex>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "platform/FrontmostApp.h"
#include "platform/InputDeviceLevels.h"
#include "platform/MainLoop.h"
#include "platform/Screens.h"
#include "platform/Sounds.h"
#include "platform/StatusImage.h"
#include "platform/loop/RealTimeLoop.h"
#include "ui/Messages.h"

namespace sprelio::platform {
class PulseAudioConnection;
class PulseAudioDevices;
class PulseSoundPlayer;
} // namespace sprelio::platform

namespace sprelio::app {

class HeadlessWorkspace final : public platform::Workspace {
public:
    std::optional<platform::RunningApplication> frontmostApplication() const override { return std::nullopt; }
    bool activate(const platform::RunningApplication& app, unsigned options) override;
    // A terminal process has no window to bring forward.
    void activateSelf() override {}
};

// No tray: the last image asked for is kept for whoever wants to know.
class HeadlessStatusImage final : public platform::StatusImage {
public:
    void setImage(const std::string& name) override;
    std::string current() const;

private:
    mutable std::mutex mutex_;
    std::string current_;
};

// What a process has in front of the user's eyes. `terminal` false: no screen at all, which is what the account
// service is told. `terminal` true: the terminal as the one place where messages appear.
class HeadlessScreens final : public platform::Screens {
public:
    explicit HeadlessScreens(bool terminal) : terminal_(terminal) {}
    std::vector<platform::ScreenInfo> screens() const override;

private:
    bool terminal_;
};

// The one connection to the sound server, made on first use and only then.
class LazySoundServer {
public:
    LazySoundServer();
    ~LazySoundServer();
    LazySoundServer(const LazySoundServer&) = delete;
    LazySoundServer& operator=(const LazySoundServer&) = delete;
    // The connection once it is ready within `wait`, else nullptr. Not on the main loop when `wait` is long.
    platform::PulseAudioConnection* ready(std::chrono::milliseconds wait);

private:
    std::mutex mutex_;
    std::unique_ptr<platform::PulseAudioConnection> connection_;
};

// Sounds are played on a thread of their own, since the first play waits a moment for the sound server. Sounds
// asked for before the process ends are played (or skipped) before the player goes.
class HeadlessSoundPlayer final : public platform::SoundPlayer {
public:
    explicit HeadlessSoundPlayer(LazySoundServer& server);
    ~HeadlessSoundPlayer() override;
    void play(const std::string& name) override;

private:
    LazySoundServer& server_;
    std::mutex mutex_;
    std::unique_ptr<platform::PulseSoundPlayer> player_;
    // Last: its thread is joined before the player it uses goes.
    platform::ThreadWorkerPool worker_{1};
};

// Mute and volume of input devices through the sound server; with no server every read is unknown and every write
// fails, which is what the logic makes of a device it can't reach.
class HeadlessInputLevels final : public platform::InputDeviceLevels {
public:
    HeadlessInputLevels(LazySoundServer& server, platform::MainLoop& loop);
    ~HeadlessInputLevels() override;
    std::optional<std::uint32_t> readMute(platform::AudioDeviceID device) override;
    bool writeMute(platform::AudioDeviceID device, std::uint32_t muted) override;
    std::optional<float> readVolume(platform::AudioDeviceID device) override;
    bool writeVolume(platform::AudioDeviceID device, float volume) override;

private:
    platform::PulseAudioDevices* devices();

    LazySoundServer& server_;
    platform::MainLoop& loop_;
    std::unique_ptr<platform::PulseAudioDevices> devices_;
};

// Messages as lines on the error stream: "sprelio: <text>". Nobody can click a line, so a message that offers to
// sign out says which command does it.
class ConsoleToastPresenter final : public ToastPresenter {
public:
    explicit ConsoleToastPresenter(std::ostream& err) : err_(err) {}
    void showToast(const SPRToastView& toast, const platform::ScreenInfo& screen, const platform::Rect& frame,
                   std::function<void()> onNeverShowAgain) override;
    void closeAllToasts() override {}
    // Whether a message with this text was printed.
    bool printed(const std::string& messageText) const { return printed_.count(messageText) > 0; }

private:
    std::ostream& err_;
    std::set<std::string> printed_;
};

} // namespace sprelio::app

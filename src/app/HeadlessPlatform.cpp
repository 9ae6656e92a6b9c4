#include "app/HeadlessPlatform.h"

#include "base/Log.h"
#include "platform/linux/PulseAudioConnection.h"
#include "platform/linux/PulseAudioDevices.h"
#include "platform/linux/PulseSoundPlayer.h"

namespace sprelio::app {

namespace {
// Long enough for a local sound server to accept the connection, short enough that a machine without one is not
// kept waiting.
constexpr auto kSoundServerWait = std::chrono::milliseconds(1000);
} // namespace

bool HeadlessWorkspace::activate(const platform::RunningApplication& app, unsigned) {
    logInfo("HeadlessWorkspace.activate() - no desktop, not activating " + app.description());
    return false;
}

void HeadlessStatusImage::setImage(const std::string& name) {
    std::lock_guard lock(mutex_);
    current_ = name;
}

std::string HeadlessStatusImage::current() const {
    std::lock_guard lock(mutex_);
    return current_;
}

std::vector<platform::ScreenInfo> HeadlessScreens::screens() const {
    if (!terminal_) return {};
    return {platform::ScreenInfo{"terminal", std::nullopt, platform::Rect{0, 0, 0, 0}, 1.0, true}};
}

LazySoundServer::LazySoundServer() = default;
LazySoundServer::~LazySoundServer() = default;

platform::PulseAudioConnection* LazySoundServer::ready(std::chrono::milliseconds wait) {
    std::lock_guard lock(mutex_);
    if (!connection_) connection_ = std::make_unique<platform::PulseAudioConnection>("Sprelio");
    return connection_->waitUntilReady(wait) ? connection_.get() : nullptr;
}

HeadlessSoundPlayer::HeadlessSoundPlayer(LazySoundServer& server) : server_(server) {}

HeadlessSoundPlayer::~HeadlessSoundPlayer() = default;

void HeadlessSoundPlayer::play(const std::string& name) {
    worker_.submit([this, name] {
        auto* connection = server_.ready(kSoundServerWait);
        if (!connection) {
            logInfo("HeadlessSoundPlayer.play() - no sound server, sound skipped: " + name);
            return;
        }
        std::lock_guard lock(mutex_);
        if (!player_) player_ = std::make_unique<platform::PulseSoundPlayer>(*connection);
        player_->play(name);
    });
}

HeadlessInputLevels::HeadlessInputLevels(LazySoundServer& server, platform::MainLoop& loop)
    : server_(server), loop_(loop) {}

HeadlessInputLevels::~HeadlessInputLevels() = default;

platform::PulseAudioDevices* HeadlessInputLevels::devices() {
    if (devices_) return devices_.get();
    auto* connection = server_.ready(kSoundServerWait);
    if (!connection) {
        logInfo("HeadlessInputLevels - no sound server, input levels unknown");
        return nullptr;
    }
    devices_ = std::make_unique<platform::PulseAudioDevices>(*connection, loop_);
    return devices_.get();
}

std::optional<std::uint32_t> HeadlessInputLevels::readMute(platform::AudioDeviceID device) {
    auto* d = devices();
    return d ? d->readMute(device) : std::nullopt;
}

bool HeadlessInputLevels::writeMute(platform::AudioDeviceID device, std::uint32_t muted) {
    auto* d = devices();
    return d && d->writeMute(device, muted);
}

std::optional<float> HeadlessInputLevels::readVolume(platform::AudioDeviceID device) {
    auto* d = devices();
    return d ? d->readVolume(device) : std::nullopt;
}

bool HeadlessInputLevels::writeVolume(platform::AudioDeviceID device, float volume) {
    auto* d = devices();
    return d && d->writeVolume(device, volume);
}

void ConsoleToastPresenter::showToast(const SPRToastView& toast, const platform::ScreenInfo&, const platform::Rect&,
                                      std::function<void()>) {
    std::string line = "sprelio: ";
    if (toast.messageTitle && !toast.messageTitle->empty() && *toast.messageTitle != toast.messageText)
        line += *toast.messageTitle + ": ";
    line += toast.messageText;
    if (toast.statusCode) line += " (HTTP status " + std::to_string(*toast.statusCode) + ")";
    err_ << line << "\n";
    if (toast.tapActionText && *toast.tapActionText == "Log Out") err_ << "sprelio: to sign out, run: sprelio logout\n";
    err_.flush();
    printed_.insert(toast.messageText);
}

} // namespace sprelio::app

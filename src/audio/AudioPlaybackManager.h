#pragma once
// The one player of recordings (the history rows' play buttons). One file plays at a time: a new play replaces
// the one that plays.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>

#include "base/LifetimeGuard.h"
#include "platform/AudioOutput.h"

namespace sprelio {

class AudioPlaybackManager {
public:
    // The output posts its finish to the main loop; everything here runs there.
    explicit AudioPlaybackManager(platform::AudioOutput& output);
    ~AudioPlaybackManager();
    AudioPlaybackManager(const AudioPlaybackManager&) = delete;
    AudioPlaybackManager& operator=(const AudioPlaybackManager&) = delete;

    // False, with an error line in the log, when the file can't be read or played.
    bool playAudio(const std::filesystem::path& url);
    void stop();

    float audioVolume() const { return audioVolume_; }
    // What plays now; nothing when nothing plays.
    const std::optional<std::filesystem::path>& currentURL() const { return currentURL_; }
    // Called after currentURL changed, for the rows' buttons.
    void setOnChange(std::function<void()> onChange) { onChange_ = std::move(onChange); }

private:
    void setCurrentURL(std::optional<std::filesystem::path> url);

    platform::AudioOutput& output_;
    float audioVolume_ = 1.0f;
    std::optional<std::filesystem::path> currentURL_;
    std::uint64_t playback_ = 0; // tells the current player's finish from a replaced one's
    std::function<void()> onChange_;
    LifetimeGuard lifetime_;
};

} // namespace sprelio

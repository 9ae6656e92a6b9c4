#include "audio/AudioPlaybackManager.h"

#include "audio/CafFormat.h"
#include "audio/CafReader.h"
#include "base/Log.h"

namespace sprelio {

namespace {

std::string urlText(const std::filesystem::path& path) { return "file://" + path.string(); }

} // namespace

AudioPlaybackManager::AudioPlaybackManager(platform::AudioOutput& output) : output_(output) {}

AudioPlaybackManager::~AudioPlaybackManager() {
    lifetime_.expire();
    output_.stop();
}

bool AudioPlaybackManager::playAudio(const std::filesystem::path& url) {
    DecodedAudio audio;
    try {
        audio = CafReader::open(url).decodeAll(16000);
    } catch (const caf::CafError& error) {
        logError("AudioPlaybackManager.playAudio() - error: " + std::string(error.what()));
        return false;
    } catch (const std::exception& error) {
        logError("AudioPlaybackManager.playAudio() - error: " + std::string(error.what()));
        return false;
    }
    const std::uint64_t playback = ++playback_;
    const auto alive = lifetime_.token();
    std::string error;
    const bool started = output_.play(std::move(audio.samples), audio.sampleRate, audio.channels, audioVolume_,
                                      [this, alive, playback] {
                                          if (!alive || playback != playback_) return;
                                          setCurrentURL(std::nullopt);
                                      },
                                      error);
    if (!started) {
        logError("AudioPlaybackManager.playAudio() - error: " + error);
        // The former player was replaced all the same.
        if (currentURL_) setCurrentURL(std::nullopt);
        return false;
    }
    setCurrentURL(url);
    return true;
}

void AudioPlaybackManager::stop() {
    ++playback_;
    output_.stop();
    setCurrentURL(std::nullopt);
}

void AudioPlaybackManager::setCurrentURL(std::optional<std::filesystem::path> url) {
    currentURL_ = std::move(url);
    logInfo("AudioPlaybackManager.currentURL: " + (currentURL_ ? urlText(*currentURL_) : std::string("nil")));
    if (onChange_) onChange_();
}

} // namespace sprelio

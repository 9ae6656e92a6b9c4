#pragma once
// The named sounds through PulseAudio. Each sound file is read once and uploaded once per server connection to
// the server's sample cache; after that a play is one request, which never waits for the server.
//
// The files are looked for in the folders given; by default the build tree's sound folder (so that programs run
// from the build tree find them), then <prefix>/share/sprelio/sounds. SPRELIO_SOUNDS_DIR, when set, comes first.
#include <pulse/pulseaudio.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Sounds.h"
#include "platform/linux/PulseAudioConnection.h"

namespace sprelio::platform {

// 16-bit PCM WAV, as the build makes them.
struct WavSound {
    int sampleRate = 0;
    int channels = 0;
    std::vector<std::uint8_t> pcm; // signed 16-bit little-endian, interleaved
};
// Nothing when the file can't be read or isn't plain 16-bit PCM.
std::optional<WavSound> readWavSound(const std::filesystem::path& path);

class PulseSoundPlayer final : public SoundPlayer {
public:
    static std::vector<std::filesystem::path> defaultSoundFolders();

    explicit PulseSoundPlayer(PulseAudioConnection& connection,
                              std::vector<std::filesystem::path> folders = defaultSoundFolders());
    ~PulseSoundPlayer() override;
    PulseSoundPlayer(const PulseSoundPlayer&) = delete;
    PulseSoundPlayer& operator=(const PulseSoundPlayer&) = delete;

    // An unknown name or a missing server logs an error; nothing is thrown.
    void play(const std::string& name) override;

    // The names there are files for, sorted: the list the settings offer.
    std::vector<std::string> soundNames() const;
    std::optional<std::filesystem::path> soundFile(const std::string& name) const;

private:
    struct Sample;
    static void uploadStateCallback(pa_stream* stream, void* userdata);
    void playLocked(pa_context* context, Sample& sample);

    PulseAudioConnection& connection_;
    std::vector<std::filesystem::path> folders_;
    std::mutex samplesMutex_; // guards the map itself; the samples' server state is under the connection's lock
    std::map<std::string, std::unique_ptr<Sample>> samples_;
};

} // namespace sprelio::platform

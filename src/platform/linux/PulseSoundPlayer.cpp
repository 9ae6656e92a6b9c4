#include "platform/linux/PulseSoundPlayer.h"

#include <algorithm>
#include <cstdlib>
#include <cctype>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

#include "base/Log.h"

namespace sprelio::platform {

namespace {

std::uint32_t le32(const std::uint8_t* p) {
    return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 | std::uint32_t(p[3]) << 24;
}
std::uint16_t le16(const std::uint8_t* p) { return std::uint16_t(p[0] | p[1] << 8); }

bool validName(const std::string& name) {
    return !name.empty() && name.size() <= 64 && std::all_of(name.begin(), name.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '-' || c == '_';
    });
}

} // namespace

std::optional<WavSound> readWavSound(const std::filesystem::path& path) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(path, ec);
    if (ec || size < 44 || size > (std::uintmax_t(16) << 20)) return std::nullopt;
    std::ifstream in(path, std::ios::binary);
    std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (bytes.size() < 12 || std::memcmp(bytes.data(), "RIFF", 4) != 0 || std::memcmp(bytes.data() + 8, "WAVE", 4) != 0)
        return std::nullopt;
    WavSound sound;
    bool haveFormat = false;
    std::size_t at = 12;
    while (at + 8 <= bytes.size()) {
        const std::uint32_t chunkSize = le32(bytes.data() + at + 4);
        const std::size_t body = at + 8;
        if (chunkSize > bytes.size() - body) return std::nullopt;
        if (std::memcmp(bytes.data() + at, "fmt ", 4) == 0 && chunkSize >= 16) {
            const std::uint8_t* f = bytes.data() + body;
            if (le16(f) != 1 || le16(f + 14) != 16) return std::nullopt; // plain 16-bit PCM only
            sound.channels = le16(f + 2);
            sound.sampleRate = int(le32(f + 4));
            haveFormat = sound.channels >= 1 && sound.channels <= 8 && sound.sampleRate >= 8000 &&
                         sound.sampleRate <= 192000;
        } else if (std::memcmp(bytes.data() + at, "data", 4) == 0 && haveFormat) {
            const std::size_t frameBytes = std::size_t(sound.channels) * 2;
            const std::size_t usable = chunkSize / frameBytes * frameBytes;
            if (usable == 0) return std::nullopt;
            sound.pcm.assign(bytes.begin() + std::ptrdiff_t(body), bytes.begin() + std::ptrdiff_t(body + usable));
            return sound;
        }
        at = body + chunkSize + (chunkSize & 1);
    }
    return std::nullopt;
}

struct PulseSoundPlayer::Sample {
    PulseSoundPlayer* owner = nullptr;
    std::string name;
    std::string cacheName;
    WavSound sound;
    // Under the connection's lock:
    std::uint64_t uploadedGeneration = 0; // generations start at 1, so 0 is "never"
    pa_stream* uploading = nullptr;
    int pendingPlays = 0;
};

std::vector<std::filesystem::path> PulseSoundPlayer::defaultSoundFolders() {
    std::vector<std::filesystem::path> folders;
    if (const char* own = std::getenv("SPRELIO_SOUNDS_DIR"); own && *own) folders.emplace_back(own);
#ifdef SPRELIO_SOUNDS_BUILD_DIR
    folders.emplace_back(SPRELIO_SOUNDS_BUILD_DIR);
#endif
#ifdef SPRELIO_SOUNDS_INSTALL_DIR
    folders.emplace_back(SPRELIO_SOUNDS_INSTALL_DIR);
#endif
    folders.emplace_back("/usr/share/sprelio/sounds");
    return folders;
}

PulseSoundPlayer::PulseSoundPlayer(PulseAudioConnection& connection, std::vector<std::filesystem::path> folders)
    : connection_(connection), folders_(std::move(folders)) {}

PulseSoundPlayer::~PulseSoundPlayer() {
    PulseAudioConnection::Lock lock(connection_);
    for (auto& [name, sample] : samples_) {
        if (!sample->uploading) continue;
        pa_stream_set_state_callback(sample->uploading, nullptr, nullptr);
        pa_stream_disconnect(sample->uploading);
        pa_stream_unref(sample->uploading);
        sample->uploading = nullptr;
    }
}

std::optional<std::filesystem::path> PulseSoundPlayer::soundFile(const std::string& name) const {
    if (!validName(name)) return std::nullopt;
    for (const auto& folder : folders_) {
        std::error_code ec;
        const auto file = folder / (name + ".wav");
        if (std::filesystem::is_regular_file(file, ec)) return file;
    }
    return std::nullopt;
}

std::vector<std::string> PulseSoundPlayer::soundNames() const {
    std::vector<std::string> names;
    for (const auto& folder : folders_) {
        std::error_code ec;
        for (auto it = std::filesystem::directory_iterator(folder, ec);
             !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
            if (it->path().extension() == ".wav" && validName(it->path().stem().string()))
                names.push_back(it->path().stem().string());
        }
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

void PulseSoundPlayer::play(const std::string& name) {
    Sample* sample = nullptr;
    {
        std::lock_guard guard(samplesMutex_);
        auto found = samples_.find(name);
        if (found == samples_.end()) {
            const auto file = soundFile(name);
            if (!file) {
                logError("SoundPlayer.play() - unknown sound: " + name);
                return;
            }
            auto sound = readWavSound(*file);
            if (!sound) {
                logError("SoundPlayer.play() - unreadable sound file: " + file->string());
                return;
            }
            auto made = std::make_unique<Sample>();
            made->owner = this;
            made->name = name;
            made->cacheName = "sprelio-" + name;
            made->sound = std::move(*sound);
            found = samples_.emplace(name, std::move(made)).first;
        }
        sample = found->second.get();
    }
    // Starts a connection attempt when there is none, without waiting for it.
    (void)connection_.waitUntilReady(std::chrono::milliseconds(0));
    PulseAudioConnection::Lock lock(connection_);
    pa_context* context = connection_.readyContext();
    if (!context) {
        logError("SoundPlayer.play() - no sound server, not played: " + name);
        return;
    }
    playLocked(context, *sample);
}

void PulseSoundPlayer::playLocked(pa_context* context, Sample& sample) {
    if (sample.uploadedGeneration == connection_.generation()) {
        if (pa_operation* op = pa_context_play_sample(context, sample.cacheName.c_str(), nullptr, PA_VOLUME_INVALID,
                                                      nullptr, nullptr))
            pa_operation_unref(op);
        else
            logError("SoundPlayer.play() - playing " + sample.name +
                     " failed: " + pa_strerror(pa_context_errno(context)));
        return;
    }
    ++sample.pendingPlays;
    if (sample.uploading) return; // played when the upload under way is done
    pa_sample_spec format{PA_SAMPLE_S16LE, std::uint32_t(sample.sound.sampleRate), std::uint8_t(sample.sound.channels)};
    pa_stream* stream = pa_stream_new(context, sample.cacheName.c_str(), &format, nullptr);
    if (!stream || pa_stream_connect_upload(stream, sample.sound.pcm.size()) < 0) {
        logError("SoundPlayer.play() - upload of " + sample.name +
                 " failed: " + pa_strerror(pa_context_errno(context)));
        if (stream) pa_stream_unref(stream);
        sample.pendingPlays = 0;
        return;
    }
    sample.uploading = stream;
    pa_stream_set_state_callback(stream, &PulseSoundPlayer::uploadStateCallback, &sample);
}

void PulseSoundPlayer::uploadStateCallback(pa_stream* stream, void* userdata) {
    auto& sample = *static_cast<Sample*>(userdata);
    switch (pa_stream_get_state(stream)) {
    case PA_STREAM_READY:
        pa_stream_write(stream, sample.sound.pcm.data(), sample.sound.pcm.size(), nullptr, 0, PA_SEEK_RELATIVE);
        pa_stream_finish_upload(stream);
        return;
    case PA_STREAM_TERMINATED: {
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        pa_stream_unref(stream);
        sample.uploading = nullptr;
        sample.uploadedGeneration = sample.owner->connection_.generation();
        const int plays = std::exchange(sample.pendingPlays, 0);
        pa_context* context = sample.owner->connection_.readyContext();
        for (int i = 0; context && i < plays; ++i) sample.owner->playLocked(context, sample);
        return;
    }
    case PA_STREAM_FAILED:
        logError("SoundPlayer.play() - upload of " + sample.name + " failed: " +
                 pa_strerror(pa_context_errno(pa_stream_get_context(stream))));
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        pa_stream_unref(stream);
        sample.uploading = nullptr;
        sample.pendingPlays = 0;
        return;
    default: return;
    }
}

} // namespace sprelio::platform

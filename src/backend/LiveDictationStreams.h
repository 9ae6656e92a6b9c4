#pragma once
// The live stream of a dictation: while it records, its Opus packets go to its backend as they are made, when that
// backend says it decodes live; the ordinary upload then names the stream (header "X-Live-Stream") and the backend
// may answer from what it has decoded already. The upload itself is unchanged, and a backend that can't use the
// stream (broken, other audio, another backend after a failover) transcribes the upload as always: the stream may
// change when the text comes, never what it says.
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "audio/RecordingAudio.h"
#include "base/Uuid.h"
#include "platform/MainLoop.h"
#include "platform/StreamingUpload.h"

namespace sprelio {

class BalancingManager;
class AppState;
class HttpAudioUploadManager;
namespace store {
class Settings;
}

class LiveDictationStreams {
public:
    static constexpr const char* kHeader = "X-Live-Stream";

    struct Dependencies {
        platform::MainLoop& loop;
        platform::StreamingUploadClient& client;
        BalancingManager& balancing;
        AppState& appState;
        store::Settings& settings;
        // The request constants (app, OS, Accept-Language) the uploads use.
        const HttpAudioUploadManager& uploads;
    };

    explicit LiveDictationStreams(Dependencies deps);
    ~LiveDictationStreams();
    LiveDictationStreams(const LiveDictationStreams&) = delete;
    LiveDictationStreams& operator=(const LiveDictationStreams&) = delete;

    // Main loop. A stream for the dictation when the backend its upload will go to first decodes live; the sink
    // to give its recorder, or nothing.
    std::shared_ptr<RecordingPacketSink> begin(const Uuid& requestID, const std::string& languages, bool diarization);
    // Main loop. The name for an upload of `requestID` to the backend `backendUuid`: only that stream's own backend
    // hears of it, and only while the stream has not failed.
    std::optional<std::string> streamFor(const Uuid& requestID, const std::string& backendUuid) const;
    // Main loop. Ends the dictation's stream at once, its connection and so the backend's decoding included.
    void cancel(const Uuid& requestID);

private:
    struct Stream;
    Dependencies deps_;
    std::map<std::string, std::shared_ptr<Stream>> streams_;
    std::shared_ptr<bool> alive_;
};

} // namespace sprelio

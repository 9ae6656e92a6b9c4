#include "backend/LiveDictationStreams.h"

#include <mutex>

#include <nlohmann/json.hpp>

#include "backend/BalancingManager.h"
#include "backend/HttpAudioUploadManager.h"
#include "base/Log.h"
#include "shared/AppState.h"
#include "store/Settings.h"

namespace sprelio {

namespace {

constexpr const char* kLive = "LiveDictationStreams.begin() - ";
// At most this many streams are remembered; a dictation's upload follows its recording closely.
constexpr std::size_t kRemembered = 4;

// The server's error name and message, as its JSON answer gives them; they name the refusal, never what was said.
std::string reasonOf(const std::string& body) {
    const auto json = nlohmann::json::parse(body, nullptr, false);
    if (!json.is_object()) return {};
    std::string reason;
    if (auto error = json.find("error"); error != json.end() && error->is_string()) reason = error->get<std::string>();
    if (auto message = json.find("message"); message != json.end() && message->is_string())
        reason += (reason.empty() ? "" : ": ") + message->get<std::string>();
    return reason.empty() ? std::string() : " (" + reason + ")";
}

// Frames each packet with its length and hands it to the transfer; on the capture's thread, never waits.
class PacketFramer final : public RecordingPacketSink {
public:
    explicit PacketFramer(std::shared_ptr<platform::StreamingUpload> upload) : upload_(std::move(upload)) {}
    void packet(const std::uint8_t* data, std::size_t size) override {
        if (size == 0 || size > 0xffff) return;
        std::string framed;
        framed.reserve(size + 2);
        framed += static_cast<char>(size >> 8);
        framed += static_cast<char>(size & 0xff);
        framed.append(reinterpret_cast<const char*>(data), size);
        upload_->write(std::move(framed));
    }
    void ended(bool complete) override {
        if (complete)
            upload_->finish();
        else
            upload_->cancel();
    }

private:
    std::shared_ptr<platform::StreamingUpload> upload_;
};

} // namespace

struct LiveDictationStreams::Stream {
    std::string id;
    std::string backendUuid;
    std::shared_ptr<platform::StreamingUpload> upload;
    bool failed = false;
    std::uint64_t order = 0;
};

LiveDictationStreams::LiveDictationStreams(Dependencies deps)
    : deps_(deps), alive_(std::make_shared<bool>(true)) {}

LiveDictationStreams::~LiveDictationStreams() {
    *alive_ = false;
    for (auto& [key, stream] : streams_) stream->upload->cancel();
}

std::shared_ptr<RecordingPacketSink> LiveDictationStreams::begin(const Uuid& requestID, const std::string& languages,
                                                                 bool diarization) {
    if (!deps_.appState.internetAvailable()) return nullptr;
    // The backend getEndpoint() will pick, if nothing fails before the upload.
    BackendBalancerPtr backend;
    for (const auto& candidate : deps_.balancing.balancers()) {
        if (candidate->isOnline) {
            backend = candidate;
            break;
        }
    }
    if (!backend || !backend->liveDecoding) return nullptr;
    const auto url = HttpAudioUploadManager::endpointURL(
        backend->url, "/transcribe/live",
        {{"id", requestID.string()},
         {"app", deps_.uploads.appIdentifier()},
         {"languages", languages},
         {"os", deps_.uploads.osIdentifier()},
         {"diarization", diarization ? "true" : "false"},
         {"channels", "1"}});
    if (!url) return nullptr;

    platform::HttpRequest request;
    request.method = "POST";
    request.url = *url;
    request.headers = {{"Authorization", "Bearer " + deps_.settings.token().value_or("")},
                       {"Accept-Language", deps_.uploads.acceptLanguage()},
                       {"Content-Type", "application/octet-stream"}};
    request.timeout = std::chrono::seconds(10);

    auto stream = std::make_shared<Stream>();
    stream->id = requestID.string();
    stream->backendUuid = backend->uuid;
    static std::uint64_t counter = 0;
    stream->order = ++counter;
    const std::string id = stream->id;
    auto alive = alive_;
    std::weak_ptr<Stream> weak = stream;
    stream->upload = deps_.client.start(std::move(request), [alive, weak, id](platform::HttpResult result) {
        if (!*alive) return;
        auto* response = std::get_if<platform::HttpResponse>(&result);
        const bool decoded = response && response->status == 200;
        if (!decoded) {
            logWarning("LiveDictationStreams - stream " + id + " ended without a live decoding: " +
                       (response ? "HTTP " + std::to_string(response->status) + reasonOf(response->body)
                                 : std::get<Error>(result).localizedDescription) +
                       "; the upload is transcribed as usual");
        }
        if (auto owner = weak.lock(); owner && !decoded) owner->failed = true;
    });
    while (streams_.size() >= kRemembered) {
        auto oldest = streams_.begin();
        for (auto it = streams_.begin(); it != streams_.end(); ++it)
            if (it->second->order < oldest->second->order) oldest = it;
        streams_.erase(oldest);
    }
    streams_[id] = stream;
    logInfo(std::string(kLive) + "requestID: " + id + " - streaming to " + backend->name + " while recording");
    return std::make_shared<PacketFramer>(stream->upload);
}

std::optional<std::string> LiveDictationStreams::streamFor(const Uuid& requestID, const std::string& backendUuid) const {
    auto found = streams_.find(requestID.string());
    if (found == streams_.end() || found->second->failed || found->second->backendUuid != backendUuid)
        return std::nullopt;
    return found->second->id;
}

void LiveDictationStreams::cancel(const Uuid& requestID) {
    auto found = streams_.find(requestID.string());
    if (found == streams_.end()) return;
    found->second->failed = true;
    found->second->upload->cancel();
    logInfo("LiveDictationStreams.cancel() - requestID: " + requestID.string() + " - live stream ended");
}

} // namespace sprelio

// POST /transcribe/live: a dictation's Opus packets while it is recorded, recognised as they arrive, and the
// matching of an upload to its stream (see LiveDecodeSessions.h).
#include "server/BackendServer.h"

#include <httplib.h>

#include <chrono>

#include <nlohmann/json.hpp>

#include "base/Log.h"
#include "base/Uuid.h"
#include "server/ApiError.h"
#include "server/LiveAudioDecoder.h"
#include "server/RequestHelpers.h"

namespace sprelio::server {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kLive = "BackendServer.handleLiveTranscribe() - ";

std::string milliseconds(Clock::duration d) {
    return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(d).count());
}

bool diarizationAsked(const httplib::Request& request) { return request.get_param_value("diarization") == "true"; }

} // namespace

bool BackendServer::liveDecoding() const { return config_.liveDecoding && slots_.description().incremental; }

void BackendServer::handleLiveTranscribe(const httplib::Request& request, httplib::Response& response,
                                         const httplib::ContentReader& reader) {
    auto account = authorizeBeforeBody(request, response);
    if (!account) return;
    if (!liveDecoding()) {
        refuseBody(response, {404, "LiveDecodingOff", "This server does not decode while recording.", true});
        return;
    }
    auto id = Uuid::parse(request.get_param_value("id"));
    if (!id) {
        refuseBody(response, api_error::badRequest("The live stream needs a UUID as its id."));
        return;
    }
    int channels = 1;
    if (request.has_param("channels")) {
        const auto asked = request.get_param_value("channels");
        channels = asked == "1" ? 1 : asked == "2" ? 2 : 0;
    }
    if (channels == 0) {
        refuseBody(response, api_error::badRequest("A live stream has one or two channels."));
        return;
    }
    const auto& engine = slots_.description();
    auto language = checkTranscriptionQuery(request, response, engine, "BackendServer.handleLiveTranscribe()");
    if (!language) {
        response.set_header("Connection", "close");
        return;
    }
    // A live stream is a transcription like any other: without a free slot it is refused, and the upload finds one
    // later or goes elsewhere.
    auto lease = slots_.tryAcquire();
    if (!lease) {
        log(LogLevel::warning, std::string(kLive) + "all engine slots busy, no live decoding");
        refuseBody(response, api_error::noOnlineFarms());
        return;
    }
    std::unique_ptr<IncrementalTranscription> run;
    try {
        run = lease->engine().beginIncremental(*language);
    } catch (const EngineError& e) {
        log(LogLevel::error, std::string(kLive) + "engine failure: " + e.what());
        refuseBody(response, api_error::engineUnavailable());
        return;
    }
    if (!run) {
        refuseBody(response, {404, "LiveDecodingOff", "This server's engine can't decode while recording.", true});
        return;
    }
    auto session = live_->open(id->string(), account->id, *language, diarizationAsked(request), channels);
    if (!session) {
        refuseBody(response, api_error::badRequest("A live stream with this id exists already."));
        return;
    }

    const auto started = Clock::now();
    const auto limit = std::chrono::seconds(config_.liveMaxSeconds);
    LiveOpusDecoder decoder(channels, config_.maxAudioSeconds);
    PacketDigest digest;
    std::string pending;
    std::uint64_t packets = 0;
    std::uint64_t samples = 0;
    std::optional<ApiError> failure;
    const SampleSink sink = [&](std::span<const std::int16_t> piece) {
        run->feed(piece);
        samples += piece.size();
        session->touch();
        return !session->abandoned();
    };
    auto consume = [&](const char* data, std::size_t length) {
        if (session->abandoned() || stopping_) return false;
        if (Clock::now() - started > limit) {
            failure = ApiError{413, "LiveStreamTooLong", "The live stream ran longer than this server decodes live.",
                               false};
            return false;
        }
        session->touch();
        pending.append(data, length);
        std::size_t at = 0;
        while (pending.size() - at >= 2) {
            const std::size_t size = (static_cast<unsigned char>(pending[at]) << 8) |
                                     static_cast<unsigned char>(pending[at + 1]);
            if (size == 0) {
                failure = api_error::badRequest("The live stream holds an empty packet.");
                return false;
            }
            if (pending.size() - at - 2 < size) break;
            std::string_view packet(pending.data() + at + 2, size);
            digest.add(packet);
            ++packets;
            if (auto bad = decoder.push(packet, sink)) {
                failure = api_error::undecodableAudio(bad->message);
                return false;
            }
            at += 2 + size;
        }
        pending.erase(0, at);
        return true;
    };

    bool complete = false;
    try {
        if (const auto& unusable = decoder.openFailure()) {
            failure = api_error::undecodableAudio(unusable->message);
        } else if (reader(consume) && !failure) {
            if (!pending.empty()) {
                failure = api_error::badRequest("The live stream ends inside a packet.");
            } else if (auto tail = decoder.finish(sink)) {
                failure = api_error::undecodableAudio(tail->message);
            } else {
                complete = true;
            }
        }
    } catch (const EngineError& e) {
        log(LogLevel::error, std::string(kLive) + "engine failure: " + e.what());
        failure = api_error::engineUnavailable();
    }
    if (complete) {
        Transcript transcript;
        try {
            transcript = run->finish();
        } catch (const EngineError& e) {
            log(LogLevel::error, std::string(kLive) + "engine failure: " + e.what());
            failure = api_error::engineUnavailable();
            complete = false;
        }
        if (complete) live_->finished(session, std::move(transcript), digest.finish());
    }
    const auto seconds = static_cast<double>(samples) / DecodedAudio::kSampleRate;
    if (!complete) {
        live_->failed(session);
        const char* cause = failure ? "refused" : session->abandoned() ? "given up by its upload" : "broken off";
        log(LogLevel::warning, std::string(kLive) + "stream " + cause + " after " + std::to_string(packets) +
                                   " packets (" + std::to_string(static_cast<int>(seconds * 1000)) + " ms of audio)");
        refuseBody(response, failure ? *failure
                                     : ApiError{400, "LiveStreamBroken", "The live stream ended before its end.",
                                                false});
        return;
    }
    log(LogLevel::info, std::string(kLive) + std::to_string(packets) + " packets, " +
                            std::to_string(static_cast<int>(seconds * 1000)) + " ms of audio decoded live in " +
                            milliseconds(Clock::now() - started) + " ms of streaming");
    response.set_content(nlohmann::json{{"id", id->string()}, {"decoded", true}}.dump(), "application/json");
}

std::optional<Transcript> BackendServer::takeLiveTranscript(const httplib::Request& request, const Account& account,
                                                            const std::string& language) {
    const auto waitStart = Clock::now();
    const auto id = Uuid::parse(request.get_header_value(kLiveStreamHeader));
    if (!id) {
        log(LogLevel::info, "BackendServer.handleTranscribe() - live stream not used: its name is no UUID");
        return std::nullopt;
    }
    const auto& upload = request.get_file_value("file").content;
    LiveClaim claim;
    claim.accountId = account.id;
    claim.language = language;
    claim.diarization = diarizationAsked(request);
    auto packets = readCafOpusPackets(upload);
    std::string why;
    std::optional<Transcript> transcript;
    if (packets) {
        PacketDigest digest;
        for (auto packet : packets->packets) digest.add(packet);
        claim.digest = digest.finish();
        claim.channels = packets->channels;
        transcript = live_->take(id->string(), claim, why);
    } else {
        // Used up all the same: the stream's text will never be asked for again.
        live_->take(id->string(), claim, why);
        why = "the upload is no Opus recording the live decoder reads alike";
    }
    if (!transcript) {
        log(LogLevel::info, "BackendServer.handleTranscribe() - live stream not used: " + why);
        return std::nullopt;
    }
    log(LogLevel::info, "BackendServer.handleTranscribe() - answered from the live stream, matched in " +
                            milliseconds(Clock::now() - waitStart) + " ms, text: " + std::string(kPrivatized));
    return transcript;
}

} // namespace sprelio::server

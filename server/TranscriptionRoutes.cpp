// The transcription routes of BackendServer: POST /transcribe for a recording (with an AI step riding along if
// asked), and the long files under /transcribe/file/<uuid>, uploaded by POST and transcribed by GET.
#include "server/BackendServer.h"

#include <httplib.h>

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <memory>

#include <nlohmann/json.hpp>

#include "base/Log.h"
#include "base/Uuid.h"
#include "server/ApiError.h"
#include "server/AudioDecoder.h"
#include "server/LongFileTranscriber.h"
#include "server/RequestHelpers.h"

namespace sprelio::server {

namespace {

using Clock = std::chrono::steady_clock;

ApiError fileNotFound() {
    return {404, "FileNotFound", "There is no uploaded file with this id; please upload the file again.", true};
}

ApiError fileIdTaken() {
    return {403, "FileIdTaken", "This file id belongs to another account; please upload the file under a new id.",
            true};
}

std::int64_t ownerOf(const std::filesystem::path& ownerFile) {
    std::int64_t owner = -1;
    std::ifstream(ownerFile) >> owner;
    return owner;
}

// An upload id is its first uploader's: the owner file is made exclusively, so of two accounts posting to the
// same id at once exactly one gets it, and the other can neither replace nor take over its file.
bool claimUploadId(const std::filesystem::path& ownerFile, std::int64_t account) {
    int fd = ::open(ownerFile.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return errno == EEXIST && ownerOf(ownerFile) == account;
    auto text = std::to_string(account) + "\n";
    bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return written;
}

} // namespace

void BackendServer::handleTranscribe(const httplib::Request& request, httplib::Response& response) {
    auto account = authorize(request, response);
    if (!account) return;
    const auto& engine = slots_.description();

    if (!request.is_multipart_form_data() || !request.has_file("file")) {
        api_error::badRequest("The upload must be multipart/form-data with the recording in a part named \"file\".")
            .applyTo(response);
        return;
    }
    // An AI instruction rides along: checked before any audio is decoded, so that a request the server can't
    // carry out costs no transcription.
    std::optional<CompletionRequest> ai;
    if (request.has_file("ai")) {
        auto parsed = CompletionPrompts::parse(nlohmann::json::parse(request.get_file_value("ai").content, nullptr,
                                                                     false),
                                               false);
        if (auto* error = std::get_if<ApiError>(&parsed)) {
            error->applyTo(response);
            return;
        }
        ai = std::get<CompletionRequest>(std::move(parsed));
    }

    auto chosen = checkTranscriptionQuery(request, response, engine, "BackendServer.handleTranscribe()");
    if (!chosen) return;
    const std::string& language = *chosen;

    // A live stream of this very recording may have finished its text already.
    if (request.has_header(kLiveStreamHeader)) {
        if (auto live = takeLiveTranscript(request, *account, language)) {
            answerTranscript(response, *account, *live, std::move(ai));
            return;
        }
    }

    auto lease = slots_.tryAcquire();
    if (!lease) {
        log(LogLevel::warning, "BackendServer.handleTranscribe() - all " + std::to_string(slots_.capacity()) +
                                   " engine slot(s) busy, answering NoOnlineFarms");
        api_error::noOnlineFarms().applyTo(response);
        return;
    }

    const auto& upload = request.get_file_value("file").content;
    auto decodeStart = Clock::now();
    auto decoded = decodeAudio(upload, config_.maxAudioSeconds);
    if (auto* failure = std::get_if<DecodeFailure>(&decoded)) {
        log(LogLevel::warning, "BackendServer.handleTranscribe() - upload of " + std::to_string(upload.size()) +
                                   " bytes not decodable: " + failure->message);
        api_error::undecodableAudio(failure->message).applyTo(response);
        return;
    }
    auto& audio = std::get<DecodedAudio>(decoded);
    auto recogniseStart = Clock::now();

    Transcript transcript;
    try {
        transcript = lease->engine().transcribe(audio.samples, language);
    } catch (const EngineRequestError& e) {
        // The engine's service failed this once; another backend may well succeed, so no stop.
        api_error::transcriptionFailed(e.what()).applyTo(response);
        return;
    } catch (const EngineError& e) {
        log(LogLevel::error, std::string("BackendServer.handleTranscribe() - engine failure: ") + e.what());
        api_error::engineUnavailable().applyTo(response);
        return;
    }
    // The slot is free for the next recording while the AI part below waits on its service.
    lease.reset();
    auto done = Clock::now();
    auto ms = [](auto d) { return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(d).count()); };
    log(LogLevel::info, "BackendServer.handleTranscribe() - " + audio.formatName + "/" + audio.codecName + ", " +
                            std::to_string(static_cast<int>(audio.seconds() * 1000)) + " ms of audio, decoded in " +
                            ms(recogniseStart - decodeStart) + " ms, recognised in " + ms(done - recogniseStart) +
                            " ms, text: " + std::string(kPrivatized));
    answerTranscript(response, *account, transcript, std::move(ai));
}

void BackendServer::answerTranscript(httplib::Response& response, const Account& account, const Transcript& transcript,
                                     std::optional<CompletionRequest> ai) {
    accounts_.countRequest(account.id);
    nlohmann::json text = {{"text", transcript.text}, {"language", transcript.language}};
    if (!ai) {
        response.set_content(text.dump(), "application/json");
        return;
    }

    // The streamed form: the transcript as the first line, as soon as it exists, then the AI result or an error
    // line. The client has the transcript by then, so a failed AI step carries `stop`: uploading the recording
    // again elsewhere would only transcribe it twice.
    ai->text = transcript.text;
    if (!transcript.language.empty()) ai->textLang = transcript.language;
    auto pending = std::make_shared<CompletionRequest>(std::move(*ai));
    auto textLine = std::make_shared<std::string>(text.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) +
                                                  "\n");
    response.set_chunked_content_provider(
        "text/event-stream", [this, pending, textLine](std::size_t, httplib::DataSink& sink) {
            if (!sink.write(textLine->data(), textLine->size())) return false;
            auto outcome = complete(*pending, "BackendServer.handleTranscribe()");
            std::string line;
            if (auto* completion = std::get_if<std::string>(&outcome)) {
                line = nlohmann::json{{"completion", *completion}}.dump(-1, ' ', false,
                                                                         nlohmann::json::error_handler_t::replace);
            } else {
                auto error = std::get<ApiError>(outcome);
                error.stop = true;
                line = error.json();
            }
            line += "\n";
            if (!sink.write(line.data(), line.size())) return false;
            sink.done();
            return true;
        });
}

void BackendServer::handleFileUpload(const httplib::Request& request, httplib::Response& response,
                                     const httplib::ContentReader& reader) {
    auto account = authorizeBeforeBody(request, response);
    if (!account) return;
    auto uuid = Uuid::parse(request.matches[1].str());
    if (!uuid) {
        refuseBody(response, api_error::badRequest("The file id in the path is not a UUID."));
        return;
    }
    if (request.has_header("Content-Length")) {
        auto length = std::strtoull(request.get_header_value("Content-Length").c_str(), nullptr, 10);
        if (length > config_.maxFileUploadBytes) {
            refuseBody(response, api_error::payloadTooLarge(config_.maxFileUploadBytes));
            return;
        }
    }
    std::filesystem::create_directories(uploadFolder());
    std::filesystem::permissions(uploadFolder(), std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::replace);
    auto name = uuid->string();
    // A slow upload leaves its partial file alone for long stretches; the clean-up must not take it meanwhile.
    auto busy = janitor_->markBusy(name);
    if (!claimUploadId(uploadFolder() / (name + ".owner"), account->id)) {
        log(LogLevel::warning, "BackendServer.handleFileUpload() - upload to another account's file id refused");
        refuseBody(response, fileIdTaken());
        return;
    }
    auto partial = uploadFolder() / (name + ".partial");
    std::ofstream out(partial, std::ios::binary | std::ios::trunc);
    std::uint64_t written = 0;
    bool tooLarge = false;
    bool read = out && reader([&](const char* data, std::size_t length) {
        written += length;
        if (written > config_.maxFileUploadBytes) {
            tooLarge = true;
            return false;
        }
        out.write(data, static_cast<std::streamsize>(length));
        return static_cast<bool>(out);
    });
    out.close();
    if (!read || !out || written == 0) {
        std::error_code ignored;
        std::filesystem::remove(partial, ignored);
        refuseBody(response, tooLarge      ? api_error::payloadTooLarge(config_.maxFileUploadBytes)
                             : written == 0 ? api_error::badRequest("The upload is empty.")
                                            : api_error::badRequest("The upload could not be read or stored."));
        return;
    }
    std::filesystem::rename(partial, uploadFolder() / (name + ".upload"));
    log(LogLevel::info, "BackendServer.handleFileUpload() - stored " + std::to_string(written) + " bytes as " + name);
    response.set_content(nlohmann::json{{"uuid", name}}.dump(), "application/json");
}

void BackendServer::handleFileTranscribe(const httplib::Request& request, httplib::Response& response) {
    auto account = authorize(request, response);
    if (!account) return;
    auto uuid = Uuid::parse(request.matches[1].str());
    auto name = uuid ? uuid->string() : std::string();
    auto file = uploadFolder() / (name + ".upload");
    // Marked before the file is looked for: from here on the clean-up leaves it be until the stream has ended.
    auto busy = std::make_shared<UploadJanitor::Busy>(janitor_->markBusy(name));
    // Another account's file is as unknown as a missing one.
    if (!uuid || ownerOf(uploadFolder() / (name + ".owner")) != account->id || !std::filesystem::exists(file)) {
        fileNotFound().applyTo(response);
        return;
    }
    const auto& engine = slots_.description();
    auto language = checkTranscriptionQuery(request, response, engine, "BackendServer.handleFileTranscribe()");
    if (!language) return;
    auto acquired = slots_.tryAcquire();
    if (!acquired) {
        api_error::noOnlineFarms().applyTo(response);
        return;
    }
    auto lease = std::make_shared<EngineSlots::Lease>(std::move(*acquired));
    LongFileTranscriber::Options options{*language, config_.fileChunkSeconds, config_.maxAudioSeconds};
    auto accountId = account->id;
    auto folder = uploadFolder();
    response.set_chunked_content_provider(
        "application/x-ndjson",
        [this, lease, busy, options, file, accountId, folder, name](std::size_t, httplib::DataSink& sink) {
            LongFileTranscriber::Outcome outcome;
            try {
                outcome = LongFileTranscriber::run(file, lease->engine(), options, stopping_,
                                                   [&sink](const std::string& line) {
                                                       return sink.write(line.data(), line.size());
                                                   });
            } catch (const EngineError& e) {
                log(LogLevel::error, std::string("BackendServer.handleFileTranscribe() - engine failure: ") + e.what());
                auto line = nlohmann::json{{"error", "EngineUnavailable"},
                                           {"message", "The transcription engine of this server could not be "
                                                       "started."}}.dump() + "\n";
                sink.write(line.data(), line.size());
                outcome = LongFileTranscriber::Outcome::failed;
            }
            if (outcome == LongFileTranscriber::Outcome::transcribed) {
                accounts_.countRequest(accountId);
                // The client uploads again for another try, so a transcribed file is not kept.
                std::error_code ignored;
                std::filesystem::remove(folder / (name + ".upload"), ignored);
                std::filesystem::remove(folder / (name + ".owner"), ignored);
            }
            if (outcome != LongFileTranscriber::Outcome::clientGone) sink.done();
            return outcome != LongFileTranscriber::Outcome::clientGone;
        });
}

} // namespace sprelio::server

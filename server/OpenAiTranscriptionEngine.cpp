#include "server/OpenAiTranscriptionEngine.h"

#include <nlohmann/json.hpp>

#include "base/Log.h"
#include "server/AudioDecoder.h"
#include "server/OpenAiHttp.h"

namespace sprelio::server {

namespace {

void putLittleEndian(std::string& out, std::uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out += static_cast<char>((value >> (8 * i)) & 0xFF);
}

} // namespace

const std::vector<std::string>& OpenAiTranscriptionEngine::defaultLanguages() {
    static const std::vector<std::string> languages = {
        "en", "af", "ar", "az", "be", "bg", "bs", "ca", "cs", "cy", "da", "de", "el", "es", "et", "fa", "fi", "fr",
        "gl", "he", "hi", "hr", "hu", "hy", "id", "is", "it", "ja", "kk", "kn", "ko", "lt", "lv", "mi", "mk", "mr",
        "ms", "ne", "nl", "no", "pl", "pt", "ro", "ru", "sk", "sl", "sr", "sv", "sw", "ta", "th", "tl", "tr", "uk",
        "ur", "vi", "zh"};
    return languages;
}

EngineDescription OpenAiTranscriptionEngine::description(const OpenAiTranscriptionSettings& settings) {
    return {"openai", settings.languages.empty() ? defaultLanguages() : settings.languages, false};
}

OpenAiTranscriptionEngine::OpenAiTranscriptionEngine(OpenAiTranscriptionSettings settings,
                                                     const std::atomic<bool>* cancel)
    : settings_(std::move(settings)), endpoint_(openAiEndpoint(settings_.url, "audio/transcriptions")),
      cancel_(cancel) {
    if (settings_.url.empty()) throw EngineError("the openai engine has no service URL configured");
}

std::string OpenAiTranscriptionEngine::wavFile(std::span<const std::int16_t> samples) {
    const auto dataBytes = static_cast<std::uint32_t>(samples.size() * sizeof(std::int16_t));
    const std::uint32_t rate = DecodedAudio::kSampleRate;
    std::string out;
    out.reserve(44 + dataBytes);
    out += "RIFF";
    putLittleEndian(out, 36 + dataBytes, 4);
    out += "WAVEfmt ";
    putLittleEndian(out, 16, 4);       // size of the fmt chunk
    putLittleEndian(out, 1, 2);        // PCM
    putLittleEndian(out, 1, 2);        // mono
    putLittleEndian(out, rate, 4);     // sample rate
    putLittleEndian(out, rate * 2, 4); // bytes per second
    putLittleEndian(out, 2, 2);        // block align
    putLittleEndian(out, 16, 2);       // bits per sample
    out += "data";
    putLittleEndian(out, dataBytes, 4);
    for (std::int16_t sample : samples) putLittleEndian(out, static_cast<std::uint16_t>(sample), 2);
    return out;
}

Transcript OpenAiTranscriptionEngine::transcribe(std::span<const std::int16_t> samples, const std::string& language) {
    std::vector<OpenAiPart> parts = {{"file", wavFile(samples), "audio.wav", "audio/wav"},
                                     {"model", settings_.model, "", ""},
                                     {"language", language, "", ""},
                                     {"response_format", "json", "", ""}};
    auto sent = postMultipart({endpoint_, settings_.key, settings_.timeout, cancel_}, parts);
    if (auto* failure = std::get_if<OpenAiTransportFailure>(&sent)) {
        log(LogLevel::error, "OpenAiTranscriptionEngine.transcribe() - " + urlHost(endpoint_) + ": " + failure->message);
        throw EngineRequestError(failure->cancelled ? "The server is stopping; please try again."
                                                    : "The transcription service behind this server could not be "
                                                      "reached.");
    }
    const auto& reply = std::get<OpenAiReply>(sent);
    if (reply.status < 200 || reply.status > 299) {
        auto explanation = serviceErrorMessage(reply.body);
        log(LogLevel::error, "OpenAiTranscriptionEngine.transcribe() - " + urlHost(endpoint_) + " answered HTTP " +
                                 std::to_string(reply.status) + (explanation.empty() ? "" : ": " + explanation));
        throw EngineRequestError("The transcription service behind this server refused the recording (HTTP " +
                                 std::to_string(reply.status) + (explanation.empty() ? "" : ": " + explanation) +
                                 ").");
    }
    auto answer = nlohmann::json::parse(reply.body, nullptr, false);
    if (!answer.is_object() || !answer.contains("text") || !answer["text"].is_string()) {
        log(LogLevel::error, "OpenAiTranscriptionEngine.transcribe() - " + urlHost(endpoint_) +
                                 " answered without a text (" + std::to_string(reply.body.size()) + " bytes)");
        throw EngineRequestError("The transcription service behind this server gave no usable answer.");
    }
    auto text = answer["text"].get<std::string>();
    auto begin = text.find_first_not_of(" \t\r\n");
    auto end = text.find_last_not_of(" \t\r\n");
    text = begin == std::string::npos ? std::string() : text.substr(begin, end - begin + 1);
    return {text, language};
}

} // namespace sprelio::server

#pragma once
// A transcription engine that forwards to an OpenAI-compatible audio transcription service
// (POST <url>/v1/audio/transcriptions): the decoded 16 kHz mono samples go out as a WAV file with the model
// and the language, and the service's `text` comes back. The languages it serves are the operator's to state,
// since the server can't ask the service; speaker separation is not part of that protocol.
#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "server/TranscriptionEngine.h"

namespace sprelio::server {

struct OpenAiTranscriptionSettings {
    std::string url; // as configured; see openAiEndpoint()
    std::string key;
    std::string model = "whisper-1";
    std::vector<std::string> languages;
    std::chrono::seconds timeout{120};
};

class OpenAiTranscriptionEngine final : public TranscriptionEngine {
public:
    // The languages of the widely used Whisper models, English first (the language of a request that names none).
    static const std::vector<std::string>& defaultLanguages();
    static EngineDescription description(const OpenAiTranscriptionSettings& settings);

    // `cancel`, when given, abandons a running request once it turns true (a server that is stopping).
    explicit OpenAiTranscriptionEngine(OpenAiTranscriptionSettings settings,
                                       const std::atomic<bool>* cancel = nullptr);

    // Throws EngineRequestError when the service can't be reached or does not answer with a text.
    Transcript transcribe(std::span<const std::int16_t> samples, const std::string& language) override;

    // A RIFF/WAVE file of 16-bit PCM, mono, 16 kHz.
    static std::string wavFile(std::span<const std::int16_t> samples);

private:
    OpenAiTranscriptionSettings settings_;
    std::string endpoint_;
    const std::atomic<bool>* cancel_;
};

} // namespace sprelio::server

#pragma once
// The embedded engine: CMU pocketsphinx with Debian's US English model. It needs nothing downloaded and runs on
// the CPU; its accuracy is that of a small statistical model, good enough for clear dictation of common words.
#include <filesystem>

#include "server/TranscriptionEngine.h"

namespace sprelio::server {

class PocketsphinxEngine final : public TranscriptionEngine {
public:
    static EngineDescription description();
    // Loads the model of `modelFolder` (acoustic model en-us/, en-us.lm.bin, cmudict-en-us.dict). Throws EngineError.
    explicit PocketsphinxEngine(const std::filesystem::path& modelFolder);
    ~PocketsphinxEngine() override;
    PocketsphinxEngine(const PocketsphinxEngine&) = delete;
    PocketsphinxEngine& operator=(const PocketsphinxEngine&) = delete;

    Transcript transcribe(std::span<const std::int16_t> samples, const std::string& language) override;
    std::unique_ptr<IncrementalTranscription> beginIncremental(const std::string& language) override;

private:
    struct Impl;
    Impl* impl_ = nullptr;
};

} // namespace sprelio::server

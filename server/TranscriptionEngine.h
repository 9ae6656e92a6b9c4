#pragma once
// A speech recogniser behind the server. One instance serves one request at a time; the server keeps as many
// instances as it has slots (EngineSlots).
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace sprelio::server {

struct Transcript {
    std::string text;
    std::string language; // the code answered as `language`
};

// What the server knows of an engine before any instance exists: it answers requests it can't serve at once.
struct EngineDescription {
    std::string name;
    std::vector<std::string> languages; // primary language subtags, lower case ("en")
    bool diarization = false;
    // Instances can transcribe while the audio arrives (beginIncremental).
    bool incremental = false;
};

class EngineError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One request failed while the engine itself stays usable (a remote service refused or did not answer). The
// text is fit for the user: it names what went wrong, never the audio or a credential.
class EngineRequestError : public EngineError {
public:
    using EngineError::EngineError;
};

// A transcription fed while the audio is still arriving. The samples handed to feed(), in any pieces, followed by
// finish(), give exactly the text transcribe() gives for all of them at once. Holds its engine: the engine serves
// nothing else until this object is gone. Dropped unfinished, it leaves the engine ready for the next request.
class IncrementalTranscription {
public:
    virtual ~IncrementalTranscription() = default;
    // Throws EngineError.
    virtual void feed(std::span<const std::int16_t> samples) = 0;
    // Once. Throws EngineError.
    virtual Transcript finish() = 0;
};

class TranscriptionEngine {
public:
    virtual ~TranscriptionEngine() = default;
    // 16 kHz mono samples; `language` is one of the description's languages. Throws EngineError (or
    // EngineRequestError).
    virtual Transcript transcribe(std::span<const std::int16_t> samples, const std::string& language) = 0;
    // Nothing for an engine that needs the whole recording (a remote service). Throws EngineError.
    virtual std::unique_ptr<IncrementalTranscription> beginIncremental(const std::string& /*language*/) {
        return nullptr;
    }
};

// Makes one instance; may be slow (a model is loaded). Throws EngineError when the engine can't start.
using EngineFactory = std::function<std::unique_ptr<TranscriptionEngine>()>;

} // namespace sprelio::server

#pragma once
// The upload of one recording to the transcription backend. Each owner has its own instance.
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "shared/AICompletionPromptId.h"
#include "base/Error.h"
#include "base/Uuid.h"

namespace sprelio {

class AudioUploadManager {
public:
    // Runs once for a plain answer; a streamed answer calls it for its TEXT line and again for its COMPLETION
    // line. A cancelled upload ends without calling it with anything the user sees.
    using Completion = std::function<void(std::optional<nlohmann::json> result, std::optional<Error> error)>;

    virtual ~AudioUploadManager() = default;
    virtual void uploadRecording(const std::filesystem::path& url, const Uuid& requestID,
                                 const std::vector<std::string>& languages,
                                 const std::optional<AICompletionPromptId>& promptId, bool diarization,
                                 const std::optional<std::string>& inputLanguageCode, Completion completion) = 0;
    virtual void cancelUpload() = 0;
};

} // namespace sprelio

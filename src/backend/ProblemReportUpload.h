#pragma once
// The upload of a problem report to the account API: the user's words and the two archives in one multipart POST
// to "/users/report".
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "base/LifetimeGuard.h"
#include "platform/Http.h"
#include "platform/MainLoop.h"

namespace sprelio {

namespace store {
class Settings;
}

// The part "data" of a report.
struct UploadData {
    std::string text;
    std::string phone;
    std::optional<std::string> email;
    std::string app;      // the client version, "linux-" + version
    std::string deviceId; // the machine's id of the account service
    std::string os;
    nlohmann::ordered_json languages; // {"system", "region", "app"}

    // The keys in their order: text, phone, user {email}, app, device_id, os, info {languages}.
    nlohmann::ordered_json json() const;
};

class ProblemReportUploader {
public:
    struct Dependencies {
        platform::MainLoop& loop;
        platform::HttpClient& http;
        const store::Settings& settings;
        // The account API's base URL, read at each send.
        std::function<std::string()> apiBaseURL;
        // The transcription of errors for the log: the text of the missing-token error.
        std::string tokenUnavailableText;
    };
    // True when the server took the report (status 200); on the main loop.
    using Completion = std::function<void(bool sent)>;

    explicit ProblemReportUploader(Dependencies deps);

    void uploadDataWithFiles(const UploadData& data, const std::filesystem::path& logsZip,
                             const std::filesystem::path& configZip, Completion completion);

private:
    Dependencies deps_;
    LifetimeGuard lifetime_;
};

} // namespace sprelio

#include "backend/ProblemReportUpload.h"

#include "backend/MultipartBody.h"
#include "base/Log.h"
#include "base/Uuid.h"
#include "store/Settings.h"

namespace sprelio {

nlohmann::ordered_json UploadData::json() const {
    nlohmann::ordered_json data;
    data["text"] = text;
    data["phone"] = phone;
    nlohmann::ordered_json user = nlohmann::ordered_json::object();
    if (email) user["email"] = *email;
    data["user"] = user;
    data["app"] = app;
    data["device_id"] = deviceId;
    data["os"] = os;
    data["info"] = nlohmann::ordered_json{{"languages", languages}};
    return data;
}

ProblemReportUploader::ProblemReportUploader(Dependencies deps) : deps_(std::move(deps)) {}

void ProblemReportUploader::uploadDataWithFiles(const UploadData& data, const std::filesystem::path& logsZip,
                                                const std::filesystem::path& configZip, Completion completion) {
    const auto finish = [this, completion](bool sent) {
        deps_.loop.post(lifetime_.guard([completion, sent] {
            if (completion) completion(sent);
        }));
    };
    const auto token = deps_.settings.token();
    if (!token) {
        logError("uploadDataWithFiles() - " + deps_.tokenUnavailableText);
        finish(false);
        return;
    }
    const std::string base = deps_.apiBaseURL ? deps_.apiBaseURL() : std::string();
    if (base.empty() || (!base.starts_with("http://") && !base.starts_with("https://"))) {
        logError("uploadDataWithFiles - catch");
        finish(false);
        return;
    }
    std::string encoded;
    try {
        encoded = data.json().dump();
    } catch (const nlohmann::json::exception& e) {
        // Text that is not UTF-8 can't be encoded.
        logError(std::string("uploadDataWithFiles() - dataEncodingFailed: ") + e.what());
        logError("uploadDataWithFiles - catch");
        finish(false);
        return;
    }
    logInfo("uploadDataWithFiles() - encoded JSON: " + encoded);

    MultipartBody body("Boundary-" + Uuid::random().string());
    body.addBytes("data", std::string("data.json"), std::string("application/json"), std::move(encoded));
    body.addFile("logs", std::string("logs.zip"), std::string("application/zip"), logsZip);
    body.addFile("config", std::string("config.zip"), std::string("application/zip"), configZip);

    platform::HttpRequest request;
    request.method = "POST";
    request.url = base + "/users/report";
    request.headers = {{"Authorization", "Bearer " + *token}, {"Content-Type", body.contentType()}};
    request.body = body.body();
    request.timeout = std::chrono::seconds(60);
    deps_.http.send(std::move(request), [finish](platform::HttpResult result) {
        if (auto* error = std::get_if<Error>(&result)) {
            logError("uploadDataWithFiles() - error: " + error->debugDescription());
            logError("uploadDataWithFiles - catch");
            finish(false);
            return;
        }
        const auto& response = std::get<platform::HttpResponse>(result);
        if (response.status == 200) {
            logInfo("uploadDataWithFiles() - response: " + response.body);
            finish(true);
            return;
        }
        logWarning("uploadDataWithFiles() - unexpected response: " + response.body);
        finish(false);
    });
}

} // namespace sprelio

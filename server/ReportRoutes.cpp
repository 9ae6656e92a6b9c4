// POST /users/report: a problem report streamed to disk in its three parts, kept only once it is whole.
#include "server/BackendServer.h"

#include <httplib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>

#include <nlohmann/json.hpp>

#include "base/Log.h"
#include "base/Uuid.h"
#include "server/ApiError.h"
#include "server/RequestHelpers.h"

namespace sprelio::server {

void BackendServer::handleReport(const httplib::Request& request, httplib::Response& response,
                                 const httplib::ContentReader& reader) {
    auto account = authorizeBeforeBody(request, response);
    if (!account) return;
    if (!request.is_multipart_form_data()) {
        refuseBody(response, api_error::badRequest("The report must be multipart/form-data with the parts data, "
                                                   "logs and config."));
        return;
    }
    auto id = Uuid::random().string();
    auto folder = reportFolder() / (id + ".partial");
    std::filesystem::create_directories(folder);
    // Reports hold a user's logs and settings: for the server's own user only, whatever its umask.
    std::filesystem::permissions(reportFolder(), std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::replace);
    struct Cleanup {
        std::filesystem::path path;
        ~Cleanup() {
            std::error_code ignored;
            if (!path.empty()) std::filesystem::remove_all(path, ignored);
        }
    } cleanup{folder};

    // The three parts and the name each is stored under; the data part is small JSON, the archives are bounded.
    const std::map<std::string, std::pair<std::string, std::size_t>> kParts = {
        {"data", {"data.json", std::size_t{1024 * 1024}}},
        {"logs", {"logs.zip", config_.maxReportPartBytes}},
        {"config", {"config.zip", config_.maxReportPartBytes}}};
    std::ofstream out;
    std::string current;
    std::size_t written = 0;
    std::set<std::string> seen;
    std::optional<ApiError> refusal;
    bool read = reader(
        [&](const httplib::MultipartFormData& part) {
            out.close();
            auto known = kParts.find(part.name);
            if (known == kParts.end() || !seen.insert(part.name).second) {
                refusal = api_error::badRequest("The report has an unknown or repeated part; it takes data, logs and "
                                                "config once each.");
                return false;
            }
            current = part.name;
            written = 0;
            out.open(folder / known->second.first, std::ios::binary | std::ios::trunc);
            return static_cast<bool>(out);
        },
        [&](const char* data, std::size_t length) {
            written += length;
            if (written > kParts.at(current).second) {
                refusal = api_error::payloadTooLarge(kParts.at(current).second);
                return false;
            }
            out.write(data, static_cast<std::streamsize>(length));
            return static_cast<bool>(out);
        });
    out.close();
    if (!read || refusal) {
        refuseBody(response, refusal.value_or(api_error::badRequest("The report could not be read.")));
        return;
    }
    if (seen.size() != kParts.size()) {
        api_error::badRequest("The report needs the three parts data, logs and config.").applyTo(response);
        return;
    }
    auto data = nlohmann::json::parse(readWholeFile(folder / "data.json"), nullptr, false);
    if (!data.is_object()) {
        api_error::badRequest("The part data of the report is not a JSON object.").applyTo(response);
        return;
    }
    std::ofstream(folder / "received.json")
        << nlohmann::json{{"account", account->guid},
                          {"email", account->email},
                          {"received", static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(
                                           std::chrono::system_clock::now().time_since_epoch())
                                                                   .count())}}
               .dump();
    std::filesystem::rename(folder, reportFolder() / id);
    cleanup.path.clear();
    // The operator finds the report by the path in the server's log.
    log(LogLevel::info, "BackendServer.handleReport() - problem report " + id + " stored in " +
                            (reportFolder() / id).string());
    response.set_content(nlohmann::json{{"uuid", id}, {"message", "The report was received."}}.dump(),
                         "application/json");
}

} // namespace sprelio::server

#pragma once
// Where the account API lives for this process: the setting "apiBaseURL", overridden by SPRELIO_API_BASE_URL.
// "embedded" runs the bundled server in this process on loopback, with its local account. Its AI service is the
// one the settings name (aiServiceURL, aiServiceModel and the key file); without a URL it looks for a local one
// at 127.0.0.1:11434, or at SPRELIO_LOCAL_AI_URL when that is set ("off": it does not look).
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace sprelio {
namespace store {
class AppConstants;
class Settings;
} // namespace store
namespace server {
class BackendServer;
struct ServerConfig;
} // namespace server

namespace app {

inline constexpr const char* kEmbeddedApi = "embedded";
// "off": the embedded server does not decode dictations while they are recorded.
inline constexpr const char* kLiveDecodingVariable = "SPRELIO_LIVE_DECODING";
// Seconds after which the embedded server ends a live stream (its upload is then transcribed the ordinary way).
inline constexpr const char* kLiveDecodingMaxSecondsVariable = "SPRELIO_LIVE_DECODING_MAX_SECONDS";
inline constexpr const char* kApiBaseURLVariable = "SPRELIO_API_BASE_URL";
inline constexpr const char* kLocalAiURLVariable = "SPRELIO_LOCAL_AI_URL";

class ApiEndpoint {
public:
    // Starts the embedded server when asked for; its token becomes the stored token. An error text when the
    // server can't start.
    static std::unique_ptr<ApiEndpoint> resolve(store::Settings& settings, const store::AppConstants& constants,
                                                 std::string& error);
    // What resolve() would use, without starting anything: the variable when set, else the setting; "embedded" or
    // a base URL without a trailing slash.
    static std::string configuredBaseURL(const store::Settings& settings);
    // The AI part of the embedded server's configuration, from the settings and SPRELIO_LOCAL_AI_URL.
    static void configureAi(const store::Settings& settings, server::ServerConfig& config);
    ~ApiEndpoint();
    ApiEndpoint(const ApiEndpoint&) = delete;
    ApiEndpoint& operator=(const ApiEndpoint&) = delete;

    // The embedded server takes the AI service the settings name now, without a restart. An error text when it
    // can't use it (the previous service stays); nothing to do for a server of the user's own.
    std::optional<std::string> reconfigureAi(const store::Settings& settings);

    // Without a trailing slash.
    const std::string& baseURL() const { return baseURL_; }
    bool isEmbedded() const { return server_ != nullptr; }

private:
    ApiEndpoint() = default;
    std::string baseURL_;
    std::unique_ptr<server::BackendServer> server_;
};

// The contents of /etc/machine-id (else the D-Bus machine id), trimmed; "" when neither can be read.
std::string machineIdentity();
// The region of the first locale variable that names one ("de_AT.UTF-8" gives "AT"), else "??".
std::string localeRegion();

} // namespace app
} // namespace sprelio

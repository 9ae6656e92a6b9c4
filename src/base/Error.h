#pragma once
// A failure as the logic passes it around: a domain, a code and the texts shown or logged.
#include <map>
#include <string>

namespace sprelio {

struct Error {
    std::string domain;
    long code = 0;
    std::string localizedDescription;
    std::map<std::string, std::string> userInfo;

    // What a developer reads in the log: domain, code and description.
    std::string debugDescription() const;
    bool operator==(const Error&) const = default;
};

namespace url_error {
// The URL loading codes the logic tests; platform adapters report failures with these.
inline constexpr const char* kDomain = "NSURLErrorDomain";
inline constexpr long kCancelled = -999;
inline constexpr long kTimedOut = -1001;
inline constexpr long kCannotFindHost = -1003;
inline constexpr long kCannotConnectToHost = -1004;
inline constexpr long kNetworkConnectionLost = -1005;
inline constexpr long kNotConnectedToInternet = -1009;
inline constexpr long kBadServerResponse = -1011;
inline constexpr long kSecureConnectionFailed = -1200;
} // namespace url_error

} // namespace sprelio

#pragma once
// Where updates come from, for the desktop application and the command line:
//   sprelio update check
#include <iosfwd>
#include <string>
#include <vector>

namespace sprelio {
namespace store {
class Settings;
}

namespace app {

inline constexpr const char* kUpdateFeedURLVariable = "SPRELIO_UPDATE_FEED_URL";

// The update feed's URL: SPRELIO_UPDATE_FEED_URL when set, else the setting updateFeedURL; "" means no checks.
std::string configuredUpdateFeedURL(const store::Settings& settings);

// `args` is the whole command line, args[1] being "update". 0 done (an update or none), 1 the feed could not be
// read, 2 the command line was wrong.
int updateCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

} // namespace app
} // namespace sprelio

#include "app/RunMarker.h"

#include <fstream>
#include <string>

#include "base/Log.h"
#include "store/AtomicFile.h"

namespace sprelio::app {

std::optional<std::chrono::system_clock::time_point> RunMarker::begin(std::chrono::system_clock::time_point now) {
    std::optional<std::chrono::system_clock::time_point> interrupted;
    std::error_code ec;
    if (std::filesystem::exists(file_, ec)) {
        long long millis = 0;
        std::ifstream in(file_);
        // A marker that can't be read still tells of a cut run; its start is then unknown, and the last day is taken.
        if (in >> millis && millis > 0) {
            interrupted = std::chrono::system_clock::time_point(std::chrono::milliseconds(millis));
        } else {
            interrupted = now - std::chrono::hours(24);
        }
        logWarning("RunMarker.begin() - the previous run did not end in order");
    }
    const auto stamp = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
    if (const auto error = store::writeFileAtomically(file_, std::to_string(stamp) + "\n", 0600); !error.empty())
        logError("RunMarker.begin() - can't write " + file_.string() + ": " + error);
    return interrupted;
}

void RunMarker::end() {
    std::error_code ec;
    std::filesystem::remove(file_, ec);
}

} // namespace sprelio::app

#pragma once
// The application's one state, owned by AppDelegate. Log lines and comparisons use the case name.
#include <optional>
#include <ostream>
#include <string_view>

namespace sprelio {

enum class AppActivity : int {
    idle = 0,
    recording = 1,
    processing = 2,
    filesMenuViewRecording = 3,
    continuousSpeechActive = 4,
};

std::string_view appActivityName(AppActivity activity);
std::optional<AppActivity> appActivityFromRawValue(int rawValue);
std::optional<AppActivity> appActivityFromName(std::string_view name);
std::ostream& operator<<(std::ostream& out, AppActivity activity);

} // namespace sprelio

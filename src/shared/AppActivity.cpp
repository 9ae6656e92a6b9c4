#include "shared/AppActivity.h"

#include <array>

namespace sprelio {

namespace {
constexpr std::array<std::string_view, 5> kNames = {"idle", "recording", "processing", "filesMenuViewRecording",
                                                    "continuousSpeechActive"};
}

std::string_view appActivityName(AppActivity activity) {
    const auto raw = static_cast<int>(activity);
    if (raw < 0 || raw >= static_cast<int>(kNames.size())) return "unknown";
    return kNames[static_cast<std::size_t>(raw)];
}

std::optional<AppActivity> appActivityFromRawValue(int rawValue) {
    if (rawValue < 0 || rawValue >= static_cast<int>(kNames.size())) return std::nullopt;
    return static_cast<AppActivity>(rawValue);
}

std::optional<AppActivity> appActivityFromName(std::string_view name) {
    for (std::size_t i = 0; i < kNames.size(); ++i) {
        if (kNames[i] == name) return static_cast<AppActivity>(i);
    }
    return std::nullopt;
}

std::ostream& operator<<(std::ostream& out, AppActivity activity) { return out << appActivityName(activity); }

} // namespace sprelio

#pragma once
// What a recording of the Files tab takes in; stored by its case name under "filesMenuRecordingMode".
#include <optional>
#include <string_view>

namespace sprelio {

enum class FilesMenuRecordingMode { none = 0, microphoneOnly = 1, systemOnly = 2, both = 3 };

inline std::string_view filesMenuRecordingModeRawValue(FilesMenuRecordingMode mode) {
    switch (mode) {
    case FilesMenuRecordingMode::none: return "none";
    case FilesMenuRecordingMode::microphoneOnly: return "microphoneOnly";
    case FilesMenuRecordingMode::systemOnly: return "systemOnly";
    case FilesMenuRecordingMode::both: return "both";
    }
    return "none";
}

// An unknown text parses to nothing; the caller logs it.
inline std::optional<FilesMenuRecordingMode> filesMenuRecordingModeFromRawValue(std::string_view raw) {
    for (auto mode : {FilesMenuRecordingMode::none, FilesMenuRecordingMode::microphoneOnly,
                      FilesMenuRecordingMode::systemOnly, FilesMenuRecordingMode::both}) {
        if (filesMenuRecordingModeRawValue(mode) == raw) return mode;
    }
    return std::nullopt;
}

inline bool recordsMicrophone(FilesMenuRecordingMode mode) {
    return mode == FilesMenuRecordingMode::microphoneOnly || mode == FilesMenuRecordingMode::both;
}
inline bool recordsSystem(FilesMenuRecordingMode mode) {
    return mode == FilesMenuRecordingMode::systemOnly || mode == FilesMenuRecordingMode::both;
}

} // namespace sprelio

#pragma once
// What happens after the user picked a recordings folder in the Settings pane: a folder is taken only when a file
// can be written into it; otherwise the default folder comes back and the user is told so. The dialog itself
// belongs to the desktop shell, which hands its answer here.
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace sprelio {

namespace store {
class Settings;
}

class RecordingsFolderChooser {
public:
    // Written and removed again in the chosen folder.
    static constexpr std::string_view kWriteTestFileName = ".spr_write_test";
    static constexpr std::string_view kWriteTestText = "Sprelio write test";
    static constexpr std::string_view kFallBackMessage =
        "We couldn’t write to your selected folder. Falling back to the default location.";

    enum class Result { cancelled, chosen, fellBack };
    struct Outcome {
        Result result = Result::cancelled;
        std::filesystem::path folder; // saveRecordingsFolder after the choice
    };

    // `showMessage` shows a text to the user; the chooser calls it only when it falls back.
    RecordingsFolderChooser(store::Settings& settings, std::function<void(const std::string&)> showMessage);

    // `selected` is the dialog's answer; nothing (or an empty path) when the user cancelled.
    Outcome selectFolder(const std::optional<std::filesystem::path>& selected);

    // Writes a short text atomically (a temporary file renamed into place) to the test file in `folder`, then
    // removes it. Nothing when that worked, else what failed.
    static std::optional<std::string> writeCheck(const std::filesystem::path& folder);

private:
    store::Settings& settings_;
    std::function<void(const std::string&)> showMessage_;
};

} // namespace sprelio

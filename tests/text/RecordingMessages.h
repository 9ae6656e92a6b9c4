#pragma once
// The message path of the desktop, recording what the user would be shown.
#include <optional>
#include <string>
#include <vector>

#include "shared/Errors.h"

namespace sprelio::texttest {

class RecordingMessages final : public ErrorPresenter {
public:
    const std::string& appName() const override { return name; }
    void showAlertForError(std::optional<Error> error, std::optional<int>, bool, bool) override {
        shown.push_back(error ? error->localizedDescription : "");
    }
    void showAlertForError(SPRLocalizedError error, std::optional<int>, bool, bool) override {
        shown.push_back(errorDescription(error, name));
    }
    std::string name = "Sprelio";
    std::vector<std::string> shown;
};

} // namespace sprelio::texttest

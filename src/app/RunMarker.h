#pragma once
// A file that stands while the desktop application runs: written at the start with the start's time, removed when
// the application ends in order. Found at a start, it tells of a run that was cut short and when that run began.
#include <chrono>
#include <filesystem>
#include <optional>

namespace sprelio::app {

class RunMarker {
public:
    explicit RunMarker(std::filesystem::path file) : file_(std::move(file)) {}
    // The start of an earlier run that did not end in order, if any; this run is marked from `now` on.
    std::optional<std::chrono::system_clock::time_point> begin(std::chrono::system_clock::time_point now);
    void end();

private:
    std::filesystem::path file_;
};

} // namespace sprelio::app

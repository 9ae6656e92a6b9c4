#pragma once
// The few services a benchmark must hand over but whose work is not what it measures.
#include <atomic>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "base/Uuid.h"
#include "diagnostics/HistoryManager.h"
#include "base/Log.h"
#include "ui/Messages.h"

namespace sprelio::bench {

// Log lines are built and handed over, as in the application, then dropped.
class QuietSink final : public LogSink {
public:
    void log(LogLevel, std::string) override {}
};

// Stands in for the file log: lines are built and handed over, as in the application, then counted.
class CountingSink final : public LogSink {
public:
    void log(LogLevel, std::string) override { ++lines; }
    std::atomic<long> lines{0};
};

class NoHistory final : public HistoryManager {
public:
    void log(HistoryManagerLogLevel, std::string, std::optional<std::filesystem::path>, Uuid, bool) override {}
};

class NoToasts final : public ToastPresenter {
public:
    void showToast(const SPRToastView&, const platform::ScreenInfo&, const platform::Rect&,
                   std::function<void()>) override {}
    void closeAllToasts() override {}
};

} // namespace sprelio::bench

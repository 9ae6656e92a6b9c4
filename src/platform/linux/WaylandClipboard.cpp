#include "platform/linux/WaylandClipboard.h"

#include <thread>

#include "base/Log.h"

namespace sprelio::platform {

namespace {

std::optional<std::string> paste(bool primary) {
    std::vector<std::string> argv = {"wl-paste", "--no-newline", "--type", "text/plain;charset=utf-8"};
    if (primary) argv.insert(argv.begin() + 1, "--primary");
    auto result = runProgram(argv, {}, WaylandClipboard::kAnswerTimeout);
    // Without that exact type (a holder that offers only "text/plain" or UTF8_STRING): whatever text it has.
    if (result.exitCode != 0 && !result.timedOut) {
        argv = {"wl-paste", "--no-newline", "--type", "text"};
        if (primary) argv.insert(argv.begin() + 1, "--primary");
        result = runProgram(argv, {}, WaylandClipboard::kAnswerTimeout);
    }
    if (result.timedOut) {
        logWarning("WaylandClipboard.read() - the holder did not answer in time");
        return std::nullopt;
    }
    if (result.exitCode != 0) return std::nullopt; // nothing copied, or no text among the types
    return result.output;
}

} // namespace

WaylandClipboard::WaylandClipboard(MainLoop& loop, Clipboard* xwayland) : loop_(loop), xwayland_(xwayland) {}

WaylandClipboard::~WaylandClipboard() { *alive_ = false; }

bool WaylandClipboard::isAvailable() const { return programOnPath("wl-copy") && programOnPath("wl-paste"); }

bool WaylandClipboard::setString(const std::string& text) {
    const auto result = runProgram({"wl-copy", "--type", "text/plain;charset=utf-8"}, text, kAnswerTimeout, false);
    if (result.exitCode != 0) {
        logError("WaylandClipboard.setString() - wl-copy failed (status " + std::to_string(result.exitCode) +
                 (result.started ? ")" : ", not installed?)"));
        return false;
    }
    if (xwayland_) xwayland_->setString(text);
    // wl-copy may be gone before the compositor has made its copy the selection; a paste keystroke sent in that
    // moment would paste what was there before, from a holder that is just leaving. The text is there once it
    // reads back.
    const auto deadline = std::chrono::steady_clock::now() + kAnswerTimeout;
    while (std::chrono::steady_clock::now() < deadline) {
        const auto back = runProgram({"wl-paste", "--no-newline", "--type", "text/plain;charset=utf-8"}, {},
                                     kAnswerTimeout);
        if (back.exitCode == 0 && back.output == text) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    logWarning("WaylandClipboard.setString() - the compositor did not confirm the new clipboard in time");
    return true;
}

void WaylandClipboard::clearContents() {
    if (xwayland_) xwayland_->clearContents();
    const auto result = runProgram({"wl-copy", "--clear"}, {}, kAnswerTimeout, false);
    if (result.exitCode != 0) logError("WaylandClipboard.clearContents() - wl-copy --clear failed");
}

void WaylandClipboard::readString(TextCompletion completion) {
    reads_.add([this, alive = alive_, completion = std::move(completion)]() mutable {
        auto text = paste(false);
        loop_.post([alive, completion = std::move(completion), text = std::move(text)]() mutable {
            if (*alive) completion(std::move(text));
        });
    });
}

void WaylandClipboard::readSelectedText(SelectionCompletion completion) {
    reads_.add([this, alive = alive_, completion = std::move(completion)]() mutable {
        auto text = paste(true);
        std::optional<SelectedText> selected;
        if (text && !text->empty()) selected = SelectedText{std::move(*text), std::nullopt};
        loop_.post([alive, completion = std::move(completion), selected = std::move(selected)]() mutable {
            if (*alive) completion(std::move(selected));
        });
    });
}

} // namespace sprelio::platform

#pragma once
// The clipboard of a Wayland session, through wl-clipboard's programs: wl-copy puts a text there (its background
// process serves it until another client takes the clipboard), wl-paste reads it. Both use the compositor's
// data-control protocol where it offers one. The reads run on the adapter's own thread; completions run on the
// main loop. wl-copy of Debian 12 has no way to mark a text as secret for clipboard managers.
#include <chrono>
#include <memory>

#include "platform/Clipboard.h"
#include "platform/MainLoop.h"
#include "platform/linux/ChildProcess.h"

namespace sprelio::platform {

class WaylandClipboard final : public Clipboard {
public:
    // Time wl-copy may take to take the clipboard, and wl-paste to bring an answer from its holder.
    static constexpr std::chrono::milliseconds kAnswerTimeout{1000};

    // `xwayland`, when given (the X11 clipboard of the session's Xwayland), holds the same text: Xwayland's
    // window manager otherwise hands the selection to an X11 owner that can't answer, and a paste gets nothing.
    explicit WaylandClipboard(MainLoop& loop, Clipboard* xwayland = nullptr);
    ~WaylandClipboard() override;
    WaylandClipboard(const WaylandClipboard&) = delete;
    WaylandClipboard& operator=(const WaylandClipboard&) = delete;

    bool setString(const std::string& text) override;
    void clearContents() override;
    void readString(TextCompletion completion) override;
    // The primary selection; its holder can't be named on Wayland.
    void readSelectedText(SelectionCompletion completion) override;

    // wl-copy and wl-paste are there.
    bool isAvailable() const;

private:
    MainLoop& loop_;
    Clipboard* xwayland_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    SerialJobs reads_;
};

} // namespace sprelio::platform

#pragma once
// The desktop's clipboard and the text the user has selected.
//
// Reading either means asking the application that holds it, which may be slow or never answer: answers come
// through a completion on the main loop, never inside the call, and a holder that does not answer in time gives
// nothing.
#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

namespace sprelio::platform {

struct SelectedText {
    std::string text;
    // The process that holds the selection, when the desktop can tell.
    std::optional<pid_t> ownerProcessIdentifier;
};

class Clipboard {
public:
    virtual ~Clipboard() = default;

    // Puts the text on the clipboard as its only content (anything else there, text or not, is gone), marked so
    // that clipboard managers do not keep it. False when the desktop refused.
    virtual bool setString(const std::string& text) = 0;
    // Leaves the clipboard empty.
    virtual void clearContents() = 0;

    // The clipboard's text; nothing when it holds no text, nobody holds it, or the holder did not answer in time.
    using TextCompletion = std::function<void(std::optional<std::string>)>;
    virtual void readString(TextCompletion completion) = 0;
    // The text selected in some application now (on X11 the primary selection), with its holder.
    using SelectionCompletion = std::function<void(std::optional<SelectedText>)>;
    virtual void readSelectedText(SelectionCompletion completion) = 0;
};

} // namespace sprelio::platform

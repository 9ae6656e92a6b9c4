#pragma once
// The CLIPBOARD and PRIMARY selections of an X11 desktop.
//
// Sprelio owns CLIPBOARD with a real server timestamp and serves its text as UTF8_STRING,
// text/plain;charset=utf-8, STRING (Latin-1) and TEXT, lists them under TARGETS, answers TIMESTAMP, and offers
// x-kde-passwordManagerHint = "secret" so that clipboard managers do not keep dictated text. A text larger than
// kIncrementalThreshold goes out in pieces (INCR). Reading asks the owner for UTF8_STRING, then
// text/plain;charset=utf-8, then STRING, takes INCR answers, and gives up after kAnswerTimeout without a word from
// the owner. The adapter has its own connection and reader thread; completions run on the main loop.
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "platform/Clipboard.h"
#include "platform/MainLoop.h"

namespace sprelio::platform {

class X11Clipboard final : public Clipboard {
public:
    // Time an owner may take to answer a request, and between two pieces of an incremental answer.
    static constexpr std::chrono::milliseconds kAnswerTimeout{1000};
    // A requestor that stops taking the pieces of an incremental transfer is dropped after this.
    static constexpr std::chrono::milliseconds kTransferTimeout{5000};
    static constexpr std::size_t kIncrementalThreshold = 256 * 1024;
    static constexpr std::size_t kIncrementalChunk = 64 * 1024;

    explicit X11Clipboard(MainLoop& loop, const std::string& displayName = {});
    ~X11Clipboard() override;
    X11Clipboard(const X11Clipboard&) = delete;
    X11Clipboard& operator=(const X11Clipboard&) = delete;

    bool setString(const std::string& text) override;
    void clearContents() override;
    void readString(TextCompletion completion) override;
    void readSelectedText(SelectionCompletion completion) override;

    bool isAvailable() const;
    // Whether Sprelio holds CLIPBOARD now (asked of the server).
    bool ownsClipboard() const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace sprelio::platform

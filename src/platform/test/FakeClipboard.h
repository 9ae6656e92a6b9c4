#pragma once
// A clipboard for the logic tests: what it holds is a field, every call is recorded, and answers to reads come on
// the virtual loop, after a delay the test may set (an owner that is slow or never answers).
#include <optional>
#include <string>
#include <vector>

#include "platform/Clipboard.h"
#include "platform/MainLoop.h"

namespace sprelio::platform::test {

class FakeClipboard final : public Clipboard {
public:
    explicit FakeClipboard(MainLoop& loop) : loop_(loop) {}

    bool setString(const std::string& text) override;
    void clearContents() override;
    void readString(TextCompletion completion) override;
    void readSelectedText(SelectionCompletion completion) override;

    // The clipboard's text; nothing for an empty clipboard or one that holds no text (an image, files).
    std::optional<std::string> text;
    // The primary selection and its holder.
    std::optional<SelectedText> selection;
    // How long reads take to answer (zero: on the next turn of the loop); none: they never answer.
    std::optional<Duration> answerDelay = Duration{0};
    // setString fails, as when the desktop refuses the clipboard.
    bool refuseSetString = false;

    // "setString:<text>", "clearContents", "readString", "readSelectedText", in order.
    const std::vector<std::string>& calls() const { return calls_; }
    void clearCalls() { calls_.clear(); }

private:
    void answer(Task task);

    MainLoop& loop_;
    std::vector<std::string> calls_;
};

} // namespace sprelio::platform::test

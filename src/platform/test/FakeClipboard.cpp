#include "platform/test/FakeClipboard.h"

namespace sprelio::platform::test {

bool FakeClipboard::setString(const std::string& value) {
    calls_.push_back("setString:" + value);
    if (refuseSetString) return false;
    text = value;
    return true;
}

void FakeClipboard::clearContents() {
    calls_.push_back("clearContents");
    text.reset();
}

void FakeClipboard::answer(Task task) {
    if (*answerDelay == Duration{0}) loop_.post(std::move(task));
    else loop_.postAfter(*answerDelay, std::move(task));
}

void FakeClipboard::readString(TextCompletion completion) {
    calls_.push_back("readString");
    if (!answerDelay) return;
    // The answer is what the clipboard holds when the owner answers.
    answer([this, completion = std::move(completion)] { completion(text); });
}

void FakeClipboard::readSelectedText(SelectionCompletion completion) {
    calls_.push_back("readSelectedText");
    if (!answerDelay) return;
    answer([this, completion = std::move(completion)] { completion(selection); });
}

} // namespace sprelio::platform::test

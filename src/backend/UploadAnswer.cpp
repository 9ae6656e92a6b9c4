#include "backend/UploadAnswer.h"

#include "base/JsonAccess.h"

namespace sprelio {

UploadAnswer readUploadAnswer(const std::optional<nlohmann::json>& result, const std::optional<Error>& error) {
    UploadAnswer answer;
    answer.anyText = stringValue(result, "text");
    const auto language = stringValue(result, "language");
    if (answer.anyText && language) {
        answer.kind = UploadAnswer::Kind::transcript;
        answer.text = *answer.anyText;
        answer.language = language;
        return answer;
    }
    if (const auto completion = stringValue(result, "completion")) {
        answer.kind = UploadAnswer::Kind::completion;
        answer.text = *completion;
        return answer;
    }
    const auto message = stringValue(result, "message");
    if (!error && message) {
        answer.kind = UploadAnswer::Kind::serverMessage;
        answer.text = *message;
        return answer;
    }
    if (error) {
        answer.kind = UploadAnswer::Kind::failure;
        answer.error = error;
        return answer;
    }
    return answer;
}

} // namespace sprelio

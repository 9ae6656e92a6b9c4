#pragma once
// Shared pieces of the fuzz targets: the input cut into parts, and an HTTP transport that answers every request
// with the next answer the input holds, on the deterministic test platform's loop.
//
// Input layout of the targets that take several parts: the parts are separated by a line "~~~" (LF on both
// sides), so that seed files stay readable and editable by hand. An answer part is "<status> <mime type>\n<body>".
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Http.h"
#include "platform/MainLoop.h"

namespace sprelio::fuzz {

inline constexpr std::string_view kPartSeparator = "\n~~~\n";

inline std::vector<std::string> splitParts(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (true) {
        const std::size_t end = input.find(kPartSeparator, start);
        if (end == std::string_view::npos) {
            parts.emplace_back(input.substr(start));
            return parts;
        }
        parts.emplace_back(input.substr(start, end - start));
        start = end + kPartSeparator.size();
    }
}

struct ScriptedAnswer {
    long status = 200;
    std::string mimeType;
    std::string body;
};

// "<status> <mime type>\n<body>"; a first line that does not start with a number is a 200 with no type.
inline ScriptedAnswer parseAnswer(const std::string& part) {
    ScriptedAnswer answer;
    const std::size_t lineEnd = part.find('\n');
    const std::string head = part.substr(0, lineEnd);
    std::size_t digits = 0;
    while (digits < head.size() && digits < 3 && head[digits] >= '0' && head[digits] <= '9') ++digits;
    if (digits == 0) {
        answer.body = part;
        return answer;
    }
    answer.status = std::stol(head.substr(0, digits));
    const std::size_t typeStart = head.find_first_not_of(' ', digits);
    if (typeStart != std::string::npos) answer.mimeType = head.substr(typeStart);
    answer.body = lineEnd == std::string::npos ? std::string() : part.substr(lineEnd + 1);
    return answer;
}

// The transport as the logic sees it: each request gets the next scripted answer (a connection failure when
// none is left), delivered on the loop with the head first and, for a request that asks for lines, the body
// split as the real transport splits it (at LF, a trailing CR removed, empty lines dropped).
class ScriptedHttpClient final : public platform::HttpClient {
public:
    explicit ScriptedHttpClient(platform::MainLoop& loop) : loop_(loop) {}

    std::deque<ScriptedAnswer> answers;
    std::size_t requests = 0;

    std::shared_ptr<platform::HttpTask> send(platform::HttpRequest request, Completion completion) override {
        ++requests;
        auto task = std::make_shared<Task>();
        if (answers.empty()) {
            loop_.post([task, completion = std::move(completion)] {
                completion(task->cancelled ? cancelledError()
                                           : Error{"NSURLErrorDomain", -1004, "Could not connect to the server.", {}});
            });
            return task;
        }
        ScriptedAnswer answer = std::move(answers.front());
        answers.pop_front();
        loop_.post([task, request = std::move(request), answer = std::move(answer),
                    completion = std::move(completion)]() mutable {
            platform::HttpResponse response;
            response.status = answer.status;
            response.mimeType = answer.mimeType;
            if (!answer.mimeType.empty()) response.headers.push_back({"Content-Type", answer.mimeType});
            if (request.onResponse && !task->cancelled) request.onResponse(response);
            if (request.onLine) {
                std::size_t start = 0;
                while (start < answer.body.size() && !task->cancelled) {
                    std::size_t end = answer.body.find('\n', start);
                    if (end == std::string::npos) end = answer.body.size();
                    std::string line = answer.body.substr(start, end - start);
                    if (!line.empty() && line.back() == '\r') line.pop_back();
                    if (!line.empty()) request.onLine(std::move(line));
                    start = end + 1;
                }
            } else {
                response.body = std::move(answer.body);
            }
            if (task->cancelled) {
                completion(cancelledError());
            } else {
                completion(std::move(response));
            }
        });
        return task;
    }

private:
    static Error cancelledError() { return Error{"NSURLErrorDomain", -999, "cancelled", {}}; }
    struct Task final : platform::HttpTask {
        bool cancelled = false;
        void cancel() override { cancelled = true; }
    };
    platform::MainLoop& loop_;
};

} // namespace sprelio::fuzz

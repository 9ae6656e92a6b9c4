#pragma once
// A request whose body is written while it is under way (chunked transfer): the live stream of a dictation that is
// still being recorded. The body's writer is typically the audio capture, so writing never waits: it hands the
// bytes over and returns.
#include <functional>
#include <memory>
#include <string>

#include "platform/Http.h"

namespace sprelio::platform {

class StreamingUpload {
public:
    virtual ~StreamingUpload() = default;
    // Any thread, never blocks. Bytes after finish() or cancel() are dropped.
    virtual void write(std::string bytes) = 0;
    // Ends the body; the answer then arrives through the completion.
    virtual void finish() = 0;
    // Ends the transfer at once, the connection included; the completion gets the cancelled error (-999).
    virtual void cancel() = 0;
};

class StreamingUploadClient {
public:
    using Completion = std::function<void(HttpResult result)>;
    virtual ~StreamingUploadClient() = default;
    // `request.body` is ignored: the body is what write() is given. The completion runs once, on the main loop,
    // unless the client is destroyed first. The same rules as HttpClient's hold for URLs and tokens.
    virtual std::shared_ptr<StreamingUpload> start(HttpRequest request, Completion completion) = 0;
};

} // namespace sprelio::platform

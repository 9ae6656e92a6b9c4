#pragma once
// Streaming uploads on libcurl: each transfer on a thread of its own, whose read callback waits for the bytes the
// writer hands over, so that neither the writer nor the process's shared transport ever waits on this network.
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/MainLoop.h"
#include "platform/StreamingUpload.h"

namespace sprelio::platform {

class CurlStreamingUploadClient final : public StreamingUploadClient {
public:
    explicit CurlStreamingUploadClient(MainLoop& loop);
    // Cancels what still runs and waits for its threads; their completions are dropped.
    ~CurlStreamingUploadClient() override;
    CurlStreamingUploadClient(const CurlStreamingUploadClient&) = delete;
    CurlStreamingUploadClient& operator=(const CurlStreamingUploadClient&) = delete;

    std::shared_ptr<StreamingUpload> start(HttpRequest request, Completion completion) override;

    struct Transfer;

private:
    MainLoop& loop_;
    std::shared_ptr<bool> alive_;
    std::mutex mutex_;
    std::vector<std::pair<std::shared_ptr<Transfer>, std::thread>> running_;
};

} // namespace sprelio::platform

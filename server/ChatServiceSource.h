#pragma once
// Which chat service the AI requests of a server go to. A configured URL and model are used as they are. With
// auto-detection on, the service is looked for instead: a runner of local models at its conventional address
// when no URL is configured, the configured service's model list when its model was left out. The first look
// runs in the background once the server is up, so that nothing at that address holds the start; a request
// that finds no service looks again, at most once per interval, so that a runner started later is found
// without a restart.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "server/ChatCompletionClient.h"
#include "server/ServerConfig.h"

namespace sprelio::server {

class ChatServiceSource {
public:
    struct Lookup {
        std::shared_ptr<const ChatCompletionClient> client; // null: no service to use now
        // Without a client: why the configured service can't be used. Empty when there is simply none.
        std::optional<ChatFailure> failure;
    };

    // Throws std::invalid_argument for a URL without a model when nothing may look the model up, and
    // std::runtime_error for a key file that can't be read. `cancel` cuts a running look short.
    ChatServiceSource(const ServerConfig& config, const std::atomic<bool>* cancel);
    ~ChatServiceSource();
    ChatServiceSource(const ChatServiceSource&) = delete;
    ChatServiceSource& operator=(const ChatServiceSource&) = delete;

    // The first look, on a thread of its own; nothing when there is nothing to look for.
    void start();
    // Waits for that look, which the cancel flag ends early.
    void stop();

    // The service for a request: waits for a look that is running, and looks again when none was found and the
    // last look is older than the interval.
    Lookup acquire();
    // What is known now, without looking or waiting.
    std::shared_ptr<const ChatCompletionClient> current() const;
    // A service that was looked up and then could not be reached is looked for again by the next request that
    // is due for a look: the runner may have stopped, or come back with other models.
    void forget(const std::shared_ptr<const ChatCompletionClient>& client);

    bool looks() const { return looks_; }
    // The address looked at, for the log: host and port only.
    std::string lookedAt() const;

private:
    using Clock = std::chrono::steady_clock;

    // Called with `lock` held and no look running; unlocks while the service is asked.
    void look(std::unique_lock<std::mutex>& lock);
    bool due() const;

    ChatSettings settings_;      // model empty until a look finds one
    bool looks_ = false;         // a service (or its model) is looked for rather than configured
    bool local_ = false;         // the look is for a local runner rather than a configured service's model
    std::string probeUrl_;
    std::string wantedModel_;
    std::chrono::seconds interval_;
    const std::atomic<bool>* cancel_;

    mutable std::mutex mutex_;
    std::condition_variable lookEnded_;
    bool looking_ = false;
    std::optional<Clock::time_point> lastLook_;
    std::shared_ptr<const ChatCompletionClient> client_;
    std::optional<ChatFailure> failure_;
    std::thread firstLook_;
};

} // namespace sprelio::server

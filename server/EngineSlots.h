#pragma once
// The server's transcription capacity: a fixed number of engine instances, each used by one request at a time.
// A request that finds every slot busy is not queued: the client is told "NoOnlineFarms" and tries another backend
// at once, which serves the user sooner than a queue here would.
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "server/TranscriptionEngine.h"

namespace sprelio::server {

class EngineSlots {
public:
    class Lease {
    public:
        Lease(Lease&& other) noexcept : owner_(other.owner_), index_(other.index_) { other.owner_ = nullptr; }
        Lease& operator=(Lease&&) = delete;
        Lease(const Lease&) = delete;
        ~Lease();
        // The slot's engine, made on first use. Throws EngineError when it can't be made.
        TranscriptionEngine& engine();

    private:
        friend class EngineSlots;
        Lease(EngineSlots* owner, std::size_t index) : owner_(owner), index_(index) {}
        EngineSlots* owner_;
        std::size_t index_;
    };

    EngineSlots(EngineDescription description, EngineFactory factory, std::size_t count);

    const EngineDescription& description() const { return description_; }
    std::size_t capacity() const { return slots_.size(); }
    std::size_t busy() const;
    // A free slot, or nothing when all are busy. Never waits.
    std::optional<Lease> tryAcquire();

private:
    struct Slot {
        bool busy = false;
        std::unique_ptr<TranscriptionEngine> engine;
    };
    void release(std::size_t index);

    EngineDescription description_;
    EngineFactory factory_;
    mutable std::mutex mutex_;
    std::vector<Slot> slots_;
};

} // namespace sprelio::server

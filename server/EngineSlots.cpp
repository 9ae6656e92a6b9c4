#include "server/EngineSlots.h"

namespace sprelio::server {

EngineSlots::EngineSlots(EngineDescription description, EngineFactory factory, std::size_t count)
    : description_(std::move(description)), factory_(std::move(factory)), slots_(count == 0 ? 1 : count) {}

std::size_t EngineSlots::busy() const {
    std::lock_guard lock(mutex_);
    std::size_t n = 0;
    for (const auto& slot : slots_) n += slot.busy ? 1 : 0;
    return n;
}

std::optional<EngineSlots::Lease> EngineSlots::tryAcquire() {
    std::lock_guard lock(mutex_);
    for (std::size_t i = 0; i < slots_.size(); ++i) {
        if (!slots_[i].busy) {
            slots_[i].busy = true;
            return Lease(this, i);
        }
    }
    return std::nullopt;
}

void EngineSlots::release(std::size_t index) {
    std::lock_guard lock(mutex_);
    slots_[index].busy = false;
}

EngineSlots::Lease::~Lease() {
    if (owner_) owner_->release(index_);
}

TranscriptionEngine& EngineSlots::Lease::engine() {
    // Only the holder of the lease touches its slot's engine, so no lock is needed while the model loads.
    auto& slot = owner_->slots_[index_];
    if (!slot.engine) slot.engine = owner_->factory_();
    return *slot.engine;
}

} // namespace sprelio::server

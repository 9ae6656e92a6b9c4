#include "store/SettingsStore.h"

namespace sprelio::store {

MemorySettingsStore::MemorySettingsStore(std::map<std::string, nlohmann::json> initial)
    : values_(initial.begin(), initial.end()) {}

std::optional<nlohmann::json> MemorySettingsStore::object(std::string_view key) const {
    std::lock_guard lock(mutex_);
    auto it = values_.find(key);
    if (it == values_.end()) return std::nullopt;
    return it->second;
}

void MemorySettingsStore::set(std::string key, nlohmann::json value) {
    std::lock_guard lock(mutex_);
    values_.insert_or_assign(std::move(key), std::move(value));
}

void MemorySettingsStore::remove(std::string_view key) {
    std::lock_guard lock(mutex_);
    auto it = values_.find(key);
    if (it != values_.end()) values_.erase(it);
}

std::map<std::string, nlohmann::json> MemorySettingsStore::dictionaryRepresentation() const {
    std::lock_guard lock(mutex_);
    return {values_.begin(), values_.end()};
}

} // namespace sprelio::store

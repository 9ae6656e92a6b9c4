#pragma once
// The "user defaults": a flat map of string keys to JSON values. Read with default, write, remove, enumerate
// Every implementation is thread-safe: the event path may read.
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace sprelio::store {

class SettingsStore {
public:
    virtual ~SettingsStore() = default;
    // The stored value, or nullopt when the key was never written (or was removed).
    virtual std::optional<nlohmann::json> object(std::string_view key) const = 0;
    // Writes the value. A null JSON value is stored as null (use remove() to delete a key).
    virtual void set(std::string key, nlohmann::json value) = 0;
    virtual void remove(std::string_view key) = 0;
    // A copy of every key and value.
    virtual std::map<std::string, nlohmann::json> dictionaryRepresentation() const = 0;
};

// A store that lives in memory only (tests, and the base of the file store).
class MemorySettingsStore : public SettingsStore {
public:
    MemorySettingsStore() = default;
    explicit MemorySettingsStore(std::map<std::string, nlohmann::json> initial);

    std::optional<nlohmann::json> object(std::string_view key) const override;
    void set(std::string key, nlohmann::json value) override;
    void remove(std::string_view key) override;
    std::map<std::string, nlohmann::json> dictionaryRepresentation() const override;

protected:
    mutable std::mutex mutex_;
    std::map<std::string, nlohmann::json, std::less<>> values_;
};

} // namespace sprelio::store

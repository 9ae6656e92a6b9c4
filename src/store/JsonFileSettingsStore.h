#pragma once
// The settings file: one JSON object in `path` (normally
// $XDG_CONFIG_HOME/Sprelio/settings.json), mode 0600, written atomically (a temp file in the same folder,
// fsync, rename, fsync of the folder). Loaded once at construction; reads come from memory, each write
// persists the whole object.
//
// - A missing file is an empty store (the folder is created on the first write, mode 0700).
// - A file that can't be parsed or is not a JSON object is renamed to "<name>.corrupt-YYYY-MM-DD_HH-MM-SS"
//   (a suffix "-2", "-3"... when taken), kept, never deleted, and logged at error level:
//   "JsonFileSettingsStore.load() - settings file <path> is not a valid JSON object (<reason>), moved it
//    aside to <new path>, using defaults"
// - A failed write logs at error level "JsonFileSettingsStore.persist() - failed to write <path>: <error>";
//   the in-memory value stays, so the running session still sees it.
// - A file that exists but can't be read (or a corrupt file that can't be moved or copied aside) is never
//   overwritten: the defaults apply, writes stay in memory, and that is logged at error level.
#include <filesystem>
#include <string>

#include "store/SettingsStore.h"

namespace sprelio::store {

class JsonFileSettingsStore final : public MemorySettingsStore {
public:
    explicit JsonFileSettingsStore(std::filesystem::path path);

    void set(std::string key, nlohmann::json value) override;
    void remove(std::string_view key) override;

    const std::filesystem::path& path() const { return path_; }
    // False when the last write to disk failed.
    bool lastWriteSucceeded() const;
    // Where a corrupt file was moved at load, if one was.
    const std::filesystem::path& movedAsideTo() const { return movedAside_; }

private:
    void load();
    bool persistLocked(); // mutex_ held

    std::filesystem::path path_;
    std::filesystem::path movedAside_;
    bool lastWriteOk_ = true;
    // Set when the file exists but could neither be read nor moved aside: never overwrite it.
    bool persistDisabled_ = false;
};

} // namespace sprelio::store

#pragma once
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "store/ManagedObjectContext.h"

namespace sprelio::store {

// The store "Persistence": one SQLite file (WAL journal) and its view context used on the main loop.
class PersistentContainer {
public:
    // The store file "/dev/null" (how an in-memory store is asked for) means a database in memory.
    static constexpr const char* kInMemoryStoreFile = "/dev/null";

    // Nothing is opened until loadPersistentStores().
    PersistentContainer(std::string name, std::filesystem::path storeFile);
    const std::string& name() const { return name_; }
    const std::filesystem::path& storeFile() const { return storeFile_; }
    // Only before loadPersistentStores().
    void setStoreFile(std::filesystem::path storeFile);
    bool isInMemory() const { return storeFile_ == kInMemoryStoreFile; }

    // Opens (or creates and migrates) the store and makes the view context. Returns the error instead of throwing.
    std::optional<StoreError> loadPersistentStores();
    bool isLoaded() const { return viewContext_ != nullptr; }

    // Throws std::logic_error before the store is loaded.
    ManagedObjectContext& viewContext();
    std::shared_ptr<SqliteStore> store() const { return store_; }
    // A new context with its own connection to the same store, for work off the main loop (one thread at a time).
    std::unique_ptr<ManagedObjectContext> newBackgroundContext();
    // The didSave hook of the view context and of every background context made from now on.
    void setDidSave(std::function<void()> hook);

private:
    std::string name_;
    std::filesystem::path storeFile_;
    std::shared_ptr<SqliteStore> store_;
    std::unique_ptr<ManagedObjectContext> viewContext_;
    std::function<void()> didSave_;
};

class PersistenceController {
public:
    // Opens (or creates and migrates) `<supportFolder>/Persistence.sqlite`, or an in-memory store, in the steps of
    // the model, and repairs the shortcuts (validateAndRepairUserShortcuts). A damaged store file is moved aside
    // (movedAsideTo()) and a new store is started. A store that can't be opened otherwise ends the process:
    // "Unresolved error <error>, <userInfo>" on stderr, a critical log line, abort().
    PersistenceController(const std::filesystem::path& supportFolder, bool inMemory = false);
    PersistentContainer& container() { return *container_; }
    // Where the damaged store went at this start; empty when the store opened as it was.
    const std::filesystem::path& movedAsideTo() const { return movedAside_; }

    // The process-wide controller; install() makes it, shared() returns it (fatal when never installed).
    static PersistenceController& install(const std::filesystem::path& supportFolder, bool inMemory = false);
    static PersistenceController& shared();
    static bool isInstalled();
    static void uninstallForTesting();

    static constexpr const char* kStoreFileName = "Persistence.sqlite";
    static constexpr const char* kModelName = "Persistence";

private:
    std::unique_ptr<PersistentContainer> container_;
    std::filesystem::path movedAside_;
};

// Gives every UserShortcut without a UUID a new one and saves the context directly.
void validateAndRepairUserShortcuts(ManagedObjectContext& viewContext);

} // namespace sprelio::store

#pragma once
// A unit of work over the SQLite store: objects are inserted, changed and deleted in memory and reach the
// file only through save(), in one transaction. Objects are unique per context: fetching a row that is
// already registered returns the same object, with its unsaved values.
//
// Registration: the context holds objects with pending changes (inserted, updated, deleted) strongly and all
// others weakly, like Core Data without `retainsRegisteredObjects`: an unchanged object that nobody holds any
// more leaves `registeredObjects`, and a later fetch makes a new one for its row.
//
// Threads: a context and its objects belong to the thread that uses them (the main loop for the view context).
// Each context has its own SQLite connection.
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "store/Entities.h"

namespace sprelio::store {

class SqliteStore;

struct SortDescriptor {
    std::string key;
    bool ascending = true;
};

struct FetchRequest {
    std::string entityName;
    // Compared like Foundation's compare: nil before any value when ascending (after, descending), numbers by
    // value, strings by their bytes (code point order). A key that the entity lacks makes the fetch fail.
    std::vector<SortDescriptor> sortDescriptors;
    std::function<bool(const ManagedObject&)> predicate; // empty: all; evaluated on the objects' current values
    // true: inserted objects of the entity are included and deleted ones hidden; false: the rows on disk as they
    // are (an object deleted in the context but not yet saved is still returned).
    bool includesPendingChanges = true;
    std::optional<std::size_t> fetchLimit;
};

// How a save resolves a conflict between the context's values and the store's. Kept as Core Data names them; see
// ManagedObjectContext::mergePolicy for what applies today.
enum class MergePolicy { error, mergeByPropertyStoreTrump, mergeByPropertyObjectTrump, overwrite, rollback };

class ManagedObjectContext {
public:
    // `store` is this context's own connection (see PersistentContainer::newBackgroundContext).
    explicit ManagedObjectContext(std::shared_ptr<SqliteStore> store);
    ~ManagedObjectContext();
    ManagedObjectContext(const ManagedObjectContext&) = delete;
    ManagedObjectContext& operator=(const ManagedObjectContext&) = delete;

    template <class T> std::shared_ptr<T> insertNew() {
        auto object = std::make_shared<T>();
        insert(object);
        return object;
    }
    // Registers a new object; it gets a temporary id until saved. Throws std::logic_error for an object of
    // another context.
    void insert(const std::shared_ptr<ManagedObject>& object);
    // Marks a registered object deleted (removed from the store by the next save); an inserted object that was
    // never saved simply leaves the context. Throws std::logic_error for an object of another context.
    void deleteObject(const std::shared_ptr<ManagedObject>& object);

    // Throws StoreError when the store can't be read, the entity is unknown or a sort key is no attribute.
    std::vector<std::shared_ptr<ManagedObject>> fetch(const FetchRequest& request);
    template <class T> std::vector<std::shared_ptr<T>> fetchAll(std::vector<SortDescriptor> sort = {}) {
        std::vector<std::shared_ptr<T>> out;
        for (auto& o : fetch(FetchRequest{T::kEntityName, std::move(sort), {}, true, std::nullopt}))
            out.push_back(std::static_pointer_cast<T>(o));
        return out;
    }
    // The object of an identity URI (objectIDString()), registered or read from the store; nullptr when the URI is
    // not of this store or its row is gone. Throws StoreError when the store can't be read.
    std::shared_ptr<ManagedObject> existingObject(const std::string& objectIDString);

    bool hasChanges() const;
    std::vector<std::shared_ptr<ManagedObject>> insertedObjects() const;
    std::vector<std::shared_ptr<ManagedObject>> updatedObjects() const;
    std::vector<std::shared_ptr<ManagedObject>> deletedObjects() const;
    std::vector<std::shared_ptr<ManagedObject>> registeredObjects() const;
    std::size_t registeredCount() const;
    // Calls `body` for every registered object without copying the set (the validation walk of a save).
    void forEachRegisteredObject(const std::function<void(ManagedObject&)>& body) const;

    // Validates the inserted and updated objects (StoreError in kStoreErrorDomain; several failures come as
    // code kMultipleValidationErrors with one detailed error each), then writes all changes in one transaction:
    // deletes, updates of the changed columns, inserts. On any failure the transaction is rolled back, StoreError
    // is thrown, nothing on disk has changed and the context keeps its changes. On success the saved values become
    // the committed ones and inserted objects get their permanent ids. Without changes it does nothing.
    void save();
    // Discards all unsaved changes: inserted objects leave the context, updated and deleted ones get their
    // committed values back.
    void rollback();
    // Gives up unsaved changes (as rollback()) and reloads every registered object from the store; an object whose
    // row is gone leaves the context (isDeleted() true, managedObjectContext() nullptr). A store that can't be read
    // is logged and the objects keep their last committed values. Never throws.
    void refreshAllObjects();
    // One object: without `mergeChanges` its unsaved changes are given up and its values reloaded from the store;
    // with it, the values it changed stay and the others are reloaded. An object whose row is gone leaves the
    // context as in refreshAllObjects(). Inserted (never saved) and deleted objects are left as they are. Never
    // throws; a store that can't be read is logged and the object keeps its values.
    void refreshObject(const std::shared_ptr<ManagedObject>& object, bool mergeChanges);
    // Runs the block on the calling thread, which owns the context; kept so callers read as synchronous saves.
    void performBlockAndWait(const std::function<void()>& block) { block(); }

    // Kept as the controller sets them (true and mergeByPropertyObjectTrump). Nothing merges yet: there is
    // one context per SQLite connection, no parent context, and no context is told of another's saves, so there is
    // nothing to merge automatically. A save writes only the attributes that changed in this context, which is what
    // the property-object-trump policy gives when two writers touched the same row; other policies are not
    // implemented and behave the same way.
    bool automaticallyMergesChangesFromParent = false;
    MergePolicy mergePolicy = MergePolicy::error;

    SqliteStore& store() const;

    // Run by cdSaveContext after each successful save; the owner of what mirrors the store sets it.
    void setDidSave(std::function<void()> hook) { didSave_ = std::move(hook); }
    const std::function<void()>& didSave() const { return didSave_; }

private:
    friend class ManagedObject;
    void noteChanged(ManagedObject& object);
    struct Impl;
    std::unique_ptr<Impl> impl_;
    std::function<void()> didSave_;
};

} // namespace sprelio::store

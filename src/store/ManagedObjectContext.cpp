#include "store/ManagedObjectContext.h"

#include <algorithm>
#include <unordered_map>

#include "base/Log.h"
#include "store/SqliteStore.h"

namespace sprelio::store {

namespace {

int entityIndex(const EntityDescription& entity) {
    const auto& model = persistenceModel();
    for (std::size_t i = 0; i < model.size(); ++i) {
        if (model[i] == &entity) return static_cast<int>(i);
    }
    return -1;
}

[[noreturn]] void throwStoreError(long code, std::string description, std::map<std::string, std::string> info = {}) {
    Error e;
    e.domain = kStoreErrorDomain;
    e.code = code;
    e.localizedDescription = std::move(description);
    e.userInfo = std::move(info);
    throw StoreError(std::move(e));
}

// Foundation's ordering: nil first, numbers by value, strings by code point, booleans as numbers.
int compareValues(const AttributeValue& a, const AttributeValue& b) {
    const bool aNil = std::holds_alternative<std::monostate>(a);
    const bool bNil = std::holds_alternative<std::monostate>(b);
    if (aNil || bNil) return aNil == bNil ? 0 : (aNil ? -1 : 1);
    const auto* as = std::get_if<std::string>(&a);
    const auto* bs = std::get_if<std::string>(&b);
    if (as && bs) {
        int c = as->compare(*bs);
        return c < 0 ? -1 : (c > 0 ? 1 : 0);
    }
    if (as || bs) return as ? 1 : -1; // numbers before strings: only for values of the wrong type
    auto ai = std::get_if<std::int64_t>(&a);
    auto bi = std::get_if<std::int64_t>(&b);
    if (ai && bi) return *ai < *bi ? -1 : (*ai > *bi ? 1 : 0);
    auto number = [](const AttributeValue& v) -> double {
        if (const auto* i = std::get_if<std::int64_t>(&v)) return static_cast<double>(*i);
        if (const auto* d = std::get_if<double>(&v)) return *d;
        if (const auto* x = std::get_if<bool>(&v)) return *x ? 1.0 : 0.0;
        return 0.0;
    };
    double ad = number(a), bd = number(b);
    return ad < bd ? -1 : (ad > bd ? 1 : 0);
}

} // namespace

struct ManagedObjectContext::Impl {
    std::shared_ptr<SqliteStore> store;
    // Per entity of the model: primary key -> object. Weak: objects with changes are also held below.
    std::vector<std::unordered_map<std::int64_t, std::weak_ptr<ManagedObject>>> registry;
    std::vector<std::shared_ptr<ManagedObject>> inserted; // in order of insertion
    std::vector<std::shared_ptr<ManagedObject>> touched;  // set since the last save; updated when values differ
    std::vector<std::shared_ptr<ManagedObject>> deleted;  // saved objects marked deleted
    std::uint64_t nextTemporaryID = 1;

    auto& registryOf(const EntityDescription& entity) {
        int i = entityIndex(entity);
        if (i < 0) throw std::logic_error("entity " + entity.name + " is not part of the model \"Persistence\"");
        return registry[static_cast<std::size_t>(i)];
    }

    static void detach(ManagedObject& o) {
        o.context_ = nullptr;
        o.inserted_ = false;
        o.touched_ = false;
    }

    // Makes (or finds) the object of a row read from the store; nullptr when a row read without values is gone.
    std::shared_ptr<ManagedObject> objectFor(const EntityDescription& entity, SqliteStore::Row&& row,
                                             ManagedObjectContext* owner) {
        auto& map = registryOf(entity);
        auto& slot = map[row.primaryKey];
        if (auto existing = slot.lock()) return existing;
        if (row.values.empty()) {
            // Skipped as registered while reading, but let go since: read it now.
            auto fresh = store->fetchOne(entity, row.primaryKey);
            if (!fresh) return nullptr;
            row.values = std::move(fresh->values);
        }
        auto object = entity.make();
        object->committed_ = row.values;
        object->values_ = std::move(row.values);
        object->primaryKey_ = row.primaryKey;
        object->storeID_ = store->storeUUID();
        object->context_ = owner;
        slot = object;
        return object;
    }
};

ManagedObjectContext::ManagedObjectContext(std::shared_ptr<SqliteStore> store) : impl_(std::make_unique<Impl>()) {
    if (!store) throw std::invalid_argument("ManagedObjectContext needs a store");
    impl_->store = std::move(store);
    impl_->registry.resize(persistenceModel().size());
}

ManagedObjectContext::~ManagedObjectContext() {
    // Objects may outlive the context (held by caches); they must not point at it afterwards.
    for (auto& map : impl_->registry) {
        for (auto& [pk, weak] : map) {
            if (auto o = weak.lock()) Impl::detach(*o);
        }
    }
    for (auto& o : impl_->inserted) Impl::detach(*o);
    for (auto& o : impl_->touched) Impl::detach(*o);
    for (auto& o : impl_->deleted) Impl::detach(*o);
}

SqliteStore& ManagedObjectContext::store() const { return *impl_->store; }

void ManagedObjectContext::insert(const std::shared_ptr<ManagedObject>& object) {
    if (!object) throw std::invalid_argument("ManagedObjectContext::insert() - object is null");
    if (object->context_ == this) return; // registered already
    if (object->context_) throw std::logic_error("ManagedObjectContext::insert() - the object belongs to another context");
    impl_->registryOf(object->entity()); // an entity of the model
    // An object that left its context (deleted and saved, rolled back) comes back as a new one.
    object->primaryKey_ = 0;
    object->storeID_.reset();
    object->committed_.clear();
    object->deleted_ = false;
    object->touched_ = false;
    object->inserted_ = true;
    object->context_ = this;
    object->temporaryID_ = impl_->nextTemporaryID++;
    impl_->inserted.push_back(object);
}

void ManagedObjectContext::deleteObject(const std::shared_ptr<ManagedObject>& object) {
    if (!object) throw std::invalid_argument("ManagedObjectContext::deleteObject() - object is null");
    if (object->context_ != this) {
        throw std::logic_error("ManagedObjectContext::deleteObject() - the object is not registered in this context");
    }
    if (object->deleted_) return;
    if (object->inserted_) {
        auto& v = impl_->inserted;
        v.erase(std::remove(v.begin(), v.end(), object), v.end());
        Impl::detach(*object);
        object->deleted_ = true;
        return;
    }
    object->deleted_ = true;
    impl_->deleted.push_back(object);
}

void ManagedObjectContext::noteChanged(ManagedObject& object) {
    object.touched_ = true;
    impl_->touched.push_back(object.shared_from_this());
}

std::vector<std::shared_ptr<ManagedObject>> ManagedObjectContext::fetch(const FetchRequest& request) {
    const EntityDescription* entity = entityNamed(request.entityName);
    if (!entity) {
        throwStoreError(store_error::kUnknownEntity,
                        "The model \"Persistence\" has no entity named '" + request.entityName + "'.",
                        {{"entityName", request.entityName}});
    }
    std::vector<std::pair<std::size_t, bool>> keys; // attribute index, ascending
    for (const auto& d : request.sortDescriptors) {
        int i = entity->indexOf(d.key);
        if (i < 0) {
            throwStoreError(store_error::kUnknownKey,
                            "The entity " + entity->name + " has no attribute '" + d.key + "' to sort by.",
                            {{"entityName", entity->name}, {"key", d.key}});
        }
        keys.emplace_back(static_cast<std::size_t>(i), d.ascending);
    }

    // Rows whose object is registered keep the object's values (with its unsaved changes): they are not read.
    auto& registered = impl_->registryOf(*entity);
    auto rows = impl_->store->fetchAll(*entity, [&](std::int64_t pk) {
        auto it = registered.find(pk);
        return it == registered.end() || it->second.expired();
    });
    std::vector<std::shared_ptr<ManagedObject>> result;
    result.reserve(rows.size());
    for (auto& row : rows) {
        auto object = impl_->objectFor(*entity, std::move(row), this);
        if (!object) continue;
        if (request.includesPendingChanges && object->deleted_) continue;
        if (request.predicate && !request.predicate(*object)) continue;
        result.push_back(std::move(object));
    }
    if (request.includesPendingChanges) {
        for (const auto& o : impl_->inserted) {
            if (&o->entity() != entity) continue;
            if (request.predicate && !request.predicate(*o)) continue;
            result.push_back(o);
        }
    }
    if (!keys.empty()) {
        std::stable_sort(result.begin(), result.end(), [&](const auto& a, const auto& b) {
            for (const auto& [index, ascending] : keys) {
                int c = compareValues(a->valueAt(index), b->valueAt(index));
                if (c != 0) return ascending ? c < 0 : c > 0;
            }
            return false;
        });
    }
    if (request.fetchLimit && *request.fetchLimit > 0 && result.size() > *request.fetchLimit) {
        result.resize(*request.fetchLimit);
    }
    return result;
}

std::shared_ptr<ManagedObject> ManagedObjectContext::existingObject(const std::string& uri) {
    // x-sprelio://<store>/<Entity>/p<pk> or x-sprelio:///<Entity>/t<n>
    static const std::string kScheme = "x-sprelio://";
    if (uri.rfind(kScheme, 0) != 0) return nullptr;
    auto rest = uri.substr(kScheme.size());
    auto slash1 = rest.find('/');
    if (slash1 == std::string::npos) return nullptr;
    auto slash2 = rest.find('/', slash1 + 1);
    if (slash2 == std::string::npos || slash2 + 2 > rest.size()) return nullptr;
    auto storeID = rest.substr(0, slash1);
    auto entityName = rest.substr(slash1 + 1, slash2 - slash1 - 1);
    char kind = rest[slash2 + 1];
    auto numberText = rest.substr(slash2 + 2);
    const EntityDescription* entity = entityNamed(entityName);
    if (!entity || numberText.empty() || numberText.find_first_not_of("0123456789") != std::string::npos) return nullptr;
    std::uint64_t number = 0;
    try {
        number = std::stoull(numberText);
    } catch (const std::exception&) {
        return nullptr;
    }
    if (kind == 't') {
        if (!storeID.empty()) return nullptr;
        for (const auto& o : impl_->inserted) {
            if (o->temporaryID_ == number && &o->entity() == entity) return o;
        }
        return nullptr;
    }
    if (kind != 'p' || storeID != *impl_->store->storeUUID()) return nullptr;
    auto pk = static_cast<std::int64_t>(number);
    auto& map = impl_->registryOf(*entity);
    if (auto it = map.find(pk); it != map.end()) {
        if (auto o = it->second.lock()) return o;
    }
    auto row = impl_->store->fetchOne(*entity, pk);
    if (!row) return nullptr;
    return impl_->objectFor(*entity, std::move(*row), this);
}

bool ManagedObjectContext::hasChanges() const {
    if (!impl_->inserted.empty() || !impl_->deleted.empty()) return true;
    return std::any_of(impl_->touched.begin(), impl_->touched.end(), [](const auto& o) { return o->isUpdated(); });
}

std::vector<std::shared_ptr<ManagedObject>> ManagedObjectContext::insertedObjects() const { return impl_->inserted; }

std::vector<std::shared_ptr<ManagedObject>> ManagedObjectContext::updatedObjects() const {
    std::vector<std::shared_ptr<ManagedObject>> out;
    for (const auto& o : impl_->touched) {
        if (o->isUpdated()) out.push_back(o);
    }
    return out;
}

std::vector<std::shared_ptr<ManagedObject>> ManagedObjectContext::deletedObjects() const { return impl_->deleted; }

void ManagedObjectContext::forEachRegisteredObject(const std::function<void(ManagedObject&)>& body) const {
    for (auto& map : impl_->registry) {
        for (auto it = map.begin(); it != map.end();) {
            if (auto o = it->second.lock()) {
                body(*o);
                ++it;
            } else {
                it = map.erase(it); // an object nobody holds any more
            }
        }
    }
    // Copy: the body may not change the context, but be safe against it anyway.
    auto inserted = impl_->inserted;
    for (const auto& o : inserted) body(*o);
}

std::vector<std::shared_ptr<ManagedObject>> ManagedObjectContext::registeredObjects() const {
    std::vector<std::shared_ptr<ManagedObject>> out;
    forEachRegisteredObject([&](ManagedObject& o) { out.push_back(o.shared_from_this()); });
    return out;
}

std::size_t ManagedObjectContext::registeredCount() const {
    std::size_t n = 0;
    forEachRegisteredObject([&](ManagedObject&) { ++n; });
    return n;
}

void ManagedObjectContext::save() {
    if (!hasChanges()) return;
    auto& impl = *impl_;

    // Validation of what is written, as a save of Core Data does; cdSaveContext checks all registered objects first.
    std::vector<std::shared_ptr<ManagedObject>> updated = updatedObjects();
    std::vector<DetailedError> failures;
    std::optional<Error> first;
    auto check = [&](const std::shared_ptr<ManagedObject>& o) {
        if (auto e = o->validateForUpdate()) {
            if (!first) first = *e;
            failures.push_back(DetailedError{e->localizedDescription, o->description()});
        }
    };
    for (const auto& o : impl.inserted) check(o);
    for (const auto& o : updated) check(o);
    if (failures.size() == 1) {
        // One invalid object: its error alone, the object named in userInfo (as Core Data does).
        first->userInfo["NSValidationErrorObject"] = *failures.front().object;
        throw StoreError(*first);
    }
    if (failures.size() > 1) {
        Error e;
        e.domain = kStoreErrorDomain;
        e.code = store_error::kMultipleValidationErrors;
        e.localizedDescription = "Multiple validation errors occurred.";
        throw StoreError(std::move(e), std::move(failures));
    }

    std::vector<std::int64_t> newKeys;
    newKeys.reserve(impl.inserted.size());
    auto& store = *impl.store;
    store.beginTransaction();
    try {
        for (const auto& o : impl.deleted) {
            if (o->primaryKey_ > 0) store.deleteRow(o->entity(), o->primaryKey_);
        }
        std::vector<std::size_t> changed;
        for (const auto& o : updated) {
            changed.clear();
            for (std::size_t i = 0; i < o->values_.size(); ++i) {
                if (o->committed_.empty() || o->values_[i] != o->committed_[i]) changed.push_back(i);
            }
            store.updateRow(o->entity(), o->primaryKey_, o->values_, changed);
        }
        for (const auto& o : impl.inserted) newKeys.push_back(store.insertRow(o->entity(), o->values_));
        store.commit();
    } catch (...) {
        store.rollbackTransaction();
        throw;
    }

    // The transaction is on disk: the context takes the saved state as its committed state.
    for (const auto& o : impl.deleted) {
        if (o->primaryKey_ > 0) impl.registryOf(o->entity()).erase(o->primaryKey_);
        Impl::detach(*o);
    }
    for (const auto& o : impl.touched) {
        if (o->context_ != this) continue;
        o->committed_ = o->values_;
        o->touched_ = false;
    }
    for (std::size_t i = 0; i < impl.inserted.size(); ++i) {
        const auto& o = impl.inserted[i];
        o->primaryKey_ = newKeys[i];
        o->storeID_ = store.storeUUID();
        o->inserted_ = false;
        o->touched_ = false;
        o->committed_ = o->values_;
        impl.registryOf(o->entity())[o->primaryKey_] = o;
    }
    impl.inserted.clear();
    impl.touched.clear();
    impl.deleted.clear();
}

void ManagedObjectContext::rollback() {
    auto& impl = *impl_;
    for (const auto& o : impl.inserted) Impl::detach(*o);
    for (const auto& o : impl.touched) {
        if (!o->committed_.empty()) o->values_ = o->committed_;
        o->touched_ = false;
    }
    for (const auto& o : impl.deleted) {
        o->deleted_ = false;
        if (!o->committed_.empty()) o->values_ = o->committed_;
    }
    impl.inserted.clear();
    impl.touched.clear();
    impl.deleted.clear();
}

void ManagedObjectContext::refreshAllObjects() {
    rollback();
    const auto& model = persistenceModel();
    for (std::size_t e = 0; e < model.size(); ++e) {
        auto& map = impl_->registry[e];
        // Only entities with live objects are read.
        std::vector<std::shared_ptr<ManagedObject>> live;
        for (auto it = map.begin(); it != map.end();) {
            if (auto o = it->second.lock()) {
                live.push_back(std::move(o));
                ++it;
            } else {
                it = map.erase(it);
            }
        }
        if (live.empty()) continue;
        std::vector<SqliteStore::Row> rows;
        try {
            rows = impl_->store->fetchAll(*model[e]);
        } catch (const StoreError& error) {
            logError("ManagedObjectContext.refreshAllObjects() - unable to reload " + model[e]->name +
                     " objects: " + error.error().debugDescription());
            continue;
        }
        std::unordered_map<std::int64_t, std::size_t> byKey;
        byKey.reserve(rows.size());
        for (std::size_t i = 0; i < rows.size(); ++i) byKey.emplace(rows[i].primaryKey, i);
        for (auto& o : live) {
            auto it = byKey.find(o->primaryKey_);
            if (it == byKey.end()) {
                map.erase(o->primaryKey_);
                Impl::detach(*o);
                o->deleted_ = true;
                continue;
            }
            o->committed_ = rows[it->second].values;
            o->values_ = std::move(rows[it->second].values);
        }
    }
}

void ManagedObjectContext::refreshObject(const std::shared_ptr<ManagedObject>& object, bool mergeChanges) {
    if (!object || object->context_ != this || object->inserted_ || object->deleted_ || !object->hasPermanentID())
        return;
    std::optional<SqliteStore::Row> row;
    try {
        row = impl_->store->fetchOne(object->entity(), object->primaryKey_);
    } catch (const StoreError& error) {
        logError("ManagedObjectContext.refreshObject() - unable to reload " + object->objectIDString() + ": " +
                 error.error().debugDescription());
        return;
    }
    auto& touched = impl_->touched;
    if (!row) {
        touched.erase(std::remove(touched.begin(), touched.end(), object), touched.end());
        impl_->registryOf(object->entity()).erase(object->primaryKey_);
        Impl::detach(*object);
        object->deleted_ = true;
        return;
    }
    std::vector<AttributeValue> values = row->values;
    if (mergeChanges && !object->committed_.empty()) {
        // The object's own changes win over the store's values; it stays in the touched list for the next save.
        for (std::size_t i = 0; i < values.size() && i < object->values_.size(); ++i) {
            if (object->values_[i] != object->committed_[i]) values[i] = object->values_[i];
        }
    } else {
        touched.erase(std::remove(touched.begin(), touched.end(), object), touched.end());
        object->touched_ = false;
    }
    object->committed_ = std::move(row->values);
    object->values_ = std::move(values);
}

} // namespace sprelio::store

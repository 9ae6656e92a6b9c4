#include "store/DatabaseHelpers.h"

#include "base/Log.h"
#include "store/Persistence.h"

namespace sprelio::store {

const std::set<std::string, std::less<>>& holdCapableActions() {
    static const std::set<std::string, std::less<>> actions{"recordAndTranscribe", "recordAndProcessWithAI",
                                                            "recordAndTranscribeToFlat", "recordAndTranscribeToCaps"};
    return actions;
}

bool isHoldCapableAction(const std::optional<std::string>& shortcutActionRawValue) {
    return shortcutActionRawValue && holdCapableActions().count(*shortcutActionRawValue) > 0;
}

std::optional<std::vector<std::shared_ptr<ManagedObject>>>
cdGetEntity(const std::string& entityName, ManagedObjectContext& context,
            std::optional<std::vector<SortDescriptor>> sortDescriptors) {
    FetchRequest request;
    request.entityName = entityName;
    if (sortDescriptors) request.sortDescriptors = std::move(*sortDescriptors);
    try {
        return context.fetch(request);
    } catch (const StoreError& e) {
        logError("cdGetEntity() - error while fetching database records: " + e.error().debugDescription());
    } catch (const std::exception& e) {
        logError(std::string("cdGetEntity() - error while fetching database records: ") + e.what());
    }
    return std::nullopt;
}

std::vector<SortDescriptor> userShortcutSortDescriptors(bool orderAscending, bool timestampAscending) {
    return {SortDescriptor{"order", orderAscending}, SortDescriptor{"timestamp", timestampAscending}};
}

std::vector<std::shared_ptr<UserShortcut>> getUserShortcuts(ManagedObjectContext& context, bool sortedByOrderAscending,
                                                            bool sortedByTimestampAscending) {
    FetchRequest request;
    request.entityName = UserShortcut::kEntityName;
    request.sortDescriptors = userShortcutSortDescriptors(sortedByOrderAscending, sortedByTimestampAscending);
    try {
        auto objects = context.fetch(request);
        std::vector<std::shared_ptr<UserShortcut>> out;
        out.reserve(objects.size());
        for (auto& o : objects) out.push_back(std::static_pointer_cast<UserShortcut>(o));
        return out;
    } catch (const std::exception&) {
        logError("getUserShortcuts(sortedByOrderAscending:sortedByTimestampAscending:) - unable to fetch userShortcuts");
    }
    return {};
}

std::vector<std::shared_ptr<UserShortcut>> getUserShortcuts(bool sortedByOrderAscending,
                                                            bool sortedByTimestampAscending) {
    return getUserShortcuts(PersistenceController::shared().container().viewContext(), sortedByOrderAscending,
                            sortedByTimestampAscending);
}

bool cdSaveContext(ManagedObjectContext* context, const std::string& caller) {
    const std::string prefix = "cdSaveContext() - caller: " + caller;

    if (!context) {
        logError(prefix + " - error: NSManagedObjectContext == nil");
        return false;
    }
    if (!context->hasChanges()) {
        logInfo(prefix + " - no changes to save");
        return true;
    }
    const auto inserted = context->insertedObjects();
    const auto updated = context->updatedObjects();
    logInfo(prefix + " - about to save context with " + std::to_string(inserted.size()) + " inserted, " +
            std::to_string(updated.size()) + " updated, " + std::to_string(context->deletedObjects().size()) +
            " deleted objects");

    // The rest runs inside the context's block, synchronously for the caller.
    bool result = false;
    context->performBlockAndWait([&] {
        // Report only.
        for (const auto& object : inserted) {
            if (object->isDeleted())
                logWarning(prefix + " - found deleted object in insertedObjects: " + object->description());
        }
        for (const auto& object : updated) {
            if (object->isDeleted())
                logWarning(prefix + " - found deleted object in updatedObjects: " + object->description());
        }

        // Every registered object, not only the changed ones; every failure is logged.
        bool valid = true;
        context->forEachRegisteredObject([&](ManagedObject& object) {
            if (auto error = object.validateForUpdate()) {
                logError(prefix + " - validation error for object " + object.description() + ": " +
                         error->debugDescription());
                valid = false;
            }
        });
        if (!valid) {
            logError(prefix + " - aborting save due to validation errors");
            result = false;
            return;
        }

        try {
            context->save();
        } catch (const StoreError& storeError) {
            const auto& error = storeError.error();
            logError(prefix + " - save failed with NSError: " + error.localizedDescription +
                     ", userInfo: " + describeUserInfo(error.userInfo));
            for (const auto& detailed : storeError.detailedErrors()) {
                logError(prefix + " - detailed error: " + detailed.description +
                         ", object: " + detailed.object.value_or("unknown"));
            }
            logWarning(prefix + " - attempting recovery by refreshing objects");
            context->refreshAllObjects();
            result = false;
            return;
        } catch (const std::exception& e) {
            logError(prefix + " - save failed with error: " + e.what());
            result = false;
            return;
        } catch (...) {
            logError(prefix + " - save failed with error: unknown error");
            result = false;
            return;
        }
        if (const auto& didSave = context->didSave()) didSave();
        logInfo(prefix + " - context saved successfully");
        result = true;
    });
    return result;
}

} // namespace sprelio::store

#include "core/AppHelpers.h"

#include "core/SharedAppDelegate.h"
#include "diagnostics/Log.h"
#include "store/ManagedObjectContext.h"

namespace sprelio {

bool cdSaveContext(store::ManagedObjectContext* context, const std::string& caller) {
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
        context->forEachRegisteredObject([&](store::ManagedObject& object) {
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
        } catch (const store::StoreError& storeError) {
            const auto& error = storeError.error();
            logError(prefix + " - save failed with NSError: " + error.localizedDescription +
                     ", userInfo: " + store::describeUserInfo(error.userInfo));
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
        if (auto* appDelegate = unwrappedAppDelegate()) appDelegate->updateCachedUserShortcuts();
        logInfo(prefix + " - context saved successfully");
        result = true;
    });
    return result;
}

} // namespace sprelio

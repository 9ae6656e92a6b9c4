#include "core/AppHelpers.h"

#include "core/SharedAppDelegate.h"
#include "diagnostics/Log.h"
#include "store/ManagedObjectContext.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "store/Entities.h"
#include "input/KeyboardShortcuts.h"
#include "platform/Clock.h"
#include <cstdio>
#include <set>

namespace sprelio {

InputLanguages chooseInputLanguages(std::optional<std::string> shortcutLanguageCode, const store::Settings& settings) {
    InputLanguages result;
    if (shortcutLanguageCode && shortcutLanguageCode->empty()) shortcutLanguageCode.reset();
    if (shortcutLanguageCode) {
        result.inputLanguageCode = shortcutLanguageCode;
        result.codes.push_back(*shortcutLanguageCode);
        logInfo("inputLanguageCodes{} - using explicit inputLanguageCode=" + *shortcutLanguageCode);
        return result;
    }
    for (const auto& language : settings.localizedTranslationLanguages()) {
        if (!language.code.empty()) result.codes.push_back(language.code);
    }
    std::string text = "[";
    for (std::size_t i = 0; i < result.codes.size(); ++i) {
        if (i) text += ", ";
        text += "\"" + result.codes[i] + "\"";
    }
    logInfo("inputLanguageCodes{} - no explicit inputLanguageCode, falling back to languages=" + text + "]");
    return result;
}

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

void cleanupShortcutsByUserDefaults(store::ManagedObjectContext& context, const store::SettingsStore& settings,
                                    KeyboardShortcuts& keyboardShortcuts, const platform::Clock& clock) {
    logInfo("cleanupShortcutsByUserDefaults()");
    const auto started = clock.steadyNow();
    std::set<std::string> known;
    try {
        for (const auto& shortcut : context.fetchAll<store::UserShortcut>())
            if (const auto uuid = shortcut->uuid()) known.insert(uuid->string());
    } catch (const store::StoreError& error) {
        // Without the list every key would look unknown; better to keep them all than to drop live ones.
        logError("cleanupShortcutsByUserDefaults() - error: " + error.error().localizedDescription);
        return;
    }
    static constexpr std::string_view kPrefix = "KeyboardShortcuts_";
    for (const auto& [key, value] : settings.dictionaryRepresentation()) {
        if (key.rfind(kPrefix, 0) != 0) continue;
        const std::string uuidText = key.substr(kPrefix.size());
        const auto parsed = Uuid::parse(uuidText);
        const bool isKnown = parsed && known.count(parsed->string()) > 0;
        if (isKnown) {
            logInfo("cleanupShortcutsByUserDefaults() - KeyboardShortcuts Hotkey with UUID " + uuidText +
                    " is known by SPR, skipping");
        } else {
            logInfo("cleanupShortcutsByUserDefaults() - KeyboardShortcuts Hotkey with UUID " + uuidText +
                    " is not known by SPR, disabling and resetting");
            keyboardShortcuts.disable({uuidText});
            keyboardShortcuts.reset({uuidText});
        }
    }
    const double seconds = std::chrono::duration<double>(clock.steadyNow() - started).count();
    char elapsed[32];
    std::snprintf(elapsed, sizeof elapsed, "%.6f", seconds);
    logInfo(std::string("cleanupShortcutsByUserDefaults() - finished checks in ") + elapsed + " seconds");
}

} // namespace sprelio

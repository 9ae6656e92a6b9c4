#pragma once
// Fetch and save helpers over the store and the set of actions that may record while held.
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "store/Entities.h"
#include "store/ManagedObjectContext.h"

namespace sprelio::store {

// "recordAndTranscribe", "recordAndProcessWithAI", "recordAndTranscribeToFlat", "recordAndTranscribeToCaps".
// `voiceToDialog` is deliberately outside although it records.
const std::set<std::string, std::less<>>& holdCapableActions();
bool isHoldCapableAction(const std::optional<std::string>& shortcutActionRawValue);

// All objects of `entityName`, sorted only when `sortDescriptors` is given. On a failed fetch logs
// "cdGetEntity() - error while fetching database records: <error>" at error level and returns nullopt.
std::optional<std::vector<std::shared_ptr<ManagedObject>>>
cdGetEntity(const std::string& entityName, ManagedObjectContext& context,
            std::optional<std::vector<SortDescriptor>> sortDescriptors = std::nullopt);

// Typed variant of cdGetEntity.
template <class T>
std::optional<std::vector<std::shared_ptr<T>>>
cdGetEntity(ManagedObjectContext& context, std::optional<std::vector<SortDescriptor>> sortDescriptors = std::nullopt) {
    auto objects = cdGetEntity(T::kEntityName, context, std::move(sortDescriptors));
    if (!objects) return std::nullopt;
    std::vector<std::shared_ptr<T>> out;
    out.reserve(objects->size());
    for (auto& o : *objects) out.push_back(std::static_pointer_cast<T>(o));
    return out;
}

// The two sort keys of every list of shortcuts: `order`, then `timestamp`.
std::vector<SortDescriptor> userShortcutSortDescriptors(bool orderAscending = true, bool timestampAscending = true);

// All UserShortcut records of PersistenceController::shared()'s view context, sorted by `order` then `timestamp`.
// On a failed fetch logs "getUserShortcuts(sortedByOrderAscending:sortedByTimestampAscending:) - unable to fetch
// userShortcuts" and returns an empty array.
std::vector<std::shared_ptr<UserShortcut>> getUserShortcuts(bool sortedByOrderAscending = true,
                                                            bool sortedByTimestampAscending = true);
// The same on a given context (the shared one above is this on the view context).
std::vector<std::shared_ptr<UserShortcut>> getUserShortcuts(ManagedObjectContext& context, bool sortedByOrderAscending,
                                                            bool sortedByTimestampAscending);

// The one way anything is saved: validates every registered object, saves in one transaction, runs the context's
// didSave hook on success and gives up the unsaved changes when the store refuses the save. Every log line starts
// "cdSaveContext() - caller: <caller>". Returns true on a clean save or when there was nothing to save.
bool cdSaveContext(ManagedObjectContext* context, const std::string& caller);

} // namespace sprelio::store

#include "store/DatabaseHelpers.h"

#include "diagnostics/Log.h"
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

} // namespace sprelio::store

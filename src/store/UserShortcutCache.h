#pragma once
// AppDelegate.cachedUserShortcuts: the in-memory copy of all UserShortcut records (in no particular order) that
// the key-event paths read instead of fetching. The array is replaced as a whole, so a reader holds either the old
// or the new one for as long as it keeps its snapshot.
#include <atomic>
#include <memory>
#include <vector>

#include "store/Entities.h"

namespace sprelio::store {

class ManagedObjectContext;

class UserShortcutCache {
public:
    using Shortcuts = std::vector<std::shared_ptr<UserShortcut>>;
    using Snapshot = std::shared_ptr<const Shortcuts>;

    UserShortcutCache();
    // The current array; never null (empty before the first update).
    Snapshot cachedUserShortcuts() const { return cached_.load(std::memory_order_acquire); }

    // updateCachedUserShortcuts(): cdGetEntity of UserShortcut on the view context with no sort; on failure the
    // cache becomes empty. Logs "updateCachedUserShortcuts() - successfully updated <count> cachedUserShortcuts".
    void update(ManagedObjectContext& viewContext);

private:
    std::atomic<Snapshot> cached_;
};

} // namespace sprelio::store

#include "store/UserShortcutCache.h"

#include "base/Log.h"
#include "store/DatabaseHelpers.h"

namespace sprelio::store {

UserShortcutCache::UserShortcutCache() : cached_(std::make_shared<const Shortcuts>()) {}

void UserShortcutCache::update(ManagedObjectContext& viewContext) {
    auto fresh = std::make_shared<Shortcuts>();
    if (auto shortcuts = cdGetEntity<UserShortcut>(viewContext)) *fresh = std::move(*shortcuts);
    const auto count = fresh->size();
    cached_.store(std::move(fresh), std::memory_order_release);
    logInfo("updateCachedUserShortcuts() - successfully updated " + std::to_string(count) + " cachedUserShortcuts");
}

} // namespace sprelio::store

#pragma once
// Application-wide helpers (AppHelpers).
#include <string>

namespace sprelio {

namespace store {
class ManagedObjectContext;
}

// The one way anything is saved: validates every registered object, saves in one transaction, refreshes
// the shortcut cache of the AppDelegate on success and gives up the unsaved changes when the store refuses the save.
// Every log line starts "cdSaveContext() - caller: <caller>". Returns true on a clean save or when there was
// nothing to save.
bool cdSaveContext(store::ManagedObjectContext* context, const std::string& caller);

} // namespace sprelio

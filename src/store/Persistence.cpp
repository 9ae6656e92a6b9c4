#include "store/Persistence.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <system_error>

#include "base/Uuid.h"
#include "base/Log.h"
#include "store/AtomicFile.h"
#include "store/SqliteStore.h"

namespace sprelio::store {

namespace {

std::unique_ptr<PersistenceController>& sharedSlot() {
    static std::unique_ptr<PersistenceController> slot;
    return slot;
}

[[noreturn]] void fatal(const std::string& message) {
    logCritical("PersistenceController.init() - " + message);
    flushLog();
    std::fprintf(stderr, "Persistence: Fatal error: %s\n", message.c_str());
    std::fflush(stderr);
    std::abort();
}

} // namespace

// MARK: PersistentContainer

PersistentContainer::PersistentContainer(std::string name, std::filesystem::path storeFile)
    : name_(std::move(name)), storeFile_(std::move(storeFile)) {}

void PersistentContainer::setStoreFile(std::filesystem::path storeFile) {
    if (isLoaded()) throw std::logic_error("PersistentContainer::setStoreFile() - the store is loaded already");
    storeFile_ = std::move(storeFile);
}

std::optional<StoreError> PersistentContainer::loadPersistentStores() {
    if (isLoaded()) return std::nullopt;
    try {
        if (isInMemory()) {
            store_ = SqliteStore::openInMemory();
        } else {
            // Like the default location of the platform's container: the folder is made when missing.
            std::error_code ec;
            if (storeFile_.has_parent_path()) std::filesystem::create_directories(storeFile_.parent_path(), ec);
            store_ = SqliteStore::open(storeFile_);
        }
        viewContext_ = std::make_unique<ManagedObjectContext>(store_);
        viewContext_->setDidSave(didSave_);
    } catch (const StoreError& e) {
        store_.reset();
        viewContext_.reset();
        return e;
    }
    return std::nullopt;
}

ManagedObjectContext& PersistentContainer::viewContext() {
    if (!viewContext_) throw std::logic_error("PersistentContainer::viewContext() - the store is not loaded");
    return *viewContext_;
}

std::unique_ptr<ManagedObjectContext> PersistentContainer::newBackgroundContext() {
    if (!store_) throw std::logic_error("PersistentContainer::newBackgroundContext() - the store is not loaded");
    auto context = std::make_unique<ManagedObjectContext>(store_->openAnotherConnection());
    context->mergePolicy = viewContext_->mergePolicy;
    context->setDidSave(didSave_);
    return context;
}

void PersistentContainer::setDidSave(std::function<void()> hook) {
    didSave_ = std::move(hook);
    if (viewContext_) viewContext_->setDidSave(didSave_);
}

// MARK: PersistenceController

namespace {
// SQLite's answers for a file that is not a database or whose pages are broken. Any other failure (a folder
// without rights, a full disk, a store of a newer model) is not the file's fault and must not cost the user it.
bool isDamagedStoreError(const Error& error) {
    constexpr long kSqliteCorrupt = 11, kSqliteNotADatabase = 26;
    return error.domain == kSqliteErrorDomain && (error.code == kSqliteCorrupt || error.code == kSqliteNotADatabase);
}
} // namespace

PersistenceController::PersistenceController(const std::filesystem::path& supportFolder, bool inMemory) {
    container_ = std::make_unique<PersistentContainer>(kModelName, supportFolder / kStoreFileName);
    if (inMemory) container_->setStoreFile(PersistentContainer::kInMemoryStoreFile);
    auto error = container_->loadPersistentStores();
    // A damaged file would stop every start and every command for good. It is kept aside for whoever looks into it,
    // and a fresh store takes its place; the user is told by whoever shows messages (movedAsideTo()).
    if (error && !inMemory && isDamagedStoreError(error->error())) {
        const auto storeFile = container_->storeFile();
        std::string moveError;
        const auto aside = moveFileAside(storeFile, moveError);
        if (!aside.empty()) {
            // The journal files belong to the damaged store; a fresh store must not replay them.
            for (const char* suffix : {"-wal", "-shm"}) {
                auto companion = storeFile;
                companion += suffix;
                std::error_code ec;
                if (!std::filesystem::exists(companion, ec)) continue;
                auto companionAside = aside;
                companionAside += suffix;
                std::filesystem::rename(companion, companionAside, ec);
                if (ec) std::filesystem::remove(companion, ec);
            }
            movedAside_ = aside;
            logError("PersistenceController.init() - the store " + storeFile.string() + " is damaged (" +
                     error->error().debugDescription() + "), moved it aside to " + aside.string() +
                     " and started a new one");
            container_ = std::make_unique<PersistentContainer>(kModelName, storeFile);
            error = container_->loadPersistentStores();
        } else {
            logError("PersistenceController.init() - the store " + storeFile.string() +
                     " is damaged and could not be moved aside: " + moveError);
        }
    }
    // Without its store the application has nothing to work with.
    if (error) {
        fatal("Unresolved error " + error->error().debugDescription() + ", " +
              describeUserInfo(error->error().userInfo));
    }
    auto& viewContext = container_->viewContext();
    // In-memory changes win over the store's values when both changed.
    viewContext.automaticallyMergesChangesFromParent = true;
    viewContext.mergePolicy = MergePolicy::mergeByPropertyObjectTrump;
    // Repair what older builds left behind before anything reads the shortcuts.
    validateAndRepairUserShortcuts(viewContext);
}

PersistenceController& PersistenceController::install(const std::filesystem::path& supportFolder, bool inMemory) {
    auto& slot = sharedSlot();
    if (!slot) slot = std::make_unique<PersistenceController>(supportFolder, inMemory);
    return *slot;
}

PersistenceController& PersistenceController::shared() {
    auto& slot = sharedSlot();
    if (!slot) {
        logCritical("PersistenceController.shared - used before PersistenceController::install()");
        flushLog();
        std::fprintf(stderr, "Persistence: Fatal error: PersistenceController.shared used before install()\n");
        std::abort();
    }
    return *slot;
}

bool PersistenceController::isInstalled() { return sharedSlot() != nullptr; }

void PersistenceController::uninstallForTesting() { sharedSlot().reset(); }

// MARK: Repair

void validateAndRepairUserShortcuts(ManagedObjectContext& viewContext) {
    static const std::string kFailed = "validateAndRepairUserShortcuts() - Failed to validate/repair UserShortcuts: ";
    std::vector<std::shared_ptr<UserShortcut>> shortcuts;
    try {
        shortcuts = viewContext.fetchAll<UserShortcut>();
    } catch (const StoreError& e) {
        logError(kFailed + e.error().debugDescription());
        return;
    }
    int count = 0;
    for (const auto& shortcut : shortcuts) {
        if (!shortcut->uuid()) {
            shortcut->setUuid(Uuid::random());
            logInfo("validateAndRepairUserShortcuts() - Found UserShortcut with nil UUID, assigned new UUID");
            ++count;
        }
    }
    if (count > 0) {
        try {
            viewContext.save();
            logInfo("validateAndRepairUserShortcuts() - Repaired " + std::to_string(count) +
                    " UserShortcut(s) with nil UUID");
        } catch (const StoreError& e) {
            logError(kFailed + e.error().debugDescription());
        }
    }
}

} // namespace sprelio::store

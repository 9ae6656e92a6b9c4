// PersistenceController.init, validateAndRepairUserShortcuts, schema migration.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <vector>

#include "ObjectStoreTestSupport.h"
#include "StoreTestSupport.h"
#include "store/DatabaseHelpers.h"

namespace sprelio::store {
namespace {

using testing::RawDatabase;
using testing::ObjectStoreTest;

TEST_F(ObjectStoreTest, TheControllerSetsTheMergeStepsAndMakesTheStoreFile) {
    PersistenceController controller(folder.path() / "nested" / "support");
    auto& context = controller.container().viewContext();
    EXPECT_EQ(controller.container().name(), "Persistence");
    EXPECT_TRUE(std::filesystem::is_regular_file(folder.path() / "nested" / "support" / "Persistence.sqlite"));
    EXPECT_TRUE(context.automaticallyMergesChangesFromParent);
    EXPECT_EQ(context.mergePolicy, MergePolicy::mergeByPropertyObjectTrump);
    // Nothing to repair in an empty store: no lines.
    EXPECT_FALSE(log.containsPrefix("validateAndRepairUserShortcuts()"));
}

TEST_F(ObjectStoreTest, TheStoreUUIDStaysAcrossOpenings) {
    std::string first;
    {
        PersistenceController controller(folder.path());
        first = *controller.container().store()->storeUUID();
    }
    PersistenceController again(folder.path());
    EXPECT_EQ(*again.container().store()->storeUUID(), first);
    EXPECT_TRUE(Uuid::parse(first));
}

TEST_F(ObjectStoreTest, ShortcutsWithoutUUIDAreRepairedWhenTheStoreOpens) {
    { PersistenceController create(folder.path()); }
    {
        RawDatabase raw(storeFile());
        raw.exec("INSERT INTO UserShortcut (uuid, \"order\", shortcutActionRawValue) VALUES (NULL, 1, 'recordAndTranscribe')");
        raw.exec("INSERT INTO UserShortcut (uuid, \"order\") VALUES (NULL, 2)");
        raw.exec("INSERT INTO UserShortcut (uuid, \"order\") VALUES ('" + Uuid::random().string() + "', 3)");
    }
    log.clear();
    PersistenceController controller(folder.path());
    EXPECT_EQ(log.count("validateAndRepairUserShortcuts() - Found UserShortcut with nil UUID, assigned new UUID"), 2u);
    EXPECT_TRUE(log.contains("validateAndRepairUserShortcuts() - Repaired 2 UserShortcut(s) with nil UUID"));
    RawDatabase raw(storeFile());
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM UserShortcut WHERE uuid IS NULL"), "0");
    for (const auto& row : raw.query("SELECT uuid FROM UserShortcut")) EXPECT_TRUE(Uuid::parse(row[0])) << row[0];
    EXPECT_FALSE(controller.container().viewContext().hasChanges());
    // The repair saves directly, not through cdSaveContext: the cache is refreshed later by the AppDelegate.
    EXPECT_TRUE(linesStartingWith("cdSaveContext()").empty());
}

TEST_F(ObjectStoreTest, AFailedRepairSaveIsLogged) {
    { PersistenceController create(folder.path()); }
    RawDatabase raw(storeFile());
    raw.exec("INSERT INTO UserShortcut (uuid) VALUES (NULL)");
    raw.exec("BEGIN EXCLUSIVE");
    log.clear();
    PersistenceController controller(folder.path());
    EXPECT_TRUE(log.containsPrefix("validateAndRepairUserShortcuts() - Failed to validate/repair UserShortcuts: "
                                   "Error Domain=NSSQLiteErrorDomain Code=5 \"database is locked\""));
    raw.exec("ROLLBACK");
}

TEST_F(ObjectStoreTest, AnInMemoryControllerRepairsTheSameWay) {
    PersistenceController controller(folder.path(), true);
    auto& context = controller.container().viewContext();
    EXPECT_TRUE(controller.container().isInMemory());
    EXPECT_EQ(controller.container().storeFile(), "/dev/null");
    EXPECT_TRUE(context.automaticallyMergesChangesFromParent);
    EXPECT_EQ(context.mergePolicy, MergePolicy::mergeByPropertyObjectTrump);
    EXPECT_FALSE(std::filesystem::exists(storeFile()));

    context.insertNew<UserShortcut>()->setOrder(1);
    context.save();
    log.clear();
    validateAndRepairUserShortcuts(context);
    EXPECT_TRUE(log.contains("validateAndRepairUserShortcuts() - Found UserShortcut with nil UUID, assigned new UUID"));
    EXPECT_TRUE(log.contains("validateAndRepairUserShortcuts() - Repaired 1 UserShortcut(s) with nil UUID"));
    auto shortcuts = context.fetchAll<UserShortcut>();
    ASSERT_EQ(shortcuts.size(), 1u);
    EXPECT_TRUE(shortcuts[0]->uuid());
    EXPECT_FALSE(context.hasChanges());

    // Two in-memory controllers are two stores.
    PersistenceController other(folder.path(), true);
    EXPECT_TRUE(other.container().viewContext().fetchAll<UserShortcut>().empty());
}

TEST_F(ObjectStoreTest, AFileOfAnOlderSchemaOpensAndMigrates) {
    {
        // As an earlier build left it: no version, no metadata, and a shortcut table without the later attributes.
        RawDatabase raw(storeFile());
        raw.exec("CREATE TABLE \"UserShortcut\" (\"Z_PK\" INTEGER PRIMARY KEY, \"uuid\" TEXT, \"order\" INTEGER DEFAULT 0,"
                 " \"timestamp\" REAL, \"shortcutString\" TEXT, \"shortcutActionRawValue\" TEXT)");
        raw.exec("INSERT INTO UserShortcut (uuid, \"order\", shortcutString, shortcutActionRawValue) VALUES ('" +
                 Uuid::random().string() + "', 4, 'ctrl+x', 'recordAndTranscribe')");
        raw.exec("CREATE TABLE \"LogEntry\" (\"Z_PK\" INTEGER PRIMARY KEY, \"message\" TEXT, \"newerColumn\" TEXT)");
        raw.exec("INSERT INTO LogEntry (message, newerColumn) VALUES ('hello', 'kept')");
    }
    PersistenceController controller(folder.path());
    auto& context = controller.container().viewContext();
    auto shortcuts = context.fetchAll<UserShortcut>();
    ASSERT_EQ(shortcuts.size(), 1u);
    EXPECT_EQ(shortcuts[0]->order(), 4);
    EXPECT_EQ(shortcuts[0]->shortcutString(), std::optional<std::string>("ctrl+x"));
    EXPECT_FALSE(shortcuts[0]->hold());
    EXPECT_EQ(shortcuts[0]->mouseEventMouseButton(), 0);
    EXPECT_FALSE(shortcuts[0]->intelligenceActionCompletionType());
    EXPECT_FALSE(shortcuts[0]->validateForUpdate());

    shortcuts[0]->setIntelligenceActionCompletionType(std::string("paste"));
    auto entries = context.fetchAll<LogEntry>();
    ASSERT_EQ(entries.size(), 1u);
    entries[0]->setLevel(3);
    context.save();

    RawDatabase raw(storeFile());
    EXPECT_EQ(raw.scalar("PRAGMA user_version"), std::to_string(SqliteStore::kSchemaVersion));
    EXPECT_EQ(raw.scalar("SELECT intelligenceActionCompletionType FROM UserShortcut"), "paste");
    EXPECT_EQ(raw.scalar("SELECT hold FROM UserShortcut"), "0");
    EXPECT_EQ(raw.query("SELECT message, level, newerColumn FROM LogEntry"),
              (std::vector<std::vector<std::string>>{{"hello", "3", "kept"}}));
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM sqlite_master WHERE name IN ('Substitution', 'IntelligencePreset')"), "2");
    EXPECT_TRUE(log.containsPrefix("SqliteStore.open() - migrated the store: ALTER TABLE \"UserShortcut\" ADD COLUMN"));
}

TEST_F(ObjectStoreTest, AFileOfANewerSchemaVersionIsOpenedAsItIs) {
    {
        PersistenceController create(folder.path());
    }
    RawDatabase(storeFile()).exec("PRAGMA user_version = 99");
    PersistenceController controller(folder.path());
    EXPECT_TRUE(log.containsPrefix("SqliteStore.open() - the store's schema version 99 is newer"));
    EXPECT_EQ(RawDatabase(storeFile()).scalar("PRAGMA user_version"), "99");
}

// A damaged store would stop every start and every command: it is kept aside, byte for byte, and a fresh store
// takes its place.
TEST_F(ObjectStoreTest, ADamagedStoreIsSetAsideAndAFreshOneStarts) {
    struct Case {
        const char* name;
        std::function<void(const std::filesystem::path&)> damage;
    };
    const std::vector<Case> cases = {
        {"not a database", [](const std::filesystem::path& file) {
             std::ofstream out(file, std::ios::binary | std::ios::trunc);
             for (int i = 0; i < 512; ++i) out << "this is not a database ";
         }},
        {"pages overwritten after the header", [](const std::filesystem::path& file) {
             std::fstream io(file, std::ios::binary | std::ios::in | std::ios::out);
             io.seekp(100);
             const std::string junk(4000, 'Z');
             io.write(junk.data(), static_cast<std::streamsize>(junk.size()));
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove_all(folder.path());
        {
            PersistenceController first(folder.path());
            auto& context = first.container().viewContext();
            context.insertNew<UserShortcut>()->setUuid(Uuid::random());
            context.save();
        }
        c.damage(storeFile());
        const std::string damaged = storetest::readAll(storeFile());

        PersistenceController controller(folder.path());
        const auto aside = controller.movedAsideTo();
        ASSERT_FALSE(aside.empty());
        EXPECT_EQ(aside.parent_path(), storeFile().parent_path());
        EXPECT_TRUE(aside.filename().string().starts_with("Persistence.sqlite.corrupt-")) << aside;
        EXPECT_EQ(storetest::readAll(aside), damaged);
        // The fresh store is empty and takes what is saved.
        auto& context = controller.container().viewContext();
        EXPECT_TRUE(context.fetchAll<UserShortcut>().empty());
        context.insertNew<UserShortcut>()->setUuid(Uuid::random());
        EXPECT_NO_THROW(context.save());
        EXPECT_TRUE(log.containsPrefix("PersistenceController.init() - the store "));
    }
}

TEST_F(ObjectStoreTest, AStoreThatOpensIsNeverSetAside) {
    { PersistenceController first(folder.path()); }
    PersistenceController again(folder.path());
    EXPECT_TRUE(again.movedAsideTo().empty());
    for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
        EXPECT_EQ(entry.path().filename().string().find(".corrupt-"), std::string::npos) << entry.path();
}

class PersistenceDeathTest : public ObjectStoreTest {};

TEST_F(PersistenceDeathTest, ADirectoryAsStoreFileEndsTheProcess) {
    std::filesystem::create_directories(storeFile());
    EXPECT_DEATH(PersistenceController controller(folder.path()),
                 "Unresolved error Error Domain=NSSQLiteErrorDomain Code=14 .*unable to open database file");
}

TEST_F(PersistenceDeathTest, TheFatalStopAlsoLogsACriticalLine) {
    std::filesystem::create_directories(storeFile());
    // The log sink of the child is this fixture's; check that the child wrote the critical line before stopping by
    // making the sink echo critical lines to stderr.
    struct EchoSink final : LogSink {
        void log(LogLevel level, std::string message) override {
            if (level == LogLevel::critical) std::fprintf(stderr, "CRITICAL %s\n", message.c_str());
        }
    };
    EXPECT_DEATH(
        {
            EchoSink sink;
            setLogSink(&sink);
            PersistenceController controller(folder.path());
        },
        "CRITICAL PersistenceController.init\\(\\) - Unresolved error ");
}

TEST_F(PersistenceDeathTest, SharedBeforeInstallEndsTheProcess) {
    PersistenceController::uninstallForTesting();
    EXPECT_DEATH(PersistenceController::shared(), "used before install");
}

} // namespace
} // namespace sprelio::store

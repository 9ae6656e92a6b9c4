// cdSaveContext and the shortcut cache.
#include <gtest/gtest.h>

#include "ObjectStoreTestSupport.h"
#include "store/DatabaseHelpers.h"
#include "store/UserShortcutCache.h"

namespace sprelio::store {
namespace {

using testing::RawDatabase;
using testing::ObjectStoreTest;

class CdSaveContextTest : public ObjectStoreTest {
protected:
    void SetUp() override {
        ObjectStoreTest::SetUp();
        controller = std::make_unique<PersistenceController>(folder.path());
        controller->container().setDidSave(appDelegate.didSaveHook());
        log.clear();
    }
    void TearDown() override {
        controller.reset();
        ObjectStoreTest::TearDown();
    }
    ManagedObjectContext& context() { return controller->container().viewContext(); }
    std::vector<std::string> saveLines() const {
        std::vector<std::string> out;
        for (const auto& l : linesStartingWith("cdSaveContext()")) out.push_back(l.message);
        return out;
    }
    std::unique_ptr<PersistenceController> controller;
};

TEST_F(CdSaveContextTest, ANilContextFails) {
    EXPECT_FALSE(cdSaveContext(nullptr, "test()"));
    EXPECT_TRUE(log.contains("cdSaveContext() - caller: test() - error: NSManagedObjectContext == nil", LogLevel::error));
    EXPECT_EQ(appDelegate.calls, 0);
}

TEST_F(CdSaveContextTest, NoChangesIsTrueAndDoesNotRefreshTheCache) {
    EXPECT_TRUE(cdSaveContext(&context(), "test()"));
    EXPECT_EQ(saveLines(), (std::vector<std::string>{"cdSaveContext() - caller: test() - no changes to save"}));
    EXPECT_EQ(appDelegate.calls, 0);
}

TEST_F(CdSaveContextTest, ChangesAreSavedAndTheCacheIsRefreshed) {
    auto gone = context().insertNew<Substitution>();
    auto changed = context().insertNew<Substitution>();
    ASSERT_TRUE(cdSaveContext(&context(), "setup()"));
    EXPECT_EQ(appDelegate.calls, 1);
    log.clear();

    auto shortcut = context().insertNew<UserShortcut>();
    shortcut->setUuid(Uuid::random());
    shortcut->setShortcutActionRawValue("recordAndTranscribe");
    changed->setInput("new");
    context().deleteObject(gone);
    EXPECT_TRUE(cdSaveContext(&context(), "test()"));
    EXPECT_EQ(appDelegate.calls, 2);
    EXPECT_EQ(saveLines(),
              (std::vector<std::string>{
                  "cdSaveContext() - caller: test() - about to save context with 1 inserted, 1 updated, 1 deleted objects",
                  "cdSaveContext() - caller: test() - context saved successfully"}));
    EXPECT_FALSE(context().hasChanges());

    RawDatabase raw(storeFile());
    EXPECT_EQ(raw.scalar("SELECT shortcutActionRawValue FROM UserShortcut"), "recordAndTranscribe");
    EXPECT_EQ(raw.query("SELECT input FROM Substitution"), (std::vector<std::vector<std::string>>{{"new"}}));
}

TEST_F(CdSaveContextTest, WithoutADidSaveHookTheSaveStillSucceeds) {
    controller->container().setDidSave({});
    context().insertNew<Substitution>();
    EXPECT_TRUE(cdSaveContext(&context(), "test()"));
    EXPECT_EQ(appDelegate.calls, 0);
    EXPECT_TRUE(log.contains("cdSaveContext() - caller: test() - context saved successfully"));
}

TEST_F(CdSaveContextTest, AnInvalidRegisteredObjectOutsideTheChangesAbortsTheSave) {
    auto valid = context().insertNew<UserShortcut>();
    valid->setUuid(Uuid::random());
    valid->setOrder(1);
    ASSERT_TRUE(cdSaveContext(&context(), "setup()"));
    // Another row turns invalid on disk (out of the 16-bit range) and is read into the context, unchanged.
    RawDatabase raw(storeFile());
    raw.exec("INSERT INTO UserShortcut (uuid, \"order\") VALUES ('" + Uuid::random().string() + "', 99999)");
    auto all = context().fetchAll<UserShortcut>();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_FALSE(all[1]->hasChanges());
    log.clear();
    appDelegate.calls = 0;

    valid->setOrder(5);
    EXPECT_FALSE(cdSaveContext(&context(), "test()"));
    auto lines = linesStartingWith("cdSaveContext()");
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].message,
              "cdSaveContext() - caller: test() - about to save context with 0 inserted, 1 updated, 0 deleted objects");
    EXPECT_TRUE(lines[1].message.starts_with("cdSaveContext() - caller: test() - validation error for object "
                                             "<UserShortcut: "))
        << lines[1].message;
    EXPECT_NE(lines[1].message.find("Error Domain=SprelioStoreErrorDomain Code=1610"), std::string::npos);
    EXPECT_NE(lines[1].message.find("99999"), std::string::npos);
    EXPECT_EQ(lines[1].level, LogLevel::error);
    EXPECT_EQ(lines[2].message, "cdSaveContext() - caller: test() - aborting save due to validation errors");
    EXPECT_EQ(lines[2].level, LogLevel::error);

    EXPECT_TRUE(context().hasChanges()); // the change stays in the context
    EXPECT_EQ(valid->order(), 5);
    EXPECT_EQ(raw.scalar("SELECT \"order\" FROM UserShortcut WHERE Z_PK = " + std::to_string(valid->primaryKey())), "1");
    EXPECT_EQ(appDelegate.calls, 0);
}

TEST_F(CdSaveContextTest, EveryValidationFailureIsLogged) {
    context().insertNew<UserShortcut>()->setOrder(40000);
    context().insertNew<IntelligencePreset>()->setValue("uuid", std::string("nope"));
    EXPECT_FALSE(cdSaveContext(&context(), "test()"));
    std::size_t failures = 0;
    for (const auto& l : saveLines()) failures += l.find(" - validation error for object ") != std::string::npos;
    EXPECT_EQ(failures, 2u);
}

TEST_F(CdSaveContextTest, AFailedSaveGivesUpTheChangesForTheStoresValues) {
    auto shortcut = context().insertNew<UserShortcut>();
    shortcut->setUuid(Uuid::random());
    shortcut->setShortcutString(std::string("old"));
    ASSERT_TRUE(cdSaveContext(&context(), "setup()"));
    log.clear();
    appDelegate.calls = 0;

    RawDatabase other(storeFile());
    other.exec("BEGIN EXCLUSIVE");
    shortcut->setShortcutString(std::string("new"));
    auto added = context().insertNew<Substitution>();
    EXPECT_FALSE(cdSaveContext(&context(), "test()"));
    other.exec("ROLLBACK");

    auto lines = linesStartingWith("cdSaveContext()");
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1].message.rfind("cdSaveContext() - caller: test() - save failed with NSError: database is locked, "
                                     "userInfo: [",
                                     0),
              0u)
        << lines[1].message;
    EXPECT_NE(lines[1].message.find("\"NSSQLiteErrorDomain\": \"5\""), std::string::npos) << lines[1].message;
    EXPECT_EQ(lines[1].level, LogLevel::error);
    EXPECT_EQ(lines[2].message, "cdSaveContext() - caller: test() - attempting recovery by refreshing objects");
    EXPECT_EQ(lines[2].level, LogLevel::warning);

    EXPECT_FALSE(context().hasChanges());
    EXPECT_EQ(shortcut->shortcutString(), std::optional<std::string>("old"));
    EXPECT_EQ(added->managedObjectContext(), nullptr);
    EXPECT_EQ(appDelegate.calls, 0);
    RawDatabase raw(storeFile());
    EXPECT_EQ(raw.scalar("SELECT shortcutString FROM UserShortcut"), "old");
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM Substitution"), "0");

    // The store works again once the other writer is done.
    shortcut->setShortcutString(std::string("newer"));
    EXPECT_TRUE(cdSaveContext(&context(), "test()"));
    EXPECT_EQ(raw.scalar("SELECT shortcutString FROM UserShortcut"), "newer");
}

TEST_F(ObjectStoreTest, TheCacheHoldsAllShortcutsAndIsReplacedAsAWhole) {
    PersistenceController controller(folder.path());
    auto& context = controller.container().viewContext();
    UserShortcutCache cache;
    EXPECT_TRUE(cache.cachedUserShortcuts()->empty());
    for (int i = 0; i < 3; ++i) context.insertNew<UserShortcut>()->setUuid(Uuid::random());
    context.save();
    cache.update(context);
    auto before = cache.cachedUserShortcuts();
    EXPECT_EQ(before->size(), 3u);
    EXPECT_TRUE(log.contains("updateCachedUserShortcuts() - successfully updated 3 cachedUserShortcuts"));

    context.deleteObject((*before)[0]);
    context.save();
    cache.update(context);
    EXPECT_EQ(before->size(), 3u); // a reader's snapshot stays whole
    EXPECT_EQ(cache.cachedUserShortcuts()->size(), 2u);
    EXPECT_TRUE(log.contains("updateCachedUserShortcuts() - successfully updated 2 cachedUserShortcuts"));
}

} // namespace
} // namespace sprelio::store

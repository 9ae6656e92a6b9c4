// The object store: model, SQLite file, unit-of-work context.
#include <gtest/gtest.h>

#include <map>
#include <thread>

#include "ObjectStoreTestSupport.h"
#include "store/DatabaseHelpers.h"
#include "store/Entities.h"
#include "store/ManagedObjectContext.h"
#include "store/Persistence.h"
#include "store/SqliteStore.h"

namespace sprelio::store {
namespace {

using testing::RawDatabase;
using testing::ObjectStoreTest;

std::string sqlType(AttributeType t) {
    switch (t) {
    case AttributeType::int16:
    case AttributeType::boolean: return "INTEGER";
    case AttributeType::date: return "REAL";
    default: return "TEXT";
    }
}

// The model's tables, attribute by attribute.
const std::map<std::string, std::vector<std::pair<std::string, AttributeType>>>& expectedModel() {
    using T = AttributeType;
    static const std::map<std::string, std::vector<std::pair<std::string, AttributeType>>> m{
        {"UserShortcut",
         {{"uuid", T::uuid},
          {"order", T::int16},
          {"timestamp", T::date},
          {"shortcutString", T::string},
          {"modifierEventKeyCode", T::int16},
          {"modifierEventCharacters", T::string},
          {"singleModifierDirection", T::string},
          {"mouseEventMouseButton", T::int16},
          {"hold", T::boolean},
          {"shortcutActionRawValue", T::string},
          {"inputLanguageCode", T::string},
          {"intelligenceActionCategoryRawValue", T::string},
          {"intelligenceActionItemIdString", T::string},
          {"intelligenceActionCompletionType", T::string}}},
        {"LogEntry",
         {{"message", T::string},
          {"level", T::int16},
          {"fileURL", T::url},
          {"fileDurationString", T::string},
          {"requestID", T::uuid},
          {"timestamp", T::date}}},
        {"Substitution", {{"input", T::string}, {"output", T::string}, {"isBlankNew", T::boolean}, {"timestamp", T::date}}},
        {"IntelligencePreset",
         {{"uuid", T::uuid}, {"order", T::int16}, {"title", T::string}, {"prompt", T::string}, {"model", T::string}}},
    };
    return m;
}

TEST(ObjectStoreModel, EntitiesHaveTheModelsAttributeNamesAndTypes) {
    ASSERT_EQ(persistenceModel().size(), 4u);
    for (const auto* entity : persistenceModel()) {
        auto it = expectedModel().find(entity->name);
        ASSERT_NE(it, expectedModel().end()) << entity->name;
        ASSERT_EQ(entity->attributes.size(), it->second.size()) << entity->name;
        for (std::size_t i = 0; i < it->second.size(); ++i) {
            EXPECT_EQ(entity->attributes[i].name, it->second[i].first);
            EXPECT_EQ(entity->attributes[i].type, it->second[i].second) << entity->attributes[i].name;
        }
    }
    EXPECT_EQ(entityNamed("UserShortcut"), &userShortcutEntity());
    EXPECT_EQ(entityNamed("Nope"), nullptr);
}

TEST(ObjectStoreModel, NewObjectsHaveZeroNumbersFalseBooleansAndNilElse) {
    UserShortcut s;
    EXPECT_EQ(s.order(), 0);
    // "No key" and "no button" are -1: zero would be the key "A" and the left button.
    EXPECT_EQ(s.modifierEventKeyCode(), -1);
    EXPECT_EQ(s.mouseEventMouseButton(), -1);
    EXPECT_FALSE(s.hold());
    EXPECT_FALSE(s.uuid());
    EXPECT_FALSE(s.timestamp());
    EXPECT_FALSE(s.validateForUpdate());
}

TEST_F(ObjectStoreTest, TheFileHasATablePerEntityWithAColumnPerAttribute) {
    PersistenceController controller(folder.path());
    RawDatabase raw(storeFile());
    for (const auto& [entity, attributes] : expectedModel()) {
        auto columns = raw.query("PRAGMA table_info(\"" + entity + "\")");
        std::map<std::string, std::string> types;
        for (const auto& c : columns) types[c[1]] = c[2];
        EXPECT_EQ(types["Z_PK"], "INTEGER") << entity;
        for (const auto& [name, type] : attributes) {
            ASSERT_TRUE(types.count(name)) << entity << "." << name;
            EXPECT_EQ(types[name], sqlType(type)) << entity << "." << name;
        }
        EXPECT_EQ(columns.size(), attributes.size() + 1) << entity;
    }
    EXPECT_EQ(raw.scalar("PRAGMA user_version"), std::to_string(SqliteStore::kSchemaVersion));
    EXPECT_EQ(raw.scalar("PRAGMA journal_mode"), "wal");
}

TEST_F(ObjectStoreTest, UniquingReturnsTheSameObjectForARegisteredRow) {
    PersistenceController controller(folder.path());
    auto& context = controller.container().viewContext();
    auto inserted = context.insertNew<UserShortcut>();
    inserted->setOrder(3);
    EXPECT_FALSE(inserted->hasPermanentID());
    auto temporaryID = inserted->objectIDString();
    EXPECT_TRUE(temporaryID.starts_with("x-sprelio:///UserShortcut/t")) << temporaryID;
    context.save();
    ASSERT_TRUE(inserted->hasPermanentID());

    auto first = context.fetchAll<UserShortcut>();
    auto second = context.fetchAll<UserShortcut>();
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0].get(), inserted.get());
    EXPECT_EQ(second[0].get(), inserted.get());

    // Identity URI: x-sprelio://<store-uuid>/<Entity>/p<rowid>.
    auto uri = inserted->objectIDString();
    EXPECT_EQ(uri, "x-sprelio://" + *context.store().storeUUID() + "/UserShortcut/p" +
                       std::to_string(inserted->primaryKey()));
    EXPECT_EQ(context.existingObject(uri).get(), inserted.get());
    EXPECT_EQ(context.existingObject("x-sprelio://" + *context.store().storeUUID() + "/UserShortcut/p999"), nullptr);
    EXPECT_EQ(context.existingObject("x-sprelio://other/UserShortcut/p1"), nullptr);
}

TEST_F(ObjectStoreTest, AnUnchangedObjectNobodyHoldsLeavesTheContext) {
    PersistenceController controller(folder.path());
    auto& context = controller.container().viewContext();
    context.insertNew<Substitution>()->setInput("a");
    context.save();
    EXPECT_EQ(context.registeredCount(), 0u); // saved, not held by anyone
    auto held = context.fetchAll<Substitution>();
    EXPECT_EQ(context.registeredCount(), 1u);
    held[0]->setInput("b"); // changed: the context holds it
    held.clear();
    EXPECT_EQ(context.registeredCount(), 1u);
    EXPECT_TRUE(context.hasChanges());
}

TEST_F(ObjectStoreTest, FetchIncludesPendingChanges) {
    PersistenceController controller(folder.path());
    auto& context = controller.container().viewContext();
    auto kept = context.insertNew<Substitution>();
    kept->setInput("kept");
    auto gone = context.insertNew<Substitution>();
    gone->setInput("gone");
    context.save();

    auto added = context.insertNew<Substitution>();
    added->setInput("added");
    context.deleteObject(gone);
    EXPECT_TRUE(gone->isDeleted());

    auto withPending = context.fetchAll<Substitution>();
    ASSERT_EQ(withPending.size(), 2u);
    EXPECT_EQ(withPending[0].get(), kept.get());
    EXPECT_EQ(withPending[1].get(), added.get());

    FetchRequest diskOnly{Substitution::kEntityName, {}, {}, false, std::nullopt};
    auto onDisk = context.fetch(diskOnly);
    ASSERT_EQ(onDisk.size(), 2u);
    EXPECT_EQ(onDisk[0].get(), kept.get());
    EXPECT_EQ(onDisk[1].get(), gone.get());

    FetchRequest filtered{Substitution::kEntityName, {}, [](const ManagedObject& o) {
                              return static_cast<const Substitution&>(o).input() == std::optional<std::string>("added");
                          },
                          true, std::nullopt};
    auto found = context.fetch(filtered);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].get(), added.get());

    EXPECT_EQ(context.insertedObjects().size(), 1u);
    EXPECT_EQ(context.deletedObjects().size(), 1u);
    EXPECT_TRUE(context.updatedObjects().empty());
    context.save();
    RawDatabase raw(storeFile());
    EXPECT_EQ(raw.query("SELECT input FROM Substitution ORDER BY Z_PK"),
              (std::vector<std::vector<std::string>>{{"kept"}, {"added"}}));
    EXPECT_EQ(gone->managedObjectContext(), nullptr);
}

TEST_F(ObjectStoreTest, FetchSortsByOrderThenTimestampWithNilFirst) {
    PersistenceController controller(folder.path());
    auto& context = controller.container().viewContext();
    struct Row {
        int order;
        std::optional<double> timestamp;
        const char* name;
    };
    for (auto s : std::vector<Row>{{2, 10, "c"}, {1, 30, "b2"}, {1, std::nullopt, "b0"}, {1, 20, "b1"}, {-5, 99, "a"}}) {
        auto u = context.insertNew<UserShortcut>();
        u->setUuid(Uuid::random());
        u->setOrder(s.order);
        u->setTimestamp(s.timestamp);
        u->setShortcutString(std::string(s.name));
    }
    context.save();
    auto names = [](const std::vector<std::shared_ptr<UserShortcut>>& v) {
        std::vector<std::string> out;
        for (auto& u : v) out.push_back(*u->shortcutString());
        return out;
    };
    EXPECT_EQ(names(getUserShortcuts(context, true, true)), (std::vector<std::string>{"a", "b0", "b1", "b2", "c"}));
    EXPECT_EQ(names(getUserShortcuts(context, true, false)), (std::vector<std::string>{"a", "b2", "b1", "b0", "c"}));
    EXPECT_EQ(names(getUserShortcuts(context, false, true)), (std::vector<std::string>{"c", "b0", "b1", "b2", "a"}));

    FetchRequest limited{UserShortcut::kEntityName, userShortcutSortDescriptors(), {}, true, 2};
    EXPECT_EQ(context.fetch(limited).size(), 2u);
}

TEST_F(ObjectStoreTest, GetUserShortcutsUsesTheSharedControllersViewContext) {
    auto& controller = PersistenceController::install(folder.path());
    auto& context = controller.container().viewContext();
    auto later = context.insertNew<UserShortcut>();
    later->setOrder(2);
    auto earlier = context.insertNew<UserShortcut>();
    earlier->setOrder(1);
    auto shortcuts = getUserShortcuts(true, true);
    ASSERT_EQ(shortcuts.size(), 2u);
    EXPECT_EQ(shortcuts[0].get(), earlier.get());
    EXPECT_EQ(&PersistenceController::shared(), &controller);
}

TEST_F(ObjectStoreTest, CdGetEntityLogsAndReturnsNothingOnAFailedFetch) {
    PersistenceController controller(folder.path());
    auto& context = controller.container().viewContext();
    EXPECT_FALSE(cdGetEntity("NoSuchEntity", context));
    EXPECT_TRUE(log.containsPrefix("cdGetEntity() - error while fetching database records: Error Domain="
                                   "SprelioStoreErrorDomain Code=134060"));
    log.clear();
    EXPECT_FALSE(cdGetEntity("UserShortcut", context, std::vector<SortDescriptor>{{"noSuchKey", true}}));
    EXPECT_TRUE(log.containsPrefix("cdGetEntity() - error while fetching database records: "));
    auto all = cdGetEntity("UserShortcut", context);
    ASSERT_TRUE(all);
    EXPECT_TRUE(all->empty());
}

TEST_F(ObjectStoreTest, AnUnknownShortcutActionSurvivesStoring) {
    {
        PersistenceController controller(folder.path());
        auto& context = controller.container().viewContext();
        auto u = context.insertNew<UserShortcut>();
        u->setUuid(Uuid::random());
        u->setShortcutActionRawValue("someActionOfANewerBuild");
        u->setIntelligenceActionCompletionType("dialog");
        context.save();
    }
    PersistenceController reopened(folder.path());
    auto shortcuts = reopened.container().viewContext().fetchAll<UserShortcut>();
    ASSERT_EQ(shortcuts.size(), 1u);
    EXPECT_EQ(shortcuts[0]->shortcutActionRawValue(), std::optional<std::string>("someActionOfANewerBuild"));
    EXPECT_EQ(shortcuts[0]->intelligenceActionCompletionType(), std::optional<std::string>("dialog"));
}

TEST_F(ObjectStoreTest, ANewShortcutIsStoredWithoutKeyAndButton) {
    {
        PersistenceController controller(folder.path());
        auto& context = controller.container().viewContext();
        context.insertNew<UserShortcut>()->setShortcutString("⌃⌥D");
        context.save();
    }
    PersistenceController reopened(folder.path());
    auto all = reopened.container().viewContext().fetchAll<UserShortcut>();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0]->modifierEventKeyCode(), -1);
    EXPECT_EQ(all[0]->mouseEventMouseButton(), -1);
}

TEST_F(ObjectStoreTest, HoldIsFalseAfterSwitchingToVoiceToDialog) {
    PersistenceController controller(folder.path());
    auto& context = controller.container().viewContext();
    auto u = context.insertNew<UserShortcut>();
    u->setShortcutActionRawValue("recordAndTranscribe");
    u->setHold(true);
    EXPECT_TRUE(u->hold());
    context.save();

    u->setShortcutActionRawValue("voiceToDialog");
    EXPECT_FALSE(u->hold());
    u->setHold(true); // refused
    EXPECT_FALSE(u->hold());
    context.save();
    RawDatabase raw(storeFile());
    EXPECT_EQ(raw.scalar("SELECT hold FROM UserShortcut"), "0");

    for (const auto& action : holdCapableActions()) {
        u->setShortcutActionRawValue(action);
        u->setHold(true);
        EXPECT_TRUE(u->hold()) << action;
    }
    EXPECT_EQ(holdCapableActions().size(), 4u);
    EXPECT_FALSE(isHoldCapableAction(std::string("voiceToDialog")));
    EXPECT_FALSE(isHoldCapableAction(std::nullopt));
}

TEST(ObjectStoreValidation, RulesOfTheModel) {
    UserShortcut u;
    u.setOrder(32767);
    EXPECT_FALSE(u.validateForUpdate());
    u.setOrder(32768);
    auto e = u.validateForUpdate();
    ASSERT_TRUE(e);
    EXPECT_EQ(e->domain, "SprelioStoreErrorDomain");
    EXPECT_EQ(e->code, store_error::kNumberTooLarge);
    EXPECT_EQ(e->userInfo.at("NSValidationErrorKey"), "order");
    EXPECT_NE(e->localizedDescription.find("32768"), std::string::npos) << e->localizedDescription;
    u.setOrder(-32769);
    ASSERT_TRUE(u.validateForUpdate());
    EXPECT_EQ(u.validateForUpdate()->code, store_error::kNumberTooSmall);
    u.setOrder(0);

    u.setValue("uuid", std::string("not-a-uuid"));
    ASSERT_TRUE(u.validateForUpdate());
    EXPECT_EQ(u.validateForUpdate()->userInfo.at("NSValidationErrorKey"), "uuid");
    u.setUuid(Uuid::random());
    EXPECT_FALSE(u.validateForUpdate());

    u.setShortcutString(std::string("\xC3\x28"));
    ASSERT_TRUE(u.validateForUpdate());
    EXPECT_NE(u.validateForUpdate()->localizedDescription.find("UTF-8"), std::string::npos);
    u.setShortcutString(std::string("⌥ Option"));
    EXPECT_FALSE(u.validateForUpdate());

    u.setValue("hold", std::int64_t{7});
    ASSERT_TRUE(u.validateForUpdate());
    u.setValue("hold", false);
    u.setValue("order", std::monostate{});
    ASSERT_TRUE(u.validateForUpdate());
    EXPECT_EQ(u.validateForUpdate()->code, store_error::kMissingMandatoryProperty);

    LogEntry entry;
    entry.setFileURL("file:///home/u/rec.caf");
    EXPECT_FALSE(entry.validateForUpdate());
    entry.setFileURL("relative/rec.caf");
    ASSERT_TRUE(entry.validateForUpdate());
    EXPECT_EQ(entry.validateForUpdate()->userInfo.at("NSValidationErrorKey"), "fileURL");
    entry.setFileURL("file:///with space");
    EXPECT_TRUE(entry.validateForUpdate());
    entry.setFileURL(std::nullopt);
    entry.setMessage(std::string("dictated \xFF text"));
    auto privateError = entry.validateForUpdate();
    ASSERT_TRUE(privateError);
    // Dictated text never reaches a log line.
    EXPECT_EQ(privateError->localizedDescription.find("dictated"), std::string::npos);
    EXPECT_NE(privateError->localizedDescription.find("<privatized>"), std::string::npos);
    entry.setMessage(std::string("secret words"));
    EXPECT_EQ(entry.description().find("secret"), std::string::npos);

    // A description is one log line.
    UserShortcut d;
    d.setModifierEventCharacters(std::string("\n"));
    auto text = d.description();
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;
    EXPECT_NE(text.find("modifierEventCharacters = \"\\x0A\";"), std::string::npos) << text;
    EXPECT_TRUE(text.starts_with("<UserShortcut: 0x")) << text;
}

TEST_F(ObjectStoreTest, AnOutOfRangeNumberReadFromDiskFailsValidation) {
    {
        PersistenceController controller(folder.path());
        auto& context = controller.container().viewContext();
        context.insertNew<IntelligencePreset>()->setUuid(Uuid::random());
        context.save();
    }
    RawDatabase(storeFile()).exec("UPDATE IntelligencePreset SET \"order\" = 70000");
    PersistenceController controller(folder.path());
    auto presets = controller.container().viewContext().fetchAll<IntelligencePreset>();
    ASSERT_EQ(presets.size(), 1u);
    EXPECT_EQ(presets[0]->order(), 70000); // read wide, not truncated
    auto e = presets[0]->validateForUpdate();
    ASSERT_TRUE(e);
    EXPECT_EQ(e->code, store_error::kNumberTooLarge);
}

TEST_F(ObjectStoreTest, RollbackDiscardsEveryKindOfChange) {
    PersistenceController controller(folder.path());
    auto& context = controller.container().viewContext();
    auto a = context.insertNew<Substitution>();
    a->setInput("a");
    auto b = context.insertNew<Substitution>();
    b->setInput("b");
    context.save();

    a->setInput("changed");
    context.deleteObject(b);
    auto c = context.insertNew<Substitution>();
    EXPECT_TRUE(context.hasChanges());
    EXPECT_TRUE(a->isUpdated());
    context.rollback();
    EXPECT_FALSE(context.hasChanges());
    EXPECT_EQ(a->input(), std::optional<std::string>("a"));
    EXPECT_FALSE(b->isDeleted());
    EXPECT_EQ(c->managedObjectContext(), nullptr);
    EXPECT_EQ(context.fetchAll<Substitution>().size(), 2u);
}

TEST_F(ObjectStoreTest, SettingAValueBackIsNoChange) {
    PersistenceController controller(folder.path());
    auto& context = controller.container().viewContext();
    auto a = context.insertNew<Substitution>();
    a->setInput("a");
    context.save();
    a->setInput("b");
    EXPECT_TRUE(context.hasChanges());
    a->setInput("a");
    EXPECT_FALSE(context.hasChanges());
    EXPECT_TRUE(context.updatedObjects().empty());
}

TEST_F(ObjectStoreTest, RefreshAllObjectsReloadsFromDiskAndDropsRowsDeletedThere) {
    PersistenceController controller(folder.path());
    auto& context = controller.container().viewContext();
    auto a = context.insertNew<Substitution>();
    a->setInput("a");
    auto b = context.insertNew<Substitution>();
    b->setInput("b");
    context.save();

    RawDatabase raw(storeFile());
    raw.exec("UPDATE Substitution SET input = 'a from elsewhere' WHERE Z_PK = " + std::to_string(a->primaryKey()));
    raw.exec("DELETE FROM Substitution WHERE Z_PK = " + std::to_string(b->primaryKey()));
    a->setOutput("unsaved");
    auto unsavedInsert = context.insertNew<Substitution>();

    context.refreshAllObjects();
    EXPECT_FALSE(context.hasChanges());
    EXPECT_EQ(a->input(), std::optional<std::string>("a from elsewhere"));
    EXPECT_FALSE(a->output());
    EXPECT_TRUE(b->isDeleted());
    EXPECT_EQ(b->managedObjectContext(), nullptr);
    EXPECT_EQ(unsavedInsert->managedObjectContext(), nullptr);
    auto all = context.fetchAll<Substitution>();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].get(), a.get());
}

TEST_F(ObjectStoreTest, SaveWritesOnlyChangedColumnsSoOtherWritersKeepTheirs) {
    PersistenceController controller(folder.path());
    auto& context = controller.container().viewContext();
    auto a = context.insertNew<Substitution>();
    a->setInput("a");
    a->setOutput("x");
    context.save();
    RawDatabase raw(storeFile());
    raw.exec("UPDATE Substitution SET output = 'from elsewhere'");
    a->setInput("a2");
    context.save();
    EXPECT_EQ(raw.query("SELECT input, output FROM Substitution"),
              (std::vector<std::vector<std::string>>{{"a2", "from elsewhere"}}));
}

TEST_F(ObjectStoreTest, SaveValidatesChangedObjectsAndReportsEachFailure) {
    PersistenceController controller(folder.path());
    auto& context = controller.container().viewContext();
    context.insertNew<UserShortcut>()->setOrder(40000);
    context.insertNew<UserShortcut>()->setModifierEventKeyCode(-40000);
    try {
        context.save();
        FAIL() << "save() accepted invalid objects";
    } catch (const StoreError& e) {
        EXPECT_EQ(e.error().code, store_error::kMultipleValidationErrors);
        ASSERT_EQ(e.detailedErrors().size(), 2u);
        EXPECT_NE(e.detailedErrors()[0].description.find("order"), std::string::npos);
        EXPECT_TRUE(e.detailedErrors()[1].object->starts_with("<UserShortcut: "));
    }
    EXPECT_TRUE(context.hasChanges());
    RawDatabase raw(storeFile());
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM UserShortcut"), "0");
}

TEST_F(ObjectStoreTest, ABackgroundContextHasItsOwnConnectionToTheSameStore) {
    for (bool inMemory : {false, true}) {
        PersistenceController controller(folder.path() / (inMemory ? "mem" : "file"), inMemory);
        auto& view = controller.container().viewContext();
        auto entry = view.insertNew<LogEntry>();
        entry->setLevel(2);
        view.save();

        auto background = controller.container().newBackgroundContext();
        std::thread worker([&] {
            auto entries = background->fetchAll<LogEntry>();
            ASSERT_EQ(entries.size(), 1u);
            EXPECT_NE(entries[0].get(), entry.get());
            EXPECT_EQ(entries[0]->level(), 2);
            background->deleteObject(entries[0]);
            background->save();
        });
        worker.join();
        EXPECT_TRUE(view.fetchAll<LogEntry>().empty()) << "inMemory " << inMemory;
    }
}

TEST_F(ObjectStoreTest, ManyObjectsRoundTrip) {
    PersistenceController controller(folder.path());
    auto& context = controller.container().viewContext();
    for (int i = 0; i < 2000; ++i) {
        auto e = context.insertNew<LogEntry>();
        e->setLevel(i % 5);
        e->setTimestamp(1000.0 + i);
        e->setRequestID(Uuid::random());
    }
    context.save();
    auto all = context.fetchAll<LogEntry>({{"timestamp", false}});
    ASSERT_EQ(all.size(), 2000u);
    EXPECT_EQ(all.front()->timestamp(), std::optional<double>(2999.0));
    EXPECT_EQ(context.registeredCount(), 2000u);
}

} // namespace
} // namespace sprelio::store

// Object store figures: the validation walk of cdSaveContext over a large context, and the shortcut cache refresh.
#include <benchmark/benchmark.h>

#include <filesystem>

#include "store/DatabaseHelpers.h"
#include "base/Uuid.h"
#include "store/Persistence.h"
#include "store/UserShortcutCache.h"

namespace {

using namespace sprelio;
using namespace sprelio::store;

class Folder {
public:
    Folder() : path_(std::filesystem::temp_directory_path() / ("sprelio-store-bench-" + Uuid::random().string())) {
        std::filesystem::create_directories(path_);
    }
    ~Folder() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

// cdSaveContext with 10,000 registered history entries of which one changed per save: the walk validates all of
// them, the transaction writes one row.
void BM_cdSaveContext_10000Registered_OneChanged(benchmark::State& state) {
    Folder folder;
    long cacheRefreshes = 0;
    {
        PersistenceController controller(folder.path());
        // As in the application, every save refreshes the event path's copy of the shortcuts.
        controller.container().setDidSave([&cacheRefreshes] { ++cacheRefreshes; });
        auto& context = controller.container().viewContext();
        std::vector<std::shared_ptr<LogEntry>> held;
        for (int i = 0; i < 10000; ++i) {
            auto e = context.insertNew<LogEntry>();
            e->setMessage(std::string("transcribed text number ") + std::to_string(i));
            e->setLevel(i % 4);
            e->setFileURL("file:///home/user/.local/share/Sprelio/recordings/2025/01/01/rec_" + std::to_string(i) +
                          ".caf");
            e->setRequestID(Uuid::random());
            e->setTimestamp(1.7e9 + i);
            held.push_back(e);
        }
        cdSaveContext(&context, "bench setup");
        if (context.registeredCount() != 10000) state.SkipWithError("not all objects registered");
        std::int64_t level = 0;
        for (auto _ : state) {
            held[5000]->setLevel(++level % 100);
            benchmark::DoNotOptimize(cdSaveContext(&context, "bench"));
        }
    }
    benchmark::DoNotOptimize(cacheRefreshes);
    state.counters["registered"] = 10000;
}
BENCHMARK(BM_cdSaveContext_10000Registered_OneChanged)->Unit(benchmark::kMillisecond);

// The validation walk alone (what cdSaveContext adds over the save itself).
void BM_validationWalk_10000Registered(benchmark::State& state) {
    Folder folder;
    PersistenceController controller(folder.path(), true);
    auto& context = controller.container().viewContext();
    std::vector<std::shared_ptr<LogEntry>> held;
    for (int i = 0; i < 10000; ++i) {
        auto e = context.insertNew<LogEntry>();
        e->setMessage(std::string("transcribed text number ") + std::to_string(i));
        e->setFileURL("file:///tmp/rec_" + std::to_string(i) + ".caf");
        e->setRequestID(Uuid::random());
        e->setTimestamp(1.7e9 + i);
        held.push_back(e);
    }
    context.save();
    for (auto _ : state) {
        bool valid = true;
        context.forEachRegisteredObject([&](ManagedObject& o) { valid = valid && !o.validateForUpdate(); });
        benchmark::DoNotOptimize(valid);
    }
}
BENCHMARK(BM_validationWalk_10000Registered)->Unit(benchmark::kMillisecond);

// updateCachedUserShortcuts with 1,000 stored shortcuts (fetch of all rows, uniqued against the registered ones).
void BM_UserShortcutCache_update_1000(benchmark::State& state) {
    Folder folder;
    PersistenceController controller(folder.path());
    auto& context = controller.container().viewContext();
    for (int i = 0; i < 1000; ++i) {
        auto s = context.insertNew<UserShortcut>();
        s->setUuid(Uuid::random());
        s->setOrder(i);
        s->setTimestamp(1.7e9 + i);
        s->setShortcutString("⌥" + std::to_string(i));
        s->setShortcutActionRawValue("recordAndTranscribe");
    }
    context.save();
    UserShortcutCache cache;
    for (auto _ : state) {
        cache.update(context);
        benchmark::DoNotOptimize(cache.cachedUserShortcuts()->size());
    }
}
BENCHMARK(BM_UserShortcutCache_update_1000)->Unit(benchmark::kMicrosecond);

// Fetch of 10,000 rows into a context that holds none of them (objects made from rows).
void BM_fetch_10000_cold(benchmark::State& state) {
    Folder folder;
    PersistenceController controller(folder.path());
    auto& context = controller.container().viewContext();
    for (int i = 0; i < 10000; ++i) {
        auto e = context.insertNew<LogEntry>();
        e->setMessage(std::string("transcribed text number ") + std::to_string(i));
        e->setTimestamp(1.7e9 + i);
    }
    context.save();
    for (auto _ : state) {
        auto all = context.fetchAll<LogEntry>({{"timestamp", false}});
        benchmark::DoNotOptimize(all.size());
    }
}
BENCHMARK(BM_fetch_10000_cold)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();

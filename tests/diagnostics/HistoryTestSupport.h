#pragma once
// The history on a real SQLite file: a store in a temporary folder, the view context, settings, a virtual clock
// and recordings made by our own Opus/CAF writer or as plain WAV files.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "audio/CafOpusWriter.h"
#include "shared/AppState.h"
#include "diagnostics/HistoryManagerImpl.h"
#include "diagnostics/MaintenanceManager.h"
#include "platform/test/TemporaryFolder.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/ManagedObjectContext.h"
#include "store/Persistence.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "ui/Messages.h"

namespace sprelio::historytest {

namespace fs = std::filesystem;

inline store::AppConstants::Environment fixedEnvironment() {
    store::AppConstants::Environment env;
    env.getenv = [](const char* name) -> std::optional<std::string> {
        if (std::string(name) == "LANG") return std::string("en_US.UTF-8");
        return std::nullopt;
    };
    env.osReleasePrettyName = "Test Linux 1.0";
    env.kernelRelease = "6.1.0-test";
    return env;
}

// A recording of `seconds` of a quiet tone, written by the recorder's own writer.
inline fs::path makeCafRecording(const fs::path& path, double seconds) {
    CafOpusWriter writer;
    writer.open(path);
    const auto frames = static_cast<std::size_t>(seconds * 16000);
    std::vector<float> samples(frames);
    for (std::size_t i = 0; i < frames; ++i) samples[i] = 0.1f * std::sin(static_cast<float>(i) * 0.05f);
    writer.appendSamples(samples.data(), samples.size());
    writer.finish();
    return path;
}

// A WAV file of `seconds` at 100 bytes a second (100 Hz, 8-bit mono), so that an hour stays small.
inline fs::path makeWav(const fs::path& path, double seconds) {
    const auto bytes = static_cast<std::uint32_t>(std::llround(seconds * 100));
    auto le32 = [](std::uint32_t v) {
        return std::string{static_cast<char>(v & 0xFF), static_cast<char>((v >> 8) & 0xFF),
                           static_cast<char>((v >> 16) & 0xFF), static_cast<char>((v >> 24) & 0xFF)};
    };
    auto le16 = [](std::uint16_t v) { return std::string{static_cast<char>(v & 0xFF), static_cast<char>(v >> 8)}; };
    std::string data = "RIFF" + le32(36 + bytes) + "WAVE" + "fmt " + le32(16) + le16(1) + le16(1) + le32(100) +
                       le32(100) + le16(1) + le16(8) + "data" + le32(bytes) + std::string(bytes, '\x80');
    std::ofstream(path, std::ios::binary) << data;
    return path;
}

// Sets TZ for the life of the object, so that calendar and date texts don't depend on the machine.
class TimeZone {
public:
    explicit TimeZone(const char* zone) {
        if (const char* old = std::getenv("TZ")) previous_ = old;
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~TimeZone() {
        if (previous_) ::setenv("TZ", previous_->c_str(), 1);
        else ::unsetenv("TZ");
        ::tzset();
    }

private:
    std::optional<std::string> previous_;
};

class HistoryFixture : public ::testing::Test {
protected:
    HistoryFixture() {
        container.loadPersistentStores();
        settings.setHistoryRetentionDays(365);
    }

    store::ManagedObjectContext& viewContext() { return container.viewContext(); }

    // What is on disk, read through a context of its own.
    std::vector<std::shared_ptr<store::LogEntry>> storedEntries() {
        fresh = container.newBackgroundContext();
        return fresh->fetchAll<store::LogEntry>({store::SortDescriptor{"timestamp", true}});
    }

    double nowSeconds() const { return std::chrono::duration<double>(tp.now().time_since_epoch()).count(); }

    // An entry saved straight into the store with a chosen date.
    std::shared_ptr<store::LogEntry> storeEntry(const std::string& message, std::optional<double> timestamp,
                                                std::optional<fs::path> file, HistoryManagerLogLevel level =
                                                                                  HistoryManagerLogLevel::success) {
        auto entry = viewContext().insertNew<store::LogEntry>();
        entry->setMessage(message);
        entry->setLevel(static_cast<std::int64_t>(level));
        entry->setTimestamp(timestamp);
        entry->setRequestID(Uuid::random());
        if (file) entry->setFileURL(store::AppConstants::fileURL(*file, false));
        viewContext().save();
        return entry;
    }

    platform::test::RecordingLogSink logs;
    platform::test::TemporaryFolder folder{"sprelio-history"};
    platform::test::TestPlatform tp{folder.path()};
    store::AppConstants constants{tp, fixedEnvironment()};
    store::MemorySettingsStore settingsStore;
    store::Settings settings{settingsStore, constants};
    store::PersistentContainer container{"Persistence", folder.path() / "Persistence.sqlite"};
    std::unique_ptr<store::ManagedObjectContext> fresh;
};

} // namespace sprelio::historytest

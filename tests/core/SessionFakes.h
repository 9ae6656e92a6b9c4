#pragma once
// Hand-written neighbours of the dictation session and a harness that wires them to an AppDelegate on the
// virtual-time test platform. Shared by the session tests and the press-path benchmark.
#include <map>
#include <memory>
#include <stdexcept>
#include <optional>
#include <string>
#include <vector>

#include "ai/IntelligenceViewModel.h"
#include "audio/ContinuousSpeechManager.h"
#include "audio/MicrophoneManager.h"
#include "audio/RecordingAudio.h"
#include "backend/AudioUploadManager.h"
#include "core/AppDelegate.h"
#include "shared/AppState.h"
#include "diagnostics/HistoryManager.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "text/AccesibilityController.h"
#include "text/SubstitutionHelpers.h"
#include "ui/Messages.h"
#include "shared/OverlayController.h"
#include "ai/ResultsWindow.h"

namespace sprelio::testing {

// Records record/stop; the test decides when the recorder finishes. Like the real one it completes once.
class FakeRecorder final : public RecordingAudio {
public:
    explicit FakeRecorder(std::filesystem::path path) : url_(std::move(path)) {}
    const std::filesystem::path& url() const override { return url_; }
    void setOnRecordingCompletion(Completion completion) override { completion_ = std::move(completion); }
    void record(const Uuid& requestID, std::shared_ptr<const Stopwatch> watch) override {
        recordedAt = std::chrono::steady_clock::now();
        recordedRequestID = requestID;
        stopwatch = std::move(watch);
        ++recordCalls;
    }
    void stop() override { ++stopCalls; }
    // The recorder's own report; a second call does nothing.
    void finish(bool success = true) {
        if (finished_ || !completion_) return;
        finished_ = true;
        completion_(url_, success);
    }
    bool finished() const { return finished_; }

    std::optional<Uuid> recordedRequestID;
    std::shared_ptr<const Stopwatch> stopwatch;
    std::chrono::steady_clock::time_point recordedAt; // real time, for the press-path benchmark
    int recordCalls = 0;
    int stopCalls = 0;

private:
    std::filesystem::path url_;
    Completion completion_;
    bool finished_ = false;
};

class FakeRecorderFactory final : public RecordingAudioFactory {
public:
    std::shared_ptr<RecordingAudio> makeRecordingAudio(const std::filesystem::path& path) override {
        if (failToCreate) return nullptr;
        auto recorder = std::make_shared<FakeRecorder>(path);
        made.push_back(recorder);
        return recorder;
    }
    FakeRecorder* last() { return made.empty() ? nullptr : made.back().get(); }
    bool failToCreate = false;
    std::vector<std::shared_ptr<FakeRecorder>> made;
};

class FakeMicrophoneManager final : public MicrophoneManager {
public:
    std::optional<MicDevice> selectOptimalInputDevice() override {
        ++calls;
        return device;
    }
    std::optional<MicDevice> device = MicDevice{7, "Desk Mic", MicDeviceTransportType::usb};
    int calls = 0;
};

class FakeUploader final : public AudioUploadManager {
public:
    struct Request {
        std::filesystem::path url;
        Uuid requestID;
        std::vector<std::string> languages;
        std::optional<AICompletionPromptId> promptId;
        bool diarization = false;
        std::optional<std::string> inputLanguageCode;
        Completion completion;
    };
    void uploadRecording(const std::filesystem::path& url, const Uuid& requestID,
                         const std::vector<std::string>& languages, const std::optional<AICompletionPromptId>& promptId,
                         bool diarization, const std::optional<std::string>& inputLanguageCode,
                         Completion completion) override {
        requests.push_back({url, requestID, languages, promptId, diarization, inputLanguageCode, std::move(completion)});
    }
    void cancelUpload() override { ++cancelCalls; }
    // Answers the newest upload.
    void answer(std::optional<nlohmann::json> result, std::optional<Error> error = std::nullopt) {
        requests.back().completion(std::move(result), std::move(error));
    }
    std::vector<Request> requests;
    int cancelCalls = 0;
};

class FakeSubstitutions final : public SubstitutionHelpers {
public:
    std::string applySubstitutions(const std::string& text) override {
        inputs.push_back(text);
        std::string out = text;
        for (const auto& [from, to] : rules) {
            for (auto at = out.find(from); at != std::string::npos; at = out.find(from, at + to.size())) {
                out.replace(at, from.size(), to);
            }
        }
        return out;
    }
    std::map<std::string, std::string> rules;
    std::vector<std::string> inputs;
};

class FakeAccessibility final : public AccesibilityController {
public:
    struct Injection {
        std::string text;
        std::optional<pid_t> pid;
    };
    void injectTextViaPaste(const std::string& text, std::optional<pid_t> pid) override {
        injections.push_back({text, pid});
    }
    std::vector<Injection> injections;
};

class FakeIntelligence final : public IntelligenceViewModel {
public:
    struct Execution {
        std::string itemId;
        std::string text;
        bool expectingCompletion = false;
        std::optional<IntelligenceActionCompletionType> completionType;
    };
    std::optional<AICompletionPromptId> promptIdForItemWithId(const std::string& itemId) override {
        auto it = prompts.find(itemId);
        if (it == prompts.end()) return std::nullopt;
        return it->second;
    }
    void executeActionForItemWithText(const std::string& itemId, const std::string& text, bool expectingCompletion,
                                      std::optional<IntelligenceActionCompletionType> completionType) override {
        executions.push_back({itemId, text, expectingCompletion, completionType});
    }
    std::map<std::string, AICompletionPromptId> prompts;
    std::vector<Execution> executions;
};

class FakeContinuousSpeech final : public ContinuousSpeechManager {
public:
    bool isActive() const override { return active; }
    void startMonitoring() override { ++startCalls; }
    void stopMonitoring() override { ++stopCalls; }
    bool active = false;
    int startCalls = 0;
    int stopCalls = 0;
};

class FakeHistory final : public HistoryManager {
public:
    struct Entry {
        HistoryManagerLogLevel level;
        std::string message;
        std::optional<std::filesystem::path> fileURL;
        Uuid requestID;
    };
    void log(HistoryManagerLogLevel level, std::string message, std::optional<std::filesystem::path> fileURL,
             Uuid requestID, bool /*skipSave*/) override {
        entries.push_back({level, std::move(message), std::move(fileURL), requestID});
    }
    std::vector<Entry> entries;
};

class FakeResultsWindow final : public ResultsWindow {
public:
    void showCompletion(const std::string& text) override { shown.push_back(text); }
    std::vector<std::string> shown;
};

class FakeOverlay final : public OverlayScreenController {
public:
    void placeOverlay(OverlayType type, bool force) override { placed.push_back({type, force}); }
    void clearOverlays() override { ++clears; }
    void refreshPanels() override { ++refreshes; }
    std::size_t panelCount() const override { return 1; }
    std::string description() const override { return "OverlayScreenController"; }
    std::vector<std::pair<OverlayType, bool>> placed;
    int clears = 0;
    int refreshes = 0;
};

class FakeToasts final : public ToastPresenter {
public:
    struct Shown {
        SPRToastView toast;
        std::string screen;
        platform::Rect frame;
        std::function<void()> onNeverShowAgain;
    };
    void showToast(const SPRToastView& toast, const platform::ScreenInfo& screen, const platform::Rect& frame,
                   std::function<void()> onNeverShowAgain) override {
        shown.push_back({toast, screen.name, frame, std::move(onNeverShowAgain)});
        ++open;
    }
    void closeAllToasts() override {
        ++closeCalls;
        open = 0;
    }
    std::vector<Shown> shown;
    int open = 0;
    int closeCalls = 0;
};

inline std::shared_ptr<store::UserShortcut> makeShortcut(const std::string& action,
                                                         std::optional<std::string> itemId = std::nullopt,
                                                         std::optional<std::string> inputLanguageCode = std::nullopt,
                                                         std::optional<std::string> completionType = std::nullopt) {
    auto shortcut = std::make_shared<store::UserShortcut>();
    shortcut->setShortcutActionRawValue(action);
    shortcut->setIntelligenceActionItemIdString(std::move(itemId));
    shortcut->setInputLanguageCode(std::move(inputLanguageCode));
    shortcut->setIntelligenceActionCompletionType(std::move(completionType));
    return shortcut;
}

// One session with every neighbour faked, on virtual time.
struct SessionHarness {
    platform::test::TestPlatform tp;
    platform::Platform platform = tp.platform();
    store::MemorySettingsStore settingsStore;
    store::AppConstants constants{tp};
    store::Settings settings{settingsStore, constants};
    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    FakeToasts toasts;
    MessageCenter messages{platform, settings, appState, toasts, constants.appName()};
    FakeRecorderFactory recorders;
    FakeMicrophoneManager microphones;
    FakeUploader uploader;
    FakeSubstitutions substitutions;
    FakeAccessibility accessibility;
    FakeIntelligence intelligence;
    FakeContinuousSpeech continuousSpeech;
    FakeHistory history;
    FakeResultsWindow resultsWindow;
    FakeOverlay overlay;
    int cachedShortcutUpdates = 0;
    AppDelegate app{AppDelegateDependencies{platform, settings, appState, mirror, messages, recorders, microphones,
                                            uploader, substitutions, accessibility, intelligence, continuousSpeech,
                                            history, resultsWindow, "com.sprelio.app",
                                            [this]() { ++cachedShortcutUpdates; }}};

    SessionHarness() {
        tp.devices[7] = platform::test::TestPlatform::Device{};
        tp.screenList = {platform::ScreenInfo{"Main", std::string("1"), {0, 0, 1920, 1080}, 1.0, true}};
        tp.frontmost = platform::RunningApplication{2, "org.example.Editor", std::string("Editor")};
        settings.setSaveRecordingsFolder(tp.root() / "recordings");
        app.setOverlayScreenController(&overlay);
    }

    void press(const std::shared_ptr<store::UserShortcut>& shortcut) {
        app.recordingShortcutDispatch(true, ShortcutAction::recordAndTranscribe, std::nullopt, shortcut);
    }
    void release(const std::shared_ptr<store::UserShortcut>& shortcut) {
        app.recordingShortcutDispatch(false, ShortcutAction::recordAndTranscribe, std::nullopt, shortcut);
    }
    void run() { tp.runUntilIdle(); }
    FakeRecorder& recorder() {
        FakeRecorder* last = recorders.last();
        if (!last) throw std::logic_error("no recorder was made");
        return *last;
    }
    // Press, record for `duration` of virtual time, release, let the recorder finish: the upload is then pending.
    void dictate(const std::shared_ptr<store::UserShortcut>& shortcut,
                 std::chrono::nanoseconds duration = std::chrono::seconds(2)) {
        press(shortcut);
        run();
        tp.advance(duration);
        release(shortcut);
        run();
        recorder().finish(true);
        run();
    }
};

} // namespace sprelio::testing

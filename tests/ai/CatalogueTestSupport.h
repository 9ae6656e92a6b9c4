#pragma once
// What the catalogue's tests stand on: its surroundings on the deterministic platform, and a completion service
// that answers only when the test says so.
#include <string>
#include <vector>

#include "ai/IntelligenceViewModelImpl.h"
#include "platform/test/TestPlatform.h"
#include "shared/AppState.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"

namespace sprelio::testing {

// Settings in memory, the application's state, the platform and the log, as a base of a test's fixture.
struct CatalogueSurroundings {
    platform::test::RecordingLogSink logs_;
    platform::test::TestPlatform tp_;
    store::AppConstants constants_{tp_};
    store::MemorySettingsStore defaults_;
    store::Settings settings_{defaults_, constants_};
    AppStateRealtimeMirror mirror_;
    AppState appState_{mirror_};
};

// Each request is noted as "promptId/promptParam:text"; its completion waits in `waiting`, in the order asked.
struct PendingAnswers {
    std::vector<std::string> asked;
    std::vector<CompletionRequests::Completion> waiting;

    CompletionRequests service() {
        CompletionRequests requests;
        requests.byPromptId = [this](const AICompletionPromptId& prompt, CompletionRequests::Completion done) {
            asked.push_back(prompt.promptId + "/" + prompt.promptParam + ":" + prompt.text);
            waiting.push_back(std::move(done));
        };
        return requests;
    }
};

} // namespace sprelio::testing

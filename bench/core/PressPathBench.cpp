// The logic's own share of the press path: from recordingShortcutKeyDown() to the recorder's record() call,
// through the three main-loop hops, device selection, level repair and path creation, with every neighbour
// faked and no log sink installed. Real (wall-clock) time of the work; the loop's time is virtual.
#include <benchmark/benchmark.h>

#include "../../tests/core/SessionFakes.h"

namespace {

using sprelio::AppActivity;
using sprelio::testing::makeShortcut;
using sprelio::testing::SessionHarness;

void BM_PressToRecorderStart(benchmark::State& state) {
    SessionHarness h;
    h.settings.setFloatingButtonActivation(false);
    auto shortcut = makeShortcut("recordAndTranscribe");
    h.appState.setCurrentlyActiveUserShortcut(shortcut);
    h.run();
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        h.app.recordingShortcutKeyDown();
        h.run();
        auto* recorder = h.recorders.last();
        if (!recorder || recorder->recordCalls != 1 || h.app.appStatus() != AppActivity::recording) {
            state.SkipWithError("the press did not start a recorder");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(recorder->recordedAt - start).count());

        // Back to idle, outside the measured span.
        h.app.setupMenuWithMainMenu();
        h.run();
        h.recorders.made.clear();
        h.tp.clearCalls();
    }
}
BENCHMARK(BM_PressToRecorderStart)->UseManualTime()->Unit(benchmark::kMicrosecond);

// The same press with the mute and low-volume repair taken (both writes on every press).
void BM_PressToRecorderStartWithLevelRepair(benchmark::State& state) {
    SessionHarness h;
    h.settings.setFloatingButtonActivation(false);
    h.appState.setCurrentlyActiveUserShortcut(makeShortcut("recordAndTranscribe"));
    h.run();
    for (auto _ : state) {
        h.tp.devices[7].mute = 1;
        h.tp.devices[7].volume = 0.1f;
        const auto start = std::chrono::steady_clock::now();
        h.app.recordingShortcutKeyDown();
        h.run();
        auto* recorder = h.recorders.last();
        if (!recorder || recorder->recordCalls != 1) {
            state.SkipWithError("the press did not start a recorder");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(recorder->recordedAt - start).count());
        h.app.setupMenuWithMainMenu();
        h.run();
        h.recorders.made.clear();
        h.tp.clearCalls();
    }
}
BENCHMARK(BM_PressToRecorderStartWithLevelRepair)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();

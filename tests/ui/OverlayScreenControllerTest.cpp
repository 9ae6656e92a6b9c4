#include <gtest/gtest.h>

#include "OverlayTestSupport.h"
#include "shared/SessionShortcutBuilder.h"
#include "platform/GlobalInput.h"
#include "ui/OverlayPlacement.h"

using namespace std::chrono_literals;
using sprelio::AppActivity;
using sprelio::OverlayPlacement;
using sprelio::OverlayPosition;
using sprelio::OverlayType;
using sprelio::overlaytest::FakeLevels;
using sprelio::overlaytest::OverlayHarness;
using sprelio::platform::OverlayDrawing;
using sprelio::platform::Point;
using sprelio::platform::Rect;
using sprelio::platform::WindowInfo;
using sprelio::platform::test::RecordingLogSink;
namespace type = sprelio::platform::global_event_type;

namespace {

const Rect kMain{0, 0, 1920, 1080};
const Rect kRight{1920, 0, 1280, 1024};

std::vector<sprelio::platform::ScreenInfo> twoScreens() {
    return {OverlayHarness::screen("Main", std::string("main-id"), kMain, true),
            OverlayHarness::screen("Right", std::string("right-id"), kRight)};
}

} // namespace

TEST(OverlayPlacement, StoredPositionsOnAScreen) {
    const Rect screen{100, 50, 1000, 800};
    auto at = [&](OverlayPosition p) { return *OverlayPlacement::positionOnScreen(p, screen, 112, std::nullopt); };
    EXPECT_EQ(at(OverlayPosition::screenCenter), (Point{544, 394}));
    EXPECT_EQ(at(OverlayPosition::screenBottomRight), (Point{968, 70}));
    EXPECT_EQ(at(OverlayPosition::screenBottomLeft), (Point{120, 70}));
    EXPECT_EQ(at(OverlayPosition::screenTopRight), (Point{968, 718}));
    EXPECT_EQ(at(OverlayPosition::screenTopLeft), (Point{120, 718}));
    EXPECT_EQ(OverlayPlacement::positionOnScreen(OverlayPosition::customDragged, screen, 112, Point{300, 400}),
              (Point{300, 400}));
    EXPECT_FALSE(OverlayPlacement::positionOnScreen(OverlayPosition::customDragged, screen, 112, std::nullopt));
    EXPECT_FALSE(OverlayPlacement::positionOnScreen(OverlayPosition::appBottomRight, screen, 112, std::nullopt));

    EXPECT_EQ(sprelio::overlayPositionFromRawValue("screenTopLeft"), OverlayPosition::screenTopLeft);
    EXPECT_FALSE(sprelio::overlayPositionFromRawValue("topLeft"));
    EXPECT_EQ(sprelio::overlayPositionRawValue(OverlayPosition::customDragged), "customDragged");

    EXPECT_EQ(OverlayPlacement::clampToScreen({5000, -30}, screen, 112), (Point{988, 50}));
    EXPECT_EQ(OverlayPlacement::clampToScreen({-5000, 5000}, screen, 112), (Point{100, 738}));
}

TEST(OverlayPlacement, AppBottomRightConvertsTheWindowFromTheTopLeftOrigin) {
    // A window 200 from the top of the base screen, 600 high: its bottom is 1080 - 800 = 280 from the bottom.
    EXPECT_EQ(OverlayPlacement::appBottomRight({300, 200, 800, 600}, 112, kMain, kMain), (Point{988, 280}));
    // A window at the very top counts from the bottom edge.
    EXPECT_EQ(OverlayPlacement::appBottomRight({300, 0, 800, 600}, 112, kMain, kMain), (Point{988, 0}));
    // A window on a screen beside the base screen, and one on a screen above it.
    EXPECT_EQ(OverlayPlacement::appBottomRight({2000, 100, 600, 400}, 112, kRight, kMain), (Point{2488, 580}));
    const Rect above{0, 1080, 1920, 1080};
    EXPECT_EQ(OverlayPlacement::appBottomRight({100, -900, 600, 400}, 112, above, kMain), (Point{588, 1580}));
    // An unknown window size gives nothing.
    EXPECT_FALSE(OverlayPlacement::appBottomRight({100, 100, 0, 0}, 112, kMain, kMain));
}

TEST(OverlayScreenController, OnePanelPerScreenAndRefreshFollowsTheScreens) {
    OverlayHarness h(twoScreens());
    EXPECT_EQ(h.controller->panelCount(), 2u);
    EXPECT_EQ(h.panels.made, (std::vector<std::string>{"Main", "Right"}));
    EXPECT_TRUE(h.controller->isBaseScreenOverlay());

    h.tp.screenList.pop_back();
    h.controller->refreshPanels();
    EXPECT_EQ(h.controller->panelCount(), 1u);
    EXPECT_TRUE(*h.panels.closedFlags[0]) << "the old panels are closed";
    EXPECT_TRUE(*h.panels.closedFlags[1]);

    // A desktop whose screens all lie away from the origin has no base screen.
    RecordingLogSink log;
    h.tp.screenList = {OverlayHarness::screen("Right", std::string("right-id"), kRight)};
    h.controller->refreshPanels();
    EXPECT_FALSE(h.controller->isBaseScreenOverlay());
    EXPECT_TRUE(log.contains("OverlayScreenController.isBaseScreenOverlay() - No base screen found.",
                             sprelio::LogLevel::warning));
}

TEST(OverlayScreenController, ARecordingOverlayGoesToTheStoredPositionOfTheScreenUnderTheMouse) {
    OverlayHarness h(twoScreens());
    h.settings.setOverlayPositionPerScreen({{"main-id", "screenTopLeft"}, {"right-id", "screenBottomLeft"}});
    h.status = AppActivity::recording;

    h.pointer.location = Point{2500, 500};
    h.show(OverlayType::recording);
    h.run();
    auto* right = h.panel("Right");
    ASSERT_NE(right, nullptr);
    EXPECT_TRUE(right->visible);
    EXPECT_FALSE(h.panel("Main")->visible);
    EXPECT_EQ(right->frameValue, (Rect{1940, 20, 112, 112}));
    EXPECT_EQ(h.controller->currentOverlayType(), OverlayType::recording);
    EXPECT_EQ(right->drawing.kind, OverlayDrawing::Kind::recording);
    EXPECT_EQ(right->drawing.helpText, "Click to complete the recording.");

    // The dictation ends; the next one starts with the mouse on the main screen.
    h.status = AppActivity::idle;
    h.controller->clearOverlays();
    EXPECT_FALSE(right->visible);
    h.status = AppActivity::recording;
    h.pointer.location = Point{100, 100};
    h.show(OverlayType::recording);
    h.run();
    EXPECT_TRUE(h.panel("Main")->visible);
    EXPECT_FALSE(right->visible);
    EXPECT_EQ(h.panel("Main")->frameValue, (Rect{20, 1080 - 112 - 20, 112, 112}));
}

TEST(OverlayScreenController, TheSavedPreferredScreenWinsOverTheMouse) {
    RecordingLogSink log;
    OverlayHarness h(twoScreens());
    h.settings.setButtonPrefersDisplayUniqueID("right-id");
    h.settings.setOverlayPositionPerScreen({{"right-id", "screenCenter"}});
    h.status = AppActivity::recording;
    h.pointer.location = Point{100, 100};
    h.show(OverlayType::recording);
    h.run();
    EXPECT_TRUE(h.panel("Right")->visible);
    EXPECT_EQ(h.panel("Right")->frameValue, (Rect{1920 + 640 - 56, 512 - 56, 112, 112}));
    EXPECT_TRUE(log.contains(
        "AppDelegate.showOverlay() - Matched saved preferred screen (buttonPrefersDisplayUniqueID): right-id"));
    EXPECT_TRUE(log.contains("AppDelegate.showOverlay() - overlaying screen 'Right' with image named 'recording'"));
}

TEST(OverlayScreenController, AppBottomRightIsTheDefaultAndFallsToTheScreenCornerWithoutAWindow) {
    RecordingLogSink log;
    OverlayHarness h;
    h.status = AppActivity::recording;
    h.tp.frontmost = sprelio::platform::RunningApplication{42, "org.example.Editor", std::string("Editor")};
    h.windows.list = {WindowInfo{7, Rect{0, 0, 500, 500}}, WindowInfo{42, std::nullopt},
                      WindowInfo{42, Rect{300, 200, 800, 600}}};
    h.settings.setOverlayPositionPerScreen({{"main-id", "nowhere"}});
    h.show(OverlayType::recording);
    h.run();
    EXPECT_EQ(h.panel("Main")->frameValue, (Rect{988, 280, 112, 112}));
    EXPECT_TRUE(log.contains("getFrontMostApplicationFocusedWindowDimensions() - activePID: 42, activeAppName: Editor"));
    EXPECT_TRUE(
        log.contains("AppDelegate.showOverlay() - Using Animation Position: overlay=recording, position=appBottomRight"));

    h.status = AppActivity::idle;
    h.controller->clearOverlays();
    h.status = AppActivity::recording;
    h.windows.list.clear();
    h.show(OverlayType::recording);
    h.run();
    EXPECT_EQ(h.panel("Main")->frameValue, (Rect{1920 - 112 - 20, 20, 112, 112}));
}

TEST(OverlayScreenController, TheStagesOfOneDictationStayWhereTheFirstAppearedThoughTheMouseMoved) {
    OverlayHarness h(twoScreens());
    h.status = AppActivity::recording;
    h.pointer.location = Point{100, 100};
    h.settings.setOverlayPositionPerScreen({{"main-id", "screenTopRight"}, {"right-id", "screenBottomLeft"}});
    h.show(OverlayType::recording);
    h.run();
    const Rect first = h.panel("Main")->frameValue;
    EXPECT_EQ(first, (Rect{1920 - 112 - 20, 1080 - 112 - 20, 112, 112}));

    // Processing on the screen beside it, where the mouse went; the window in front is gone as well.
    h.pointer.location = Point{2500, 500};
    h.status = AppActivity::processing;
    h.show(OverlayType::transcribing);
    h.run();
    EXPECT_EQ(h.controller->currentOverlayType(), OverlayType::transcribing);
    // The position is kept; it is clamped to the screen now focused.
    EXPECT_EQ(h.controller->currentScreenName(), std::optional<std::string>("Right"));
    EXPECT_EQ(h.panel("Right")->frameValue.x, 1920);

    // On one screen the stages do not move at all.
    OverlayHarness one;
    one.status = AppActivity::recording;
    one.settings.setOverlayPositionPerScreen({{"main-id", "screenTopLeft"}});
    one.show(OverlayType::recording);
    one.run();
    const Rect recording = one.panel("Main")->frameValue;
    one.settings.setOverlayPositionPerScreen({{"main-id", "screenBottomRight"}});
    one.status = AppActivity::processing;
    one.show(OverlayType::transcribing);
    one.run();
    EXPECT_EQ(one.panel("Main")->frameValue, recording);
    one.controller->clearOverlays();
    one.controller->placeOverlay(OverlayType::intelligizing, true);
    EXPECT_EQ(one.panel("Main")->frameValue, recording);
    EXPECT_EQ(one.panel("Main")->drawing.kind, OverlayDrawing::Kind::intelligizing);

    // Back at idle the position is forgotten.
    one.status = AppActivity::idle;
    one.controller->clearOverlays();
    EXPECT_FALSE(one.controller->currentOverlayXPosition());
    one.status = AppActivity::recording;
    one.show(OverlayType::recording);
    one.run();
    EXPECT_EQ(one.panel("Main")->frameValue, (Rect{1920 - 112 - 20, 20, 112, 112}));
}

TEST(OverlayScreenController, ADictationOverlayIsLeftOutWhenTheApplicationIsIdleUnlessForced) {
    RecordingLogSink log;
    OverlayHarness h;
    h.status = AppActivity::recording;
    h.show(OverlayType::recording);
    // The dictation ends before the placement task runs.
    h.status = AppActivity::idle;
    h.run();
    EXPECT_FALSE(h.panel("Main")->visible);
    EXPECT_FALSE(h.controller->currentOverlayType());
    EXPECT_TRUE(h.hitTest.activeRegions().empty());
    EXPECT_TRUE(log.contains("AppDelegate.showOverlay() - app is idle, skipping overlay", sprelio::LogLevel::warning));

    h.show(OverlayType::transcribing, true);
    h.run();
    EXPECT_TRUE(h.panel("Main")->visible);
    EXPECT_EQ(h.controller->currentOverlayType(), OverlayType::transcribing);
}

TEST(OverlayScreenController, ContinuousSpeechForcesTheBottomRightOfTheFocusedScreen) {
    RecordingLogSink log;
    OverlayHarness h(twoScreens());
    h.settings.setOverlayPositionPerScreen({{"right-id", "screenTopLeft"}});
    h.pointer.location = Point{2500, 500};
    h.status = AppActivity::continuousSpeechActive;
    h.show(OverlayType::recording);
    h.run();
    EXPECT_EQ(h.panel("Right")->frameValue, (Rect{1920 + 1280 - 112 - 20, 20, 112, 112}));
    EXPECT_TRUE(log.contains("AppDelegate.showOverlay() - continuousSpeechActive → forcing overlay at bottom-right: "
                             "(3068, 20) on screen 'Right'"));
}

// A recording overlay of another size shown before (a dictation, the floating button's ring) must not pull the
// continuous overlay back around its centre.
TEST(OverlayScreenController, ContinuousSpeechKeepsItsCornerAfterAnOverlayOfAnotherSize) {
    OverlayHarness h(twoScreens());
    h.pointer.location = Point{2500, 500};
    h.status = AppActivity::recording;
    h.show(OverlayType::recording);
    h.run();
    const Rect before = h.panel("Right")->frameValue;
    h.settings.setOverlaySize(h.settings.overlaySize() + 40);
    h.status = AppActivity::continuousSpeechActive;
    h.show(OverlayType::recording);
    h.run();
    const Rect after = h.panel("Right")->frameValue;
    ASSERT_NE(after.width, before.width) << "the test needs overlays of two sizes";
    EXPECT_EQ(after.x + after.width, 1920 + 1280 - 20);
    EXPECT_EQ(after.y, 20);
}

TEST(OverlayScreenController, TheButtonStandsAtTheScreenCentreOrItsDraggedPointClampedToTheScreen) {
    RecordingLogSink log;
    OverlayHarness h;
    h.settings.setFloatingButtonActivation(true);
    h.show(OverlayType::button, true);
    h.run();
    // The canvas is 112, the button 48 inside it.
    EXPECT_EQ(h.panel("Main")->frameValue, (Rect{960 - 24, 540 - 24, 112, 112}));
    EXPECT_EQ(h.panel("Main")->drawing.kind, OverlayDrawing::Kind::button);
    EXPECT_EQ(h.panel("Main")->drawing.overlaySize, 48);
    EXPECT_EQ(h.panel("Main")->drawing.canvasSize, 112);
    EXPECT_TRUE(log.contains(
        "AppDelegate.showOverlay() - Air Button active but no dragged position, defaulting to screen center"));

    // A dragged point that a smaller resolution leaves outside the screen.
    h.settings.setDraggedOverlayPositionPerScreen({{"main-id", sprelio::store::Point{2500, 1500}}});
    h.show(OverlayType::button, true);
    h.run();
    EXPECT_EQ(h.panel("Main")->frameValue, (Rect{1920 - 48, 1080 - 48, 112, 112}));

    // The "none" value counts as no dragged point.
    h.settings.setDraggedOverlayPositionPerScreen(
        {{"main-id", sprelio::store::Point{OverlayPlacement::kNoDraggedX, OverlayPlacement::kNoDraggedY}}});
    h.controller->clearOverlays();
    h.show(OverlayType::button, true);
    h.run();
    EXPECT_EQ(h.panel("Main")->frameValue.x, 960 - 24);
}

TEST(OverlayScreenController, ASizeChangeBetweenButtonAndRecordingKeepsTheCentre) {
    OverlayHarness h;
    h.settings.setFloatingButtonActivation(true);
    h.settings.setDraggedOverlayPositionPerScreen({{"main-id", sprelio::store::Point{400, 300}}});
    h.show(OverlayType::button, true);
    h.run();
    // Button canvas at the dragged point; the button itself 32 further in.
    EXPECT_EQ(h.controller->lastOverlayCenter(), (Point{400 + 32 + 24, 300 + 32 + 24}));
    EXPECT_EQ(h.controller->lastOverlaySize(), 48);

    h.status = AppActivity::recording;
    h.settings.setOverlayPositionPerScreen({{"main-id", "screenTopRight"}});
    h.show(OverlayType::recording);
    h.run();
    EXPECT_EQ(h.controller->lastOverlayCenter(), (Point{456, 356})) << "the same centre";
    EXPECT_EQ(h.panel("Main")->frameValue, (Rect{400, 300, 112, 112}));
    EXPECT_EQ(h.controller->lastOverlaySize(), 112);
}

TEST(OverlayScreenController, RegionsOfEachOverlayAndTheirActions) {
    OverlayHarness h;
    h.settings.setOverlayPositionPerScreen({{"main-id", "screenBottomLeft"}});
    h.status = AppActivity::recording;
    h.show(OverlayType::recording);
    h.run();
    auto* panel = h.panel("Main");
    const Rect f{20, 20, 112, 112};
    ASSERT_EQ(panel->frameValue, f);
    const auto& regions = h.hitTest.activeRegions();
    ASSERT_EQ(regions.size(), 2u);
    EXPECT_EQ(regions[0].id, "cancel");
    EXPECT_EQ(regions[0].center, (Point{f.maxX() - 10, f.midY() - 3}));
    EXPECT_DOUBLE_EQ(regions[0].radius, 19.33);
    EXPECT_EQ(regions[1].id, "recording");
    EXPECT_EQ(regions[1].frame, f);
    // The panel's clickable shapes are exactly the regions; its drawing has the cancel circle where the region is.
    EXPECT_EQ(panel->shapes, h.hitTest.inputShapes());
    ASSERT_TRUE(panel->drawing.cancelCenter);
    EXPECT_EQ(*panel->drawing.cancelCenter, (Point{102, 56}));

    // A click on the waveform ends a tapped recording as the hotkey would: its key goes down again.
    h.appState.setCurrentlyActiveUserShortcut(sprelio::SessionShortcutBuilder::recordAndTranscribe());
    panel->click({40, 60});
    EXPECT_EQ(h.actions.calls, (std::vector<std::string>{"down:recordAndTranscribe:tap"}));
    // A held one is released.
    auto held = sprelio::SessionShortcutBuilder::recordAndTranscribe();
    held->setHold(true);
    h.appState.setCurrentlyActiveUserShortcut(held);
    panel->click({40, 60});
    EXPECT_EQ(h.actions.calls.back(), "up:recordAndTranscribe:hold");
    // Without an active shortcut nothing happens.
    h.appState.setCurrentlyActiveUserShortcut(nullptr);
    panel->click({40, 60});
    EXPECT_EQ(h.actions.calls.size(), 2u);

    // The cancel circle wins over the square; the cancel runs in a task of its own.
    panel->click({f.maxX() - 10, f.midY()});
    EXPECT_TRUE(h.hostCalls.empty());
    h.run();
    EXPECT_EQ(h.hostCalls, (std::vector<std::string>{"cancel"}));
    EXPECT_EQ(h.actions.calls.size(), 2u) << "the waveform's action did not run";

    // Transcribing: only a cancel circle, further in.
    h.status = AppActivity::processing;
    h.show(OverlayType::transcribing);
    h.run();
    ASSERT_EQ(regions.size(), 1u);
    EXPECT_EQ(regions[0].id, "cancel");
    EXPECT_EQ(regions[0].center, (Point{f.maxX() - 20, f.midY() - 3}));
    ASSERT_TRUE(panel->drawing.cancelCenter);
    EXPECT_EQ(*panel->drawing.cancelCenter, (Point{92, 56}));
    // A click beside the circle is not ours.
    panel->click({30, 30});
    h.run();
    EXPECT_EQ(h.hostCalls.size(), 1u);

    // Removal clears the regions and the panel's shapes: nothing invisible keeps taking clicks.
    h.status = AppActivity::idle;
    h.controller->clearOverlays();
    EXPECT_TRUE(regions.empty());
    EXPECT_TRUE(panel->shapes.empty());
    EXPECT_FALSE(panel->visible);
}

TEST(OverlayScreenController, TheButtonHasARegionOnlyWhileItIsActivatedAndItsTapStartsADictation) {
    OverlayHarness h;
    h.show(OverlayType::button, true);
    h.run();
    EXPECT_TRUE(h.hitTest.activeRegions().empty()) << "the button is off";

    h.settings.setFloatingButtonActivation(true);
    h.show(OverlayType::button, true);
    h.run();
    auto* panel = h.panel("Main");
    const Rect f = panel->frameValue;
    ASSERT_EQ(h.hitTest.activeRegions().size(), 1u);
    const auto& region = h.hitTest.activeRegions()[0];
    EXPECT_EQ(region.id, "button");
    EXPECT_EQ(region.center, (Point{f.midX(), f.midY() - 3}));
    EXPECT_DOUBLE_EQ(region.radius, sprelio::HitTestManager::storedCircularRadius(56));

    RecordingLogSink log;
    panel->click({f.midX(), f.midY()});
    EXPECT_TRUE(log.contains("AirButtonView tapped, calling action"));
    EXPECT_EQ(h.actions.calls, (std::vector<std::string>{"down:recordAndTranscribe:tap"}));
    ASSERT_NE(h.appState.currentlyActiveUserShortcut(), nullptr);
    EXPECT_FALSE(h.appState.currentlyActiveUserShortcut()->hold());
    h.run();
    EXPECT_EQ(h.hostCalls, (std::vector<std::string>{"checkUsability:AirButtonView.action{}"}));
}

TEST(OverlayScreenController, DraggingTheButtonMovesItsPanelAndStoresTheCanvasOriginForTheScreen) {
    RecordingLogSink log;
    OverlayHarness h(twoScreens());
    h.settings.setFloatingButtonActivation(true);
    h.pointer.location = Point{100, 100};
    h.show(OverlayType::button, true);
    h.run();
    auto* panel = h.panel("Main");
    const Rect start = panel->frameValue;
    const Point grip{start.midX(), start.midY()};

    panel->mouse(type::kLeftMouseDown, grip);
    panel->mouse(type::kLeftMouseDragged, {grip.x + 1, grip.y + 1});
    EXPECT_EQ(panel->frameValue, start) << "a twitch is no drag";
    panel->mouse(type::kLeftMouseDragged, {grip.x + 1500, grip.y - 200});
    EXPECT_EQ(panel->frameValue, (Rect{start.x + 1500, start.y - 200, 112, 112}));
    panel->mouse(type::kLeftMouseUp, {grip.x + 1500, grip.y - 200});
    EXPECT_TRUE(h.actions.calls.empty()) << "a drag is no tap";

    // The drop landed on the right screen: the point is stored for it, and the button prefers it from now on.
    const Point origin{start.x + 1500, start.y - 200};
    const auto dragged = h.settings.draggedOverlayPositionPerScreen();
    ASSERT_TRUE(dragged.contains("right-id"));
    EXPECT_EQ(dragged.at("right-id"), (sprelio::store::Point{origin.x, origin.y}));
    EXPECT_EQ(h.settings.buttonPrefersDisplayUniqueID(), "right-id");
    EXPECT_TRUE(log.containsPrefix("OverlayViewController.loadView() - normalized drag on screen Right to canvas origin: "));
    // The region followed the button.
    ASSERT_EQ(h.hitTest.activeRegions().size(), 1u);
    EXPECT_EQ(h.hitTest.activeRegions()[0].center, (Point{origin.x + 56, origin.y + 56 - 3}));

    // Shown again, the button comes back there, on the right screen's panel.
    h.show(OverlayType::button, true);
    h.run();
    EXPECT_TRUE(h.panel("Right")->visible);
    EXPECT_EQ(h.panel("Right")->frameValue, (Rect{origin.x, origin.y, 112, 112}));
}

TEST(OverlayScreenController, TheRecordingMenuTakesOverTheRegionsWhenTheAIToolsAreShown) {
    struct Menu final : sprelio::RecordingOverlayMenu {
        int appeared = 0;
        void recordingOverlayAppeared() override { ++appeared; }
    } menu;
    OverlayHarness h;
    h.settings.setFloatingRecordShowAITools(true);
    h.controller->setRecordingOverlayMenu(&menu);
    h.status = AppActivity::recording;
    h.show(OverlayType::recording);
    h.run();
    EXPECT_TRUE(h.hitTest.activeRegions().empty());
    EXPECT_EQ(menu.appeared, 1);
    EXPECT_FALSE(h.panel("Main")->drawing.cancelCenter);
    EXPECT_EQ(h.panel("Main")->drawing.timerOffsetX, -55);

    // The menu registers through the controller, in the overlay's canvas coordinates.
    const auto center = h.controller->globalPositionFromOverlayLocal({56, 56});
    ASSERT_TRUE(center);
    EXPECT_EQ(*center, h.controller->lastOverlayCenter());
    h.controller->addCircularRegion("radial-center-circle", *center, 12, [] {});
    EXPECT_EQ(h.panel("Main")->shapes.size(), 1u);

    RecordingLogSink log;
    const auto far = h.controller->globalPositionFromOverlayLocal({-5000, 56});
    ASSERT_TRUE(far);
    EXPECT_TRUE(log.containsPrefix("globalPositionFromOverlayLocal() - computed point "));
}

TEST(OverlayScreenController, TheMeterFollowsTheRecorderAndGoesWithTheOverlay) {
    RecordingLogSink log;
    OverlayHarness h;
    auto levels = std::make_shared<FakeLevels>();
    levels->levels = {0.0f, -6.0f};
    h.recorder = levels;
    h.status = AppActivity::recording;
    h.show(OverlayType::recording);
    h.run();
    ASSERT_NE(h.controller->waveform(), nullptr);
    h.tp.advance(60ms);
    auto* panel = h.panel("Main");
    ASSERT_EQ(panel->drawing.bars.size(), 7u);
    EXPECT_DOUBLE_EQ(panel->drawing.bars[5].height, 84);
    EXPECT_NEAR(panel->drawing.bars[6].height, 84 * 0.501187, 1e-3);
    EXPECT_EQ(panel->drawing.timerText, "00:00");
    h.tp.advance(1s);
    EXPECT_EQ(panel->drawing.timerText, "00:01");

    h.status = AppActivity::processing;
    h.show(OverlayType::transcribing);
    h.run();
    EXPECT_EQ(h.controller->waveform(), nullptr);
    EXPECT_TRUE(log.contains("VoiceWaveformOverlayView.deinit() - Cleaning up waveform view"));
    const int reads = levels->reads;
    h.tp.advance(1s);
    EXPECT_EQ(levels->reads, reads) << "no polling after the recording overlay went";

    // Without a recorder the overlay uses the stand-by one.
    h.recorder = nullptr;
    h.status = AppActivity::recording;
    h.show(OverlayType::recording);
    h.run();
    EXPECT_TRUE(log.contains("OverlayScreenController.addOverlayImage() - recordAudio is nil! Using fallback",
                             sprelio::LogLevel::error));
    ASSERT_NE(h.controller->waveform(), nullptr);
    EXPECT_FALSE(h.controller->waveform()->isPolling());
}

TEST(OverlayScreenController, AScreenRemovedWhileAnOverlayShowsBringsItBackOnAScreenThatRemains) {
    RecordingLogSink log;
    OverlayHarness h(twoScreens());
    h.pointer.location = Point{2500, 500};
    h.settings.setOverlayPositionPerScreen({{"main-id", "screenBottomLeft"}, {"right-id", "screenBottomLeft"}});
    h.status = AppActivity::recording;
    h.show(OverlayType::recording);
    h.run();
    ASSERT_TRUE(h.panel("Right")->visible);

    // The right screen is unplugged; the mouse lands on the main screen.
    h.tp.screenList.pop_back();
    h.pointer.location = Point{500, 500};
    h.controller->screenChanged("NSApplicationDidChangeScreenParametersNotification");
    EXPECT_EQ(h.controller->panelCount(), 1u);
    EXPECT_TRUE(*h.panels.closedFlags[1]) << "the right screen's panel is closed";
    EXPECT_TRUE(h.hitTest.activeRegions().empty()) << "its regions went with it";
    EXPECT_EQ(h.controller->waveform(), nullptr);
    h.run();
    EXPECT_EQ(h.hostCalls, (std::vector<std::string>{"show:recording"}));
    EXPECT_TRUE(log.contains("OverlayScreenController.screenChanged() - notification: "
                             "NSApplicationDidChangeScreenParametersNotification"));
    EXPECT_TRUE(log.contains("OverlayScreenController.screenChanged() - re-showing overlay of type recording"));
    // The dictation's position came from the right screen; it is clamped onto the main one.
    auto* main = h.panels.live["Main"];
    EXPECT_TRUE(main->visible);
    EXPECT_EQ(main->frameValue, (Rect{1920 - 112, 20, 112, 112}));
    EXPECT_EQ(h.hitTest.activeRegions().size(), 2u);

    // At idle the button comes back with the force it needs.
    h.status = AppActivity::idle;
    h.settings.setFloatingButtonActivation(true);
    h.hostCalls.clear();
    h.show(OverlayType::button, true);
    h.run();
    h.controller->screenChanged("NSApplicationDidChangeScreenParametersNotification");
    h.run();
    EXPECT_EQ(h.hostCalls, (std::vector<std::string>{"show:button:force"}));
    EXPECT_TRUE(h.panels.live["Main"]->visible);
}

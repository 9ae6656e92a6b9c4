// The ring of AI actions on the recording overlay: its items and their angles, the regions it registers through the
// overlay controller, what a click on each part does, and what the panel is given to draw.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <stdexcept>

#include "ai/IntelligenceItems.h"
#include "shared/IntelligenceItemIds.h"
#include "shared/SessionShortcutBuilder.h"
#include "ui/RadialMenu.h"

#include "OverlayTestSupport.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using overlaytest::OverlayHarness;
using platform::Point;
using platform::test::RecordingLogSink;

std::string id(const char* caseName) { return intelligenceItemId(caseName); }

// The catalogue's picker list: the fixed items with their real faces, and a preset that a test may delete.
struct Catalogue {
    std::vector<std::string> ids;
    RadialMenuCatalogue make() {
        return RadialMenuCatalogue{
            [this] { return ids; },
            [](const std::string& itemId) {
                const auto face = fixedIntelligenceItemFace(classifyIntelligenceItem(itemId));
                return face ? face->title : std::string("Custom Preset");
            },
            [](const std::string& itemId) {
                const auto face = fixedIntelligenceItemFace(classifyIntelligenceItem(itemId));
                return face ? face->emoji : std::string("🅰️");
            }};
    }
    Catalogue() {
        for (const char* name : {"useAsIs", "showActionsDialog", "askAI", "addEmoji", "improveWriting", "fixGrammar",
                                 "uppercaseAll", "lowercaseAll", "professional", "fun", "flirt"})
            ids.push_back(id(name));
        ids.push_back(id("de"));
        ids.push_back("9b6b3f0e-preset");
    }
};

std::vector<PickerItemWrapper> ring(const std::vector<std::string>& middle) {
    std::vector<PickerItemWrapper> items{radial_menu::stopItem()};
    for (const auto& m : middle) items.push_back(PickerItemWrapper{m, m, "", false});
    items.push_back(radial_menu::voiceToTextItem());
    return items;
}

TEST(RadialMenu, AnglesDivideTheTwoArcsBetweenStopAndVoiceToText) {
    struct Row {
        std::vector<std::string> middle;
        std::vector<double> angles; // of the middle items, in order
    };
    const std::vector<Row> rows = {
        {{}, {}},
        {{"a"}, {270}},
        {{"a", "b"}, {90, 270}},
        {{"a", "b", "c"}, {90, 240, 300}},
        {{"1", "2", "3", "4", "5", "6", "7", "8", "9"}, {36, 72, 108, 144, 210, 240, 270, 300, 330}},
    };
    for (const auto& row : rows) {
        const auto items = ring(row.middle);
        EXPECT_EQ(radial_menu::angleDegrees(items, "__STOP__"), 0);
        EXPECT_EQ(radial_menu::angleDegrees(items, "recordAndTranscribe"), 180);
        for (std::size_t i = 0; i < row.middle.size(); ++i)
            EXPECT_NEAR(radial_menu::angleDegrees(items, row.middle[i]), row.angles[i], 1e-9)
                << row.middle.size() << " items, item " << i;
        EXPECT_EQ(radial_menu::angleDegrees(items, "not-there"), 0);
    }
    EXPECT_EQ(radial_menu::menuRadius(112), 34);
    EXPECT_EQ(radial_menu::centerRadius(112), 12);
    EXPECT_EQ(radial_menu::menuRadius(200), 78);
}

TEST(RadialMenu, AChoiceIsMadeWhenThereIsNone) {
    struct Row {
        std::string stored;
        bool replacedByDefault;
    };
    const std::vector<Row> rows = {{"[]", true},
                                   {"not json", true},
                                   {"{\"a\":1}", true},
                                   {"[\"__STOP__\"]", true},
                                   {"[\"" + id("fun") + "\"]", false},
                                   {"[\"" + id("fun") + "\",\"" + id("flirt") + "\"]", false},
                                   {"[\"__STOP__\",\"" + id("flirt") + "\"]", false}};
    for (const auto& row : rows) {
        OverlayHarness h;
        Catalogue catalogue;
        h.settings.setFloatingRecordSelectedItemIDsJson(row.stored);
        FloatingRecordViewModel model(h.tp.loop(), h.settings, catalogue.make());
        const auto stored = radial_menu::decodeItemIds(h.settings.floatingRecordSelectedItemIDsJson());
        if (row.replacedByDefault) {
            ASSERT_TRUE(stored) << row.stored;
            EXPECT_EQ(*stored, radial_menu::defaultItemIds()) << row.stored;
        } else {
            EXPECT_EQ(h.settings.floatingRecordSelectedItemIDsJson(), row.stored);
        }
    }
    // The default: nine catalogue items by their ids, framed by stop and "Voice to Text".
    OverlayHarness h;
    Catalogue catalogue;
    FloatingRecordViewModel model(h.tp.loop(), h.settings, catalogue.make());
    const auto& items = model.itemsWithStop();
    ASSERT_EQ(items.size(), 11u);
    EXPECT_EQ(items.front(), (PickerItemWrapper{"__STOP__", "Cancel", "❌", true}));
    EXPECT_EQ(items.back(), (PickerItemWrapper{"recordAndTranscribe", "Voice to Text", "🎙️", false}));
    EXPECT_EQ(items[1].id, id("showActionsDialog"));
    EXPECT_EQ(items[9].id, id("flirt"));
    const auto askAI = fixedIntelligenceItemFace(classifyIntelligenceItem(id("askAI")));
    ASSERT_TRUE(askAI);
    EXPECT_EQ(items[2].title, askAI->title);
    EXPECT_EQ(items[2].emoji, askAI->emoji);
}

TEST(RadialMenu, ItemsThatLeftTheCatalogueDropOutAndAnEmptyListIsAskedAgain) {
    OverlayHarness h;
    Catalogue catalogue;
    const std::vector<std::string> chosen = {id("fun"), "9b6b3f0e-preset", id("flirt")};
    h.settings.setFloatingRecordSelectedItemIDsJson(radial_menu::encodeItemIds(chosen));
    auto pickerIds = catalogue.ids;
    catalogue.ids.clear(); // the catalogue is not built yet
    FloatingRecordViewModel model(h.tp.loop(), h.settings, catalogue.make());
    int changes = 0;
    model.onItemsChanged = [&] { ++changes; };
    EXPECT_TRUE(model.itemsWithStop().empty());
    h.tp.advance(150ms);
    EXPECT_TRUE(model.itemsWithStop().empty());
    catalogue.ids = pickerIds;
    h.tp.advance(60ms);
    ASSERT_EQ(model.itemsWithStop().size(), 5u);
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(model.itemsWithStop()[2].title, "Custom Preset");
    EXPECT_EQ(radial_menu::angleDegrees(model.itemsWithStop(), id("fun")), 90);

    // The preset is deleted: it drops out and the others close up.
    catalogue.ids.pop_back();
    model.pickerListChanged();
    h.run();
    ASSERT_EQ(model.itemsWithStop().size(), 4u);
    EXPECT_EQ(changes, 2);
    EXPECT_EQ(radial_menu::angleDegrees(model.itemsWithStop(), id("fun")), 90);
    EXPECT_EQ(radial_menu::angleDegrees(model.itemsWithStop(), id("flirt")), 270);
    // An unreadable choice leaves the two fixed buttons.
    h.settings.setFloatingRecordSelectedItemIDsJson("[oops");
    model.pickerListChanged();
    h.run();
    ASSERT_EQ(model.itemsWithStop().size(), 2u);
    EXPECT_EQ(h.settings.floatingRecordSelectedItemIDsJson(), "[oops") << "replaced only at the next creation";
}

// The recording overlay with the ring, shown for a dictation that a shortcut started.
struct RingHarness {
    explicit RingHarness(bool hold = false, int overlaySize = 112, const std::vector<std::string>& chosen = {}) {
        if (!chosen.empty()) h.settings.setFloatingRecordSelectedItemIDsJson(radial_menu::encodeItemIds(chosen));
        h.settings.setFloatingRecordShowAITools(true);
        h.settings.setOverlaySize(overlaySize);
        model = std::make_unique<FloatingRecordViewModel>(h.tp.loop(), h.settings, catalogue.make());
        view = std::make_unique<FloatingRecordView>(FloatingRecordViewDependencies{
            h.tp.loop(), h.settings, h.appState, h.actions, *model, h.controller.get(),
            [this] { return h.lastShown; }, [this] { h.hostCalls.push_back("cancel"); }, disabled});
        h.controller->setRecordingOverlayMenu(view.get());
        auto shortcut = SessionShortcutBuilder::recordAndTranscribe();
        shortcut->setHold(hold);
        h.appState.setCurrentlyActiveUserShortcut(shortcut);
        h.status = AppActivity::recording;
        h.show(OverlayType::recording);
        h.run();
    }
    // A region's drawn centre: the hit-test manager stores circles 3 points lower than given.
    Point drawnCenter(const std::string& regionId) const {
        for (const auto& region : h.hitTest.activeRegions())
            if (region.id == regionId) return {region.center.x, region.center.y + 3};
        ADD_FAILURE() << "no region " << regionId;
        return {};
    }
    // The panel that shows the overlay.
    overlaytest::FakePanel& shown() {
        auto* panel = h.panel("Main");
        if (!panel) throw std::runtime_error("no panel for the screen");
        return *panel;
    }
    void click(const Point& at) {
        shown().click(at);
        h.run();
    }

    OverlayHarness h;
    Catalogue catalogue;
    bool disabled = false;
    std::unique_ptr<FloatingRecordViewModel> model;
    std::unique_ptr<FloatingRecordView> view;
};

TEST(RadialMenu, TheRingRegistersItsRegionsWhenTheRecordingOverlayAppears) {
    RecordingLogSink log;
    RingHarness r;
    EXPECT_TRUE(log.contains("FloatingRecordView.onappear{} - FloatingRecordView appeared. Waiting to register hit "
                             "test regions..."));
    EXPECT_TRUE(log.contains("FloatingRecordView.registerHitTestRegions() - overlaySize: 112, menuRadius: 34"));
    EXPECT_TRUE(log.contains("FloatingButtonMenu.registerHitTestRegions() - Registered 12 regions"));
    EXPECT_TRUE(r.view->hasInitialisedHitTestRegions());
    const auto& regions = r.h.hitTest.activeRegions();
    ASSERT_EQ(regions.size(), 12u);
    EXPECT_EQ(regions.front().id, "radial-__STOP__");
    EXPECT_EQ(regions[1].id, "radial-" + id("showActionsDialog"));
    EXPECT_EQ(regions[10].id, "radial-recordAndTranscribe");
    EXPECT_EQ(regions.back().id, "radial-center-circle");

    // Geometry: the overlay's centre, the ring at 34 from it, the canvas turned upside down for the regions.
    const Point c = r.h.controller->lastOverlayCenter();
    struct Expected {
        std::size_t index;
        double degrees;
        double storedRadius;
    };
    for (const auto& e : {Expected{0, 0, 19.33}, Expected{1, 36, 24.23}, Expected{4, 144, 24.23},
                          Expected{5, 210, 24.23}, Expected{9, 330, 24.23}, Expected{10, 180, 24.23}}) {
        const double a = e.degrees * 0.017453292519943295;
        EXPECT_NEAR(regions[e.index].center.x, c.x + std::cos(a) * 34, 1e-9) << regions[e.index].id;
        EXPECT_NEAR(regions[e.index].center.y, c.y - std::sin(a) * 34 - 3, 1e-9) << regions[e.index].id;
        EXPECT_NEAR(regions[e.index].radius, e.storedRadius, 0.005) << regions[e.index].id;
    }
    EXPECT_EQ(regions.back().center, (Point{c.x, c.y - 3}));
    EXPECT_NEAR(regions.back().radius, 19.33, 1e-9) << "the centre's 12 is below 16";
}

TEST(RadialMenu, EachPartOfTheRingDoesWhatItSays) {
    struct Row {
        const char* name;
        std::string region;      // clicked at its drawn centre
        bool hold;
        std::string actionCall;  // what reaches the shortcut's handler; empty for none
        std::optional<std::string> menuAction, menuItem, menuCategory;  // floatingButtonMenuShortcut afterwards
        bool cancelled;
    };
    const std::string useAsIs = id("useAsIs");
    const std::vector<Row> rows = {
        {"an AI item, tapped", "radial-" + id("fixGrammar"), false, "down:recordAndTranscribe:tap",
         "recordAndProcessWithAI", id("fixGrammar"), "action", false},
        {"an AI item, held", "radial-" + id("improveWriting"), true, "up:recordAndTranscribe:hold",
         "recordAndProcessWithAI", id("improveWriting"), "action", false},
        {"a tone", "radial-" + id("flirt"), false, "down:recordAndTranscribe:tap", "recordAndProcessWithAI",
         id("flirt"), "action", false},
        {"a translation", "radial-" + id("de"), false, "down:recordAndTranscribe:tap", "recordAndProcessWithAI",
         id("de"), "translation", false},
        {"Voice to Text", "radial-recordAndTranscribe", false, "down:recordAndTranscribe:tap", "recordAndTranscribe",
         useAsIs, "action", false},
        {"the centre", "radial-center-circle", false, "down:recordAndTranscribe:tap", std::nullopt, std::nullopt,
         std::nullopt, false},
        {"the centre during a hold", "radial-center-circle", true, "up:recordAndTranscribe:hold", std::nullopt,
         std::nullopt, std::nullopt, false},
        {"the stop button", "radial-__STOP__", false, "", std::nullopt, std::nullopt, std::nullopt, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        // At 150 points every button's drawn centre lies in its own region (at 112 neighbours overlap).
        auto chosen = radial_menu::defaultItemIds();
        chosen.push_back(id("de"));
        RingHarness r(row.hold, 150, chosen);
        r.click(r.drawnCenter(row.region));
        if (row.actionCall.empty()) {
            EXPECT_TRUE(r.h.actions.calls.empty());
        } else {
            EXPECT_EQ(r.h.actions.calls, std::vector<std::string>{row.actionCall});
        }
        const auto& menu = r.h.appState.floatingButtonMenuShortcut();
        EXPECT_EQ(menu ? menu->shortcutActionRawValue() : std::nullopt, row.menuAction);
        EXPECT_EQ(menu ? menu->intelligenceActionItemIdString() : std::nullopt, row.menuItem);
        EXPECT_EQ(menu ? menu->intelligenceActionCategoryRawValue() : std::nullopt, row.menuCategory);
        if (menu) {
            EXPECT_EQ(menu->intelligenceActionCompletionType(), "paste");
        }
        EXPECT_EQ(r.h.hostCalls == std::vector<std::string>{"cancel"}, row.cancelled);
    }
}

TEST(RadialMenu, WithTheAIToolsTheCancelCrossStaysReachable) {
    RecordingLogSink log;
    RingHarness r; // the default 112 points
    // The stop button stands where the overlay's cross stood, on the right, and a click there cancels.
    const Point stop = r.drawnCenter("radial-__STOP__");
    const auto frame = r.shown().frameValue;
    EXPECT_NEAR(stop.x, frame.maxX() - 22, 1e-9);
    EXPECT_NEAR(stop.y, frame.midY(), 1e-9);
    r.click(stop);
    EXPECT_EQ(r.h.hostCalls, std::vector<std::string>{"cancel"});
    EXPECT_TRUE(r.h.actions.calls.empty());
    EXPECT_TRUE(log.contains("FloatingButtonMenu{} - STOP pressed", LogLevel::warning));

    // The panel draws the cross of the ring, not its own.
    const auto& drawing = r.shown().drawing;
    EXPECT_FALSE(drawing.cancelCenter);
    ASSERT_EQ(drawing.ringButtons.size(), 11u);
    EXPECT_TRUE(drawing.ringButtons.front().isCancel);
    EXPECT_EQ(drawing.ringButtons.front().center, (Point{56 + 34, 56}));
}

TEST(RadialMenu, TheDrawingsClickAreasAreTheRegions) {
    for (int size : {112, 150}) {
        RingHarness r(false, size);
        const auto& drawing = r.shown().drawing;
        const auto frame = r.shown().frameValue;
        const auto& regions = r.h.hitTest.activeRegions();
        ASSERT_EQ(drawing.ringButtons.size() + 1, regions.size());
        // Canvas (top left, y down) to the logic's global coordinates.
        auto global = [&](const Point& p) { return Point{frame.x + p.x, frame.y + frame.height - p.y}; };
        for (std::size_t i = 0; i < drawing.ringButtons.size(); ++i) {
            const auto& button = drawing.ringButtons[i];
            EXPECT_EQ(regions[i].id, "radial-" + button.id);
            EXPECT_NEAR(global(button.hitCenter).x, regions[i].center.x, 1e-9);
            EXPECT_NEAR(global(button.hitCenter).y, regions[i].center.y, 1e-9);
            EXPECT_NEAR(button.hitRadius, regions[i].radius, 1e-9);
            // Drawn where the region was given, before the hit-test manager moved it down.
            EXPECT_NEAR(global(button.center).y, regions[i].center.y + 3, 1e-9);
            EXPECT_GT(button.radius, 0);
            EXPECT_LE(button.radius, 16);
        }
        EXPECT_NEAR(global(drawing.ringHitCenter).y, regions.back().center.y, 1e-9);
        EXPECT_EQ(drawing.ringCenterRadius, radial_menu::centerRadius(size));
        EXPECT_FALSE(drawing.ringDisabled);
    }
}

TEST(RadialMenu, NoRegionsOutsideTheRecordingOverlayAndNoneForADisabledPreview) {
    RecordingLogSink log;
    RingHarness r;
    r.h.lastShown = OverlayType::transcribing;
    r.view->registerHitTestRegions();
    EXPECT_TRUE(log.contains("FloatingRecordView.registerHitTestRegions() - Skipping, not the active overlay."));
    r.view->recordingOverlayAppeared();
    r.h.run();
    EXPECT_TRUE(log.contains("FloatingRecordView.onappear{} - Skipped hit test registration - not recording overlay."));

    // A preview's buttons are shown but do nothing.
    RingHarness preview;
    FloatingRecordView disabled(FloatingRecordViewDependencies{
        preview.h.tp.loop(), preview.h.settings, preview.h.appState, preview.h.actions, *preview.model,
        preview.h.controller.get(), [&] { return preview.h.lastShown; }, [] {}, true});
    disabled.pressed(preview.model->itemsWithStop()[3]);
    EXPECT_TRUE(preview.h.actions.calls.empty());
    EXPECT_EQ(preview.h.appState.floatingButtonMenuShortcut(), nullptr);
    EXPECT_TRUE(log.contains("FloatingButtonRecordView{} - " + id("addEmoji") +
                             " pressed, but disableButtons == true, skipping"));
}

TEST(RadialMenu, ANewChoiceDuringTheRecordingRenewsTheRegions) {
    RecordingLogSink log;
    RingHarness r;
    r.h.settings.setFloatingRecordSelectedItemIDsJson(radial_menu::encodeItemIds({id("fun"), id("flirt")}));
    r.model->pickerListChanged();
    r.h.run();
    EXPECT_TRUE(log.contains("FloatingRecordView - itemsWithStop changed, re-registering hit regions."));
    const auto& regions = r.h.hitTest.activeRegions();
    ASSERT_EQ(regions.size(), 5u);
    EXPECT_EQ(regions[1].id, "radial-" + id("fun"));
    // Without the AI tools the waveform keeps its own regions.
    RingHarness plain;
    plain.h.settings.setFloatingRecordShowAITools(false);
    plain.h.show(OverlayType::recording);
    plain.h.run();
    plain.h.settings.setFloatingRecordSelectedItemIDsJson(radial_menu::encodeItemIds({id("fun"), id("flirt")}));
    plain.model->pickerListChanged();
    plain.h.run();
    ASSERT_EQ(plain.h.hitTest.activeRegions().size(), 2u);
    EXPECT_EQ(plain.h.hitTest.activeRegions()[0].id, "cancel");
}

} // namespace
} // namespace sprelio

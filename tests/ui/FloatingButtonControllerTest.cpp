// The floating button's settings take effect when a view writes them: off hides the button at once, on shows it,
// a new size or transparency is drawn at once; during a dictation the return to idle decides.
#include <gtest/gtest.h>

#include <stdexcept>

#include "shared/IntelligenceItemIds.h"
#include "ui/FloatingButtonController.h"
#include "ui/RadialMenu.h"

#include "OverlayTestSupport.h"

namespace sprelio {
namespace {

using overlaytest::OverlayHarness;
using platform::Point;

struct ControllerHarness {
    ControllerHarness() {
        h.pointer.location = Point{300, 300};
        controller = std::make_unique<FloatingButtonController>(FloatingButtonControllerDependencies{
            h.settings, h.tp, h.pointer, [this] { return h.status; },
            [this](OverlayType type, bool force) {
                calls.push_back(std::string("show:") + std::string(overlayTypeName(type)) + (force ? ":force" : ""));
                h.show(type, force);
            },
            [this](bool force, bool preserve) {
                calls.push_back(std::string("remove:") + (force ? "force" : "soft") + (preserve ? ":preserve" : ""));
                h.controller->clearOverlays();
            },
            nullptr});
    }
    overlaytest::FakePanel& shown() {
        auto* panel = h.panel("Main");
        if (!panel) throw std::runtime_error("no panel for the screen");
        return *panel;
    }
    OverlayHarness h;
    std::vector<std::string> calls;
    std::unique_ptr<FloatingButtonController> controller;
};

TEST(FloatingButtonController, TheSettingsTakeEffectAtOnceWhenIdle) {
    struct Row {
        const char* name;
        AppActivity status;
        bool activationBefore, activationAfter;
        std::string key;
        std::vector<std::string> calls;
    };
    const std::vector<Row> rows = {
        {"turned off at idle", AppActivity::idle, true, false, "floatingButtonActivation", {"remove:soft:preserve"}},
        {"turned on at idle", AppActivity::idle, false, true, "floatingButtonActivation", {"show:button:force"}},
        {"turned off while recording", AppActivity::recording, true, false, "floatingButtonActivation", {}},
        {"a new size at idle", AppActivity::idle, true, true, "floatingRecordButtonSize", {"show:button:force"}},
        {"a new transparency at idle", AppActivity::idle, true, true, "floatingRecordButtonTransparency",
         {"show:button:force"}},
        {"a new size with the button off", AppActivity::idle, false, false, "floatingRecordButtonSize", {}},
        {"a new size while processing", AppActivity::processing, true, true, "floatingRecordButtonSize", {}},
        {"another key", AppActivity::idle, true, true, "soundEnabled", {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ControllerHarness c;
        c.h.status = row.status;
        c.h.settings.setFloatingButtonActivation(row.activationAfter);
        c.controller->settingChanged(row.key);
        EXPECT_EQ(c.calls, row.calls);
    }
}

TEST(FloatingButtonController, UncheckingHidesTheButtonThatIsShowing) {
    ControllerHarness c;
    c.h.settings.setFloatingButtonActivation(true);
    c.h.show(OverlayType::button, true);
    c.h.run();
    ASSERT_TRUE(c.shown().visible);
    ASSERT_EQ(c.h.hitTest.activeRegions().size(), 1u);

    c.h.settings.setFloatingButtonActivation(false);
    c.controller->settingChanged("floatingButtonActivation");
    c.h.run();
    EXPECT_FALSE(c.shown().visible);
    EXPECT_TRUE(c.h.hitTest.activeRegions().empty()) << "no invisible region keeps taking clicks";
    // The screen under the mouse gets a place for the dictation overlays, since it had none.
    EXPECT_EQ(c.h.settings.overlayPositionPerScreen(), (std::map<std::string, std::string>{{"main-id", "appBottomRight"}}));

    // A place the user chose is kept.
    ControllerHarness chosen;
    chosen.h.settings.setOverlayPositionPerScreen({{"main-id", "screenTopLeft"}});
    chosen.h.settings.setFloatingButtonActivation(false);
    chosen.controller->settingChanged("floatingButtonActivation");
    EXPECT_EQ(chosen.h.settings.overlayPositionPerScreen(),
              (std::map<std::string, std::string>{{"main-id", "screenTopLeft"}}));

    // Checked again, it is back at once.
    c.h.settings.setFloatingButtonActivation(true);
    c.controller->settingChanged("floatingButtonActivation");
    c.h.run();
    EXPECT_TRUE(c.shown().visible);
    EXPECT_EQ(c.shown().drawing.kind, platform::OverlayDrawing::Kind::button);
}

TEST(FloatingButtonController, ANewChoiceOfRingItemsReachesTheRing) {
    OverlayHarness h;
    std::vector<std::string> ids;
    for (const char* name : {"fun", "flirt", "askAI"}) ids.push_back(intelligenceItemId(name));
    FloatingRecordViewModel model(h.tp.loop(), h.settings, RadialMenuCatalogue{[&] { return ids; },
                                                                               [](const std::string& i) { return i; },
                                                                               [](const std::string&) { return ""; }});
    FloatingButtonController controller(FloatingButtonControllerDependencies{
        h.settings, h.tp, h.pointer, [] { return AppActivity::idle; }, {}, {}, &model});
    h.settings.setFloatingRecordSelectedItemIDsJson(radial_menu::encodeItemIds({ids[2]}));
    controller.settingChanged("floatingRecord.selectedItemIDs.json");
    h.run();
    ASSERT_EQ(model.itemsWithStop().size(), 3u);
    EXPECT_EQ(model.itemsWithStop()[1].id, ids[2]);
}

} // namespace
} // namespace sprelio

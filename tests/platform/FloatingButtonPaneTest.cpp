// The Floating Button tab and the ring's panel on a real X desktop: the tab writes what the user changes and the
// button follows at once (unticking "Show the floating record button" takes it off the screen), the ring's choice
// and order are kept, and the pointer over the ring lights the button that a click would press.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QListWidget>
#include <QMouseEvent>
#include <QPushButton>
#include <QSlider>
#include <QSpinBox>

#include "ai/IntelligenceItems.h"
#include "input/ShortcutActionDispatcher.h"
#include "platform/qt/FloatingButtonPane.h"
#include "platform/qt/QtMainLoop.h"
#include "platform/qt/QtOverlayPanels.h"
#include "platform/qt/QtScreens.h"
#include "platform/test/TestPlatform.h"
#include "shared/AppState.h"
#include "shared/IntelligenceItemIds.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "ui/FloatingButtonController.h"
#include "ui/HitTestManager.h"
#include "ui/OverlayScreenControllerImpl.h"
#include "ui/RadialMenu.h"

#include "DesktopTestSupport.h"

namespace sprelio {
namespace {

using desktoptest::processUntil;

RadialMenuCatalogue fixedCatalogue() {
    std::vector<std::string> ids;
    for (const char* name : {"useAsIs", "showActionsDialog", "askAI", "addEmoji", "improveWriting", "fixGrammar",
                             "uppercaseAll", "lowercaseAll", "professional", "fun", "flirt"})
        ids.push_back(intelligenceItemId(name));
    auto face = [](const std::string& id) { return fixedIntelligenceItemFace(classifyIntelligenceItem(id)); };
    return RadialMenuCatalogue{[ids] { return ids; },
                               [face](const std::string& id) { return face(id) ? face(id)->title : id; },
                               [face](const std::string& id) { return face(id) ? face(id)->emoji : std::string(); }};
}

class NoActions final : public ShortcutActionDispatcher {
public:
    void keyDownAction(const UserShortcutPtr&) override {}
    void keyUpAction(const UserShortcutPtr&) override {}
};

class FloatingButtonPaneTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        ASSERT_NE(desktoptest::application(&why), nullptr) << why;
    }
    platform::test::TestPlatform tp;
    store::MemorySettingsStore store;
    store::AppConstants constants{tp};
    store::Settings settings{store, constants};
};

TEST_F(FloatingButtonPaneTest, TheTabWritesWhatTheUserChangesAndKeepsTheRingsChoice) {
    FloatingRecordViewModel model(tp.loop(), settings, fixedCatalogue()); // puts the default choice in place
    platform::FloatingButtonPane pane(settings);
    std::vector<std::string> changed;
    pane.onSettingChanged = [&](const std::string& key) { changed.push_back(key); };
    pane.setRingSource(model.catalogue());
    pane.resize(820, 900);
    pane.show();
    ASSERT_TRUE(processUntil([&] { return pane.windowHandle() && pane.windowHandle()->isExposed(); }));

    // What it shows is what is stored.
    EXPECT_TRUE(pane.showButton()->isChecked());
    EXPECT_EQ(pane.buttonSize()->value(), 48);
    EXPECT_EQ(pane.transparency()->value(), 0);
    EXPECT_FALSE(pane.showAITools()->isChecked());
    EXPECT_EQ(pane.overlaySize()->value(), 112);
    ASSERT_EQ(pane.ringItems()->count(), 11);
    EXPECT_EQ(pane.chosenIds(), radial_menu::defaultItemIds());
    EXPECT_EQ(pane.preview()->drawing().ringButtons.size(), 11u);
    EXPECT_TRUE(pane.preview()->drawing().ringDisabled);

    // Each editor writes its key and says so.
    struct Row {
        std::function<void()> edit;
        std::string key;
        std::function<bool()> stored;
    };
    const std::vector<Row> rows = {
        {[&] { pane.showButton()->setChecked(false); }, "floatingButtonActivation",
         [&] { return !settings.floatingButtonActivation(); }},
        {[&] { pane.buttonSize()->setValue(64); }, "floatingRecordButtonSize",
         [&] { return settings.floatingRecordButtonSize() == 64; }},
        {[&] { pane.transparency()->setValue(40); }, "floatingRecordButtonTransparency",
         [&] { return settings.floatingRecordButtonTransparency() == 40; }},
        {[&] { pane.showAITools()->setChecked(true); }, "floatingRecordShowAITools",
         [&] { return settings.floatingRecordShowAITools(); }},
        {[&] { pane.overlaySize()->setValue(160); }, "overlaySize", [&] { return settings.overlaySize() == 160; }},
    };
    for (const auto& row : rows) {
        changed.clear();
        row.edit();
        EXPECT_EQ(changed, std::vector<std::string>{row.key});
        EXPECT_TRUE(row.stored()) << row.key;
    }
    EXPECT_EQ(pane.preview()->drawing().overlaySize, 160);

    // Unticking an action takes it off the ring; moving one changes the ring's order.
    changed.clear();
    pane.ringItems()->item(0)->setCheckState(Qt::Unchecked); // "Actions"
    auto expected = radial_menu::defaultItemIds();
    expected.erase(expected.begin());
    EXPECT_EQ(radial_menu::decodeItemIds(settings.floatingRecordSelectedItemIDsJson()), expected);
    EXPECT_EQ(changed, std::vector<std::string>{"floatingRecord.selectedItemIDs.json"});
    EXPECT_EQ(pane.preview()->drawing().ringButtons.size(), 10u);
    pane.ringItems()->setCurrentRow(2); // the third ticked, "Add Emoji"
    pane.moveSelected(-1);
    std::swap(expected[0], expected[1]);
    EXPECT_EQ(radial_menu::decodeItemIds(settings.floatingRecordSelectedItemIDsJson()), expected);
    EXPECT_EQ(pane.preview()->drawing().ringButtons[1].id, expected[0]);
    desktoptest::settle();
    std::filesystem::create_directories(desktoptest::screenshotFolder());
    pane.grab().save(QString::fromStdString((desktoptest::screenshotFolder() / "floating-button-tab.png").string()));

    // The default comes back with one click, and a reload shows the stored values again.
    pane.restoreDefault()->click();
    EXPECT_EQ(pane.chosenIds(), radial_menu::defaultItemIds());
    settings.setFloatingButtonActivation(true);
    pane.reload();
    EXPECT_TRUE(pane.showButton()->isChecked());
}

TEST_F(FloatingButtonPaneTest, UntickingShowTheButtonTakesItOffTheScreenAtOnce) {
    platform::QtMainLoop loop;
    platform::QtScreens screens;
    platform::QtOverlayPanelFactory factory(screens);
    platform::QtPointerLocation pointer(screens);
    platform::X11WindowList windows(screens);
    HitTestManager hits(screens);
    AppStateRealtimeMirror mirror;
    AppState appState(mirror);
    NoActions actions;
    std::optional<OverlayType> lastShown;
    OverlayHost host;
    host.appStatus = [] { return AppActivity::idle; };
    host.lastShownOverlayType = [&] { return lastShown; };
    OverlayScreenControllerImpl overlay(OverlayScreenControllerDependencies{
        loop, screens, tp, pointer, windows, factory, settings, appState, actions, hits, host});
    auto show = [&](OverlayType type, bool force) {
        overlay.clearOverlays();
        lastShown = type;
        overlay.placeOverlay(type, force);
    };
    // What the application does on removal with the button turned off: every panel is cleared.
    FloatingButtonController controller(FloatingButtonControllerDependencies{
        settings, screens, pointer, [] { return AppActivity::idle; }, show,
        [&](bool, bool) { overlay.clearOverlays(); }, nullptr});
    platform::FloatingButtonPane pane(settings);
    pane.onSettingChanged = [&](const std::string& key) { controller.settingChanged(key); };

    show(OverlayType::button, true);
    const auto screen = overlay.currentScreenName();
    ASSERT_TRUE(screen);
    auto* panel = static_cast<platform::QtOverlayPanel*>(overlay.panel(*screen));
    ASSERT_NE(panel, nullptr);
    ASSERT_TRUE(processUntil([&] { return panel->widget()->isVisible(); }));
    Display* x = desktoptest::Desktop::instance().x();
    const auto window = static_cast<Window>(panel->widget()->winId());
    auto viewable = [&] {
        XWindowAttributes attributes{};
        return XGetWindowAttributes(x, window, &attributes) && attributes.map_state == IsViewable;
    };
    ASSERT_TRUE(processUntil(viewable)) << "the button is on the screen";

    pane.showButton()->setChecked(false);
    EXPECT_FALSE(panel->widget()->isVisible()) << "hidden as the box is unticked";
    EXPECT_TRUE(hits.activeRegions().empty()) << "no invisible region keeps taking clicks";
    EXPECT_TRUE(processUntil([&] { return !viewable(); })) << "the X server has it off the screen";

    // Ticked again, it is back, in the size the tab sets.
    pane.buttonSize()->setValue(72);
    pane.showButton()->setChecked(true);
    ASSERT_TRUE(processUntil(viewable));
    EXPECT_EQ(overlay.lastOverlaySize(), 72);
}

TEST_F(FloatingButtonPaneTest, ThePointerOverTheRingLightsTheButtonAClickWouldPress) {
    // The recording overlay at its default 112 points with the default ring.
    FloatingRecordViewModel model(tp.loop(), settings, fixedCatalogue());
    platform::OverlayDrawing drawing;
    drawing.kind = platform::OverlayDrawing::Kind::recording;
    drawing.canvasSize = drawing.overlaySize = 112;
    drawing.showTimer = true;
    drawing.timerText = "00:04";
    drawing.bars = {{0, 40, 4, 30}, {0, 30, 4, 50}};
    addRadialMenu(drawing, model.itemsWithStop(), false);
    const auto& buttons = drawing.ringButtons;
    ASSERT_EQ(buttons.size(), 11u);

    // At 112 points neighbours overlap and the click areas sit 3 points below the drawing: over a button's own
    // centre the one registered before it often wins (over the first action, the stop button). The light follows
    // the click, not the picture.
    auto at = [&](std::size_t i) { return platform::ringButtonAt(drawing, QPointF(buttons[i].center.x, buttons[i].center.y)); };
    EXPECT_EQ(at(0), "__STOP__");
    EXPECT_EQ(at(1), "__STOP__");
    EXPECT_EQ(at(2), buttons[1].id);
    EXPECT_EQ(at(5), buttons[5].id);
    EXPECT_EQ(at(10), buttons[4].id) << "Voice to Text, at 180 degrees";
    EXPECT_EQ(platform::ringButtonAt(drawing, QPointF(56, 56)), "center");

    platform::OverlayPanelWidget widget;
    widget.setDrawing(drawing);
    widget.resize(112, 112);
    widget.move(200, 200);
    widget.show();
    ASSERT_TRUE(processUntil([&] { return widget.windowHandle() && widget.windowHandle()->isExposed(); }));
    const QPointF over(buttons[5].center.x, buttons[5].center.y);
    QMouseEvent move(QEvent::MouseMove, over, widget.mapToGlobal(over), Qt::NoButton, Qt::NoButton, Qt::NoModifier);
    QCoreApplication::sendEvent(&widget, &move);
    EXPECT_EQ(widget.toolTip().toStdString(), buttons[5].title);
    desktoptest::settle();
    std::filesystem::create_directories(desktoptest::screenshotFolder());
    widget.grab().scaled(336, 336, Qt::KeepAspectRatio, Qt::SmoothTransformation)
        .save(QString::fromStdString((desktoptest::screenshotFolder() / "floating-ring-112-hover.png").string()));
}

} // namespace
} // namespace sprelio

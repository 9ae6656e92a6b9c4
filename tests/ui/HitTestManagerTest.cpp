#include <gtest/gtest.h>

#include "platform/GlobalInput.h"
#include "platform/test/TestPlatform.h"
#include "ui/HitTestManager.h"

using sprelio::HitTestManager;
using sprelio::platform::Point;
using sprelio::platform::Rect;
using sprelio::platform::ScreenInfo;
using sprelio::platform::test::RecordingLogSink;
using sprelio::platform::test::TestPlatform;
namespace type = sprelio::platform::global_event_type;

namespace {

struct Regions {
    TestPlatform tp;
    HitTestManager hits{tp};
    std::vector<std::string> fired;
    Regions() { tp.screenList = {ScreenInfo{"Main", std::string("1"), {0, 0, 1920, 1080}, 1.0, true}}; }
    std::function<void()> action(std::string name) {
        return [this, name] { fired.push_back(name); };
    }
};

} // namespace

TEST(HitTestManager, CircularRegionsAreStoredLargerAndThreePointsLower) {
    EXPECT_DOUBLE_EQ(HitTestManager::storedCircularRadius(10), 19.33);
    EXPECT_DOUBLE_EQ(HitTestManager::storedCircularRadius(16), 19.33);
    EXPECT_DOUBLE_EQ(HitTestManager::storedCircularRadius(256), 215.33);
    EXPECT_DOUBLE_EQ(HitTestManager::storedCircularRadius(300), 215.33);
    EXPECT_NEAR(HitTestManager::storedCircularRadius(136), 117.33, 1e-9);

    Regions r;
    EXPECT_EQ(r.hits.addCircularRegion("cancel", {100, 200}, 10, r.action("cancel")), "cancel");
    ASSERT_EQ(r.hits.activeRegions().size(), 1u);
    const auto& stored = r.hits.activeRegions().front();
    EXPECT_FALSE(stored.isSquare);
    EXPECT_EQ(stored.center, (Point{100, 197}));
    EXPECT_DOUBLE_EQ(stored.radius, 19.33);
    // The stored circle, not the given one, decides: 19 points left of the centre is inside, 20 is not.
    EXPECT_TRUE(r.hits.handleMouseEvent(type::kLeftMouseDown, {81, 197}));
    EXPECT_FALSE(r.hits.handleMouseEvent(type::kLeftMouseDown, {80, 197}));
}

TEST(HitTestManager, ARegionWithAnExistingIdReplacesItAndMovesToTheEnd) {
    Regions r;
    r.hits.addSquareOverlayRegion("a", {0, 0, 10, 10}, r.action("a1"));
    r.hits.addSquareOverlayRegion("b", {0, 0, 10, 10}, r.action("b"));
    r.hits.addSquareOverlayRegion("a", {0, 0, 10, 10}, r.action("a2"));
    ASSERT_EQ(r.hits.activeRegions().size(), 2u);
    EXPECT_EQ(r.hits.activeRegions()[0].id, "b");
    EXPECT_EQ(r.hits.activeRegions()[1].id, "a");
    // "b" now stands first and wins where both lie.
    EXPECT_TRUE(r.hits.handleMouseEvent(type::kLeftMouseUp, {5, 5}));
    EXPECT_EQ(r.fired, (std::vector<std::string>{"b"}));
}

TEST(HitTestManager, PressAndReleaseOverARegionAreSwallowedAndTheReleaseActs) {
    Regions r;
    // The recording overlay's pair: the cancel circle inside the square wins because it is registered first.
    r.hits.addCircularRegion("cancel", {1102, 540}, 10, r.action("cancel"));
    r.hits.addSquareOverlayRegion("recording", {1000, 484, 112, 112}, r.action("recording"));

    EXPECT_TRUE(r.hits.handleMouseEvent(type::kLeftMouseDown, {1102, 537}));
    EXPECT_TRUE(r.fired.empty()) << "nothing acts on the press";
    EXPECT_TRUE(r.hits.handleMouseEvent(type::kLeftMouseUp, {1102, 537}));
    EXPECT_EQ(r.fired, (std::vector<std::string>{"cancel"}));

    EXPECT_TRUE(r.hits.handleMouseEvent(type::kLeftMouseUp, {1010, 500}));
    EXPECT_EQ(r.fired, (std::vector<std::string>{"cancel", "recording"}));

    // Other buttons and moves over a region behave as if it were not there.
    EXPECT_FALSE(r.hits.handleMouseEvent(type::kRightMouseDown, {1010, 500}));
    EXPECT_FALSE(r.hits.handleMouseEvent(type::kRightMouseUp, {1010, 500}));
    EXPECT_FALSE(r.hits.handleMouseEvent(type::kMouseMoved, {1010, 500}));
    EXPECT_FALSE(r.hits.handleMouseEvent(type::kLeftMouseDragged, {1010, 500}));
    // Outside every region nothing is swallowed.
    EXPECT_FALSE(r.hits.handleMouseEvent(type::kLeftMouseDown, {900, 500}));
    EXPECT_FALSE(r.hits.handleMouseEvent(type::kLeftMouseUp, {900, 500}));
    EXPECT_EQ(r.fired.size(), 2u);
}

TEST(HitTestManager, PressOutsideReleaseInsideActsAndPressInsideReleaseOutsideDoesNot) {
    Regions r;
    r.hits.addSquareOverlayRegion("recording", {1000, 484, 112, 112}, r.action("recording"));
    EXPECT_FALSE(r.hits.handleMouseEvent(type::kLeftMouseDown, {900, 500}));
    EXPECT_TRUE(r.hits.handleMouseEvent(type::kLeftMouseUp, {1010, 500}));
    EXPECT_EQ(r.fired, (std::vector<std::string>{"recording"}));

    EXPECT_TRUE(r.hits.handleMouseEvent(type::kLeftMouseDown, {1010, 500}));
    EXPECT_FALSE(r.hits.handleMouseEvent(type::kLeftMouseUp, {900, 500}));
    EXPECT_EQ(r.fired.size(), 1u);
}

TEST(HitTestManager, TheButtonRegionLeavesItsClicksToTheControl) {
    Regions r;
    r.hits.addCircularRegion(HitTestManager::kButtonRegionID, {960, 540}, 56, r.action("button"));
    EXPECT_FALSE(r.hits.handleMouseEvent(type::kLeftMouseDown, {960, 540}));
    EXPECT_FALSE(r.hits.handleMouseEvent(type::kLeftMouseUp, {960, 540}));
    EXPECT_TRUE(r.fired.empty());
    ASSERT_NE(r.hits.regionAt({960, 540}), nullptr);
    EXPECT_EQ(r.hits.regionAt({960, 540})->id, "button");
}

TEST(HitTestManager, EventLocationsFromTheTopLeftAreTurnedToTheBottomLeftOfTheBaseScreen) {
    Regions r;
    // A second screen above the base screen.
    r.tp.screenList.push_back(ScreenInfo{"Above", std::string("2"), {0, 1080, 1920, 1080}, 1.0, false});
    r.hits.addSquareOverlayRegion("low", {100, 80, 20, 20}, r.action("low"));
    r.hits.addSquareOverlayRegion("high", {100, 1180, 20, 20}, r.action("high"));

    // 990 from the top is 90 from the bottom.
    EXPECT_TRUE(r.hits.shouldSwallowMouseEvent(type::kLeftMouseUp, {110, 990}));
    // 110 above the base screen's top: negative y, its absolute value added to the height.
    EXPECT_TRUE(r.hits.shouldSwallowMouseEvent(type::kLeftMouseUp, {110, -110}));
    EXPECT_EQ(r.fired, (std::vector<std::string>{"low", "high"}));
    EXPECT_FALSE(r.hits.shouldSwallowMouseEvent(type::kLeftMouseUp, {110, 500}));
}

TEST(HitTestManager, WithoutRegionsOrWithoutABaseScreenEverythingPasses) {
    RecordingLogSink log;
    Regions r;
    EXPECT_FALSE(r.hits.shouldSwallowMouseEvent(type::kLeftMouseDown, {10, 10}));
    EXPECT_FALSE(log.contains("HitTestManager.shouldSwallowMouseEvent() - Could not get base screen."))
        << "an empty list returns before anything else";

    r.hits.addSquareOverlayRegion("a", {0, 0, 1920, 1080}, r.action("a"));
    r.tp.screenList = {ScreenInfo{"Side", std::string("2"), {1920, 0, 1280, 1024}, 1.0, false}};
    EXPECT_FALSE(r.hits.shouldSwallowMouseEvent(type::kLeftMouseUp, {10, 10}));
    EXPECT_TRUE(log.contains("HitTestManager.shouldSwallowMouseEvent() - Could not get base screen.",
                             sprelio::LogLevel::warning));
    EXPECT_TRUE(r.fired.empty());

    int changes = 0;
    r.hits.setOnRegionsChanged([&] { ++changes; });
    r.hits.clearAllOverlayRegions();
    EXPECT_TRUE(r.hits.activeRegions().empty());
    EXPECT_EQ(changes, 1);
    EXPECT_TRUE(log.contains("HitTestManager.clearAllOverlayRegions() - Clearing all overlay regions."));
    EXPECT_FALSE(r.hits.handleMouseEvent(type::kLeftMouseUp, {10, 10}));
}

TEST(HitTestManager, InputShapesAreTheStoredRegions) {
    Regions r;
    r.hits.addCircularRegion("cancel", {1102, 540}, 10, r.action("cancel"));
    r.hits.addSquareOverlayRegion("recording", {1000, 484, 112, 112}, r.action("recording"));
    const auto shapes = r.hits.inputShapes();
    ASSERT_EQ(shapes.size(), 2u);
    EXPECT_FALSE(shapes[0].isSquare);
    EXPECT_EQ(shapes[0].center, (Point{1102, 537}));
    EXPECT_DOUBLE_EQ(shapes[0].radius, 19.33);
    EXPECT_TRUE(shapes[1].isSquare);
    EXPECT_EQ(shapes[1].frame, (Rect{1000, 484, 112, 112}));
}

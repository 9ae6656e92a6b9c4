// The event tap: the 10 ms decision on a modifier, the recorder's string and what it refuses, where events belong,
// the tap's own life (retry, restart, withdrawal), and the mouse shortcuts behind it.
#include <gtest/gtest.h>

#include "InputTestSupport.h"

using namespace sprelio;
using namespace sprelio::inputtest;
using namespace std::chrono_literals;
using platform::GlobalInputEvent;
namespace type = platform::global_event_type;

namespace {

class EventTapTest : public ::testing::Test {
protected:
    void SetUp() override { s.tp.frontmost = platform::RunningApplication{42, "org.gnome.gedit", "gedit"}; }
    void ownWindow(ContentViewTab tab, bool hovering) {
        s.tp.frontmost = platform::RunningApplication{7, "com.sprelio.app", "Sprelio"};
        s.mirror.setSelectedContentViewTab(tab);
        s.mirror.setUserIsHoveringContentView(hovering);
    }
    platform::test::RecordingLogSink log;
    InputStack s;
};

} // namespace

TEST_F(EventTapTest, AModifierHeldAloneStartsAfterTheDelayAndItsReleaseStops) {
    s.addTapShortcut(61, true);
    s.refresh();
    s.tap->registerEventTap(false);
    EXPECT_FALSE(s.input.flagsChanged(61, kRightOptionDown)); // modifier events are never swallowed
    s.tp.advance(9900us);
    s.tp.runUntilIdle();
    EXPECT_TRUE(s.session.calls.empty());
    s.tp.advance(100us);
    s.tp.runUntilIdle();
    EXPECT_EQ(s.session.calls, (std::vector<std::string>{"start:recordAndTranscribe"}));
    EXPECT_FALSE(s.input.flagsChanged(61, kNoFlags));
    s.tp.advance(10ms);
    s.tp.runUntilIdle();
    EXPECT_EQ(s.session.calls, (std::vector<std::string>{"start:recordAndTranscribe", "stop:recordAndTranscribe"}));
}

TEST_F(EventTapTest, ALetterWithinTheDelayCancelsTheModifierAndGoesOnAsItself) {
    s.addTapShortcut(61, true);
    s.refresh();
    s.tap->registerEventTap(false);
    s.input.flagsChanged(61, kRightOptionDown);
    s.tp.advance(5ms);
    EXPECT_FALSE(s.input.keyDown(0, kRightOptionDown, std::string("a")));
    s.tp.advance(50ms);
    s.tp.runUntilIdle();
    EXPECT_TRUE(s.session.calls.empty());
    EXPECT_FALSE(s.tap->hasPendingModifierDecision());
    EXPECT_FALSE(log.containsPrefix("KeyboardShortcutManager.executeActionForKeyCode() - keyCode: 61"));
}

TEST_F(EventTapTest, RepeatedFlagsChangesWithinTheDelayActOnlyOnceWithTheLatestEvent) {
    s.addTapShortcut(61, true);
    s.refresh();
    s.tap->registerEventTap(false);
    s.input.flagsChanged(61, kRightOptionDown);
    s.tp.advance(3ms);
    s.input.flagsChanged(61, kNoFlags);
    s.tp.advance(3ms);
    s.input.flagsChanged(61, kRightOptionDown);
    s.tp.advance(30ms);
    s.tp.runUntilIdle();
    EXPECT_EQ(s.session.calls, (std::vector<std::string>{"start:recordAndTranscribe"}));
    EXPECT_EQ(log.count("KeyboardShortcutManager.executeActionForKeyCode() - keyCode: 61, isKeyDown: true"), 1u);
}

TEST_F(EventTapTest, TapModeNeedsASecondPress) {
    s.addTapShortcut(61, false);
    s.refresh();
    s.tap->registerEventTap(false);
    s.input.flagsChanged(61, kRightOptionDown);
    s.tp.advance(10ms);
    s.input.flagsChanged(61, kNoFlags);
    s.tp.advance(10ms);
    s.tp.runUntilIdle();
    EXPECT_EQ(s.session.calls, (std::vector<std::string>{"startTimer:10", "start:recordAndTranscribe"}));
    s.input.flagsChanged(61, kRightOptionDown);
    s.tp.advance(10ms);
    s.tp.runUntilIdle();
    EXPECT_EQ(s.session.calls,
              (std::vector<std::string>{"startTimer:10", "start:recordAndTranscribe", "stop:recordAndTranscribe"}));
}

TEST_F(EventTapTest, ANonModifierTapKeyIsGrabbedAndSwallowedAndModifiersAreNeverGrabbed) {
    s.addTapShortcut(61, true);
    s.addTapShortcut(105, true, "recordAndTranscribe", 1);
    s.refresh();
    s.tap->registerEventTap(false);
    EXPECT_EQ(s.input.grabbedKeys(), (std::set<std::uint16_t>{105}));
    EXPECT_TRUE(s.input.keyDown(105));
    EXPECT_TRUE(log.contains("EventTapManager.shouldSwallowKeyEvent() - swallowing key event"));
    EXPECT_TRUE(s.input.keyUp(105));
    EXPECT_FALSE(s.input.keyDown(0, kNoFlags, std::string("a")));
    // A removed key is released again; deregistering releases all.
    s.keyboard.unregisterKeysForShortcut(s.shortcuts()[1]);
    EXPECT_TRUE(s.input.grabbedKeys().empty());
    s.addMouseShortcut(3, true, 2);
    s.refresh();
    EXPECT_EQ(s.input.grabbedButtons(), (std::set<std::int64_t>{3}));
    s.tap->deregisterEventTap();
    EXPECT_TRUE(s.input.grabbedButtons().empty());
    EXPECT_FALSE(s.input.hasEventHandler());
    EXPECT_TRUE(log.contains("EventTapManager.deregisterEventTap() - event tap successfully removed"));
    s.tap->deregisterEventTap();
    EXPECT_TRUE(log.contains("EventTapManager.deregisterEventTap() - no active event tap to deregister"));
}

TEST_F(EventTapTest, EventsBelongToTheHotkeysExceptOverOurWindowOnTabsWithoutDictation) {
    EXPECT_TRUE(s.tap->shouldHandleAsGlobal());
    ownWindow(ContentViewTab::settings, false);
    EXPECT_FALSE(s.tap->shouldHandleAsGlobal());
    EXPECT_TRUE(log.contains("AppHelpers.shouldHandleAsGlobal => false (frontmost + not hovering)"));
    ownWindow(ContentViewTab::settings, true);
    EXPECT_FALSE(s.tap->shouldHandleAsGlobal());
    EXPECT_TRUE(log.contains("AppHelpers.shouldHandleAsGlobal => false (frontmost + hovered Settings)"));
    ownWindow(ContentViewTab::ai, true);
    EXPECT_TRUE(s.tap->shouldHandleAsGlobal());
    EXPECT_TRUE(log.contains("AppHelpers.shouldHandleAsGlobal => true (frontmost + hovered AI)"));
    ownWindow(ContentViewTab::sendreport, true);
    EXPECT_TRUE(s.tap->shouldHandleAsGlobal());

    // On the settings tab a hotkey does nothing and keys pass unless the recorder records.
    s.addTapShortcut(105, true);
    s.refresh();
    s.tap->registerEventTap(false);
    ownWindow(ContentViewTab::settings, true);
    EXPECT_FALSE(s.input.keyDown(105));
    s.tp.runUntilIdle();
    EXPECT_TRUE(s.session.calls.empty());
    s.tap->setIsRecording(true);
    EXPECT_TRUE(s.input.keyDown(105, kNoFlags, std::string("\xef\x9c\x90"))); // F13 types a private-use character
    EXPECT_EQ(s.tap->currentString(), "F13");
}

TEST_F(EventTapTest, TheRecorderBuildsTheStringAndRefusesBlockedKeys) {
    s.tap->registerEventTap(false);
    ownWindow(ContentViewTab::settings, true);
    s.tap->setIsRecording(true);
    EXPECT_TRUE(s.input.keyDown(0, kNoFlags | event_flags::kControl | event_flags::kCommand, std::string("a")));
    EXPECT_EQ(s.tap->currentString(), "⌃⌘A");
    EXPECT_TRUE(log.contains("shouldSwallowKeyEvent() - currentString: ⌃⌘A"));
    EXPECT_TRUE(s.input.flagsChanged(61, kRightOptionDown | event_flags::kShift));
    EXPECT_EQ(s.tap->currentString(), "⌥⇧");
    // With Option the character without modifiers is taken.
    GlobalInputEvent optionA;
    optionA.type = type::kKeyDown;
    optionA.keyCode = 0;
    optionA.flags = kRightOptionDown;
    optionA.characters = "å";
    optionA.charactersIgnoringModifiers = "a";
    EXPECT_TRUE(s.input.inject(optionA));
    EXPECT_EQ(s.tap->currentString(), "⌥A");

    // Escape: remembered as special, the string stays.
    EXPECT_TRUE(s.input.keyDown(53));
    EXPECT_EQ(s.tap->specialKeyCode(), SpecialKeycode::escape);
    EXPECT_EQ(s.tap->currentString(), "⌥A");

    // Fn alone gives "Fn"; with another modifier only that modifier shows.
    EXPECT_TRUE(s.input.flagsChanged(63, kNoFlags | event_flags::kFunction));
    EXPECT_EQ(s.tap->currentString(), "Fn");
    EXPECT_EQ(s.tap->specialKeyCode(), SpecialKeycode::none);
    EXPECT_TRUE(s.input.flagsChanged(63, kNoFlags | event_flags::kFunction | event_flags::kShift));
    EXPECT_EQ(s.tap->currentString(), "⇧");

    // Space is refused with the sound; Command+Delete is built like any key.
    s.tp.clearCalls();
    EXPECT_TRUE(s.input.keyDown(49, kNoFlags | event_flags::kShift, std::string(" ")));
    EXPECT_TRUE(log.contains("EventTapManager.shouldSwallowKeyEvent() - blocked keyCode 49, swallowing early",
                             LogLevel::warning));
    EXPECT_FALSE(s.tp.called("sound:Basso")); // asynchronous
    s.tp.runUntilIdle();
    EXPECT_TRUE(s.tp.called("sound:Basso"));
    EXPECT_TRUE(s.input.keyDown(117, kNoFlags | event_flags::kCommand, std::string("\x7f")));
    EXPECT_EQ(s.tap->currentString(), "⌘⌦");

    // Command+Tab never reaches the string.
    EXPECT_TRUE(s.input.keyDown(48, kNoFlags | event_flags::kCommand, std::string("\t")));
    EXPECT_EQ(s.tap->currentString(), "⌘⌦");
}

TEST_F(EventTapTest, RecordingGrabsTheKeyboardOnThePrimarySourceAndRestoresTheFormerOne) {
    s.input.selectInputSource(2);
    s.input.clearCalls();
    s.tap->setIsRecording(true);
    EXPECT_TRUE(s.input.keyboardGrabbed());
    EXPECT_EQ(s.input.currentInputSource(), 0);
    EXPECT_TRUE(log.contains("EventTapManager.isRecording{} - savedInputSource: 2"));
    s.input.selectInputSource(1); // switched by other means meanwhile
    s.tap->setIsRecording(false);
    EXPECT_FALSE(s.input.keyboardGrabbed());
    EXPECT_EQ(s.input.currentInputSource(), 2);
    // Not recording on our own window: keys pass untouched.
    ownWindow(ContentViewTab::settings, true);
    s.tap->registerEventTap(false);
    EXPECT_FALSE(s.input.keyDown(0, kNoFlags, std::string("a")));
}

TEST_F(EventTapTest, RegistrationRetriesWhileTheAccessibilityWarningStandsUnlessTheUserAsked) {
    s.accessibilityWarning = true;
    s.tap->registerEventTap(false);
    EXPECT_FALSE(s.tap->isEventTapRegistered());
    EXPECT_TRUE(log.contains(
        "EventTapManager.registerEventTap() - Accessibility warning is active, skipping event tap registration",
        LogLevel::warning));
    s.tp.advance(1999ms);
    EXPECT_FALSE(log.contains("EventTapManager.registerEventTap() - Retrying event tap registration after delay"));
    s.tp.advance(1ms);
    EXPECT_EQ(log.count("EventTapManager.registerEventTap() - Retrying event tap registration after delay"), 1u);
    s.tp.advance(2s);
    EXPECT_EQ(log.count("EventTapManager.registerEventTap() - Retrying event tap registration after delay"), 2u);
    s.accessibilityWarning = false;
    s.tp.advance(2s);
    EXPECT_TRUE(s.tap->isEventTapRegistered());
    s.tp.advance(10s);
    EXPECT_EQ(log.count("EventTapManager.registerEventTap() - Retrying event tap registration after delay"), 3u);

    s.tap->registerEventTap(false);
    EXPECT_TRUE(log.contains("EventTapManager.registerEventTap() - already registered, skipping", LogLevel::warning));

    InputStack other;
    other.accessibilityWarning = true;
    other.tap->registerEventTap(true);
    EXPECT_TRUE(other.tap->isEventTapRegistered());
    EXPECT_TRUE(log.contains(
        "EventTapManager.registerEventTap() - Accessibility warning is active, but user triggered, proceeding"));
}

TEST_F(EventTapTest, AWithdrawnAccessDropsTheEventAndRemovesTheTap) {
    s.addTapShortcut(105, true);
    s.refresh();
    s.tap->registerEventTap(false);
    s.accessibilityWarning = true;
    EXPECT_TRUE(s.input.keyDown(105));
    EXPECT_TRUE(log.contains("EventTapManager.eventTapCallback() - Accessibility permissions are disabled. "
                             "Deregistering event tap to avoid blocking input.",
                             LogLevel::error));
    EXPECT_FALSE(s.tap->isEventTapRegistered());
    EXPECT_FALSE(s.input.hasEventHandler());
    EXPECT_TRUE(s.input.grabbedKeys().empty());
    s.tp.runUntilIdle();
    EXPECT_TRUE(s.session.calls.empty());
}

TEST_F(EventTapTest, ATimeoutRestartsTheTapAfterATenthOfASecond) {
    s.tap->registerEventTap(false);
    GlobalInputEvent timeout;
    timeout.type = type::kTapDisabledByTimeout;
    EXPECT_TRUE(s.input.inject(timeout));
    EXPECT_TRUE(log.contains("EventTapManager.eventTapCallback() - ERROR: tapDisabledByTimeout, restarting CGEventTap...",
                             LogLevel::error));
    log.clear();
    s.tp.advance(99ms);
    EXPECT_FALSE(log.contains("EventTapManager.registerEventTap()"));
    s.tp.advance(1ms);
    EXPECT_TRUE(log.contains("EventTapManager.registerEventTap()"));
    EXPECT_FALSE(log.contains("EventTapManager.registerEventTap() - already registered, skipping"));
    EXPECT_TRUE(s.tap->isEventTapRegistered());
    // Disabled by user input has no handling: it passes as an event of no interest.
    timeout.type = type::kTapDisabledByUserInput;
    EXPECT_FALSE(s.input.inject(timeout));
}

TEST_F(EventTapTest, AFailedTapIsCriticalOnlyWhenAccessIsGranted) {
    s.input.available = false;
    s.tap->registerEventTap(false);
    EXPECT_TRUE(log.contains("EventTapManager.eventTap{} - registerEventTap() - Unable to create CGEventTap! (WARNING)",
                             LogLevel::warning));
    EXPECT_FALSE(s.tap->isEventTapRegistered());

    InputStack other;
    other.input.available = false;
    EventTapManager granted(EventTapManagerDependencies{
        other.tp.loop(), other.input, other.tp, other.tp, other.mirror, other.keyboard, other.mouse, "com.sprelio.app",
        [] { return false; }, [&] { other.usabilityChecks.push_back("tap"); }, [] { return true; }, {}});
    granted.registerEventTap(false);
    EXPECT_TRUE(log.contains("EventTapManager.eventTap{} - registerEventTap() - Unable to create CGEventTap! (CRITICAL)",
                             LogLevel::critical));
    EXPECT_TRUE(other.usabilityChecks.empty());
    other.tp.runUntilIdle();
    EXPECT_EQ(other.usabilityChecks, std::vector<std::string>{"tap"});
}

TEST_F(EventTapTest, ABoundMouseButtonIsSwallowedAndActsOncePerPress) {
    s.addMouseShortcut(3, true);
    s.refresh();
    s.tap->registerEventTap(false);
    EXPECT_EQ(s.input.grabbedButtons(), (std::set<std::int64_t>{3}));
    EXPECT_TRUE(s.input.mouseDown(3, 10.0));
    EXPECT_EQ(s.mouse.tsDown(), 10.0);
    EXPECT_FALSE(s.mouse.tsUp());
    EXPECT_TRUE(s.input.mouseUp(3, 10.5));
    EXPECT_FALSE(s.mouse.tsDown());
    EXPECT_EQ(s.mouse.tsUp(), 10.5);
    EXPECT_TRUE(s.input.mouseUp(3, 11.0)); // still swallowed, but runs nothing
    s.tp.runUntilIdle();
    EXPECT_EQ(s.session.calls, (std::vector<std::string>{"start:recordAndTranscribe", "stop:recordAndTranscribe"}));
    EXPECT_EQ(s.appState.currentlyActiveUserShortcut()->mouseEventMouseButton(), 3);

    // An unbound right click reaches the application; the left button only serves the regions.
    EXPECT_FALSE(s.input.mouseDown(1, 12.0));
    EXPECT_FALSE(s.input.mouseUp(1, 12.1));
    EXPECT_FALSE(s.input.mouseDown(0, 12.2));
}

TEST_F(EventTapTest, TwoShortcutsOnOneButtonAndTheOverlayRegions) {
    s.addMouseShortcut(4, false, 3, "showHistory");
    s.addMouseShortcut(4, false, 1, "showSubstitutions");
    s.refresh();
    s.tap->registerEventTap(false);
    EXPECT_TRUE(s.input.mouseDown(4, 1.0));
    s.tp.runUntilIdle();
    EXPECT_EQ(s.session.calls, (std::vector<std::string>{"show:substitutions"}));

    InputStack other;
    int regionTests = 0;
    EventTapManager regions(EventTapManagerDependencies{
        other.tp.loop(), other.input, other.tp, other.tp, other.mirror, other.keyboard, other.mouse, "com.sprelio.app",
        {}, {}, {}, [&](const GlobalInputEvent& e) { ++regionTests; return e.type == type::kLeftMouseDown; }});
    regions.registerEventTap(false);
    EXPECT_TRUE(other.input.mouseDown(0, 1.0));
    EXPECT_TRUE(log.contains("EventTapManager.shouldSwallowMouseEvent() - swallowed by HitTestManager - #690"));
    EXPECT_FALSE(other.input.mouseUp(0, 1.1));
    EXPECT_FALSE(other.input.keyDown(0));
    EXPECT_EQ(regionTests, 2);
}

TEST_F(EventTapTest, OnOurOwnWindowAPressIsRecordedForTheEditedShortcutAndGoesOn) {
    auto target = s.addTapShortcut(61, true);
    s.addMouseShortcut(3, true, 1);
    s.refresh();
    s.tap->registerEventTap(false);
    ownWindow(ContentViewTab::settings, true);
    // Not recording: a bound button acts as an ordinary click here.
    EXPECT_FALSE(s.input.mouseDown(3, 1.0));
    s.tp.runUntilIdle();
    EXPECT_TRUE(s.session.calls.empty());
    s.mouse.recordMouseShortcut = true;
    EXPECT_FALSE(s.input.mouseDown(5, 2.0));
    EXPECT_EQ(target->modifierEventKeyCode(), 61); // no target yet
    s.mouse.recordMouseShortcutEditingUserShortcut = target;
    EXPECT_FALSE(s.input.mouseDown(5, 3.0));
    EXPECT_EQ(target->mouseEventMouseButton(), 5);
    EXPECT_EQ(target->modifierEventKeyCode(), -1);
    EXPECT_EQ(target->shortcutString(), "Mouse 5");
    EXPECT_FALSE(s.input.mouseUp(5, 3.1));
}

TEST_F(EventTapTest, MouseHandlersWithoutTheDelegateLetEverythingThrough) {
    MouseShortcutManager orphan(MouseShortcutManagerDependencies{s.tp.loop(), s.appState, nullptr, {}, {}});
    GlobalInputEvent e;
    e.type = type::kRightMouseDown;
    e.buttonNumber = 1;
    EXPECT_FALSE(orphan.handleGlobalMouseDownEvent(e));
    EXPECT_FALSE(orphan.handleGlobalMouseUpEvent(e));
    EXPECT_TRUE(log.contains("handleGlobalMouseDownEvent() - failed to retrieve cached user shortcuts from appDelegate",
                             LogLevel::error));
}

#pragma once
// The overlay controller on the test platform: panels, pointer, window list and shortcut actions faked, the
// application's state in plain fields.
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "audio/RecordingAudio.h"
#include "shared/AppState.h"
#include "input/ShortcutActionDispatcher.h"
#include "platform/OverlayPanels.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "ui/HitTestManager.h"
#include "ui/OverlayScreenControllerImpl.h"

namespace sprelio::overlaytest {

using platform::Point;
using platform::Rect;

class FakePanel final : public platform::OverlayPanel {
public:
    explicit FakePanel(std::string screenName) : screen(std::move(screenName)) {}
    void setFrame(const Rect& value) override { frameValue = value; }
    Rect frame() const override { return frameValue; }
    void setDrawing(const platform::OverlayDrawing& value) override {
        drawing = value;
        ++drawings;
    }
    void setInputShapes(const std::vector<platform::OverlayInputShape>& value) override { shapes = value; }
    void orderFront() override {
        visible = true;
        ++fronts;
    }
    void hide() override { visible = false; }
    bool isVisible() const override { return visible; }
    void setMouseHandler(MouseHandler value) override { handler = std::move(value); }

    // The panel's window reports a left button event.
    void mouse(int type, Point at) {
        if (handler) handler(type, at);
    }
    void click(Point at) {
        mouse(1, at);
        mouse(2, at);
    }

    std::string screen;
    Rect frameValue;
    platform::OverlayDrawing drawing;
    int drawings = 0;
    std::vector<platform::OverlayInputShape> shapes;
    bool visible = false;
    int fronts = 0;
    MouseHandler handler;
    bool* closed = nullptr;
    ~FakePanel() override {
        if (closed) *closed = true;
    }
};

class FakePanelFactory final : public platform::OverlayPanelFactory {
public:
    std::unique_ptr<platform::OverlayPanel> makePanel(const platform::ScreenInfo& screen) override {
        auto panel = std::make_unique<FakePanel>(screen.name);
        made.push_back(screen.name);
        live[screen.name] = panel.get();
        closedFlags.push_back(std::make_unique<bool>(false));
        panel->closed = closedFlags.back().get();
        return panel;
    }
    // The newest panel of a screen, while it lives.
    FakePanel* panel(const std::string& screen) {
        auto it = live.find(screen);
        return it == live.end() ? nullptr : it->second;
    }
    std::vector<std::string> made;
    std::map<std::string, FakePanel*> live;
    std::vector<std::unique_ptr<bool>> closedFlags;
};

class FakePointer final : public platform::PointerLocation {
public:
    std::optional<Point> mouseLocation() const override { return location; }
    std::optional<Point> location;
};

class FakeWindowList final : public platform::WindowList {
public:
    std::vector<platform::WindowInfo> windows() const override { return list; }
    std::vector<platform::WindowInfo> list;
};

class FakeActions final : public ShortcutActionDispatcher {
public:
    void keyDownAction(const UserShortcutPtr& shortcut) override {
        calls.push_back("down:" + shortcut->shortcutActionRawValue().value_or("") + (shortcut->hold() ? ":hold" : ":tap"));
    }
    void keyUpAction(const UserShortcutPtr& shortcut) override {
        calls.push_back("up:" + shortcut->shortcutActionRawValue().value_or("") + (shortcut->hold() ? ":hold" : ":tap"));
    }
    std::vector<std::string> calls;
};

// A recorder whose levels the test sets; each read takes the next one, nothing once they are used up.
class FakeLevels final : public RecordingAudio {
public:
    const std::filesystem::path& url() const override { return url_; }
    void setOnRecordingCompletion(Completion) override {}
    void record(const Uuid&, std::shared_ptr<const Stopwatch>) override {}
    void stop() override {}
    std::optional<float> averagePower() override {
        ++reads;
        if (levels.empty()) return std::nullopt;
        const float value = levels.front();
        levels.pop_front();
        return value;
    }
    std::deque<float> levels;
    int reads = 0;

private:
    std::filesystem::path url_ = "/tmp/levels.caf";
};

struct OverlayHarness {
    platform::test::TestPlatform tp;
    store::MemorySettingsStore settingsStore;
    store::AppConstants constants{tp};
    store::Settings settings{settingsStore, constants};
    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    FakePanelFactory panels;
    FakePointer pointer;
    FakeWindowList windows;
    FakeActions actions;
    HitTestManager hitTest{tp};

    AppActivity status = AppActivity::idle;
    std::optional<OverlayType> lastShown;
    std::shared_ptr<RecordingAudio> recorder;
    std::vector<std::string> hostCalls;
    std::unique_ptr<OverlayScreenControllerImpl> controller;

    static platform::ScreenInfo screen(std::string name, std::optional<std::string> key, Rect frame,
                                       bool primary = false) {
        return platform::ScreenInfo{std::move(name), std::move(key), frame, 1.0, primary};
    }

    explicit OverlayHarness(std::vector<platform::ScreenInfo> screens = {
                                screen("Main", std::string("main-id"), {0, 0, 1920, 1080}, true)}) {
        tp.screenList = std::move(screens);
        // With the floating button off unless a test turns it on: its own rules are tested apart.
        settings.setFloatingButtonActivation(false);
        OverlayHost host;
        host.appStatus = [this] { return status; };
        host.lastShownOverlayType = [this] { return lastShown; };
        host.recordAudio = [this] { return recorder; };
        host.cancelRecordingAndProcessing = [this] { hostCalls.push_back("cancel"); };
        host.showOverlay = [this](OverlayType type, bool force) {
            hostCalls.push_back("show:" + std::string(overlayTypeName(type)) + (force ? ":force" : ""));
            show(type, force);
        };
        host.checkUsability = [this](const std::string& caller) { hostCalls.push_back("checkUsability:" + caller); };
        controller = std::make_unique<OverlayScreenControllerImpl>(OverlayScreenControllerDependencies{
            tp.loop(), tp, tp, pointer, windows, panels, settings, appState, actions, hitTest, host});
    }

    // What AppDelegate.showOverlay does around the placement task.
    void show(OverlayType type, bool force = false) {
        controller->clearOverlays();
        lastShown = type;
        tp.loop().post([this, type, force] { controller->placeOverlay(type, force); });
    }
    void run() { tp.runUntilIdle(); }
    FakePanel* panel(const std::string& screen) { return panels.panel(screen); }
};

} // namespace sprelio::overlaytest

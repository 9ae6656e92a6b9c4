// The overlay panels on a real X desktop with a window manager: the panel stands where the logic put it, the
// application the user works in keeps the keyboard, clicks on the overlay's regions reach their actions, and every
// other click goes through to the window below.
#include <gtest/gtest.h>

#include <QPixmap>

#include <cmath>
#include <deque>
#include <memory>

#include "shared/AppState.h"
#include "shared/SessionShortcutBuilder.h"
#include "input/ShortcutActionDispatcher.h"
#include "platform/qt/QtMainLoop.h"
#include "platform/qt/QtOverlayPanels.h"
#include "platform/qt/QtScreens.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "ui/HitTestManager.h"
#include "ui/OverlayScreenControllerImpl.h"

#include "DesktopTestSupport.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using desktoptest::Desktop;
using desktoptest::processUntil;

// Levels that rise and fall like speech, one per read.
class SpeakingRecorder final : public RecordingAudio {
public:
    const std::filesystem::path& url() const override { return url_; }
    void setOnRecordingCompletion(Completion) override {}
    void record(const Uuid&, std::shared_ptr<const Stopwatch>) override {}
    void stop() override {}
    std::optional<float> averagePower() override {
        ++reads;
        return static_cast<float>(-34.0 + 30.0 * std::fabs(std::sin(reads * 0.55)));
    }
    int reads = 0;

private:
    std::filesystem::path url_ = "/tmp/speaking.caf";
};

class Actions final : public ShortcutActionDispatcher {
public:
    void keyDownAction(const UserShortcutPtr& s) override { calls.push_back("down:" + s->shortcutActionRawValue().value_or("")); }
    void keyUpAction(const UserShortcutPtr& s) override { calls.push_back("up:" + s->shortcutActionRawValue().value_or("")); }
    std::vector<std::string> calls;
};

// Another application's window below the overlay: it holds the focus and records the clicks it gets.
class ClickTarget {
public:
    ClickTarget() {
        display_ = XOpenDisplay(Desktop::instance().display().c_str());
        if (!display_) return;
        window_ = XCreateSimpleWindow(display_, DefaultRootWindow(display_), 100, 80, 900, 600, 0, 0, 0xc8d0d8);
        XStoreName(display_, window_, "Application below");
        const char wmClass[] = "below\0Below";
        XChangeProperty(display_, window_, XA_WM_CLASS, XA_STRING, 8, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(wmClass), sizeof wmClass);
        const long pid = ::getpid();
        XChangeProperty(display_, window_, XInternAtom(display_, "_NET_WM_PID", False), XA_CARDINAL, 32,
                        PropModeReplace, reinterpret_cast<const unsigned char*>(&pid), 1);
        // WM_NORMAL_HINTS with the user's position and size (flags 1 and 2), so that the window manager keeps them.
        long hints[18] = {1 | 2, 100, 80, 900, 600};
        XChangeProperty(display_, window_, XA_WM_NORMAL_HINTS, XA_WM_SIZE_HINTS, 32, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(hints), 18);
        XSelectInput(display_, window_, StructureNotifyMask | ButtonPressMask | ButtonReleaseMask | FocusChangeMask);
        XMapRaised(display_, window_);
        XSync(display_, False);
    }
    ~ClickTarget() {
        if (display_) XCloseDisplay(display_);
    }
    ClickTarget(const ClickTarget&) = delete;
    ClickTarget& operator=(const ClickTarget&) = delete;

    Window window() const { return window_; }
    void pump() {
        if (!display_) return;
        XSync(display_, False);
        while (XPending(display_)) {
            XEvent ev;
            XNextEvent(display_, &ev);
            if (ev.type == MapNotify) mapped_ = true;
            if (ev.type == ButtonPress) presses.push_back(QPoint(ev.xbutton.x_root, ev.xbutton.y_root));
        }
    }
    bool mapped() {
        pump();
        return mapped_;
    }
    // A window manager that is still starting may drop a map request: it is repeated until the window shows.
    bool mapUntilShown() {
        for (int attempt = 0; attempt < 20; ++attempt) {
            if (processUntil([&] { return mapped(); }, 500ms)) return true;
            XMapRaised(display_, window_);
            XSync(display_, False);
        }
        return false;
    }
    int mapState() {
        XWindowAttributes attributes{};
        XGetWindowAttributes(display_, window_, &attributes);
        return attributes.map_state;
    }
    void focus() {
        XSetInputFocus(display_, window_, RevertToParent, CurrentTime);
        XSync(display_, False);
    }
    std::vector<QPoint> presses;

private:
    Display* display_ = nullptr;
    Window window_ = 0;
    bool mapped_ = false;
};

class DesktopOverlay : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        app_ = desktoptest::application(&why);
        ASSERT_NE(app_, nullptr) << why;
        loop_ = std::make_unique<platform::QtMainLoop>();
        factory_ = std::make_unique<platform::QtOverlayPanelFactory>(screens_);
        pointer_ = std::make_unique<platform::QtPointerLocation>(screens_);
        windows_ = std::make_unique<platform::X11WindowList>(screens_);
        hits_ = std::make_unique<HitTestManager>(screens_);
        settings_.setFloatingButtonActivation(false);
        // The application in front is this process: its window is the one below.
        tp_.frontmost = platform::RunningApplication{::getpid(), "org.example.Below", std::string("Below")};

        OverlayHost host;
        host.appStatus = [this] { return status_; };
        host.lastShownOverlayType = [this] { return lastShown_; };
        host.recordAudio = [this] { return recorder_; };
        host.cancelRecordingAndProcessing = [this] { hostCalls_.push_back("cancel"); };
        host.showOverlay = [this](OverlayType type, bool force) { show(type, force); };
        host.checkUsability = [this](const std::string& caller) { hostCalls_.push_back("usability:" + caller); };
        controller_ = std::make_unique<OverlayScreenControllerImpl>(OverlayScreenControllerDependencies{
            *loop_, screens_, tp_, *pointer_, *windows_, *factory_, settings_, appState_, actions_, *hits_, host});

        target_ = std::make_unique<ClickTarget>();
        ASSERT_TRUE(target_->mapUntilShown()) << "map state " << target_->mapState();
        target_->focus();
        ASSERT_TRUE(processUntil([&] { return Desktop::instance().inputFocus() == target_->window(); }));
        // The window manager lists the window once it manages it.
        ASSERT_TRUE(processUntil([&] { return targetFrame().has_value(); }));
        // The window manager makes the focused window the active one.
        ASSERT_TRUE(processUntil([&] { return Desktop::instance().activeWindow() == target_->window(); }));
        activeBefore_ = Desktop::instance().activeWindow();
    }
    void TearDown() override {
        if (controller_) {
            status_ = AppActivity::idle;
            controller_->clearOverlays();
        }
        desktoptest::settle();
        controller_.reset();
        target_.reset();
        desktoptest::settle();
    }

    // AppDelegate.showOverlay's part around the placement task.
    void show(OverlayType type, bool force = false) {
        controller_->clearOverlays();
        lastShown_ = type;
        loop_->post([this, type, force] { controller_->placeOverlay(type, force); });
    }

    std::optional<platform::Rect> targetFrame() const {
        for (const auto& w : windows_->windows())
            if (w.ownerPID == ::getpid() && w.bounds) return w.bounds;
        return std::nullopt;
    }

    platform::QtOverlayPanel* shownPanel() const {
        const auto screen = controller_->currentScreenName();
        return screen ? static_cast<platform::QtOverlayPanel*>(controller_->panel(*screen)) : nullptr;
    }

    // The panel's window as the X server has it: viewable, and its frame in root coordinates.
    std::optional<QRect> xFrame(platform::QtOverlayPanel* panel) const {
        Display* x = Desktop::instance().x();
        const auto window = static_cast<Window>(panel->widget()->winId());
        XWindowAttributes attributes{};
        if (!XGetWindowAttributes(x, window, &attributes) || attributes.map_state != IsViewable) return std::nullopt;
        int rx = 0, ry = 0;
        Window child = 0;
        XTranslateCoordinates(x, window, DefaultRootWindow(x), 0, 0, &rx, &ry, &child);
        return QRect(rx, ry, attributes.width, attributes.height);
    }

    // Waits until the overlay of the type is on screen; its frame in root coordinates.
    QRect waitForOverlay(OverlayType type) {
        QRect frame;
        const bool shown = processUntil([&] {
            if (controller_->currentOverlayType() != type || !shownPanel()) return false;
            const auto f = xFrame(shownPanel());
            if (f) frame = *f;
            return f.has_value();
        });
        EXPECT_TRUE(shown) << "the " << overlayTypeName(type) << " overlay did not appear";
        return frame;
    }

    bool click(QPoint at) {
        // Motion and click go through one connection, so they arrive in order; "--sync" would wait for ever when
        // the pointer is there already.
        return Desktop::instance().run("xdotool mousemove " + std::to_string(at.x()) + " " + std::to_string(at.y()) +
                                       " click 1");
    }
    // A click that goes through reaches the window below; one that does not is the overlay's.
    bool clickReachesWindowBelow(QPoint at) {
        target_->pump();
        const std::size_t before = target_->presses.size();
        if (!click(at)) return false;
        processUntil([&] {
            target_->pump();
            return target_->presses.size() > before;
        }, 2s);
        return target_->presses.size() > before && target_->presses.back() == at;
    }
    void expectFocusUnchanged(const char* when) {
        EXPECT_EQ(Desktop::instance().inputFocus(), target_->window()) << when << " took the keyboard";
        EXPECT_EQ(Desktop::instance().activeWindow(), activeBefore_) << when << " changed the active window";
    }

    QApplication* app_ = nullptr;
    platform::test::TestPlatform tp_; // the workspace and folders; time and screens are the real ones
    std::unique_ptr<platform::QtMainLoop> loop_;
    platform::QtScreens screens_;
    store::MemorySettingsStore defaults_;
    store::AppConstants constants_{tp_};
    store::Settings settings_{defaults_, constants_};
    AppStateRealtimeMirror mirror_;
    AppState appState_{mirror_};
    Actions actions_;
    std::unique_ptr<platform::QtOverlayPanelFactory> factory_;
    std::unique_ptr<platform::QtPointerLocation> pointer_;
    std::unique_ptr<platform::X11WindowList> windows_;
    std::unique_ptr<HitTestManager> hits_;
    std::unique_ptr<OverlayScreenControllerImpl> controller_;
    std::unique_ptr<ClickTarget> target_;
    Window activeBefore_ = 0;

    AppActivity status_ = AppActivity::idle;
    std::optional<OverlayType> lastShown_;
    std::shared_ptr<RecordingAudio> recorder_;
    std::vector<std::string> hostCalls_;
};

TEST_F(DesktopOverlay, TranscribingOverlayStandsAtTheWindowCornerAndOnlyItsCancelCircleTakesClicks) {
    const auto below = targetFrame();
    ASSERT_TRUE(below);
    status_ = AppActivity::processing;
    show(OverlayType::transcribing);
    const QRect frame = waitForOverlay(OverlayType::transcribing);
    ASSERT_TRUE(frame.isValid());

    // The bottom right corner of the application's window, in X's coordinates (origin at the top left).
    EXPECT_EQ(frame, QRect(static_cast<int>(below->maxX()) - 112, static_cast<int>(below->maxY()) - 112, 112, 112));
    // The same place the logic computed in its own coordinates (origin at the bottom left).
    auto* panel = shownPanel();
    EXPECT_EQ(panel->frame(), (platform::Rect{below->maxX() - 112, 800 - below->maxY(), 112, 112}));
    expectFocusUnchanged("showing the overlay");
    EXPECT_TRUE(panel->widget()->windowFlags() & Qt::WindowDoesNotAcceptFocus);
    EXPECT_TRUE(panel->widget()->testAttribute(Qt::WA_ShowWithoutActivating));

    // Away from the cancel circle the overlay is not there for the mouse.
    EXPECT_TRUE(clickReachesWindowBelow(frame.topLeft() + QPoint(30, 56)));
    EXPECT_TRUE(clickReachesWindowBelow(frame.topLeft() + QPoint(56, 20)));
    desktoptest::settle();
    EXPECT_TRUE(hostCalls_.empty());

    desktoptest::saveScreenshot("overlay-transcribing-screen");
    panel->widget()->grab().save(QString::fromStdString(
        (desktoptest::screenshotFolder() / "overlay-transcribing.png").string()));

    // The cancel circle: 20 points in from the right edge on the middle line.
    const std::size_t pressesBefore = target_->presses.size();
    ASSERT_TRUE(click(frame.topLeft() + QPoint(112 - 20, 56)));
    ASSERT_TRUE(processUntil([&] { return hostCalls_ == std::vector<std::string>{"cancel"}; }))
        << "the cancel circle did not cancel";
    target_->pump();
    EXPECT_EQ(target_->presses.size(), pressesBefore) << "the window below saw the click on the cancel circle";
    expectFocusUnchanged("clicking the overlay");
}

TEST_F(DesktopOverlay, RecordingOverlayShowsTheMeterAndItsRegionsAct) {
    auto recorder = std::make_shared<SpeakingRecorder>();
    recorder_ = recorder;
    status_ = AppActivity::recording;
    show(OverlayType::recording);
    const QRect frame = waitForOverlay(OverlayType::recording);
    ASSERT_TRUE(frame.isValid());
    expectFocusUnchanged("showing the recording overlay");

    // Let the meter fill: one sample per 30 ms, all bars in use.
    ASSERT_TRUE(processUntil([&] { return recorder->reads >= 12; }));
    const auto drawing = controller_->currentDrawing();
    ASSERT_EQ(drawing.bars.size(), 7u);
    EXPECT_GT(drawing.bars.back().height, 2.0);
    desktoptest::settle();
    desktoptest::saveScreenshot("overlay-recording-screen");
    shownPanel()->widget()->grab().save(
        QString::fromStdString((desktoptest::screenshotFolder() / "overlay-recording.png").string()));

    // The whole square belongs to the recording: a click on the waveform ends a tapped dictation.
    appState_.setCurrentlyActiveUserShortcut(SessionShortcutBuilder::recordAndTranscribe());
    target_->pump();
    const std::size_t pressesBefore = target_->presses.size();
    ASSERT_TRUE(click(frame.topLeft() + QPoint(50, 40)));
    ASSERT_TRUE(processUntil([&] { return actions_.calls.size() == 1; })) << "the waveform click did not act";
    EXPECT_EQ(actions_.calls[0], "down:recordAndTranscribe");
    EXPECT_TRUE(hostCalls_.empty());

    // The cancel circle, 10 points in from the right edge, stands above the waveform.
    ASSERT_TRUE(click(frame.topLeft() + QPoint(112 - 10, 56)));
    ASSERT_TRUE(processUntil([&] { return hostCalls_ == std::vector<std::string>{"cancel"}; }));
    EXPECT_EQ(actions_.calls.size(), 1u);
    target_->pump();
    EXPECT_EQ(target_->presses.size(), pressesBefore);
    expectFocusUnchanged("clicking the recording overlay");

    // Removed, the overlay takes no click any more.
    status_ = AppActivity::idle;
    controller_->clearOverlays();
    ASSERT_TRUE(processUntil([&] { return !shownPanel(); }));
    EXPECT_TRUE(clickReachesWindowBelow(frame.topLeft() + QPoint(50, 40)));
}

TEST_F(DesktopOverlay, FloatingButtonStartsADictationAndCanBeDragged) {
    settings_.setFloatingButtonActivation(true);
    settings_.setFloatingRecordButtonTransparency(10);
    show(OverlayType::button, true);
    const QRect frame = waitForOverlay(OverlayType::button);
    ASSERT_TRUE(frame.isValid());
    // The canvas origin at the screen's middle less half the button: (616, 376) from the bottom left, so its top
    // lies 800 - 376 - 112 = 312 from the top.
    EXPECT_EQ(frame, QRect(616, 312, 112, 112));
    expectFocusUnchanged("showing the button");
    desktoptest::settle();
    desktoptest::saveScreenshot("overlay-button-screen");
    shownPanel()->widget()->grab().save(
        QString::fromStdString((desktoptest::screenshotFolder() / "overlay-button.png").string()));

    // The canvas's corner lies outside the round button: that click is the window's below.
    EXPECT_TRUE(clickReachesWindowBelow(frame.topLeft() + QPoint(4, 4)));

    // A click on the button starts a dictation in tap mode.
    ASSERT_TRUE(click(frame.center()));
    ASSERT_TRUE(processUntil([&] { return actions_.calls.size() == 1; })) << "the button did not act";
    EXPECT_EQ(actions_.calls[0], "down:recordAndTranscribe");
    ASSERT_NE(appState_.currentlyActiveUserShortcut(), nullptr);
    EXPECT_FALSE(appState_.currentlyActiveUserShortcut()->hold());
    ASSERT_TRUE(processUntil([&] { return hostCalls_ == std::vector<std::string>{"usability:AirButtonView.action{}"}; }));
    expectFocusUnchanged("clicking the button");

    // Dragged, the panel follows the mouse step by step and the button stays where it was dropped.
    const QPoint grip = frame.center();
    auto xdotool = [](const std::string& command) { return Desktop::instance().run("xdotool " + command); };
    auto panelAt = [&](QPoint offset) {
        return processUntil([&] {
            const auto f = xFrame(shownPanel());
            return f && *f == frame.translated(offset);
        });
    };
    // The pointer may rest there already after the click, so no "--sync", which would wait for a movement.
    ASSERT_TRUE(xdotool("mousemove " + std::to_string(grip.x()) + " " + std::to_string(grip.y()) + " mousedown 1"));
    ASSERT_TRUE(xdotool("mousemove " + std::to_string(grip.x() + 60) + " " + std::to_string(grip.y() + 30)));
    ASSERT_TRUE(panelAt({60, 30})) << "the panel did not follow the drag";
    ASSERT_TRUE(xdotool("mousemove " + std::to_string(grip.x() + 120) + " " + std::to_string(grip.y() + 70)));
    ASSERT_TRUE(panelAt({120, 70}));
    ASSERT_TRUE(xdotool("mouseup 1"));
    ASSERT_TRUE(processUntil([&] { return controller_->currentOverlayXPosition() == frame.x() + 120.0; }))
        << "the drop was not taken";
    desktoptest::settle();
    EXPECT_EQ(actions_.calls.size(), 1u) << "a drag is no click";
    EXPECT_EQ(controller_->currentOverlayYPosition(), std::optional<double>(800 - frame.bottom() - 1 - 70));
    expectFocusUnchanged("dragging the button");
}

} // namespace
} // namespace sprelio

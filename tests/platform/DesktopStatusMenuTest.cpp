// The status item on a real X desktop: its state images, the menu drawn from AppMenuBar with clicks going back to
// it, and the icon docked in a system tray (XEmbed, the protocol of the tray bars of X11 desktops).
#include <gtest/gtest.h>

#include <QAction>
#include <QMenu>
#include <QSystemTrayIcon>

#include <memory>
#include <set>

#include "audio/FakeAudioDevices.h"
#include "audio/MicrophoneManagerImpl.h"
#include "platform/linux/SystemClock.h"
#include "platform/qt/QtMainLoop.h"
#include "platform/qt/QtStatusItem.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/Persistence.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "ui/AppMenuBar.h"

#include "DesktopTestSupport.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using audio_test::FakeAudioDevices;
using desktoptest::Desktop;
using desktoptest::processUntil;
using platform::QtStatusItem;
using platform::test::RecordingLogSink;

// A system tray of the X11 kind: owns the tray selection, announces itself, and embeds every icon that asks to dock.
class XEmbedTray {
public:
    XEmbedTray() {
        display_ = XOpenDisplay(Desktop::instance().display().c_str());
        if (!display_) return;
        const Window root = DefaultRootWindow(display_);
        // A panel of its own, placed where it asks: the window manager leaves it alone.
        XSetWindowAttributes attributes{};
        attributes.override_redirect = True;
        attributes.background_pixel = 0x303030;
        window_ = XCreateWindow(display_, root, 1280 - 160, 0, 160, 32, 0, CopyFromParent, InputOutput,
                                CopyFromParent, CWOverrideRedirect | CWBackPixel, &attributes);
        XStoreName(display_, window_, "tray");
        XSelectInput(display_, window_, SubstructureNotifyMask | StructureNotifyMask);
        XMapRaised(display_, window_);
        const Atom selection = XInternAtom(display_, "_NET_SYSTEM_TRAY_S0", False);
        opcode_ = XInternAtom(display_, "_NET_SYSTEM_TRAY_OPCODE", False);
        long orientation = 0;
        XChangeProperty(display_, window_, XInternAtom(display_, "_NET_SYSTEM_TRAY_ORIENTATION", False), XA_CARDINAL,
                        32, PropModeReplace, reinterpret_cast<unsigned char*>(&orientation), 1);
        XSetSelectionOwner(display_, selection, window_, CurrentTime);
        XEvent manager{};
        manager.xclient.type = ClientMessage;
        manager.xclient.window = root;
        manager.xclient.message_type = XInternAtom(display_, "MANAGER", False);
        manager.xclient.format = 32;
        manager.xclient.data.l[0] = CurrentTime;
        manager.xclient.data.l[1] = static_cast<long>(selection);
        manager.xclient.data.l[2] = static_cast<long>(window_);
        XSendEvent(display_, root, False, StructureNotifyMask, &manager);
        XSync(display_, False);
        owner_ = XGetSelectionOwner(display_, selection) == window_;
    }
    ~XEmbedTray() {
        if (display_) XCloseDisplay(display_);
    }
    bool owns() const { return owner_; }
    Window window() const { return window_; }
    // Handles the dock requests that arrived; true once an icon is in the tray.
    bool pump() {
        while (display_ && XPending(display_)) {
            XEvent ev;
            XNextEvent(display_, &ev);
            if (ev.type == ClientMessage && ev.xclient.message_type == opcode_ && ev.xclient.data.l[1] == 0) {
                const Window icon = static_cast<Window>(ev.xclient.data.l[2]);
                // One icon is expected; a window that asks again (Qt makes its icon window anew once) takes the
                // same place.
                XReparentWindow(display_, icon, window_, 8, 0);
                XResizeWindow(display_, icon, 32, 32);
                // XEmbed: the icon learns that it is embedded, and where.
                XEvent notify{};
                notify.xclient.type = ClientMessage;
                notify.xclient.window = icon;
                notify.xclient.message_type = XInternAtom(display_, "_XEMBED", False);
                notify.xclient.format = 32;
                notify.xclient.data.l[0] = CurrentTime;
                notify.xclient.data.l[1] = 0; // XEMBED_EMBEDDED_NOTIFY
                notify.xclient.data.l[3] = static_cast<long>(window_);
                XSendEvent(display_, icon, False, NoEventMask, &notify);
                XMapRaised(display_, icon);
                XSync(display_, False);
                icons_.push_back(icon);
            }
        }
        return !icons_.empty();
    }

private:
    Display* display_ = nullptr;
    Window window_ = 0;
    Atom opcode_ = 0;
    bool owner_ = false;
    std::vector<Window> icons_;
};

class DesktopStatusMenu : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        app_ = desktoptest::application(&why);
        ASSERT_NE(app_, nullptr) << why;
        loop_ = std::make_unique<platform::QtMainLoop>();
        addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
        addDevice(FakeAudioDevices::usb(8, "USB Headset"));
        microphones_ = std::make_unique<MicrophoneManagerImpl>(MicrophoneManagerImpl::Dependencies{
            *loop_, clock_, devices_, tp_, settings_, nullptr, [this] { return status_; }, {}});
        desktoptest::settle();
        menuBar_ = std::make_unique<AppMenuBar>(
            AppMenuBar::Dependencies{context_, settings_, *microphones_, [this] { return status_; }});
        menuBar_->actionHandler = [this](const MenuOption& option) { options_.push_back(option); };
        menuBar_->awakeFromNib();
        item_ = std::make_unique<QtStatusItem>();
        item_->setImage("micro_status");
        item_->setMenu(*menuBar_);
    }
    void TearDown() override {
        if (item_ && item_->menu()) item_->menu()->hide();
        item_.reset();
        menuBar_.reset();
        microphones_.reset();
        desktoptest::settle();
    }
    void addDevice(platform::AudioInputDevice device) {
        tp_.devices[device.id] = {};
        devices_.list.push_back(std::move(device));
    }
    void addShortcut(ShortcutAction action, std::string keys) {
        auto s = context_.insertNew<store::UserShortcut>();
        s->setUuid(Uuid::random());
        s->setShortcutActionRawValue(std::string(shortcutActionRawValue(action)));
        s->setShortcutString(std::move(keys));
        s->setMouseEventMouseButton(-1);
        context_.save();
    }
    bool openMenu() {
        item_->menu()->popup(QPoint(300, 150));
        return processUntil([&] { return item_->menu()->isVisible(); });
    }
    void closeMenu() {
        item_->menu()->hide();
        processUntil([&] { return !item_->menu()->isVisible(); });
    }
    // The screen point of an action of a menu.
    static QPoint centreOf(QMenu* menu, QAction* action) {
        return menu->mapToGlobal(menu->actionGeometry(action).center());
    }
    static std::string move(QPoint at) {
        return "xdotool mousemove " + std::to_string(at.x()) + " " + std::to_string(at.y());
    }
    std::vector<std::string> micTitles() const {
        std::vector<std::string> titles;
        for (QAction* a : item_->microphoneMenu()->actions())
            titles.push_back(a->text().toStdString() + (a->isChecked() ? " [x]" : ""));
        return titles;
    }

    QApplication* app_ = nullptr;
    RecordingLogSink logs_;
    platform::test::TestPlatform tp_; // the microphone levels only
    platform::SystemClock clock_;
    std::unique_ptr<platform::QtMainLoop> loop_;
    store::MemorySettingsStore defaults_;
    store::AppConstants constants_{tp_};
    store::Settings settings_{defaults_, constants_};
    store::PersistenceController persistence_{tp_.root(), true};
    store::ManagedObjectContext& context_ = persistence_.container().viewContext();
    FakeAudioDevices devices_{tp_.loop()};
    AppActivity status_ = AppActivity::idle;
    std::unique_ptr<MicrophoneManagerImpl> microphones_;
    std::unique_ptr<AppMenuBar> menuBar_;
    std::unique_ptr<QtStatusItem> item_;
    std::vector<MenuOption> options_;
};

TEST_F(DesktopStatusMenu, StateImagesAreDrawnAndAnUnknownNameKeepsTheImage) {
    const QImage mic = platform::drawStatusImage("micro_status", 32);
    const QImage rec = platform::drawStatusImage("rec_status", 32);
    const QImage busy = platform::drawStatusImage("raspozn_status", 32);
    ASSERT_FALSE(mic.isNull());
    ASSERT_FALSE(rec.isNull());
    ASSERT_FALSE(busy.isNull());
    EXPECT_TRUE(platform::drawStatusImage("other", 32).isNull());
    EXPECT_NE(mic, rec);
    EXPECT_NE(rec, busy);
    EXPECT_NE(mic, busy);
    // The recording dot is red in its middle; the microphone is dark ink; the processing glyph is blue.
    const QColor dot = rec.pixelColor(16, 20);
    EXPECT_GT(dot.red(), 180);
    EXPECT_LT(dot.green(), 90);
    const QColor capsule = mic.pixelColor(16, 10);
    EXPECT_EQ(capsule.alpha(), 255);
    EXPECT_LT(capsule.red(), 100);
    int blue = 0;
    for (int y = 0; y < 32; ++y)
        for (int x = 0; x < 32; ++x) {
            const QColor c = busy.pixelColor(x, y);
            if (c.alpha() == 255 && c.blue() > 180 && c.red() < 100) ++blue;
        }
    EXPECT_GT(blue, 40);

    item_->setImage("rec_status");
    item_->setImage("unknown_status");
    EXPECT_EQ(item_->imageName(), "rec_status");
    EXPECT_TRUE(logs_.contains("QtStatusItem.setImage() - no image named unknown_status, keeping rec_status",
                               LogLevel::error));
}

TEST_F(DesktopStatusMenu, MenuShowsTheModelEachTimeItOpensAndClicksGoBackToIt) {
    addShortcut(ShortcutAction::showHistory, "⌥H");
    settings_.setUserSelectedMicDeviceName("Built-in Microphone");
    ASSERT_TRUE(openMenu());
    using enum MenuItemId;
    EXPECT_EQ(item_->action(history)->text().toStdString(), "History\tAlt+H");
    EXPECT_EQ(item_->action(substitutions)->text().toStdString(), "Substitutions");
    EXPECT_FALSE(item_->action(cancel)->isVisible());
    EXPECT_TRUE(item_->action(quit)->isVisible());
    // The external microphone outranks the named choice, and carries the tick.
    EXPECT_EQ(micTitles(), (std::vector<std::string>{"Built-in Microphone (Built-in)", "USB Headset (USB) [x]"}));
    const QList<QAction*> order = item_->menu()->actions();
    ASSERT_EQ(order.size(), 12);
    EXPECT_TRUE(order[1]->isSeparator());
    EXPECT_EQ(order[7], item_->action(microphone));

    // A click on an entry reaches the menu's handler and closes the menu.
    ASSERT_TRUE(Desktop::instance().run(move(centreOf(item_->menu(), item_->action(history))) + " click 1"));
    ASSERT_TRUE(processUntil([&] { return !options_.empty(); }));
    EXPECT_EQ(options_[0].kind, MenuOption::Kind::history);
    EXPECT_TRUE(processUntil([&] { return !item_->menu()->isVisible(); }));
    EXPECT_TRUE(logs_.contains("AppMenuBar.menu() - willHighlight: History Alt+H"));
    EXPECT_TRUE(processUntil([&] { return logs_.contains("AppMenuBar.menuDidClose()"); }));

    // While recording: Cancel appears, the device list stays as it was although a device arrived.
    addDevice(FakeAudioDevices::usb(12, "Desk Microphone"));
    status_ = AppActivity::recording;
    ASSERT_TRUE(openMenu());
    EXPECT_TRUE(item_->action(cancel)->isVisible());
    EXPECT_EQ(item_->action(cancel)->text().toStdString(), "Cancel Recording");
    EXPECT_EQ(micTitles(), (std::vector<std::string>{"Built-in Microphone (Built-in)", "USB Headset (USB) [x]"}));
    ASSERT_TRUE(Desktop::instance().run(move(centreOf(item_->menu(), item_->action(cancel))) + " click 1"));
    ASSERT_TRUE(processUntil([&] { return options_.size() == 2; }));
    EXPECT_EQ(options_[1].kind, MenuOption::Kind::cancel);
}

TEST_F(DesktopStatusMenu, DeviceChosenInTheSubmenuIsSentWithItsDevice) {
    ASSERT_TRUE(openMenu());
    // Hovering the microphone entry opens its submenu.
    ASSERT_TRUE(Desktop::instance().run(move(centreOf(item_->menu(), item_->action(MenuItemId::microphone)))));
    ASSERT_TRUE(processUntil([&] { return item_->microphoneMenu()->isVisible(); }));
    QAction* builtIn = item_->microphoneMenu()->actions().value(0);
    ASSERT_NE(builtIn, nullptr);
    // Along the submenu's own row first, so that the pointer does not cross the other entries of the menu.
    const QPoint target = centreOf(item_->microphoneMenu(), builtIn);
    ASSERT_TRUE(Desktop::instance().run(move(target)));
    processUntil([&] { return item_->microphoneMenu()->activeAction() == builtIn; }, 2s);
    const auto shot = desktoptest::saveScreenshot("status-menu");
    ASSERT_TRUE(Desktop::instance().run("xdotool click 1"));
    ASSERT_TRUE(processUntil([&] { return !options_.empty(); }));
    EXPECT_EQ(options_[0].kind, MenuOption::Kind::changeMic);
    EXPECT_EQ(options_[0].mic.name, "Built-in Microphone");
    EXPECT_EQ(options_[0].mic.id, 3u);
    EXPECT_TRUE(std::filesystem::exists(shot));
}

TEST_F(DesktopStatusMenu, IconDocksInTheTrayAndShowsTheSessionsState) {
    XEmbedTray tray;
    ASSERT_TRUE(tray.owns());
    ASSERT_TRUE(processUntil([&] {
        tray.pump();
        return QSystemTrayIcon::isSystemTrayAvailable();
    })) << "Qt does not see the tray";
    std::vector<std::string> changes;
    item_->onImageChanged = [&](const std::string& name) { changes.push_back(name); };
    item_->show();
    ASSERT_TRUE(processUntil([&] { return tray.pump(); }, 10s)) << "the icon never asked to dock";

    // The icon sits at the tray's left end: count the red pixels there, before and after a recording starts.
    const QRect iconArea(1280 - 160 + 8, 0, 32, 32);
    const auto redPixels = [&] {
        tray.pump();
        const QImage shot = desktoptest::grabScreen().copy(iconArea);
        int red = 0;
        for (int y = 0; y < shot.height(); ++y)
            for (int x = 0; x < shot.width(); ++x) {
                const QColor c = shot.pixelColor(x, y);
                if (c.red() > 180 && c.green() < 90 && c.blue() < 90) ++red;
            }
        return red;
    };
    // Something is drawn there: a plain panel has one colour.
    const auto colours = [&] {
        tray.pump();
        const QImage shot = desktoptest::grabScreen().copy(iconArea);
        std::set<QRgb> seen;
        for (int y = 0; y < shot.height(); ++y)
            for (int x = 0; x < shot.width(); ++x) seen.insert(shot.pixel(x, y));
        return seen.size();
    };
    if (!processUntil([&] { return colours() > 8; }, 5s)) {
        desktoptest::saveScreenshot("tray-failure");
        FAIL() << "no microphone drawn in the tray";
    }
    EXPECT_EQ(redPixels(), 0);
    item_->setImage("rec_status");
    EXPECT_TRUE(processUntil([&] { return redPixels() > 200; }, 5s)) << "the tray still shows the idle image";
    EXPECT_EQ(changes, (std::vector<std::string>{"rec_status"}));

    // The menu opens by the icon, as a tray menu does.
    item_->setImage("micro_status");
    ASSERT_TRUE(processUntil([&] { return redPixels() == 0; }, 5s));
    item_->menu()->popup(QPoint(1280 - 160, 34));
    ASSERT_TRUE(processUntil([&] { return item_->menu()->isVisible(); }));
    desktoptest::saveScreenshot("tray-and-menu");
}

} // namespace
} // namespace sprelio

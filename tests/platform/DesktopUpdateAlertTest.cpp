// The update offer on a real X desktop: the alert with its texts, answered with the mouse and with Escape, and the
// "Check for Update" button of the About tab.
#include <gtest/gtest.h>

#include <QLabel>
#include <QMessageBox>
#include <QPushButton>

#include "diagnostics/UpdatePolicy.h"
#include "diagnostics/Updater.h"
#include "platform/linux/CurlHttpClient.h"
#include "platform/qt/MainWindowPanes.h"
#include "platform/qt/QtMainLoop.h"
#include "platform/qt/QtUpdateAlert.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"

#include "DesktopTestSupport.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using desktoptest::Desktop;
using desktoptest::processUntil;

// Whether the window manager keeps the window above the others (_NET_WM_STATE_ABOVE).
bool keptAbove(const QWidget* widget) {
    Display* x = Desktop::instance().x();
    const Atom state = XInternAtom(x, "_NET_WM_STATE", False);
    const Atom above = XInternAtom(x, "_NET_WM_STATE_ABOVE", False);
    Atom type = 0;
    int format = 0;
    unsigned long count = 0, after = 0;
    unsigned char* data = nullptr;
    bool found = false;
    if (XGetWindowProperty(x, static_cast<Window>(widget->winId()), state, 0, 32, False, XA_ATOM, &type, &format,
                           &count, &after, &data) == Success &&
        data) {
        const auto* atoms = reinterpret_cast<const Atom*>(data);
        for (unsigned long i = 0; i < count; ++i) found = found || atoms[i] == above;
    }
    if (data) XFree(data);
    return found;
}

class DesktopUpdateAlert : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        app_ = desktoptest::application(&why);
        ASSERT_NE(app_, nullptr) << why;
        loop_ = std::make_unique<platform::QtMainLoop>();
        delegate_ = std::make_unique<SparkleUpdaterDelegate>(SparkleUpdaterDelegate::Dependencies{
            *loop_, "Sprelio", "0.1.0", [] { return std::optional<AppActivity>(AppActivity::idle); },
            [] { return false; },
            [this](UpdateAlert alert, std::function<void(int)> answer) { alert_.show(alert, std::move(answer)); },
            {}, {}});
        http_ = std::make_unique<platform::CurlHttpClient>(*loop_);
        updater_ = std::make_unique<SPUUpdater>(
            SPUUpdater::Dependencies{*loop_, *http_, {}, "Sprelio", "0.1.0", "", {}, {}, {}, {}}, *delegate_, driver_);
        item_.versionString = item_.displayVersionString = "0.2.0";
        item_.fileURL = "https://updates.example/sprelio_0.2.0_amd64.deb";
    }
    void TearDown() override {
        if (alert_.box()) alert_.box()->close();
        desktoptest::settle();
    }
    // The offer as the updater makes it; the install handler counts.
    QMessageBox* offer() {
        delegate_->willInstallUpdateOnQuit(*updater_, item_, [this] { ++installs_; });
        if (!processUntil([&] {
                QMessageBox* box = alert_.box();
                if (!box || !box->isVisible()) return false;
                const QWindow* window = box->windowHandle();
                return window && window->isExposed();
            }))
            return nullptr;
        desktoptest::settle();
        return alert_.box();
    }
    bool run(const std::string& command) { return Desktop::instance().run(command); }

    QApplication* app_ = nullptr;
    platform::test::TestPlatform tp_;
    platform::test::RecordingLogSink logs_;
    std::unique_ptr<platform::QtMainLoop> loop_;
    platform::QtUpdateAlert alert_;
    std::unique_ptr<SparkleUpdaterDelegate> delegate_;
    SparkleUserDriverDelegate driver_;
    std::unique_ptr<platform::CurlHttpClient> http_;
    std::unique_ptr<SPUUpdater> updater_;
    SUAppcastItem item_;
    int installs_ = 0;
};

TEST_F(DesktopUpdateAlert, ShowsTheOfferAndNotNowDelaysIt) {
    QMessageBox* box = offer();
    ASSERT_NE(box, nullptr) << "the alert did not appear";
    EXPECT_EQ(box->text(), "A new version of Sprelio is available!");
    EXPECT_EQ(box->informativeText(),
              "Sprelio 0.2.0 is now available, you have 0.1.0. Would you like to quit and install it now?");
    EXPECT_EQ(box->icon(), QMessageBox::Information);
    auto* install = box->findChild<QPushButton*>("firstButton");
    auto* later = box->findChild<QPushButton*>("secondButton");
    ASSERT_TRUE(install && later);
    EXPECT_EQ(install->text(), "Quit and Update now");
    EXPECT_EQ(later->text(), "Not now");
    EXPECT_TRUE(delegate_->showingUpdateAlert());
    EXPECT_TRUE(processUntil([&] { return keptAbove(box); })) << "the offer must not vanish behind other windows";
    desktoptest::saveScreenshot("update-alert-screen");
    box->grab().save(QString::fromStdString((desktoptest::screenshotFolder() / "update-alert.png").string()));

    ASSERT_TRUE(run(desktoptest::clickAt(later)));
    ASSERT_TRUE(processUntil([&] { return !delegate_->showingUpdateAlert(); })) << "the click did not answer";
    EXPECT_EQ(installs_, 0);
    EXPECT_TRUE(logs_.contains("SparkleDelegate.updater() - (willInstallUpdateOnQuit) - user clicked 'Not now'"));
    EXPECT_TRUE(logs_.contains("SparkleDelegate.delayUpdateFor(3600.0)"));
}

TEST_F(DesktopUpdateAlert, QuitAndUpdateNowRunsTheInstallation) {
    QMessageBox* box = offer();
    ASSERT_NE(box, nullptr) << "the alert did not appear";
    ASSERT_TRUE(run(desktoptest::clickAt(box->findChild<QPushButton*>("firstButton"))));
    ASSERT_TRUE(processUntil([&] { return installs_ == 1; })) << "the click did not start the installation";
    EXPECT_FALSE(delegate_->showingUpdateAlert());
    EXPECT_TRUE(
        logs_.contains("SparkleDelegate.updater() - (willInstallUpdateOnQuit) - user clicked 'Quit and Update now'"));
}

TEST_F(DesktopUpdateAlert, EscapeIsNotNow) {
    QMessageBox* box = offer();
    ASSERT_NE(box, nullptr) << "the alert did not appear";
    box->activateWindow();
    ASSERT_TRUE(processUntil([&] { return box->isActiveWindow(); }));
    ASSERT_TRUE(run("xdotool key Escape"));
    ASSERT_TRUE(processUntil([&] { return !delegate_->showingUpdateAlert(); }));
    EXPECT_EQ(installs_, 0);
    EXPECT_TRUE(logs_.contains("SparkleDelegate.updater() - (willInstallUpdateOnQuit) - user clicked 'Not now'"));
}

TEST_F(DesktopUpdateAlert, TheAboutTabAsksForACheck) {
    store::AppConstants constants(tp_);
    platform::AboutPane pane(constants, {});
    int asked = 0;
    QObject::connect(&pane, &platform::AboutPane::checkForUpdateRequested, [&] { ++asked; });
    pane.resize(560, 420);
    pane.show();
    auto* button = pane.findChild<QPushButton*>("checkForUpdate");
    ASSERT_NE(button, nullptr);
    EXPECT_EQ(button->text(), "Check for Update");
    ASSERT_TRUE(processUntil([&] { return pane.windowHandle() && pane.windowHandle()->isExposed(); }));
    desktoptest::settle();
    pane.grab().save(QString::fromStdString((desktoptest::screenshotFolder() / "about-check-for-update.png").string()));
    ASSERT_TRUE(run(desktoptest::clickAt(button)));
    ASSERT_TRUE(processUntil([&] { return asked == 1; })) << "the button did not ask";
}

} // namespace
} // namespace sprelio

// The application in front on a real X server: with openbox keeping _NET_ACTIVE_WINDOW and answering activation
// requests, and without a window manager, where the focus window is all there is.
#include <gtest/gtest.h>

#include <X11/Xutil.h>

#include "platform/X11TestSupport.h"
#include "platform/linux/X11Workspace.h"
#include "platform/loop/RealTimeLoop.h"

using namespace std::chrono_literals;
using sprelio::platform::RealTimeLoop;
using sprelio::platform::RunningApplication;
using sprelio::platform::X11Workspace;
using sprelio::x11test::TestClient;
using sprelio::x11test::XServer;

namespace {

TestClient::Options clientOptions(const std::string& className, const std::string& title, const std::string& id) {
    TestClient::Options options;
    options.className = className;
    options.title = title;
    options.applicationId = id;
    return options;
}

class X11WorkspaceTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(server.ready()) << "Xvfb did not start"; }
    void TearDown() override {
        workspace.reset();
        server.stop();
    }
    void startWorkspace() {
        workspace = std::make_unique<X11Workspace>(loop, server.name());
        ASSERT_TRUE(workspace->isAvailable());
        workspace->setDidActivateApplicationHandler([this](const std::optional<RunningApplication>& app) {
            activations.push_back(app);
        });
    }
    bool activated(pid_t pid) {
        return loop.runUntil([&] {
            return !activations.empty() && activations.back() && activations.back()->processIdentifier == pid;
        }, 10s);
    }

    XServer server;
    RealTimeLoop loop;
    std::unique_ptr<X11Workspace> workspace;
    std::vector<std::optional<RunningApplication>> activations;
};

TEST_F(X11WorkspaceTest, ActiveWindowIsReadAndEveryActivationReported) {
    ASSERT_TRUE(server.startWindowManager());
    startWorkspace();
    TestClient alpha(server, clientOptions("AlphaApp", "Alpha — Grüße", "org.example.Alpha"));
    ASSERT_TRUE(alpha.waitUntilFocused()) << alpha.describe();
    ASSERT_TRUE(activated(alpha.pid()));
    auto front = workspace->frontmostApplication();
    ASSERT_TRUE(front.has_value());
    EXPECT_EQ(front->processIdentifier, alpha.pid());
    EXPECT_EQ(front->bundleIdentifier, "org.example.Alpha");
    EXPECT_EQ(front->localizedName, "AlphaApp");
    EXPECT_EQ(front->windowTitle, "Alpha — Grüße");
    EXPECT_EQ(activations.back()->windowTitle, "Alpha — Grüße");

    // A second application takes the front; without an application id its class names it.
    TestClient beta(server, clientOptions("xterm", "beta shell", ""));
    ASSERT_TRUE(beta.waitUntilFocused()) << beta.describe();
    ASSERT_TRUE(activated(beta.pid()));
    front = workspace->frontmostApplication();
    ASSERT_TRUE(front.has_value());
    EXPECT_EQ(front->bundleIdentifier, "xterm");
    EXPECT_EQ(front->localizedName, "xterm");

    // Bringing the first one back is a request to the window manager, reported like any other activation.
    alpha.clearFocusMark();
    RunningApplication target;
    target.processIdentifier = alpha.pid();
    ASSERT_TRUE(workspace->activate(target, 2));
    ASSERT_TRUE(alpha.waitUntilFocused()) << alpha.describe();
    ASSERT_TRUE(activated(alpha.pid()));
    EXPECT_EQ(workspace->frontmostApplication()->processIdentifier, alpha.pid());

    RunningApplication nobody;
    nobody.processIdentifier = 999999;
    EXPECT_FALSE(workspace->activate(nobody, 2));
}

TEST_F(X11WorkspaceTest, WithoutAWindowManagerTheFocusWindowIsTheFront) {
    startWorkspace();
    EXPECT_EQ(workspace->frontmostApplication(), std::nullopt);
    TestClient client(server, clientOptions("Gamma", "gamma", ""));
    ASSERT_TRUE(client.waitUntilFocused()) << client.describe();
    auto front = workspace->frontmostApplication();
    ASSERT_TRUE(front.has_value());
    EXPECT_EQ(front->processIdentifier, client.pid());
    EXPECT_EQ(front->localizedName, "Gamma");
    EXPECT_EQ(front->bundleIdentifier, "Gamma");
    EXPECT_EQ(front->windowTitle, "gamma");
}

} // namespace

TEST_F(X11WorkspaceTest, OurOwnWindowsCarryOurIdentifierWhateverTheToolkitNamesThem) {
    workspace = std::make_unique<X11Workspace>(loop, server.name(), "com.sprelio.app");
    ASSERT_TRUE(workspace->isAvailable());
    // A window of this very process, named as a toolkit names it: after the program.
    Display* d = XOpenDisplay(server.name().c_str());
    ASSERT_NE(d, nullptr);
    const Window window = XCreateSimpleWindow(d, DefaultRootWindow(d), 0, 0, 200, 100, 0, 0, 0);
    XClassHint hint{const_cast<char*>("sprelio"), const_cast<char*>("Sprelio")};
    XSetClassHint(d, window, &hint);
    const long pid = ::getpid();
    XChangeProperty(d, window, XInternAtom(d, "_NET_WM_PID", False), XA_CARDINAL, 32, PropModeReplace,
                    reinterpret_cast<const unsigned char*>(&pid), 1);
    XSelectInput(d, window, StructureNotifyMask);
    XMapWindow(d, window);
    ASSERT_TRUE(sprelio::x11test::waitFor([&] {
        while (XPending(d)) {
            XEvent event;
            XNextEvent(d, &event);
            if (event.type == MapNotify) return true;
        }
        return false;
    }));
    XSetInputFocus(d, window, RevertToParent, CurrentTime);
    XSync(d, False);
    const auto front = workspace->frontmostApplication();
    ASSERT_TRUE(front.has_value());
    EXPECT_EQ(front->processIdentifier, ::getpid());
    EXPECT_EQ(front->bundleIdentifier, "com.sprelio.app");
    EXPECT_EQ(front->localizedName, "Sprelio");
    XCloseDisplay(d);
}

// Signing in end to end: the sign-in window on a real X desktop, typed into and clicked with xdotool, its presenter
// and the account service over libcurl, and a real account server on 127.0.0.1 whose mail goes to its console log.
// The settings live in a real file, so a restart is a new presenter over the same file.
#include <gtest/gtest.h>

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

#include <httplib.h>

#include <regex>

#include "app/ApiEndpoint.h"
#include "backend/LoginAndRegistrationPresenter.h"
#include "backend/UploadTestSupport.h"
#include "platform/linux/CurlHttpClient.h"
#include "platform/linux/SystemClock.h"
#include "platform/qt/QtMainLoop.h"
#include "platform/qt/SignInWindow.h"
#include "platform/test/TemporaryFolder.h"
#include "platform/test/TestPlatform.h"
#include "server/BackendServer.h"
#include "shared/AppState.h"
#include "store/AppConstants.h"
#include "store/JsonFileSettingsStore.h"
#include "store/Settings.h"
#include "ui/Messages.h"

#include "platform/DesktopTestSupport.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using desktoptest::Desktop;
using desktoptest::processUntil;

class RecordedAlerts final : public ErrorPresenter {
public:
    const std::string& appName() const override { return name_; }
    void showAlertForError(std::optional<Error> error, std::optional<int>, bool, bool) override {
        if (error) texts.push_back(error->localizedDescription);
    }
    void showAlertForError(SPRLocalizedError error, std::optional<int> statusCode, bool showRepeated,
                           bool showNeverShowAgain) override {
        showAlertForError(makeError(error, name_), statusCode, showRepeated, showNeverShowAgain);
    }
    std::vector<std::string> texts;

private:
    std::string name_ = "Sprelio";
};

// One process of the application as far as signing in goes: the account service, the presenter and the window.
struct SignInProcess {
    SignInProcess(platform::MainLoop& loop, platform::Clock& clock, platform::HttpClient& http,
                  store::Settings& settings, const store::AppConstants& constants, AppState& appState,
                  const platform::Screens& screens, ErrorPresenter& alerts, const std::string& apiBaseURL,
                  bool embedded)
        : service(LoginResourceService::Dependencies{loop, clock, http, settings, constants, appState, screens,
                                                     nullptr, &alerts, apiBaseURL, "sign-in-test-machine", "??",
                                                     false}),
          presenter(LoginAndRegistrationPresenter::Dependencies{loop, clock, settings, appState, service, &alerts}),
          window(platform::SignInWindowDependencies{presenter, appState, "Sprelio", apiBaseURL, embedded}) {
        presenter.addObserver([this] { window.refresh(); });
        presenter.onViewLoad();
    }
    LoginResourceService service;
    LoginAndRegistrationPresenter presenter;
    platform::SignInWindow window;
};

class SignInWindowEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        app_ = desktoptest::application(&why);
        ASSERT_NE(app_, nullptr) << why;
        ::setenv(app::kLocalAiURLVariable, "off", 1);
        startServer(serverData_.path());
        tp_.screenList = {platform::ScreenInfo{"Main", std::string("1"), {0, 0, 1280, 1024}, 1.0, true}};
        openSettings();
    }
    void TearDown() override {
        process_.reset();
        desktoptest::settle();
        if (server_) server_->stop();
    }

    // An account server on a free port of loopback, with its accounts in `data`.
    void startServer(const std::filesystem::path& data) {
        server::ServerConfig config;
        config.host = "127.0.0.1";
        config.port = 0;
        config.dataFolder = data;
        config.workerThreads = 4;
        server_ = std::make_unique<server::BackendServer>(config);
        server_->start();
    }
    void openSettings() {
        process_.reset();
        settings_.reset();
        store_ = std::make_unique<store::JsonFileSettingsStore>(root_.path() / "settings.json");
        settings_ = std::make_unique<store::Settings>(*store_, constants_);
    }
    // A start of the application: the settings read afresh from their file.
    SignInProcess& launch(const std::string& apiBaseURL, bool embedded = false) {
        openSettings();
        process_ = std::make_unique<SignInProcess>(loop_, clock_, http_, *settings_, constants_, appState_, tp_,
                                                   alerts_, apiBaseURL, embedded);
        process_->window.present();
        processUntil([&] {
            const QWindow* window = process_->window.windowHandle();
            return window && window->isExposed();
        });
        return *process_;
    }
    // The first answers of the account server have arrived and the state is settled.
    bool settledAt(LoginState state) {
        return processUntil([&] { return process_->presenter.loginState() == state; }, 20s);
    }
    bool run(const std::string& command) { return Desktop::instance().run(command); }
    bool typeInto(QLineEdit* field, const std::string& text) {
        if (!run(desktoptest::clickAt(field))) return false;
        if (!processUntil([&] { return field->hasFocus(); })) return false;
        return run("xdotool key ctrl+a BackSpace") && run("xdotool type --delay 20 '" + text + "'");
    }
    void screenshot(const std::string& name) {
        desktoptest::settle();
        std::filesystem::create_directories(desktoptest::screenshotFolder());
        process_->window.grab().save(
            QString::fromStdString((desktoptest::screenshotFolder() / (name + ".png")).string()));
    }

    // The server has no mail server: the link and the code of the last mail are in its console log.
    std::optional<std::string> mailed(int part) const {
        const std::regex pattern("sign-in for (\\S+): link (\\S+) code (\\d{6})");
        std::optional<std::string> last;
        for (const auto& line : logs_.lines()) {
            std::smatch match;
            if (std::regex_search(line.message, match, pattern)) last = match[part];
        }
        return last;
    }
    std::size_t mails() const {
        std::size_t n = 0;
        for (const auto& line : logs_.lines()) n += line.message.find("sign-in for ") != std::string::npos ? 1 : 0;
        return n;
    }
    // Asks for the sign-in mail through the window and waits until the window waits for the link.
    void askForMail(const std::string& email) {
        auto& p = *process_;
        const auto before = mails();
        ASSERT_TRUE(typeInto(p.window.emailField(), email));
        ASSERT_TRUE(run("xdotool key Return"));
        // A wait of an earlier sign-in may still be held: it ends at its own time-out.
        ASSERT_TRUE(processUntil([&] { return mails() > before && server_->signIn().waiting() >= 1; }, 20s))
            << "the mail was not asked for";
        ASSERT_TRUE(processUntil([&] { return p.window.page() == LoginViewState::showOtpForm; }));
    }

    platform::test::RecordingLogSink logs_;
    QApplication* app_ = nullptr;
    platform::test::TemporaryFolder root_{"sprelio-sign-in"};
    platform::test::TemporaryFolder serverData_{"sprelio-sign-in-server"};
    platform::test::TemporaryFolder freshServerData_{"sprelio-sign-in-server-fresh"};
    platform::test::TestPlatform tp_{root_.path()};
    store::AppConstants constants_{tp_};
    std::unique_ptr<store::JsonFileSettingsStore> store_;
    std::unique_ptr<store::Settings> settings_;
    platform::QtMainLoop loop_;
    platform::SystemClock clock_;
    platform::CurlHttpClient http_{loop_};
    AppStateRealtimeMirror mirror_;
    AppState appState_{mirror_};
    RecordedAlerts alerts_;
    std::unique_ptr<server::BackendServer> server_;
    std::unique_ptr<SignInProcess> process_;
};

TEST_F(SignInWindowEndToEnd, CodeSignsInAndTheStateOutlivesARestartAnOfflineStartAndEndsWithLogOut) {
    auto& first = launch(server_->url());
    ASSERT_TRUE(settledAt(LoginState::logout));
    EXPECT_EQ(first.window.page(), LoginViewState::showLoginForm);

    // An address the form refuses never reaches the server.
    ASSERT_TRUE(typeInto(first.window.emailField(), "bob@example"));
    ASSERT_TRUE(run(desktoptest::clickAt(first.window.sendButton())));
    ASSERT_TRUE(processUntil([&] { return first.window.emailProblem()->isVisible(); }));
    EXPECT_EQ(mails(), 0u);
    screenshot("sign-in-1-address-refused");

    askForMail("bob@example.org");
    EXPECT_EQ(settings_->lastKnownLoginState(), "loginProgress");
    ASSERT_TRUE(processUntil([&] { return first.window.banner()->isVisible(); }));
    EXPECT_FALSE(first.window.banner()->text().isEmpty()) << "the server's words while the link is awaited";
    screenshot("sign-in-2-code-form");

    // A wrong code is told, and the form goes back to the address.
    const std::string code = *mailed(3);
    ASSERT_TRUE(typeInto(first.window.codeField(), code == "000000" ? "111111" : "000000"));
    ASSERT_TRUE(run(desktoptest::clickAt(first.window.codeButton())));
    ASSERT_TRUE(processUntil([&] { return !alerts_.texts.empty(); }, 20s));
    ASSERT_TRUE(processUntil([&] { return first.window.page() == LoginViewState::showLoginForm; }));

    // Again, and this time the right code.
    askForMail("bob@example.org");
    ASSERT_TRUE(typeInto(first.window.codeField(), *mailed(3)));
    ASSERT_TRUE(run(desktoptest::clickAt(first.window.codeButton())));
    ASSERT_TRUE(settledAt(LoginState::loggedIn)) << "signed in by the code";
    ASSERT_TRUE(processUntil([&] { return first.presenter.userDetails().has_value(); }, 20s));
    EXPECT_EQ(first.window.page(), LoginViewState::showLoginDetails);
    EXPECT_NE(first.window.detailsLabel()->text().toStdString().find("Signed in as bob@example.org"),
              std::string::npos);
    EXPECT_TRUE(first.window.logoutButton()->isVisible());
    EXPECT_FALSE(first.window.banner()->isVisible());
    const auto token = settings_->token();
    ASSERT_TRUE(token);
    EXPECT_NE(*token, server_->localAccount().token);
    EXPECT_EQ(settings_->userEmail(), std::optional<std::string>("bob@example.org"));
    EXPECT_EQ(settings_->lastKnownLoginState(), "loggedIn");
    screenshot("sign-in-3-account");

    // A restart: the stored state is shown at once and confirmed by the server.
    auto& second = launch(server_->url());
    EXPECT_EQ(second.window.page(), LoginViewState::showLoginDetails);
    ASSERT_TRUE(settledAt(LoginState::loggedIn));
    EXPECT_EQ(second.presenter.userDetails()->email, "bob@example.org");

    // An offline start keeps the user signed in, and asks the server nothing.
    appState_.setInternetAvailable(false);
    logs_.clear();
    auto& offline = launch(server_->url());
    ASSERT_TRUE(settledAt(LoginState::loggedIn));
    desktoptest::settle();
    EXPECT_EQ(offline.presenter.loginState(), LoginState::loggedIn);
    EXPECT_FALSE(logs_.containsPrefix("performRequest() - retries:")) << "offline nothing is sent";

    // Log Out works offline as well, and the next start stays signed out.
    ASSERT_TRUE(run(desktoptest::clickAt(offline.window.logoutButton())));
    ASSERT_TRUE(settledAt(LoginState::logout));
    EXPECT_EQ(offline.window.page(), LoginViewState::showLoginForm);
    EXPECT_FALSE(settings_->token());
    EXPECT_FALSE(settings_->userEmail());
    EXPECT_FALSE(settings_->userDetailsResponse());
    EXPECT_EQ(settings_->lastKnownLoginState(), "logout");
    appState_.setInternetAvailable(true);
    auto& after = launch(server_->url());
    ASSERT_TRUE(settledAt(LoginState::logout));
    EXPECT_EQ(after.window.page(), LoginViewState::showLoginForm);
}

TEST_F(SignInWindowEndToEnd, TheLinkSignsInAndAnExpiredTokenEndsWithTheLogOutOfItsMessage) {
    auto& p = launch(server_->url());
    ASSERT_TRUE(settledAt(LoginState::logout));
    askForMail("carol@example.org");

    // The user opens the link from the mail: the waiting window goes on by itself.
    const std::string link = *mailed(2);
    httplib::Client browser("127.0.0.1", server_->port());
    auto opened = browser.Get(link.substr(link.find('/', link.find("://") + 3)).c_str());
    ASSERT_TRUE(opened);
    EXPECT_EQ(opened->status, 200) << opened->body;
    ASSERT_TRUE(settledAt(LoginState::loggedIn));
    ASSERT_TRUE(processUntil([&] { return p.presenter.userDetails().has_value(); }, 20s));
    EXPECT_EQ(p.presenter.userDetails()->email, "carol@example.org");
    EXPECT_EQ(p.window.page(), LoginViewState::showLoginDetails);

    // The server forgets the token (its accounts start afresh): a refresh changes nothing stored...
    server_->stop();
    startServer(freshServerData_.path());
    auto& restarted = launch(server_->url());
    ASSERT_TRUE(settledAt(LoginState::loggedIn));
    ASSERT_TRUE(processUntil([&] { return logs_.containsPrefix("LoginResourceService.refreshUserInfo() - 'user' section missing"); }, 20s));
    EXPECT_EQ(restarted.presenter.loginState(), LoginState::loggedIn);

    // ...and the next request it refuses brings the message whose "Log Out" the application wires to the presenter.
    httplib::Client client("127.0.0.1", server_->port());
    auto refused = client.Get("/users/info", {{"Authorization", "Bearer " + *settings_->token()}});
    ASSERT_TRUE(refused);
    ASSERT_EQ(refused->status, 401);
    const auto answer = nlohmann::json::parse(refused->body);
    backendtest::RecordingToasts toasts;
    MessageCenter messages{tp_.platform(), *settings_, appState_, toasts, "Sprelio"};
    messages.logout = [&] { restarted.presenter.logoutUnauthorized(); };
    messages.showAlertForError(
        SPRStringError::errorMessageError(answer["error"].get<std::string>(), answer["message"].get<std::string>())
            .toError(),
        401);
    tp_.runUntilIdle();
    ASSERT_EQ(toasts.shown.size(), 1u);
    EXPECT_EQ(toasts.shown[0].tapActionText, std::optional<std::string>("Log Out"));
    toasts.shown[0].tapAction();
    ASSERT_TRUE(settledAt(LoginState::logout));
    EXPECT_EQ(restarted.window.page(), LoginViewState::showLoginForm);
    EXPECT_FALSE(settings_->token());
    EXPECT_EQ(settings_->lastKnownLoginState(), "logout");
}

TEST_F(SignInWindowEndToEnd, TheEmbeddedAccountIsSignedInByItselfAndSaysSo) {
    openSettings();
    settings_->setApiBaseURL("embedded");
    std::string error;
    auto endpoint = app::ApiEndpoint::resolve(*settings_, constants_, error);
    ASSERT_TRUE(endpoint) << error;
    ASSERT_TRUE(endpoint->isEmbedded());
    auto& p = launch(endpoint->baseURL(), true);
    ASSERT_TRUE(settledAt(LoginState::loggedIn));
    ASSERT_TRUE(processUntil([&] { return p.presenter.userDetails().has_value(); }, 20s));
    EXPECT_EQ(p.window.page(), LoginViewState::showLoginDetails);
    desktoptest::settle();
    EXPECT_FALSE(p.window.logoutButton()->isVisible()) << "nothing to sign out of";
    EXPECT_NE(p.window.findChild<QLabel*>(QStringLiteral("embeddedNote")), nullptr);
    EXPECT_TRUE(p.window.findChild<QLabel*>(QStringLiteral("embeddedNote"))->isVisible());
    EXPECT_EQ(platform::accountActionTitle(p.presenter, true), QStringLiteral("Account…"));
    screenshot("sign-in-4-embedded");
    process_.reset();
}

} // namespace
} // namespace sprelio

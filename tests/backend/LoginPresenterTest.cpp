// The sign-in presenter on virtual time, against an account API scripted per path: the link's long poll is held
// until the test answers it, and /users/info knows the tokens it accepts, as the account server does.
#include <gtest/gtest.h>

#include <deque>
#include <map>

#include "backend/LoginAndRegistrationPresenter.h"
#include "backend/UploadTestSupport.h"
#include "platform/test/TestPlatform.h"
#include "shared/AppState.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "ui/Messages.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using platform::test::RecordingLogSink;

platform::HttpResult json(long status, nlohmann::json body) {
    platform::HttpResponse response;
    response.status = status;
    response.mimeType = "application/json";
    response.body = body.dump();
    return response;
}

platform::HttpResult transportError(long code, std::string text) {
    return Error{url_error::kDomain, code, std::move(text), {}};
}

nlohmann::json confirmed(const std::string& email, const std::string& token) {
    return {{"user", {{"email", email}}}, {"requests", 3}, {"token", token}};
}

std::string pathOf(const std::string& url) {
    const auto start = url.find('/', url.find("://") + 3);
    const auto end = url.find('?', start);
    return url.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

// The account API as the presenter meets it. Answers are scripted per path and taken in order; the wait for the
// link is held until the test answers it; /users/info answers for the tokens in `accounts` and refuses others.
class ScriptedAccountApi final : public platform::HttpClient {
public:
    explicit ScriptedAccountApi(platform::test::TestPlatform& tp) : tp_(tp) {}

    std::map<std::string, std::deque<platform::HttpResult>> answers;
    std::map<std::string, std::string> accounts; // token -> address
    std::vector<platform::HttpRequest> sent;
    std::deque<Completion> heldWaits;

    std::shared_ptr<platform::HttpTask> send(platform::HttpRequest request, Completion completion) override {
        sent.push_back(request);
        const std::string path = pathOf(request.url);
        auto& queue = answers[path];
        if (!queue.empty()) {
            auto result = queue.front();
            queue.pop_front();
            tp_.loop().post([completion = std::move(completion), result] { completion(result); });
        } else if (path == "/auth/request/wait") {
            heldWaits.push_back(std::move(completion));
        } else if (path == "/users/info") {
            auto result = usersInfo(request);
            tp_.loop().post([completion = std::move(completion), result] { completion(result); });
        } else {
            tp_.loop().post([completion = std::move(completion)] { completion(json(404, {{"error", "NotFound"}})); });
        }
        return nullptr;
    }

    // Ends the oldest held wait for the link.
    void answerWait(platform::HttpResult result) {
        ASSERT_FALSE(heldWaits.empty()) << "no wait for the link is held";
        auto completion = std::move(heldWaits.front());
        heldWaits.pop_front();
        tp_.loop().post([completion = std::move(completion), result] { completion(result); });
    }

    // The last request sent to a path; one with an empty URL when none was.
    platform::HttpRequest last(const std::string& path) const {
        for (auto it = sent.rbegin(); it != sent.rend(); ++it)
            if (pathOf(it->url) == path) return *it;
        return {};
    }
    std::size_t count(const std::string& path) const {
        std::size_t n = 0;
        for (const auto& request : sent) n += pathOf(request.url) == path ? 1 : 0;
        return n;
    }

private:
    platform::HttpResult usersInfo(const platform::HttpRequest& request) const {
        std::string token;
        for (const auto& header : request.headers)
            if (header.name == "Authorization") token = header.value.substr(std::string("Bearer ").size());
        const auto account = accounts.find(token);
        if (account == accounts.end())
            return json(401, {{"error", "Unauthorized"}, {"message", "Unauthorized"}, {"stop", true}});
        nlohmann::json user = {{"user", {{"email", account->second}, {"guid", "g-1"}}}, {"requests", 12},
                               {"token", token}};
        return json(200, {{"flags", nlohmann::json::object()}, {"user", user}});
    }

    platform::test::TestPlatform& tp_;
};

class LoginPresenterTest : public ::testing::Test {
protected:
    LoginPresenterTest() {
        tp.screenList = {platform::ScreenInfo{"Main", std::string("1"), {0, 0, 1440, 900}, 1.0, true}};
        LoginResourceService::Dependencies deps{tp.loop(), tp, api, settings, constants, appState, tp,
                                                nullptr,   &messages, "https://api.example.com", "machine-1"};
        deps.startRefreshTimer = false;
        service = std::make_unique<LoginResourceService>(std::move(deps));
    }

    LoginAndRegistrationPresenter& start(bool viewLoad = true) {
        presenter.reset();
        presenter = std::make_unique<LoginAndRegistrationPresenter>(LoginAndRegistrationPresenter::Dependencies{
            tp.loop(), tp, settings, appState, *service, &messages});
        if (viewLoad) presenter->onViewLoad();
        settle();
        return *presenter;
    }
    // Runs the loop and the retry delays of the account service.
    void settle() {
        tp.runUntilIdle();
        tp.advance(10s);
        tp.runUntilIdle();
    }
    // The address form's submit, as the window does it.
    void submit(const std::string& email) {
        presenter->setLastLoginEmailModel(LoginEmailModel{email});
        presenter->onClickLoginSubmit(email);
        settle();
    }
    void signedInAs(const std::string& email, const std::string& token) {
        settings.setToken(token);
        settings.setUserEmail(email);
        settings.setUserDetailsResponse(
            nlohmann::json(UserDetailsResponse{email, std::string("g-1"), 12, token}.encode()));
        settings.setLastKnownLoginState("loggedIn");
    }
    std::vector<std::string> alerts() {
        tp.runUntilIdle();
        std::vector<std::string> texts;
        for (const auto& toast : toasts.shown) texts.push_back(toast.messageText);
        return texts;
    }

    RecordingLogSink logs;
    platform::test::TestPlatform tp;
    ScriptedAccountApi api{tp};
    store::MemorySettingsStore store;
    store::AppConstants constants{tp};
    store::Settings settings{store, constants};
    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    backendtest::RecordingToasts toasts;
    MessageCenter messages{tp.platform(), settings, appState, toasts, "Sprelio"};
    std::unique_ptr<LoginResourceService> service;
    std::unique_ptr<LoginAndRegistrationPresenter> presenter;
};

TEST_F(LoginPresenterTest, StateNamesAndViewStatesFollowEachOther) {
    const struct {
        LoginState state;
        const char* name;
        LoginViewState view;
    } rows[] = {{LoginState::logout, "logout", LoginViewState::showLoginForm},
                {LoginState::loggedIn, "loggedIn", LoginViewState::showLoginDetails},
                {LoginState::loginProgress, "loginProgress", LoginViewState::showOtpForm}};
    for (const auto& row : rows) {
        EXPECT_EQ(loginStateName(row.state), row.name);
        EXPECT_EQ(parseLoginState(row.name), row.state);
        EXPECT_EQ(viewStateFor(row.state), row.view) << row.name;
    }
    EXPECT_EQ(parseLoginState("signedIn"), std::nullopt);
}

TEST_F(LoginPresenterTest, AddressCheckCoversTheWholeText) {
    const struct {
        const char* text;
        bool valid;
    } rows[] = {{"bob@example.org", true},       {"Bob.Smith+x@mail.example.co", true}, {"bob@example", false},
                {"bob example.org", false},      {"bob@example.o", false},              {" bob@example.org", false},
                {"bob@example.org trailing", false}, {"", false}};
    for (const auto& row : rows) EXPECT_EQ(LoginAndRegistrationPresenter::isValidEmail(row.text), row.valid) << row.text;
}

TEST_F(LoginPresenterTest, TheLinkSignsInAfterTheMailIsAccepted) {
    auto& p = start();
    EXPECT_EQ(p.loginState(), LoginState::logout) << "no token: signed out";
    api.answers["/auth/request"] = {json(200, {{"uuid", "u-1"}, {"message", "Check your mail for the link."}})};
    submit("bob@example.org");

    EXPECT_EQ(p.loginState(), LoginState::loginProgress);
    EXPECT_EQ(p.viewState(), LoginViewState::showOtpForm);
    EXPECT_EQ(settings.lastKnownLoginState(), "loginProgress");
    EXPECT_TRUE(p.isLoginCheckInProcess());
    EXPECT_EQ(p.requestUUID(), std::optional<std::string>("u-1"));
    EXPECT_EQ(appState.statusBannerViewMessage(), std::optional<std::string>("Check your mail for the link."));
    EXPECT_EQ(appState.statusBannerViewTimeoutSeconds(), std::nullopt) << "the banner stays while the link is awaited";
    ASSERT_EQ(api.heldWaits.size(), 1u);
    EXPECT_EQ(api.last("/auth/request/wait").url, "https://api.example.com/auth/request/wait?uuid=u-1");

    api.accounts["tok-1"] = "bob@example.org";
    api.answerWait(json(200, confirmed("bob@example.org", "tok-1")));
    settle();
    EXPECT_EQ(p.loginState(), LoginState::loggedIn);
    EXPECT_EQ(p.viewState(), LoginViewState::showLoginDetails);
    EXPECT_EQ(settings.token(), std::optional<std::string>("tok-1"));
    EXPECT_EQ(settings.userEmail(), std::optional<std::string>("bob@example.org"));
    EXPECT_EQ(settings.lastKnownLoginState(), "loggedIn");
    ASSERT_TRUE(p.userDetails());
    EXPECT_EQ(p.userDetails()->requests, 12);
    EXPECT_FALSE(p.isLoginCheckInProcess());
    EXPECT_EQ(appState.statusBannerViewMessage(), std::nullopt);
    EXPECT_TRUE(alerts().empty());
}

TEST_F(LoginPresenterTest, TheCodeSignsInWhileTheLinkIsAwaited) {
    auto& p = start();
    api.answers["/auth/request"] = {json(200, {{"uuid", "u-2"}, {"message", "Mail sent."}})};
    submit("carol@example.org");
    api.accounts["tok-2"] = "carol@example.org";
    api.answers["/auth/request/code"] = {json(200, confirmed("carol@example.org", "tok-2"))};
    p.onClickOtpSubmit("123456");
    EXPECT_TRUE(p.isLoginCheckInProcess());
    settle();

    const auto code = api.last("/auth/request/code");
    ASSERT_FALSE(code.url.empty());
    EXPECT_EQ(code.method, "POST");
    EXPECT_EQ(nlohmann::json::parse(code.body.segments().size() == 1 ? std::get<std::string>(code.body.segments()[0])
                                                                     : std::string("{}")),
              (nlohmann::json{{"uuid", "u-2"}, {"code", "123456"}}));
    EXPECT_EQ(p.loginState(), LoginState::loggedIn);
    EXPECT_EQ(settings.userEmail(), std::optional<std::string>("carol@example.org"));

    // The link used as well: the success steps run a second time, and nothing changes.
    api.answerWait(json(200, confirmed("carol@example.org", "tok-2")));
    settle();
    EXPECT_EQ(p.loginState(), LoginState::loggedIn);
    EXPECT_EQ(settings.token(), std::optional<std::string>("tok-2"));
    EXPECT_TRUE(alerts().empty());
}

TEST_F(LoginPresenterTest, AWrongCodeIsToldAndLeavesTheSignInWithoutAToken) {
    auto& p = start();
    api.answers["/auth/request"] = {json(200, {{"uuid", "u-3"}, {"message", "Mail sent."}})};
    submit("dave@example.org");
    api.answers["/auth/request/code"] = {
        json(400, {{"error", "WrongCode"}, {"message", "The code is not right; 4 attempts left."}}),
        json(400, {{"error", "WrongCode"}, {"message", "The code is not right; 4 attempts left."}})};
    p.onClickOtpSubmit("000000");
    settle();
    EXPECT_EQ(alerts(), std::vector<std::string>{"The code is not right; 4 attempts left."});
    EXPECT_FALSE(p.isLoginCheckInProcess());
    EXPECT_EQ(appState.statusBannerViewMessage(), std::nullopt);
    EXPECT_EQ(p.loginState(), LoginState::logout) << "the token check finds no token";
    EXPECT_FALSE(settings.token());
    // The same words again: the form's alert is shown each time.
    p.onClickOtpSubmit("000000");
    settle();
    EXPECT_EQ(alerts().size(), 2u);
}

TEST_F(LoginPresenterTest, AnswersToTheSubmittedAddress) {
    const struct {
        const char* name;
        platform::HttpResult answer;
        bool polls;
        std::optional<std::string> bannerStart;
        std::optional<double> bannerTimeout;
        std::size_t alertCount;
    } rows[] = {
        {"accepted", json(200, {{"uuid", "u"}, {"message", "Mail sent."}}), true, "Mail sent.", std::nullopt, 0},
        {"refused with a record",
         json(404, {{"uuid", "u"}, {"message", "No account may sign in with this address."}}), false,
         "No account may sign in with this address. - (", 5.0, 0},
        {"no record", json(200, {{"ok", true}}), false, std::nullopt, std::nullopt, 0},
        {"transport error", transportError(url_error::kCannotConnectToHost, "Could not connect to the server."),
         false, std::nullopt, std::nullopt, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        settings.setLastKnownLoginState("logout");
        appState.setStatusBannerViewMessage(std::nullopt);
        appState.setStatusBannerViewTimeoutSeconds(std::nullopt);
        appState.setLastKnownErrorLocalizedDescription(std::nullopt);
        toasts.shown.clear();
        api.heldWaits.clear();
        auto& p = start();
        // Every attempt of a failing transport answers the same.
        api.answers["/auth/request"] = {row.answer, row.answer, row.answer, row.answer};
        submit("erin@example.org");
        EXPECT_EQ(api.heldWaits.size(), row.polls ? 1u : 0u);
        EXPECT_EQ(p.loginState(), row.polls ? LoginState::loginProgress : LoginState::logout);
        if (row.bannerStart) {
            ASSERT_TRUE(appState.statusBannerViewMessage());
            EXPECT_EQ(appState.statusBannerViewMessage()->rfind(*row.bannerStart, 0), 0u)
                << *appState.statusBannerViewMessage();
        } else {
            EXPECT_EQ(appState.statusBannerViewMessage(), std::nullopt);
        }
        EXPECT_EQ(appState.statusBannerViewTimeoutSeconds(), row.bannerTimeout);
        EXPECT_EQ(alerts().size(), row.alertCount);
        api.answers.clear();
    }
    // Two refusals in a row differ by their time.
    EXPECT_NE(LoginAndRegistrationPresenter::datedMessage("No.", std::chrono::system_clock::time_point{}),
              LoginAndRegistrationPresenter::datedMessage("No.", std::chrono::system_clock::time_point{} + 1s));
}

TEST_F(LoginPresenterTest, EndsOfTheWaitForTheLink) {
    const auto timedOut = transportError(url_error::kTimedOut, "The request timed out.");
    const struct {
        const char* name;
        platform::HttpResult end;
        bool withModel;
        LoginState state;
        bool checkInProcess;
        std::size_t mailRequests;
        std::size_t alertCount;
    } rows[] = {
        {"time-out with the address: a new mail and a new wait", timedOut, true, LoginState::loginProgress, true, 2,
         0},
        {"time-out without the address: it stays waiting", timedOut, false, LoginState::loginProgress, true, 1, 0},
        {"another error: back to the form with an alert",
         transportError(url_error::kCannotConnectToHost, "Could not connect to the server."), true,
         LoginState::logout, false, 1, 1},
        {"no record and no error: it stays waiting",
         json(408, {{"error", "SignInTimeout"}, {"message", "The sign-in link was not opened in time."}}), true,
         LoginState::loginProgress, true, 1, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        settings.setLastKnownLoginState("logout");
        appState.setLastKnownErrorLocalizedDescription(std::nullopt);
        toasts.shown.clear();
        api.sent.clear();
        api.heldWaits.clear();
        auto& p = start();
        api.answers["/auth/request"] = {json(200, {{"uuid", "u-a"}, {"message", "Mail sent."}}),
                                        json(200, {{"uuid", "u-b"}, {"message", "Mail sent again."}})};
        if (row.withModel) {
            submit("frank@example.org");
        } else {
            p.onClickLoginSubmit("frank@example.org");
            settle();
        }
        // Transport failures are retried by the account service before the poll hears of them.
        for (int attempt = 0; attempt < 4 && !api.heldWaits.empty(); ++attempt) {
            api.answerWait(row.end);
            settle();
            if (std::holds_alternative<platform::HttpResponse>(row.end)) break;
        }
        EXPECT_EQ(p.loginState(), row.state);
        EXPECT_EQ(p.isLoginCheckInProcess(), row.checkInProcess);
        EXPECT_EQ(api.count("/auth/request"), row.mailRequests);
        EXPECT_EQ(alerts().size(), row.alertCount);
        if (row.mailRequests == 2) {
            EXPECT_EQ(p.requestUUID(), std::optional<std::string>("u-b"));
            EXPECT_EQ(p.linkPollsStarted(), 2);
            EXPECT_EQ(api.heldWaits.size(), 1u) << "the new sign-in waits for its own link";
        }
        api.answers.clear();
    }
}

TEST_F(LoginPresenterTest, OfflineTheLastKnownStateStays) {
    const struct {
        const char* name;
        const char* lastKnown;
        bool token;
        bool details;
        LoginState expected;
    } rows[] = {
        {"signed in, no details", "loggedIn", true, false, LoginState::loggedIn},
        {"signed in, no token", "loggedIn", false, false, LoginState::loggedIn},
        {"signed in with details", "loggedIn", true, true, LoginState::loggedIn},
        {"signed out", "logout", false, false, LoginState::logout},
    };
    appState.setInternetAvailable(false);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        for (const auto& [key, value] : store.dictionaryRepresentation()) store.remove(key);
        settings.setLastKnownLoginState(row.lastKnown);
        if (row.token) settings.setToken("tok-offline");
        if (row.details)
            settings.setUserDetailsResponse(
                nlohmann::json(UserDetailsResponse{"gina@example.org", std::nullopt, 1, std::nullopt}.encode()));
        const auto sentBefore = api.sent.size();
        auto& p = start();
        EXPECT_EQ(p.loginState(), row.expected);
        EXPECT_EQ(settings.lastKnownLoginState(), row.lastKnown);
        EXPECT_EQ(api.sent.size(), sentBefore) << "offline nothing is asked of the account API";
    }
    // The user's own sign-out takes effect offline at once.
    presenter->logout();
    settle();
    EXPECT_EQ(presenter->loginState(), LoginState::logout);
    EXPECT_EQ(presenter->viewState(), LoginViewState::showLoginForm);
    EXPECT_EQ(settings.lastKnownLoginState(), "logout");
    EXPECT_FALSE(settings.token());
    EXPECT_FALSE(presenter->userClickedLogout()) << "used up by the state change";
}

TEST_F(LoginPresenterTest, ARestartKeepsTheStateAndTheDetails) {
    api.accounts["tok-r"] = "hank@example.org";
    signedInAs("hank@example.org", "tok-r");
    // The state and the details stored are what the new process shows before the account API has answered.
    auto& first = start(false);
    EXPECT_EQ(first.loginState(), LoginState::loggedIn);
    ASSERT_TRUE(first.userDetails());
    EXPECT_EQ(first.userDetails()->email, "hank@example.org");
    first.onViewLoad();
    settle();
    EXPECT_EQ(first.loginState(), LoginState::loggedIn);

    // A restart: a new presenter over the same settings.
    auto& second = start();
    EXPECT_EQ(second.loginState(), LoginState::loggedIn);
    EXPECT_EQ(second.viewState(), LoginViewState::showLoginDetails);
    EXPECT_EQ(api.count("/users/info"), 2u);

    second.logout();
    settle();
    auto& third = start();
    EXPECT_EQ(third.loginState(), LoginState::logout);
    EXPECT_FALSE(third.userDetails());
    EXPECT_FALSE(settings.userDetailsResponse());
    EXPECT_FALSE(settings.userEmail());
}

TEST_F(LoginPresenterTest, AnExpiredTokenIsEndedByTheLogOutOfItsMessage) {
    // The account API no longer knows the token: the refresh changes nothing stored, and the state stays.
    signedInAs("ivy@example.org", "tok-expired");
    auto& p = start();
    EXPECT_EQ(p.loginState(), LoginState::loggedIn);
    EXPECT_EQ(settings.token(), std::optional<std::string>("tok-expired"));

    // A request refused with "Unauthorized" offers the log-out in its message; the application wires it here.
    messages.logout = [&] { p.logoutUnauthorized(); };
    messages.showAlertForError(SPRStringError::errorMessageError("Unauthorized", "Unauthorized").toError(), 401);
    tp.runUntilIdle();
    ASSERT_EQ(toasts.shown.size(), 1u);
    EXPECT_EQ(toasts.shown[0].tapActionText, std::optional<std::string>("Log Out"));
    toasts.shown[0].tapAction();
    settle();
    EXPECT_EQ(p.loginState(), LoginState::logout);
    EXPECT_EQ(settings.lastKnownLoginState(), "logout");
    EXPECT_FALSE(settings.token());
    EXPECT_FALSE(settings.userEmail());
    EXPECT_FALSE(p.userClickedLogout()) << "the second path leaves the user's own flag alone";

    // Offline as well: the stored state goes first, so the refusal of offline changes can't keep the user in.
    signedInAs("ivy@example.org", "tok-expired");
    auto& offline = start();
    appState.setInternetAvailable(false);
    offline.logoutUnauthorized();
    settle();
    EXPECT_EQ(offline.loginState(), LoginState::logout);
    EXPECT_FALSE(settings.token());
}

TEST_F(LoginPresenterTest, SigningOutEndsAWaitingSignInAndItsLateLink) {
    auto& p = start();
    api.answers["/auth/request"] = {json(200, {{"uuid", "u-4"}, {"message", "Mail sent."}})};
    submit("jack@example.org");
    ASSERT_EQ(p.loginState(), LoginState::loginProgress);
    p.logout();
    settle();
    EXPECT_EQ(p.loginState(), LoginState::logout);
    EXPECT_EQ(appState.statusBannerViewMessage(), std::nullopt);
    EXPECT_FALSE(p.isLoginCheckInProcess());
    // The link opened later belongs to the sign-in given up.
    api.answerWait(json(200, confirmed("jack@example.org", "tok-late")));
    settle();
    EXPECT_EQ(p.loginState(), LoginState::logout);
    EXPECT_FALSE(settings.token());
}

} // namespace
} // namespace sprelio

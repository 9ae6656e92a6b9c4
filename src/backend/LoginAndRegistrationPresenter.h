#pragma once
// The sign-in state of the application and the two ways of signing in: an address is submitted, the account
// service mails a link and a one-time code, and the client waits on a long poll for the link while it also takes
// the code typed by hand. The last known state is kept in the settings, and a fall to signed-out is refused while
// there is no network, so that an offline start keeps the user signed in.
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "backend/LoginResourceService.h"
#include "base/LifetimeGuard.h"

namespace sprelio {

class AppState;
class ErrorPresenter;
namespace store {
class Settings;
}

// Stored by its case name under "lastKnownLoginState".
enum class LoginState { logout = 0, loggedIn = 1, loginProgress = 2 };
enum class LoginViewState { showLoginForm, showOtpForm, showLoginDetails };

std::string_view loginStateName(LoginState state);
// Nothing for a text that is no case.
std::optional<LoginState> parseLoginState(std::string_view text);
std::string_view loginViewStateName(LoginViewState state);
LoginViewState viewStateFor(LoginState state);

struct LoginEmailModel {
    std::string email;
};

class LoginAndRegistrationPresenter {
public:
    struct Dependencies {
        platform::MainLoop& loop;
        platform::Clock& clock;
        store::Settings& settings;
        AppState& appState;
        LoginResourceService& loginService;
        // Shows sign-in failures; none: they are only logged.
        ErrorPresenter* messages = nullptr;
    };

    // How long a refused address's message stays in the banner.
    static constexpr double kRefusedMessageSeconds = 5.0;

    // Reads the last known state and the stored details; the refresh and the token check follow in onViewLoad().
    explicit LoginAndRegistrationPresenter(Dependencies deps);
    ~LoginAndRegistrationPresenter();
    LoginAndRegistrationPresenter(const LoginAndRegistrationPresenter&) = delete;
    LoginAndRegistrationPresenter& operator=(const LoginAndRegistrationPresenter&) = delete;

    // The early work of the launch: a forced refresh of the account, then the token check.
    void onViewLoad();

    // The form has checked the address (isValidEmail) and set lastLoginEmailModel before this.
    void onClickLoginSubmit(const std::string& email);
    void onClickOtpSubmit(const std::string& code);
    // The user signs out: it takes effect offline as well.
    void logout();
    // The account service no longer accepts the token (the "Log Out" of an "Unauthorized" message).
    void logoutUnauthorized();
    // The token check: no token gives the signed-out state, a token the state its details give.
    void checkToken();
    void checkAndUpdateUserState();
    // A request for a new state; applied on the main loop, and refused while offline unless the user signed out.
    void setLoginState(LoginState state);
    // The details the account service brings with each refresh.
    void setUserDetails(std::optional<UserDetailsResponse> details);

    LoginState loginState() const { return loginState_; }
    LoginState lastKnownLoginState() const;
    LoginViewState viewState() const { return viewState_; }
    const std::optional<UserDetailsResponse>& userDetails() const { return userDetails_; }
    const std::optional<LoginEmailModel>& lastLoginEmailModel() const { return lastLoginEmailModel_; }
    void setLastLoginEmailModel(std::optional<LoginEmailModel> model) { lastLoginEmailModel_ = std::move(model); }
    const std::optional<std::string>& requestUUID() const { return requestUUID_; }
    bool isLoginCheckInProcess() const { return isLoginCheckInProcess_; }
    bool userClickedLogout() const { return userClickedLogout_; }
    // Long polls for the link sent so far (each restart after a time-out is one more).
    int linkPollsStarted() const { return linkPollsStarted_; }

    // Views call this to hear of every change of what they show; each observer lives as long as the presenter.
    void addObserver(std::function<void()> observer) { observers_.push_back(std::move(observer)); }

    // The form's check of an address, over the whole text.
    static bool isValidEmail(const std::string& text);
    // A refused address's message with the time, so that two refusals in a row look different.
    static std::string datedMessage(const std::string& message, std::chrono::system_clock::time_point at);

private:
    void deriveViewState();
    void changed();
    void startLoginVerifyPooling(const std::string& uuid, const std::string& message);
    void loginSucceeded(const LoginConfirmResponse& record);
    void showAlert(const Error& error, std::optional<int> statusCode, bool showRepeated = false);
    void showBanner(std::optional<std::string> message, std::optional<double> timeoutSeconds);
    void clearBanner() { showBanner(std::nullopt, std::nullopt); }

    Dependencies deps_;
    LoginState loginState_ = LoginState::logout;
    LoginViewState viewState_ = LoginViewState::showLoginForm;
    std::optional<LoginEmailModel> lastLoginEmailModel_;
    std::optional<UserDetailsResponse> userDetails_;
    std::optional<std::string> requestUUID_;
    bool isLoginCheckInProcess_ = false;
    bool userClickedLogout_ = false;
    int linkPollsStarted_ = 0;
    std::optional<std::chrono::steady_clock::time_point> pollStartedAt_;
    std::vector<std::function<void()>> observers_;
    LifetimeGuard lifetime_;
};

} // namespace sprelio

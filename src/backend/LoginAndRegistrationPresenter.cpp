#include "backend/LoginAndRegistrationPresenter.h"

#include <ctime>
#include <regex>

#include "base/JsonAccess.h"
#include "base/Log.h"
#include "shared/AppState.h"
#include "shared/Errors.h"
#include "store/Settings.h"

namespace sprelio {

namespace {

constexpr const char* kPresenter = "LoginAndRegistrationPresenter.";

std::string responseText(const std::optional<platform::HttpResponse>& response) {
    if (!response) return "nil";
    return "{ Status Code: " + std::to_string(response->status) + " }";
}

std::optional<int> statusOf(const std::optional<platform::HttpResponse>& response) {
    if (!response) return std::nullopt;
    return static_cast<int>(response->status);
}

} // namespace

std::string_view loginStateName(LoginState state) {
    switch (state) {
    case LoginState::logout: return "logout";
    case LoginState::loggedIn: return "loggedIn";
    case LoginState::loginProgress: return "loginProgress";
    }
    return "logout";
}

std::optional<LoginState> parseLoginState(std::string_view text) {
    for (auto state : {LoginState::logout, LoginState::loggedIn, LoginState::loginProgress})
        if (loginStateName(state) == text) return state;
    return std::nullopt;
}

std::string_view loginViewStateName(LoginViewState state) {
    switch (state) {
    case LoginViewState::showLoginForm: return "showLoginForm";
    case LoginViewState::showOtpForm: return "showOtpForm";
    case LoginViewState::showLoginDetails: return "showLoginDetails";
    }
    return "showLoginForm";
}

LoginViewState viewStateFor(LoginState state) {
    switch (state) {
    case LoginState::logout: return LoginViewState::showLoginForm;
    case LoginState::loginProgress: return LoginViewState::showOtpForm;
    case LoginState::loggedIn: return LoginViewState::showLoginDetails;
    }
    return LoginViewState::showLoginForm;
}

bool LoginAndRegistrationPresenter::isValidEmail(const std::string& text) {
    static const std::regex pattern("[A-Z0-9a-z._%+-]+@[A-Za-z0-9.-]+\\.[A-Za-z]{2,}");
    return std::regex_match(text, pattern);
}

std::string LoginAndRegistrationPresenter::datedMessage(const std::string& message,
                                                        std::chrono::system_clock::time_point at) {
    const std::time_t time = std::chrono::system_clock::to_time_t(at);
    std::tm local{};
    char date[64] = "";
    if (localtime_r(&time, &local)) std::strftime(date, sizeof date, "%x %X", &local);
    return message + " - (" + date + ")";
}

LoginAndRegistrationPresenter::LoginAndRegistrationPresenter(Dependencies deps) : deps_(std::move(deps)) {
    const LoginState last = lastKnownLoginState();
    logInfo(std::string(kPresenter) + "init() - lastKnownLoginState: " + std::string(loginStateName(last)));
    // Drawn at once as last known; the request below confirms it (or not, online) on the loop.
    loginState_ = last;
    setLoginState(last);
    if (const auto stored = deps_.settings.userDetailsResponse()) userDetails_ = UserDetailsResponse::decode(*stored);
    deriveViewState();
    deps_.loginService.onUserDetails = lifetime_.guard([this](const UserDetailsResponse& details) {
        setUserDetails(details);
    });
}

LoginAndRegistrationPresenter::~LoginAndRegistrationPresenter() {
    lifetime_.expire();
    deps_.loginService.onUserDetails = nullptr;
}

LoginState LoginAndRegistrationPresenter::lastKnownLoginState() const {
    const std::string stored = deps_.settings.lastKnownLoginState();
    if (const auto state = parseLoginState(stored)) return *state;
    logError(std::string(kPresenter) + "lastKnownLoginState - unknown stored state \"" + stored + "\", using logout");
    return LoginState::logout;
}

void LoginAndRegistrationPresenter::onViewLoad() {
    deps_.loginService.refreshUserInfo("LoginAndRegistrationPresenter.onViewLoad{}", true,
                                       lifetime_.guard([this](std::optional<Error>) {
                                           deps_.loop.post(lifetime_.guard([this] {
                                               deriveViewState();
                                               changed();
                                               checkToken();
                                           }));
                                       }));
}

void LoginAndRegistrationPresenter::deriveViewState() { viewState_ = viewStateFor(loginState_); }

void LoginAndRegistrationPresenter::changed() {
    for (const auto& observer : observers_) observer();
}

void LoginAndRegistrationPresenter::setLoginState(LoginState state) {
    logInfo(std::string(kPresenter) + "loginState: " + std::string(loginStateName(loginState_)));
    deps_.loop.post(lifetime_.guard([this, state] {
        const LoginState last = lastKnownLoginState();
        if (!deps_.appState.internetAvailable() && !userClickedLogout_) {
            // Offline nothing can confirm a change: the user stays as last known.
            loginState_ = last;
            deriveViewState();
            changed();
            return;
        }
        userClickedLogout_ = false;
        loginState_ = state;
        deriveViewState();
        if (state != last) {
            deps_.loginService.refreshUserInfo("LoginAndRegistrationPresenter.loginState{}", true,
                                               [](std::optional<Error>) {});
        }
        deps_.settings.setLastKnownLoginState(std::string(loginStateName(state)));
        changed();
    }));
}

void LoginAndRegistrationPresenter::setUserDetails(std::optional<UserDetailsResponse> details) {
    const bool arrived = details.has_value() && details != userDetails_;
    userDetails_ = std::move(details);
    changed();
    // Details that arrive with a stored token are what a sign-in waits for.
    if (arrived && deps_.settings.token()) checkToken();
}

void LoginAndRegistrationPresenter::checkToken() {
    if (!deps_.settings.token()) {
        setLoginState(LoginState::logout);
        return;
    }
    deps_.loop.post(lifetime_.guard([this] { checkAndUpdateUserState(); }));
}

void LoginAndRegistrationPresenter::checkAndUpdateUserState() {
    if (!userDetails_) {
        logWarning("checkAndUpdateUserState() - loginState: .logout");
        setLoginState(LoginState::logout);
        return;
    }
    deps_.settings.setUserEmail(userDetails_->email);
    if (userDetails_->token) deps_.settings.setToken(*userDetails_->token);
    setLoginState(LoginState::loggedIn);
}

void LoginAndRegistrationPresenter::showAlert(const Error& error, std::optional<int> statusCode, bool showRepeated) {
    if (deps_.messages) deps_.messages->showAlertForError(error, statusCode, showRepeated);
}

void LoginAndRegistrationPresenter::showBanner(std::optional<std::string> message,
                                               std::optional<double> timeoutSeconds) {
    deps_.appState.setStatusBannerViewMessage(std::move(message));
    deps_.appState.setStatusBannerViewTimeoutSeconds(timeoutSeconds);
    changed();
}

void LoginAndRegistrationPresenter::onClickLoginSubmit(const std::string& email) {
    deps_.loginService.login(email, lifetime_.guard([this](std::optional<LoginEmailResponse> record,
                                                          std::optional<platform::HttpResponse> response,
                                                          std::optional<Error> error) {
        const auto status = statusOf(response);
        if (error) {
            logError("onClickLoginSubmit() - error: " + error->localizedDescription);
            showAlert(*error, status);
            clearBanner();
            return;
        }
        if (record && status && *status >= 200 && *status <= 299) {
            deps_.loop.post(lifetime_.guard([this, record = *record] {
                startLoginVerifyPooling(record.uuid, record.message);
            }));
            return;
        }
        if (record) {
            const std::string text = datedMessage(record->message, deps_.clock.now());
            logWarning("onClickLoginSubmit() - request not succesful, message: " + text);
            deps_.loop.post(lifetime_.guard([this, text] {
                clearBanner();
                showBanner(text, kRefusedMessageSeconds);
            }));
            return;
        }
        logWarning("onClickLoginSubmit() - response: " + responseText(response));
    }));
}

void LoginAndRegistrationPresenter::startLoginVerifyPooling(const std::string& uuid, const std::string& message) {
    requestUUID_ = uuid;
    setLoginState(LoginState::loginProgress);
    isLoginCheckInProcess_ = true;
    pollStartedAt_ = deps_.clock.steadyNow();
    ++linkPollsStarted_;
    deps_.loginService.checkLoginViaLink(
        uuid, lifetime_.guard([this, uuid](std::optional<LoginConfirmResponse> record,
                                           std::optional<platform::HttpResponse> response, std::optional<Error> error) {
            if (pollStartedAt_) {
                const auto waited = std::chrono::duration<double>(deps_.clock.steadyNow() - *pollStartedAt_).count();
                logInfo("startLoginVerifyPooling() - the wait for the link took " + doubleText(waited) + " seconds");
                pollStartedAt_.reset();
            }
            // A poll of a sign-in that was given up or replaced meanwhile has nothing left to decide.
            if (requestUUID_ != uuid) {
                logInfo("startLoginVerifyPooling() - the answer belongs to an earlier sign-in, ignoring it");
                return;
            }
            if (error && error->debugDescription().find("1001") != std::string::npos) {
                if (lastLoginEmailModel_) {
                    logInfo("startLoginVerifyPooling() - the wait timed out, asking for a new link");
                    onClickLoginSubmit(lastLoginEmailModel_->email);
                }
                return;
            }
            if (error) {
                deps_.loop.post(lifetime_.guard([this, error = *error, status = statusOf(response)] {
                    isLoginCheckInProcess_ = false;
                    clearBanner();
                    checkToken();
                    logError("startLoginVerifyPooling() - error: " + error.debugDescription());
                    showAlert(error, status);
                }));
                return;
            }
            if (!record) {
                logWarning("startLoginVerifyPooling() - response: " + responseText(response));
                return;
            }
            deps_.loop.post(lifetime_.guard([this, record = *record] { loginSucceeded(record); }));
        }));
    showBanner(message, std::nullopt);
}

void LoginAndRegistrationPresenter::onClickOtpSubmit(const std::string& code) {
    if (!requestUUID_) {
        logWarning("onClickOtpSubmit() - no sign-in is waiting for a code");
        return;
    }
    isLoginCheckInProcess_ = true;
    changed();
    deps_.loginService.loginViaCode(
        *requestUUID_, code,
        lifetime_.guard([this](std::optional<LoginConfirmResponse> record,
                               std::optional<platform::HttpResponse> response, std::optional<Error> error) {
            if (error) {
                logError("onClickOtpSubmit() - error: " + error->debugDescription());
                deps_.loop.post(lifetime_.guard([this, error = *error, status = statusOf(response)] {
                    // The form's own alert: a second wrong code is told again.
                    showAlert(error, status, true);
                    isLoginCheckInProcess_ = false;
                    clearBanner();
                    checkToken();
                }));
                return;
            }
            if (!record) {
                logWarning("onClickOtpSubmit() - response: " + responseText(response));
                return;
            }
            deps_.loop.post(lifetime_.guard([this, record = *record] { loginSucceeded(record); }));
        }));
}

void LoginAndRegistrationPresenter::loginSucceeded(const LoginConfirmResponse& record) {
    deps_.settings.setToken(record.token);
    deps_.settings.setUserEmail(record.email);
    isLoginCheckInProcess_ = false;
    clearBanner();
    if (userDetails_) {
        checkToken();
        return;
    }
    // A first sign-in has no details yet: they come with the refresh, and checking before they are here would
    // show the address form again for a moment.
    deps_.loginService.refreshUserInfo("LoginAndRegistrationPresenter.loginSucceeded{}", true,
                                       lifetime_.guard([this](std::optional<Error>) { checkToken(); }));
}

void LoginAndRegistrationPresenter::logout() {
    logInfo(std::string(kPresenter) + "logout()");
    userClickedLogout_ = true;
    setLoginState(LoginState::logout);
    userDetails_.reset();
    deps_.settings.setUserDetailsResponse(std::nullopt);
    deps_.settings.setToken(std::nullopt);
    deps_.settings.setUserEmail(std::nullopt);
    requestUUID_.reset();
    isLoginCheckInProcess_ = false;
    clearBanner();
}

void LoginAndRegistrationPresenter::logoutUnauthorized() {
    logInfo(std::string(kPresenter) + "logoutUnauthorized() - the account service refused the token");
    deps_.settings.setLastKnownLoginState(std::string(loginStateName(LoginState::logout)));
    setLoginState(LoginState::logout);
    requestUUID_.reset();
    isLoginCheckInProcess_ = false;
    clearBanner();
    deps_.settings.setToken(std::nullopt);
    deps_.settings.setUserEmail(std::nullopt);
}

} // namespace sprelio

#include "app/BackendCommands.h"

#include <chrono>
#include <fstream>
#include <ostream>
#include <sstream>

#include "app/BackendContext.h"
#include "app/CommandSupport.h"
#include "backend/LoginAndRegistrationPresenter.h"
#include "base/JsonAccess.h"
#include "base/Log.h"
#include "store/AtomicFile.h"
#include "store/JsonFileSettingsStore.h"

// sprelio account, login and logout: the account API from the terminal.
namespace sprelio::app {

namespace {

namespace fs = std::filesystem;

constexpr auto kAccountLimit = std::chrono::minutes(5);
// The link's long poll restarts itself until the user acts; a day is past any sensible wait.
constexpr auto kLoginLimit = std::chrono::hours(24);

constexpr const char* kSignInRequestFile = "sign-in-request";
// A sign-in finished by the code in another command is in the settings file within moments of the link's poll
// ending; how long to look, and how often.
constexpr auto kCodeSignInWait = std::chrono::seconds(15);
constexpr auto kSettingsRecheck = std::chrono::milliseconds(100);

int account(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() != 2) return fail(err, "account: takes no arguments", 2);
    AppEnvironment env;
    BackendContext context(env, err);
    std::string startError;
    if (!context.start(startError)) return fail(err, "account: " + startError);
    auto& service = context.account();

    bool done = false;
    bool userSectionArrived = false;
    std::optional<Error> failure;
    service.onUserDetails = [&](const UserDetailsResponse&) { userSectionArrived = true; };
    context.loop().post([&] {
        service.refreshUserInfo("sprelio account", true, [&](std::optional<Error> error) {
            failure = std::move(error);
            done = true;
        });
    });
    const bool ended = context.runUntil([&] { return done; }, kAccountLimit);
    context.drain();
    if (!ended) return fail(err, "account: no answer from the account API (see the log)");
    if (failure) {
        return fail(err, "account: the account API at " + context.endpoint().baseURL() +
                             " could not be reached: " + failure->localizedDescription);
    }

    auto& settings = env.settings();
    out << "Account API: " << context.endpoint().baseURL()
        << (context.endpoint().isEmbedded() ? " (embedded server)" : "") << "\n";
    const auto details = settings.userDetailsResponse() ? UserDetailsResponse::decode(*settings.userDetailsResponse())
                                                        : std::nullopt;
    if (userSectionArrived && details && settings.token()) {
        out << "Signed in as: " << details->email << "\n";
        out << "Requests: " << details->requests << "\n";
    } else if (settings.token()) {
        out << "Signed in as: (not signed in: the account API did not accept the stored sign-in; run sprelio login "
               "EMAIL)\n";
    } else {
        out << "Signed in as: (not signed in; run sprelio login EMAIL)\n";
    }
    if (service.flags()) out << "Flags: " << service.flags()->dump() << "\n";

    const auto& balancers = context.balancing().balancers();
    out << "Backends:" << (balancers.empty() ? " (none)" : "") << "\n";
    for (std::size_t i = 0; i < balancers.size(); ++i) {
        const auto& b = *balancers[i];
        out << "  " << (i + 1) << ". " << b.name << "  " << b.url << "  " << (b.isOnline ? "online" : "offline")
            << "\n";
    }
    const auto& servers = service.aiServers();
    out << "AI servers:" << (servers.empty() ? " (none)" : "") << "\n";
    for (const auto& server : servers) {
        out << "  " << server.name << "  " << server.url << "  models: " << joined(server.models, ", ") << "\n";
    }
    const auto& models = service.aiModels();
    out << "AI models:" << (models.empty() ? " (none)" : "") << "\n";
    for (const auto& model : models) {
        out << "  " << model.name << " (" << model.model << ")  languages: " << joined(model.languages, ", ");
        if (model.providerName) out << "  provider: " << *model.providerName;
        out << "\n";
    }
    return 0;
}

// ---- login, logout ----

// The sign-in waiting for its link or code, kept between commands: `sprelio login EMAIL` and
// `sprelio login --code CODE` are separate processes.
struct PendingSignIn {
    std::string uuid;
    std::string email;
    std::string apiBaseURL;
};

fs::path pendingSignInFile(AppEnvironment& env) { return env.constants().appSupportFolder() / kSignInRequestFile; }

void storePendingSignIn(AppEnvironment& env, const PendingSignIn& pending) {
    const nlohmann::ordered_json json{{"uuid", pending.uuid}, {"email", pending.email}, {"apiBaseURL", pending.apiBaseURL}};
    const auto error = store::writeFileAtomically(pendingSignInFile(env), json.dump(), 0600);
    if (!error.empty()) logError("sprelio login - could not keep the sign-in request: " + error);
}

std::optional<PendingSignIn> loadPendingSignIn(AppEnvironment& env) {
    std::ifstream in(pendingSignInFile(env));
    if (!in) return std::nullopt;
    std::stringstream text;
    text << in.rdbuf();
    try {
        const auto json = nlohmann::json::parse(text.str());
        PendingSignIn pending{json.at("uuid").get<std::string>(), json.at("email").get<std::string>(),
                              json.at("apiBaseURL").get<std::string>()};
        return pending;
    } catch (const std::exception& e) {
        logError("sprelio login - unreadable sign-in request file: " + std::string(e.what()));
        return std::nullopt;
    }
}

void forgetPendingSignIn(AppEnvironment& env) {
    std::error_code ignored;
    fs::remove(pendingSignInFile(env), ignored);
}

std::string embeddedLoginText() {
    return "the embedded account API (apiBaseURL \"embedded\") has one local account, which is always signed in; to "
           "sign in to an account server, set its URL first: sprelio settings set apiBaseURL URL";
}

// The success steps of a sign-in: token and address stored, the state signed in, then a fresh user info, which
// brings the account's details. `done` runs on the loop once that refresh has ended.
void completeSignIn(BackendContext& context, const LoginConfirmResponse& record, std::function<void()> done) {
    auto& settings = context.env().settings();
    settings.setToken(record.token);
    settings.setUserEmail(record.email);
    forgetPendingSignIn(context.env());
    const bool changed = settings.lastKnownLoginState() != "loggedIn";
    settings.setLastKnownLoginState("loggedIn");
    if (!changed) {
        done();
        return;
    }
    context.account().refreshUserInfo("LoginAndRegistrationPresenter.loginState{}", true,
                                      [done = std::move(done)](std::optional<Error>) { done(); });
}

// The server's words in an answer that carries no record.
std::string answerText(const std::optional<platform::HttpResponse>& response) {
    if (!response) return "no answer";
    try {
        if (auto message = stringValue(nlohmann::json::parse(response->body), "message")) return *message;
    } catch (const std::exception&) {
    }
    return "HTTP status " + std::to_string(response->status);
}

int loginWithCode(const std::string& code, std::ostream& out, std::ostream& err) {
    AppEnvironment env;
    const auto pending = loadPendingSignIn(env);
    if (!pending) return fail(err, "login --code: no sign-in waits for a code; run sprelio login EMAIL first");
    if (pending->apiBaseURL != ApiEndpoint::configuredBaseURL(env.settings()))
        return fail(err, "login --code: the sign-in was asked of " + pending->apiBaseURL +
                             ", but the account API is now " + ApiEndpoint::configuredBaseURL(env.settings()) +
                             "; run sprelio login EMAIL again");
    BackendContext context(env, err);
    std::string startError;
    if (!context.start(startError)) return fail(err, "login --code: " + startError);

    bool done = false;
    int status = 1;
    std::optional<std::string> failureText;
    context.loop().post([&] {
        context.account().loginViaCode(
            pending->uuid, code,
            [&](std::optional<LoginConfirmResponse> record, std::optional<platform::HttpResponse> response,
                std::optional<Error> error) {
                if (record) {
                    completeSignIn(context, *record, [&, email = record->email] {
                        out << "Signed in as " << email << ".\n";
                        status = 0;
                        done = true;
                    });
                    return;
                }
                if (error) {
                    logError("onClickOtpSubmit() - error: " + error->debugDescription());
                    context.messages().showAlertForError(*error);
                    failureText = error->localizedDescription;
                } else {
                    logWarning("onClickOtpSubmit() - response: " + answerText(response));
                    failureText = "the account API did not confirm the code: " + answerText(response);
                }
                done = true;
            });
    });
    const bool ended = context.runUntil([&] { return done; }, kAccountLimit);
    context.drain();
    if (!ended) return fail(err, "login --code: no answer from the account API (see the log)");
    if (failureText) context.reportFailure(err, *failureText);
    return status;
}

int loginWithEmail(const std::string& email, std::ostream& out, std::ostream& err) {
    if (!LoginAndRegistrationPresenter::isValidEmail(email)) return fail(err, "login: \"" + email + "\" is no e-mail address", 2);
    AppEnvironment env;
    if (ApiEndpoint::configuredBaseURL(env.settings()) == kEmbeddedApi) return fail(err, "login: " + embeddedLoginText());
    BackendContext context(env, err);
    std::string startError;
    if (!context.start(startError)) return fail(err, "login: " + startError);
    auto& service = context.account();
    auto& settings = env.settings();
    const auto tokenBefore = settings.token();

    bool done = false;
    int status = 1;
    std::optional<std::string> failureText;
    std::function<void()> requestSignIn;
    std::function<void(const std::string&)> waitForLink;
    std::function<void()> awaitSignInElsewhere;
    std::string usedElsewhereAnswer;
    std::chrono::steady_clock::time_point giveUpWaitingAt;

    waitForLink = [&](const std::string& uuid) {
        service.checkLoginViaLink(uuid, [&, uuid](std::optional<LoginConfirmResponse> record,
                                                  std::optional<platform::HttpResponse> response,
                                                  std::optional<Error> error) {
            if (record) {
                completeSignIn(context, *record, [&, signedIn = record->email] {
                    out << "Signed in as " << signedIn << ".\n";
                    status = 0;
                    done = true;
                });
                return;
            }
            if (error && error->debugDescription().find("1001") != std::string::npos) {
                // The link was not used in time: a new sign-in, with a new mail.
                out << "The link was not used in time; asking for a new one.\n" << std::flush;
                requestSignIn();
                return;
            }
            if (error) {
                logError("startLoginVerifyPooling() - error: " + error->debugDescription());
                context.messages().showAlertForError(*error);
                failureText = error->localizedDescription;
                done = true;
                return;
            }
            logWarning("startLoginVerifyPooling() - response: " + answerText(response));
            // The poll ends without a record when the request was used up meanwhile: by the code, typed into
            // another `sprelio login --code`, which writes the settings file once its own answer has arrived.
            usedElsewhereAnswer = answerText(response);
            giveUpWaitingAt = std::chrono::steady_clock::now() + kCodeSignInWait;
            awaitSignInElsewhere();
        });
    };

    awaitSignInElsewhere = [&] {
        // This process's copy of the settings is older than the file: the file is read afresh.
        store::JsonFileSettingsStore current(env.constants().settingsFile());
        const auto token = current.object("token");
        const auto userEmail = current.object("userEmail");
        if (token && token->is_string() && (!tokenBefore || token->get<std::string>() != *tokenBefore) &&
            userEmail && userEmail->is_string()) {
            out << "Signed in as " << userEmail->get<std::string>() << " (with the code).\n";
            status = 0;
            done = true;
            return;
        }
        if (std::chrono::steady_clock::now() >= giveUpWaitingAt) {
            failureText = "the sign-in ended without signing in: " + usedElsewhereAnswer;
            done = true;
            return;
        }
        context.loop().postAfter(kSettingsRecheck, [&] { awaitSignInElsewhere(); });
    };

    requestSignIn = [&] {
        service.login(email, [&](std::optional<LoginEmailResponse> record, std::optional<platform::HttpResponse> response,
                                 std::optional<Error> error) {
            const long code = response ? response->status : 0;
            if (error) {
                logError("onClickLoginSubmit() - error: " + error->localizedDescription);
                failureText = error->localizedDescription;
                done = true;
                return;
            }
            if (record && code >= 200 && code <= 299) {
                storePendingSignIn(env, PendingSignIn{record->uuid, email, context.endpoint().baseURL()});
                settings.setLastKnownLoginState("loginProgress");
                out << record->message << "\n"
                    << "Open the link in the e-mail, or run: sprelio login --code CODE\n"
                    << "Waiting for the link to be opened...\n"
                    << std::flush;
                waitForLink(record->uuid);
                return;
            }
            if (record) {
                const std::string text =
                    LoginAndRegistrationPresenter::datedMessage(record->message, std::chrono::system_clock::now());
                logWarning("onClickLoginSubmit() - request not succesful, message: " + text);
                failureText = text;
                done = true;
                return;
            }
            logWarning("onClickLoginSubmit() - response: " + answerText(response));
            failureText = "the account API did not accept the sign-in: " + answerText(response);
            done = true;
        });
    };

    context.loop().post([&] { requestSignIn(); });
    const bool ended = context.runUntil([&] { return done; }, kLoginLimit);
    context.drain();
    if (!ended) return fail(err, "login: gave up waiting for the link");
    if (failureText) context.reportFailure(err, *failureText);
    return status;
}

int login(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() == 4 && args[2] == "--code") return loginWithCode(args[3], out, err);
    if (args.size() == 3 && !args[2].starts_with("--")) return loginWithEmail(args[2], out, err);
    return fail(err, "login: expected EMAIL or --code CODE", 2);
}

int logout(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() != 2) return fail(err, "logout: takes no arguments", 2);
    AppEnvironment env;
    auto& settings = env.settings();
    // Works offline: nothing here needs the account API.
    settings.setLastKnownLoginState("logout");
    settings.setUserDetailsResponse(std::nullopt);
    settings.setToken(std::nullopt);
    settings.setUserEmail(std::nullopt);
    forgetPendingSignIn(env);
    if (!env.settingsStore().lastWriteSucceeded())
        return fail(err, "logout: could not write " + env.settingsStore().path().string());
    logInfo("sprelio logout - signed out");
    out << "Signed out.\n";
    if (ApiEndpoint::configuredBaseURL(settings) == kEmbeddedApi)
        out << "(The embedded account API signs its local account in again at the next command that uses it.)\n";
    return 0;
}

} // namespace

int accountCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    return account(args, out, err);
}

int loginCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    return login(args, out, err);
}

int logoutCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    return logout(args, out, err);
}

} // namespace sprelio::app

// The sign-in routes of BackendServer under /auth: the request that mails a link and a code, the link a browser
// opens, the client's wait for it, and the code typed in instead.
#include "server/BackendServer.h"

#include <httplib.h>

#include <nlohmann/json.hpp>

#include "server/ApiError.h"
#include "server/RequestHelpers.h"

namespace sprelio::server {

namespace {

nlohmann::json confirmationJson(const SignInConfirmed& confirmed) {
    return {{"token", confirmed.token},
            {"requests", confirmed.account.requests},
            {"email", confirmed.account.email},
            {"user", {{"email", confirmed.account.email}, {"guid", confirmed.account.guid}}}};
}

} // namespace

void BackendServer::handleSignInRequest(const httplib::Request& request, httplib::Response& response) {
    if (!request.has_param("email")) {
        api_error::badRequest("Please enter a valid e-mail address.").applyTo(response);
        return;
    }
    auto started = signIn_->request(request.get_param_value("email"), url() + "/auth/confirm?token=",
                                    request.remote_addr);
    if (auto* error = std::get_if<ApiError>(&started)) {
        error->applyTo(response);
        return;
    }
    const auto& ok = std::get<SignInStarted>(started);
    response.set_content(nlohmann::json{{"uuid", ok.uuid}, {"message", ok.message}}.dump(), "application/json");
}

void BackendServer::handleSignInLink(const httplib::Request& request, httplib::Response& response) {
    auto confirmed = signIn_->confirmLink(request.has_param("token") ? request.get_param_value("token") : "");
    if (auto* error = std::get_if<ApiError>(&confirmed)) {
        response.status = error->status;
        response.set_content(htmlPage("Sign-in not possible", error->message), "text/html; charset=utf-8");
        return;
    }
    response.set_content(htmlPage("Sign-in confirmed", "You are now signed in to Sprelio. You can close this page "
                                                       "and return to the application."),
                         "text/html; charset=utf-8");
}

void BackendServer::handleSignInWait(const httplib::Request& request, httplib::Response& response) {
    auto uuid = request.has_param("uuid") ? request.get_param_value("uuid") : "";
    auto answer = signIn_->waitForLink(uuid);
    if (auto* error = std::get_if<ApiError>(&answer)) {
        error->applyTo(response);
        return;
    }
    response.set_content(confirmationJson(std::get<SignInConfirmed>(answer)).dump(), "application/json");
}

void BackendServer::handleSignInCode(const httplib::Request& request, httplib::Response& response) {
    auto body = nlohmann::json::parse(request.body, nullptr, false);
    if (!body.is_object() || !body.contains("uuid") || !body["uuid"].is_string() || !body.contains("code") ||
        !body["code"].is_string()) {
        api_error::badRequest("The body must be a JSON object with the strings uuid and code.").applyTo(response);
        return;
    }
    auto answer = signIn_->submitCode(body["uuid"].get<std::string>(), body["code"].get<std::string>(),
                                      request.remote_addr);
    if (auto* error = std::get_if<ApiError>(&answer)) {
        error->applyTo(response);
        return;
    }
    response.set_content(confirmationJson(std::get<SignInConfirmed>(answer)).dump(), "application/json");
}

} // namespace sprelio::server

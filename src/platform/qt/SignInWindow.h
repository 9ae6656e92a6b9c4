#pragma once
// The sign-in window: the address form, then the form for the code while the link in the e-mail is awaited, then
// the account's details with "Log Out". It draws the sign-in presenter's state and hands the user's input to it;
// the embedded account, which is always signed in, is shown as such.
#include <QWidget>
#include <string>

#include "backend/LoginAndRegistrationPresenter.h"

class QLabel;
class QLineEdit;
class QPushButton;
class QStackedWidget;

namespace sprelio {
class AppState;
}

namespace sprelio::platform {

struct SignInWindowDependencies {
    LoginAndRegistrationPresenter& presenter;
    AppState& appState; // the status banner: the server's words while the link is awaited
    std::string appName;
    // The account API in use, shown to the user; "embedded" for the bundled server's local account.
    std::string apiBaseURL;
    bool embeddedAccount = false;
};

// One line on the account for the Main tab and the tray: who is signed in, or that nobody is.
QString accountSummary(const LoginAndRegistrationPresenter& presenter, bool embeddedAccount);
// The entry that opens the window: "Sign In…" while nobody is signed in, else "Account…".
QString accountActionTitle(const LoginAndRegistrationPresenter& presenter, bool embeddedAccount);

class SignInWindow final : public QWidget {
    Q_OBJECT
public:
    explicit SignInWindow(SignInWindowDependencies deps, QWidget* parent = nullptr);

    // Shows the window in front, on the page of the present state.
    void present();
    // Reads the presenter and the banner again.
    void refresh();

    // The page shown: the view state, or the details for the embedded account.
    LoginViewState page() const;
    QLineEdit* emailField() const { return email_; }
    QPushButton* sendButton() const { return send_; }
    QLabel* emailProblem() const { return emailProblem_; }
    QLineEdit* codeField() const { return code_; }
    QPushButton* codeButton() const { return codeButton_; }
    QPushButton* otherAddressButton() const { return otherAddress_; }
    QLabel* banner() const { return banner_; }
    QLabel* detailsLabel() const { return details_; }
    QPushButton* logoutButton() const { return logout_; }

private:
    void submitEmail();
    void submitCode();

    SignInWindowDependencies deps_;
    QStackedWidget* pages_ = nullptr;
    QLabel* banner_ = nullptr;
    QLineEdit* email_ = nullptr;
    QPushButton* send_ = nullptr;
    QLabel* emailProblem_ = nullptr;
    QLabel* sentTo_ = nullptr;
    QLineEdit* code_ = nullptr;
    QPushButton* codeButton_ = nullptr;
    QPushButton* otherAddress_ = nullptr;
    QLabel* details_ = nullptr;
    QLabel* embeddedNote_ = nullptr;
    QPushButton* logout_ = nullptr;
};

} // namespace sprelio::platform

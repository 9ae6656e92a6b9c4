#include "platform/qt/SignInWindow.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRegularExpressionValidator>
#include <QStackedWidget>
#include <QVBoxLayout>

#include "base/Log.h"
#include "platform/qt/MainWindowPanes.h"
#include "shared/AppState.h"

namespace sprelio::platform {

namespace {

QString qs(const std::string& text) { return QString::fromStdString(text); }

int pageIndex(LoginViewState state) {
    switch (state) {
    case LoginViewState::showLoginForm: return 0;
    case LoginViewState::showOtpForm: return 1;
    case LoginViewState::showLoginDetails: return 2;
    }
    return 0;
}

QPushButton* defaultButton(const QString& text, QWidget* parent) {
    auto* button = new QPushButton(text, parent);
    button->setDefault(true);
    button->setAutoDefault(true);
    return button;
}

} // namespace

QString accountSummary(const LoginAndRegistrationPresenter& presenter, bool embeddedAccount) {
    const auto& details = presenter.userDetails();
    if (embeddedAccount) return QStringLiteral("Account: the local account of the embedded server (always signed in)");
    switch (presenter.loginState()) {
    case LoginState::loggedIn:
        return QStringLiteral("Signed in as ") + (details ? qs(details->email) : QStringLiteral("(details not loaded yet)"));
    case LoginState::loginProgress: return QStringLiteral("Signing in: waiting for the link or the code from the e-mail");
    case LoginState::logout: break;
    }
    return QStringLiteral("Not signed in");
}

QString accountActionTitle(const LoginAndRegistrationPresenter& presenter, bool embeddedAccount) {
    if (embeddedAccount || presenter.loginState() == LoginState::loggedIn) return QStringLiteral("Account…");
    return QStringLiteral("Sign In…");
}

SignInWindow::SignInWindow(SignInWindowDependencies deps, QWidget* parent)
    : QWidget(parent, Qt::Window), deps_(std::move(deps)) {
    setObjectName(QStringLiteral("signInWindow"));
    setWindowTitle(qs(deps_.appName) + QStringLiteral(" Account"));
    // Room for the longest page (the code form under the banner): a stack sizes itself by its first page.
    setMinimumSize(460, 300);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 20, 24, 20);
    layout->setSpacing(12);

    banner_ = new QLabel(this);
    banner_->setObjectName(QStringLiteral("signInBanner"));
    banner_->setWordWrap(true);
    banner_->setMargin(10);
    banner_->setAutoFillBackground(true);
    banner_->setTextFormat(Qt::PlainText);
    QPalette blue = banner_->palette();
    blue.setColor(QPalette::Window, QColor(221, 235, 255));
    blue.setColor(QPalette::WindowText, QColor(20, 40, 80));
    banner_->setPalette(blue);
    banner_->hide();
    layout->addWidget(banner_);

    pages_ = new QStackedWidget(this);
    layout->addWidget(pages_, 1);

    // The address.
    auto* form = new QWidget(pages_);
    auto* formLayout = new QVBoxLayout(form);
    formLayout->setContentsMargins(0, 0, 0, 0);
    formLayout->addWidget(heading(QStringLiteral("Sign in to ") + qs(deps_.appName), form));
    formLayout->addWidget(noteLabel(QStringLiteral("Enter your e-mail address. You will get an e-mail with a link and "
                                                   "a one-time code: open the link, or type the code here."),
                                    form));
    email_ = new QLineEdit(form);
    email_->setObjectName(QStringLiteral("email"));
    email_->setPlaceholderText(QStringLiteral("name@example.org"));
    formLayout->addWidget(email_);
    emailProblem_ = new QLabel(form);
    emailProblem_->setObjectName(QStringLiteral("emailProblem"));
    QPalette red = emailProblem_->palette();
    red.setColor(QPalette::WindowText, QColor(190, 40, 40));
    emailProblem_->setPalette(red);
    emailProblem_->hide();
    formLayout->addWidget(emailProblem_);
    send_ = defaultButton(QStringLiteral("Send Sign-In E-Mail"), form);
    send_->setObjectName(QStringLiteral("sendEmail"));
    formLayout->addWidget(send_, 0, Qt::AlignRight);
    formLayout->addWidget(noteLabel(QStringLiteral("Account server: ") + qs(deps_.apiBaseURL), form));
    formLayout->addStretch(1);
    pages_->addWidget(form);
    connect(send_, &QPushButton::clicked, this, &SignInWindow::submitEmail);
    connect(email_, &QLineEdit::returnPressed, this, &SignInWindow::submitEmail);
    connect(email_, &QLineEdit::textEdited, this, [this] { emailProblem_->hide(); });

    // The code, while the link is awaited.
    auto* otp = new QWidget(pages_);
    auto* otpLayout = new QVBoxLayout(otp);
    otpLayout->setContentsMargins(0, 0, 0, 0);
    otpLayout->addWidget(heading(QStringLiteral("Check your e-mail"), otp));
    sentTo_ = noteLabel(QString(), otp);
    sentTo_->setObjectName(QStringLiteral("sentTo"));
    otpLayout->addWidget(sentTo_);
    auto* codeRow = new QHBoxLayout;
    code_ = new QLineEdit(otp);
    code_->setObjectName(QStringLiteral("code"));
    code_->setPlaceholderText(QStringLiteral("Code from the e-mail"));
    code_->setValidator(new QRegularExpressionValidator(QRegularExpression(QStringLiteral("[0-9 ]{0,12}")), code_));
    codeButton_ = defaultButton(QStringLiteral("Sign In"), otp);
    codeButton_->setObjectName(QStringLiteral("submitCode"));
    codeRow->addWidget(code_, 1);
    codeRow->addWidget(codeButton_);
    otpLayout->addLayout(codeRow);
    otherAddress_ = new QPushButton(QStringLiteral("Use Another Address"), otp);
    otherAddress_->setObjectName(QStringLiteral("otherAddress"));
    otpLayout->addWidget(otherAddress_, 0, Qt::AlignLeft);
    otpLayout->addStretch(1);
    pages_->addWidget(otp);
    connect(codeButton_, &QPushButton::clicked, this, &SignInWindow::submitCode);
    connect(code_, &QLineEdit::returnPressed, this, &SignInWindow::submitCode);
    // Giving up the waiting sign-in: back to the address form.
    connect(otherAddress_, &QPushButton::clicked, this, [this] { deps_.presenter.logout(); });

    // The account.
    auto* account = new QWidget(pages_);
    auto* accountLayout = new QVBoxLayout(account);
    accountLayout->setContentsMargins(0, 0, 0, 0);
    accountLayout->addWidget(heading(QStringLiteral("Your account"), account));
    details_ = new QLabel(account);
    details_->setObjectName(QStringLiteral("accountDetails"));
    details_->setTextFormat(Qt::PlainText);
    details_->setWordWrap(true);
    details_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    accountLayout->addWidget(details_);
    embeddedNote_ = noteLabel(QStringLiteral("This is the local account of the server built into ") + qs(deps_.appName) +
                                  QStringLiteral(". It is always signed in: there is nothing to sign in to or out of. "
                                                 "To use an account server of your own, set its address with "
                                                 "\"sprelio settings set apiBaseURL URL\" and start ") +
                                  qs(deps_.appName) + QStringLiteral(" again."),
                              account);
    embeddedNote_->setObjectName(QStringLiteral("embeddedNote"));
    accountLayout->addWidget(embeddedNote_);
    logout_ = new QPushButton(QStringLiteral("Log Out"), account);
    logout_->setObjectName(QStringLiteral("logout"));
    accountLayout->addWidget(logout_, 0, Qt::AlignRight);
    accountLayout->addStretch(1);
    pages_->addWidget(account);
    connect(logout_, &QPushButton::clicked, this, [this] { deps_.presenter.logout(); });

    refresh();
}

LoginViewState SignInWindow::page() const {
    if (deps_.embeddedAccount) return LoginViewState::showLoginDetails;
    return deps_.presenter.viewState();
}

void SignInWindow::present() {
    refresh();
    show();
    raise();
    activateWindow();
    if (page() == LoginViewState::showLoginForm) email_->setFocus();
    if (page() == LoginViewState::showOtpForm) code_->setFocus();
}

void SignInWindow::refresh() {
    const LoginViewState shown = page();
    pages_->setCurrentIndex(pageIndex(shown));

    // The banner is the server's words about the sign-in; it has no place next to the account's details.
    const auto& message = deps_.appState.statusBannerViewMessage();
    banner_->setText(message ? qs(*message) : QString());
    banner_->setVisible(message.has_value() && shown != LoginViewState::showLoginDetails);

    const auto& model = deps_.presenter.lastLoginEmailModel();
    sentTo_->setText(QStringLiteral("Open the link from the e-mail") +
                     (model ? QStringLiteral(" sent to ") + qs(model->email) : QString()) +
                     QStringLiteral(", or type its code here. This window goes on by itself once the link is opened."));

    const auto& details = deps_.presenter.userDetails();
    QStringList lines;
    if (details) {
        lines << QStringLiteral("Signed in as ") + qs(details->email);
        lines << QStringLiteral("Requests: ") + QString::number(details->requests);
    } else if (deps_.embeddedAccount) {
        lines << QStringLiteral("Signed in with the local account.");
    } else {
        lines << QStringLiteral("Signed in. The account's details come with the next answer of the account server.");
    }
    if (!deps_.embeddedAccount) lines << QStringLiteral("Account server: ") + qs(deps_.apiBaseURL);
    details_->setText(lines.join(QLatin1Char('\n')));
    embeddedNote_->setVisible(deps_.embeddedAccount);
    logout_->setVisible(!deps_.embeddedAccount);
}

void SignInWindow::submitEmail() {
    const std::string email = email_->text().trimmed().toStdString();
    if (!LoginAndRegistrationPresenter::isValidEmail(email)) {
        logInfo("SignInWindow.submitEmail() - not an e-mail address, nothing sent");
        emailProblem_->setText(QStringLiteral("Please enter a valid e-mail address, such as name@example.org."));
        emailProblem_->show();
        return;
    }
    emailProblem_->hide();
    deps_.presenter.setLastLoginEmailModel(LoginEmailModel{email});
    deps_.presenter.onClickLoginSubmit(email);
}

void SignInWindow::submitCode() {
    QString code = code_->text();
    code.remove(QLatin1Char(' '));
    if (code.isEmpty()) return;
    deps_.presenter.onClickOtpSubmit(code.toStdString());
    code_->clear();
}

} // namespace sprelio::platform

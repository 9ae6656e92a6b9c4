#include "platform/qt/SendReportPane.h"

#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

#include "platform/qt/MainWindowPanes.h"

namespace sprelio::platform {

SendReportPane::SendReportPane(SendReportViewModel& report, QWidget* parent) : QWidget(parent), report_(report) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 20, 24, 20);
    layout->addWidget(heading(QStringLiteral("Send Report"), this));
    layout->addWidget(noteLabel(QStringLiteral("The report goes to the account service with the application's log "
                                               "and a copy of your settings, so that the problem can be found."),
                                this));
    message_ = new QPlainTextEdit(this);
    message_->setObjectName(QStringLiteral("reportMessage"));
    message_->setPlaceholderText(QStringLiteral("Tell us about your problem"));
    layout->addWidget(message_, 1);
    phone_ = new QLineEdit(this);
    phone_->setObjectName(QStringLiteral("reportPhone"));
    phone_->setPlaceholderText(QStringLiteral("Phone number for communication via WhatsApp or Telegram"));
    layout->addWidget(phone_);

    auto* buttons = new QHBoxLayout();
    buttons->addStretch(1);
    spinner_ = new QProgressBar(this);
    spinner_->setRange(0, 0); // busy
    spinner_->setTextVisible(false);
    spinner_->setFixedWidth(48);
    spinner_->setFixedHeight(10);
    spinner_->hide();
    buttons->addWidget(spinner_);
    dismiss_ = new QPushButton(QStringLiteral("Dismiss"), this);
    send_ = new QPushButton(QStringLiteral("Send"), this);
    send_->setDefault(true);
    buttons->addWidget(dismiss_);
    buttons->addWidget(send_);
    layout->addLayout(buttons);

    sheet_ = new QFrame(this);
    sheet_->setObjectName(QStringLiteral("reportResult"));
    sheet_->setFrameShape(QFrame::StyledPanel);
    auto* sheetLayout = new QHBoxLayout(sheet_);
    resultText_ = new QLabel(sheet_);
    resultText_->setWordWrap(true);
    sheetOk_ = new QPushButton(QStringLiteral("OK"), sheet_);
    sheetLayout->addWidget(resultText_, 1);
    sheetLayout->addWidget(sheetOk_);
    sheet_->hide();
    layout->addWidget(sheet_);

    connect(message_, &QPlainTextEdit::textChanged, this, [this] {
        if (!filling_) report_.setMessage(message_->toPlainText().toStdString());
    });
    connect(phone_, &QLineEdit::textEdited, this, [this](const QString& text) { report_.setPhone(text.toStdString()); });
    connect(send_, &QPushButton::clicked, this, [this] { report_.send(); });
    connect(dismiss_, &QPushButton::clicked, this, [this] { report_.dismiss(); });
    connect(sheetOk_, &QPushButton::clicked, this, [this] { report_.closeSheet(); });
    report_.onChange = [this] { refresh(); };
    refresh();
}

void SendReportPane::appear() {
    report_.onAppear();
    refresh();
}

void SendReportPane::refresh() {
    filling_ = true;
    const QString message = QString::fromStdString(report_.message());
    if (message_->toPlainText() != message) message_->setPlainText(message);
    const QString phone = QString::fromStdString(report_.phone());
    if (phone_->text() != phone) phone_->setText(phone);
    filling_ = false;
    send_->setEnabled(!report_.isProcessing());
    spinner_->setVisible(report_.isProcessing());
    sheet_->setVisible(report_.sheetShowing());
    resultText_->setText(QString::fromStdString(report_.sheetText()));
}

} // namespace sprelio::platform

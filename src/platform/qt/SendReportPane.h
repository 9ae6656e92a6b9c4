#pragma once
// The Send Report tab: the message, the phone number, "Dismiss" and "Send" with a spinner while it sends, and the
// result over the form. The logic is SendReportViewModel; this draws it.
#include <QWidget>

#include "ui/SendReportViewModel.h"

class QFrame;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QProgressBar;
class QPushButton;

namespace sprelio::platform {

class SendReportPane final : public QWidget {
    Q_OBJECT
public:
    SendReportPane(SendReportViewModel& report, QWidget* parent = nullptr);

    // The tab comes into view: the fields are read from the settings and the archives are made.
    void appear();

    QPlainTextEdit* messageEdit() const { return message_; }
    QLineEdit* phoneEdit() const { return phone_; }
    QPushButton* sendButton() const { return send_; }
    QPushButton* dismissButton() const { return dismiss_; }
    QLabel* resultLabel() const { return resultText_; }
    QFrame* resultSheet() const { return sheet_; }

private:
    void refresh();

    SendReportViewModel& report_;
    bool filling_ = false;
    QPlainTextEdit* message_ = nullptr;
    QLineEdit* phone_ = nullptr;
    QPushButton* send_ = nullptr;
    QPushButton* dismiss_ = nullptr;
    QProgressBar* spinner_ = nullptr;
    QFrame* sheet_ = nullptr;
    QLabel* resultText_ = nullptr;
    QPushButton* sheetOk_ = nullptr;
};

} // namespace sprelio::platform

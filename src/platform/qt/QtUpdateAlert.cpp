#include "platform/qt/QtUpdateAlert.h"

#include <QApplication>
#include <QPushButton>

namespace sprelio::platform {

void QtUpdateAlert::show(const UpdateAlert& alert, std::function<void(int)> answer) {
    // The box stands on its own, above every other window, so that it is seen whether or not a window of the
    // application is open and even when the main window comes forward after it (as at launch). It has no parent
    // window: closing the main window must not take an unanswered offer with it.
    auto* box = new QMessageBox(QMessageBox::Information, QApplication::applicationName(),
                                QString::fromStdString(alert.messageText));
    box->setObjectName(QStringLiteral("updateAlert"));
    box->setAttribute(Qt::WA_DeleteOnClose);
    // Not modal: a toast of the message path may stand over the box, and a modal box would keep the user from
    // dismissing it. One offer at a time is the policy's own rule.
    box->setWindowModality(Qt::NonModal);
    box->setInformativeText(QString::fromStdString(alert.informativeText));
    auto* install = box->addButton(QString::fromStdString(alert.firstButton), QMessageBox::AcceptRole);
    auto* later = box->addButton(QString::fromStdString(alert.secondButton), QMessageBox::RejectRole);
    install->setObjectName(QStringLiteral("firstButton"));
    later->setObjectName(QStringLiteral("secondButton"));
    box->setDefaultButton(install);
    box->setEscapeButton(later);
    auto answered = std::make_shared<bool>(false);
    connect(box, &QMessageBox::finished, this, [box, install, answered, answer = std::move(answer)](int) {
        if (*answered) return;
        *answered = true;
        answer(box->clickedButton() == install ? kAlertFirstButtonReturn : kAlertSecondButtonReturn);
    });
    box_ = box;
    // Given last: the message box sets flags of its own while its texts and buttons are set.
    box->setWindowFlag(Qt::WindowStaysOnTopHint);
    box->show();
    box->raise();
    box->activateWindow();
}

} // namespace sprelio::platform

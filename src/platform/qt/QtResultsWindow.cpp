#include "platform/qt/QtResultsWindow.h"

#include <QGuiApplication>
#include <QHBoxLayout>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QVBoxLayout>

#include "base/Log.h"
#include "platform/qt/QtScreens.h"
#include "store/Settings.h"

namespace sprelio::platform {

QtResultsWindow::QtResultsWindow(const QString& title, store::Settings& settings, const QtScreens& screens,
                                 std::function<void(const std::string&, const std::string&)> copy)
    : settings_(settings), screens_(screens), copyText_(std::move(copy)) {
    setWindowTitle(title);
    auto* layout = new QVBoxLayout(this);
    text_ = new QPlainTextEdit(this);
    text_->setReadOnly(true);
    layout->addWidget(text_, 1);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    copy_ = new QPushButton(QStringLiteral("Copy"), this);
    auto* close = new QPushButton(QStringLiteral("Close"), this);
    buttons->addWidget(copy_);
    buttons->addWidget(close);
    layout->addLayout(buttons);
    connect(copy_, &QPushButton::clicked, this, [this] {
        if (copyText_) copyText_(text_->toPlainText().toStdString(), "QtResultsWindow.copy");
    });
    connect(close, &QPushButton::clicked, this, &QWidget::close);
    resize(480, 320);
}

void QtResultsWindow::showCompletion(const std::string& text) {
    logInfo("QtResultsWindow.showCompletion() - text: <privatized>");
    text_->setPlainText(QString::fromStdString(text));
    // The frame the user left it in last time, when it still lies on a screen.
    if (const auto frame = settings_.intelligenceResultsViewFrame()) {
        const QRect rect = screens_.coordinates().toQt(*frame);
        if (QGuiApplication::screenAt(rect.center())) setGeometry(rect);
    }
    show();
    raise();
    activateWindow();
}

QString QtResultsWindow::text() const { return text_->toPlainText(); }

} // namespace sprelio::platform

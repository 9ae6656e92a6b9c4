#pragma once
// The window that shows a result instead of pasting it: the text, a button that copies it, and its frame kept
// from one showing to the next.
#include <QWidget>
#include <functional>
#include <string>

#include "ai/ResultsWindow.h"

class QPlainTextEdit;
class QPushButton;

namespace sprelio::store {
class Settings;
}

namespace sprelio::platform {

class QtScreens;

class QtResultsWindow final : public QWidget, public ResultsWindow {
    Q_OBJECT
public:
    // `copy` puts a text on the clipboard (with the caller's label).
    QtResultsWindow(const QString& title, store::Settings& settings, const QtScreens& screens,
                    std::function<void(const std::string& text, const std::string& caller)> copy);

    void showCompletion(const std::string& text) override;

    QString text() const;
    QPushButton* copyButton() const { return copy_; }

private:
    store::Settings& settings_;
    const QtScreens& screens_;
    std::function<void(const std::string&, const std::string&)> copyText_;
    QPlainTextEdit* text_ = nullptr;
    QPushButton* copy_ = nullptr;
};

} // namespace sprelio::platform

#pragma once
// Toasts on the desktop: one borderless, always-on-top window per screen at the frame the message path chose. A
// toast never takes the keyboard from the application the user is typing in; its check box and button work by
// mouse alone.
#include <QObject>
#include <QPointer>
#include <QWidget>
#include <functional>
#include <vector>

#include "ui/Messages.h"

class QCheckBox;
class QPushButton;

namespace sprelio::platform {

class QtScreens;

class ToastWindow final : public QWidget {
    Q_OBJECT
public:
    ToastWindow(const SPRToastView& toast, std::function<void()> onNeverShowAgain, std::function<void()> dismiss);

    QCheckBox* neverShowAgainBox() const { return neverShowAgain_; }
    QPushButton* tapButton() const { return tapButton_; }
    // The text as shown (with the "Error: " heading for errors).
    QString shownText() const { return shownText_; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QColor accent_;
    QString shownText_;
    QCheckBox* neverShowAgain_ = nullptr;
    QPushButton* tapButton_ = nullptr;
};

class QtToastPresenter final : public QObject, public ToastPresenter {
    Q_OBJECT
public:
    explicit QtToastPresenter(const QtScreens& screens, QObject* parent = nullptr);
    ~QtToastPresenter() override;

    void showToast(const SPRToastView& toast, const ScreenInfo& screen, const Rect& frame,
                   std::function<void()> onNeverShowAgain) override;
    void closeAllToasts() override;

    // The windows on screen now.
    std::vector<ToastWindow*> toastWindows() const;

private:
    const QtScreens& screens_;
    std::vector<QPointer<ToastWindow>> windows_;
};

} // namespace sprelio::platform

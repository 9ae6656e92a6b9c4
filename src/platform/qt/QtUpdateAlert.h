#pragma once
// The update offer as a dialog of the desktop: an informational message box with the offer's two buttons, above
// other windows. It does not stop the loop: dictations, timers and the update policy's own delays go on while it
// waits for the user's answer.
#include <QMessageBox>
#include <QPointer>

#include <functional>

#include "diagnostics/UpdatePolicy.h"

namespace sprelio::platform {

class QtUpdateAlert final : public QObject {
    Q_OBJECT
public:
    // `answer` gets the return code of the button: the first (1000) or the second (1001). Closing the box
    // (Escape, the window's close button) is the second: nothing is installed that the user did not ask for.
    void show(const UpdateAlert& alert, std::function<void(int)> answer);
    // The box on the screen, if any (tests, screenshots).
    QMessageBox* box() const { return box_; }

private:
    QPointer<QMessageBox> box_;
};

} // namespace sprelio::platform

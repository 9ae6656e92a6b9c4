#pragma once
// The status item on the desktop: a tray icon (StatusNotifierItem or XEmbed, whichever the desktop offers) that
// shows the session's state image and opens the status menu. The menu's contents come from AppMenuBar each time it
// opens; this class only draws them and reports clicks back.
#include <QIcon>
#include <QImage>
#include <QObject>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/StatusImage.h"

class QAction;
class QMenu;
class QProxyStyle;
class QSystemTrayIcon;

namespace sprelio {
class AppMenuBar;
enum class MenuItemId;
} // namespace sprelio

namespace sprelio::platform {

// The state images, drawn for the given pixel size: "micro_status" a microphone, "rec_status" a red dot,
// "raspozn_status" a turning arrow. A null image for any other name.
QImage drawStatusImage(const std::string& name, int size);
// The image at the sizes trays ask for.
QIcon statusIcon(const std::string& name);

class QtStatusItem final : public QObject, public StatusImage {
    Q_OBJECT
public:
    // Images may be set before the icon is shown: the session sets the first one before the item exists.
    explicit QtStatusItem(QObject* parent = nullptr);
    ~QtStatusItem() override;

    void setImage(const std::string& name) override;
    const std::string& imageName() const { return imageName_; }
    // Called after the image changed (the session's state changed with it).
    std::function<void(const std::string& name)> onImageChanged;

    // Gives the item its menu. `menuBar` must have been through awakeFromNib and outlive this item.
    void setMenu(AppMenuBar& menuBar);
    // Puts the icon in the tray; without a tray on the desktop that is logged and the icon waits for one.
    void show();
    bool isSystemTrayAvailable() const;

    QMenu* menu() const { return menu_.get(); }
    QMenu* microphoneMenu() const { return micMenu_; }
    QSystemTrayIcon* trayIcon() const { return tray_.get(); }
    // The action of an entry, nullptr for separators.
    QAction* action(MenuItemId id) const;

    // What keeps Sprelio from working (the banner's texts): in the icon's tooltip, and as the menu's first entry,
    // which runs `open` (the main window with the banner). Nothing: both go back to plain.
    void setWarnings(const std::vector<std::string>& texts, std::function<void()> open);
    QAction* warningAction() const { return warningAction_; }

    // The entry that starts and stops continuous dictation, after File to Text: ticked while it listens, greyed
    // while something else runs. `listening` answers when the menu opens: nothing for "busy".
    void setContinuousDictation(std::function<std::optional<bool>()> listening, std::function<void()> toggle);
    QAction* continuousAction() const { return continuousAction_; }

private:
    void menuAboutToShow();
    void syncEntries();
    void syncMicrophones();

    AppMenuBar* menuBar_ = nullptr;
    std::string imageName_;
    QProxyStyle* style_ = nullptr; // owned through the QObject tree, outlives the menus
    std::unique_ptr<QMenu> menu_;
    QMenu* micMenu_ = nullptr; // child of menu_
    std::map<int, QAction*> actions_; // by MenuItemId
    std::unique_ptr<QSystemTrayIcon> tray_;
    QAction* warningAction_ = nullptr; // child of menu_, first entry
    QString toolTip_ = QStringLiteral("Sprelio");
    std::function<void()> openWarnings_;
    QAction* continuousAction_ = nullptr; // child of menu_
    std::function<std::optional<bool>()> continuousListening_;
    std::function<void()> toggleContinuous_;
};

} // namespace sprelio::platform

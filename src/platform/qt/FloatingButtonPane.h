#pragma once
// The Floating Button tab: whether the round record button is on screen, its size and transparency, and the ring
// of AI actions round the recording overlay (on or off, its size, which actions in which order), with a preview of
// the ring. Every change is written at once and reported, so that the overlay follows without a restart.
#include <QWidget>
#include <functional>
#include <string>
#include <vector>

#include "platform/OverlayPanels.h"
#include "ui/RadialMenu.h"

class QCheckBox;
class QLabel;
class QListWidget;
class QPushButton;
class QSlider;
class QSpinBox;

namespace sprelio::store {
class Settings;
}

namespace sprelio::platform {

// The ring as the overlay draws it, with buttons that do nothing.
class RingPreview final : public QWidget {
    Q_OBJECT
public:
    explicit RingPreview(QWidget* parent = nullptr);
    void setDrawing(const OverlayDrawing& drawing);
    const OverlayDrawing& drawing() const { return drawing_; }
    QSize sizeHint() const override { return {220, 220}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    OverlayDrawing drawing_;
};

class FloatingButtonPane final : public QWidget {
    Q_OBJECT
public:
    FloatingButtonPane(store::Settings& settings, QWidget* parent = nullptr);

    // The catalogue's actions that the ring may offer; without it the list is empty and the ring has its two fixed
    // buttons.
    void setRingSource(RadialMenuCatalogue catalogue);
    // Called with the settings key after every change the user makes here.
    std::function<void(const std::string& key)> onSettingChanged;
    // Shows the stored values again (the Settings tab may have changed them).
    void reload();

    QCheckBox* showButton() const { return showButton_; }
    QSpinBox* buttonSize() const { return buttonSize_; }
    QSlider* transparency() const { return transparency_; }
    QCheckBox* showAITools() const { return showAITools_; }
    QSpinBox* overlaySize() const { return overlaySize_; }
    QListWidget* ringItems() const { return ringItems_; }
    QPushButton* restoreDefault() const { return restoreDefault_; }
    RingPreview* preview() const { return preview_; }
    // The ids ticked in the list, in its order.
    std::vector<std::string> chosenIds() const;
    // Moves the selected row of the list by one place (-1 up, +1 down).
    void moveSelected(int by);

protected:
    void showEvent(QShowEvent* event) override;

private:
    void changed(const std::string& key);
    void fillRingList();
    void storeChoice();
    void updatePreview();

    store::Settings& settings_;
    RadialMenuCatalogue catalogue_;
    QCheckBox* showButton_ = nullptr;
    QSpinBox* buttonSize_ = nullptr;
    QSlider* transparency_ = nullptr;
    QLabel* transparencyValue_ = nullptr;
    QCheckBox* showAITools_ = nullptr;
    QSpinBox* overlaySize_ = nullptr;
    QListWidget* ringItems_ = nullptr;
    QPushButton* moveUp_ = nullptr;
    QPushButton* moveDown_ = nullptr;
    QPushButton* restoreDefault_ = nullptr;
    QLabel* emptyChoice_ = nullptr;
    RingPreview* preview_ = nullptr;
    bool filling_ = false;
};

} // namespace sprelio::platform

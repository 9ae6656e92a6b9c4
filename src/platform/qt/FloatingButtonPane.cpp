#include "platform/qt/FloatingButtonPane.h"

#include <QCheckBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QPainter>
#include <QPushButton>
#include <QScrollArea>
#include <QSignalBlocker>
#include <QSlider>
#include <QSpinBox>
#include <QVBoxLayout>
#include <algorithm>

#include "platform/qt/MainWindowPanes.h"
#include "platform/qt/QtOverlayPanels.h"
#include "store/Settings.h"

namespace sprelio::platform {

namespace {

QString qs(const std::string& text) { return QString::fromStdString(text); }

constexpr int kIdRole = Qt::UserRole + 1;
// The button's size: large enough to hit, small enough to stay out of the way.
constexpr int kSmallestButton = 32, kLargestButton = 96;
// The recording overlay: from its default up to a ring whose actions have room of their own to spare.
constexpr int kSmallestOverlay = 112, kLargestOverlay = 240;
// The painter keeps at least this much of the button visible.
constexpr int kMostTransparent = 90;

} // namespace

// ---- Preview ----

RingPreview::RingPreview(QWidget* parent) : QWidget(parent) {
    setMinimumSize(160, 160);
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Preferred);
}

void RingPreview::setDrawing(const OverlayDrawing& drawing) {
    drawing_ = drawing;
    update();
}

void RingPreview::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    if (drawing_.canvasSize <= 0) return;
    // With the ring turned off the preview stays, faded, so that the choice can be made before turning it on.
    if (!isEnabled()) painter.setOpacity(0.45);
    // Shown at its real size when there is room, never larger; centred in the widget.
    const double side = std::min(width(), height());
    const double scale = std::min(side / drawing_.canvasSize, 1.6);
    painter.translate((width() - drawing_.canvasSize * scale) / 2, (height() - drawing_.canvasSize * scale) / 2);
    painter.scale(scale, scale);
    paintOverlayDrawing(painter, drawing_, 0);
}

// ---- Pane ----

FloatingButtonPane::FloatingButtonPane(store::Settings& settings, QWidget* parent)
    : QWidget(parent), settings_(settings) {
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    auto* scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    outer->addWidget(scroll);
    auto* content = new QWidget(scroll);
    auto* layout = new QVBoxLayout(content);
    layout->setContentsMargins(24, 20, 24, 20);
    layout->setSpacing(12);
    layout->addWidget(heading(QStringLiteral("Floating Button"), content));
    layout->addWidget(noteLabel(QStringLiteral("A round button that stays on screen: click it to start a dictation "
                                               "and click the recording overlay to end it. Drag it to where you want "
                                               "it; it stays there."),
                                content));
    scroll->setWidget(content);

    // The button.
    auto* buttonGroup = new QGroupBox(QStringLiteral("Button"), content);
    auto* buttonForm = new QFormLayout(buttonGroup);
    showButton_ = new QCheckBox(QStringLiteral("Show the floating record button"), buttonGroup);
    showButton_->setObjectName(QStringLiteral("floatingButtonActivation"));
    buttonForm->addRow(showButton_);
    buttonSize_ = new QSpinBox(buttonGroup);
    buttonSize_->setObjectName(QStringLiteral("floatingRecordButtonSize"));
    buttonSize_->setRange(kSmallestButton, kLargestButton);
    buttonSize_->setSuffix(QStringLiteral(" pt"));
    buttonForm->addRow(QStringLiteral("Size"), buttonSize_);
    auto* transparencyRow = new QWidget(buttonGroup);
    auto* transparencyLayout = new QHBoxLayout(transparencyRow);
    transparencyLayout->setContentsMargins(0, 0, 0, 0);
    transparency_ = new QSlider(Qt::Horizontal, transparencyRow);
    transparency_->setObjectName(QStringLiteral("floatingRecordButtonTransparency"));
    transparency_->setRange(0, kMostTransparent);
    transparency_->setSingleStep(5);
    transparency_->setPageStep(10);
    transparencyValue_ = new QLabel(transparencyRow);
    transparencyValue_->setMinimumWidth(40);
    transparencyLayout->addWidget(transparency_, 1);
    transparencyLayout->addWidget(transparencyValue_);
    buttonForm->addRow(QStringLiteral("Transparency"), transparencyRow);
    layout->addWidget(buttonGroup);

    // The ring.
    auto* ringGroup = new QGroupBox(QStringLiteral("AI actions while recording"), content);
    auto* ringLayout = new QVBoxLayout(ringGroup);
    showAITools_ = new QCheckBox(QStringLiteral("Show a ring of AI actions round the recording overlay"), ringGroup);
    showAITools_->setObjectName(QStringLiteral("floatingRecordShowAITools"));
    ringLayout->addWidget(showAITools_);
    ringLayout->addWidget(noteLabel(QStringLiteral("A click on an action ends the recording and runs the action on "
                                                   "its text. ❌ cancels the recording, 🎙️ types the text as it is, "
                                                   "and the centre ends the recording as the key would."),
                                    ringGroup));
    auto* sizeForm = new QFormLayout;
    overlaySize_ = new QSpinBox(ringGroup);
    overlaySize_->setObjectName(QStringLiteral("overlaySize"));
    overlaySize_->setRange(kSmallestOverlay, kLargestOverlay);
    overlaySize_->setSuffix(QStringLiteral(" pt"));
    sizeForm->addRow(QStringLiteral("Overlay size"), overlaySize_);
    ringLayout->addLayout(sizeForm);
    ringLayout->addWidget(noteLabel(QStringLiteral("At 112 points neighbouring actions share their edges; from 150 "
                                                   "points on each has a place of its own. The pointer lights the "
                                                   "action that a click would run."),
                                    ringGroup));

    auto* choice = new QHBoxLayout;
    auto* listColumn = new QVBoxLayout;
    listColumn->addWidget(new QLabel(QStringLiteral("Actions on the ring, in order:"), ringGroup));
    ringItems_ = new QListWidget(ringGroup);
    ringItems_->setObjectName(QStringLiteral("ringItems"));
    ringItems_->setMinimumHeight(220);
    listColumn->addWidget(ringItems_, 1);
    auto* listButtons = new QHBoxLayout;
    moveUp_ = new QPushButton(QStringLiteral("Move Up"), ringGroup);
    moveDown_ = new QPushButton(QStringLiteral("Move Down"), ringGroup);
    restoreDefault_ = new QPushButton(QStringLiteral("Restore the Default"), ringGroup);
    listButtons->addWidget(moveUp_);
    listButtons->addWidget(moveDown_);
    listButtons->addStretch(1);
    listButtons->addWidget(restoreDefault_);
    listColumn->addLayout(listButtons);
    emptyChoice_ = noteLabel(QStringLiteral("No action is ticked: the ring offers only ❌ and 🎙️ until the next "
                                            "start, which puts the default choice back."),
                             ringGroup);
    listColumn->addWidget(emptyChoice_);
    choice->addLayout(listColumn, 3);
    auto* previewColumn = new QVBoxLayout;
    previewColumn->addWidget(new QLabel(QStringLiteral("Preview:"), ringGroup));
    preview_ = new RingPreview(ringGroup);
    preview_->setObjectName(QStringLiteral("ringPreview"));
    previewColumn->addWidget(preview_, 1);
    choice->addLayout(previewColumn, 2);
    ringLayout->addLayout(choice);
    layout->addWidget(ringGroup);
    layout->addStretch(1);

    connect(showButton_, &QCheckBox::toggled, this, [this](bool on) {
        settings_.setFloatingButtonActivation(on);
        changed("floatingButtonActivation");
    });
    connect(buttonSize_, &QSpinBox::valueChanged, this, [this](int value) {
        settings_.setFloatingRecordButtonSize(value);
        changed("floatingRecordButtonSize");
    });
    connect(transparency_, &QSlider::valueChanged, this, [this](int value) {
        transparencyValue_->setText(QStringLiteral("%1 %").arg(value));
        settings_.setFloatingRecordButtonTransparency(value);
        changed("floatingRecordButtonTransparency");
    });
    connect(showAITools_, &QCheckBox::toggled, this, [this](bool on) {
        settings_.setFloatingRecordShowAITools(on);
        changed("floatingRecordShowAITools");
        updatePreview();
    });
    connect(overlaySize_, &QSpinBox::valueChanged, this, [this](int value) {
        settings_.setOverlaySize(value);
        changed("overlaySize");
        updatePreview();
    });
    connect(ringItems_, &QListWidget::itemChanged, this, [this](QListWidgetItem*) {
        if (!filling_) storeChoice();
    });
    connect(moveUp_, &QPushButton::clicked, this, [this] { moveSelected(-1); });
    connect(moveDown_, &QPushButton::clicked, this, [this] { moveSelected(+1); });
    connect(restoreDefault_, &QPushButton::clicked, this, [this] {
        settings_.setFloatingRecordSelectedItemIDsJson(radial_menu::encodeItemIds(radial_menu::defaultItemIds()));
        fillRingList();
        changed("floatingRecord.selectedItemIDs.json");
        updatePreview();
    });
    reload();
}

void FloatingButtonPane::setRingSource(RadialMenuCatalogue catalogue) {
    catalogue_ = std::move(catalogue);
    fillRingList();
    updatePreview();
}

void FloatingButtonPane::changed(const std::string& key) {
    if (onSettingChanged) onSettingChanged(key);
}

void FloatingButtonPane::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    reload();
}

void FloatingButtonPane::reload() {
    {
        const QSignalBlocker a(showButton_), b(buttonSize_), c(transparency_), d(showAITools_), e(overlaySize_);
        showButton_->setChecked(settings_.floatingButtonActivation());
        buttonSize_->setValue(settings_.floatingRecordButtonSize());
        transparency_->setValue(settings_.floatingRecordButtonTransparency());
        showAITools_->setChecked(settings_.floatingRecordShowAITools());
        overlaySize_->setValue(settings_.overlaySize());
    }
    transparencyValue_->setText(QStringLiteral("%1 %").arg(transparency_->value()));
    fillRingList();
    updatePreview();
}

void FloatingButtonPane::fillRingList() {
    filling_ = true;
    const QSignalBlocker block(ringItems_);
    const QString selected = ringItems_->currentItem() ? ringItems_->currentItem()->data(kIdRole).toString() : QString();
    ringItems_->clear();
    const auto pickerIds = catalogue_.pickerItemIds ? catalogue_.pickerItemIds() : std::vector<std::string>{};
    const auto chosen = radial_menu::decodeItemIds(settings_.floatingRecordSelectedItemIDsJson())
                            .value_or(std::vector<std::string>{});
    auto add = [&](const std::string& id, bool ticked) {
        const std::string title = catalogue_.title ? catalogue_.title(id) : id;
        const std::string emoji = catalogue_.emoji ? catalogue_.emoji(id) : std::string();
        auto* item = new QListWidgetItem(qs(emoji.empty() ? title : emoji + "  " + title), ringItems_);
        item->setData(kIdRole, qs(id));
        item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsUserCheckable);
        item->setCheckState(ticked ? Qt::Checked : Qt::Unchecked);
        if (qs(id) == selected) ringItems_->setCurrentItem(item);
    };
    // The ring's items first, in the ring's order; then what else the catalogue offers.
    for (const auto& id : chosen)
        if (std::find(pickerIds.begin(), pickerIds.end(), id) != pickerIds.end()) add(id, true);
    for (const auto& id : pickerIds)
        if (std::find(chosen.begin(), chosen.end(), id) == chosen.end()) add(id, false);
    filling_ = false;
    emptyChoice_->setVisible(chosenIds().empty() && !pickerIds.empty());
}

std::vector<std::string> FloatingButtonPane::chosenIds() const {
    std::vector<std::string> ids;
    for (int row = 0; row < ringItems_->count(); ++row) {
        const auto* item = ringItems_->item(row);
        if (item->checkState() == Qt::Checked) ids.push_back(item->data(kIdRole).toString().toStdString());
    }
    return ids;
}

void FloatingButtonPane::storeChoice() {
    settings_.setFloatingRecordSelectedItemIDsJson(radial_menu::encodeItemIds(chosenIds()));
    emptyChoice_->setVisible(chosenIds().empty() && ringItems_->count() > 0);
    changed("floatingRecord.selectedItemIDs.json");
    updatePreview();
}

void FloatingButtonPane::moveSelected(int by) {
    const int row = ringItems_->currentRow();
    const int target = row + by;
    if (row < 0 || target < 0 || target >= ringItems_->count()) return;
    {
        const QSignalBlocker block(ringItems_);
        QListWidgetItem* item = ringItems_->takeItem(row);
        ringItems_->insertItem(target, item);
        ringItems_->setCurrentRow(target);
    }
    storeChoice();
}

void FloatingButtonPane::updatePreview() {
    OverlayDrawing drawing;
    drawing.kind = OverlayDrawing::Kind::recording;
    drawing.canvasSize = drawing.overlaySize = settings_.overlaySize();
    drawing.showTimer = settings_.showRecordingTimer();
    drawing.timerText = "00:07";
    const auto pickerIds = catalogue_.pickerItemIds ? catalogue_.pickerItemIds() : std::vector<std::string>{};
    addRadialMenu(drawing, buildItemsWithStop(chosenIds(), pickerIds, catalogue_), true);
    preview_->setDrawing(drawing);
    preview_->setEnabled(settings_.floatingRecordShowAITools());
    preview_->setToolTip(settings_.floatingRecordShowAITools()
                             ? QString()
                             : QStringLiteral("The ring is off: recordings show the plain waveform."));
}

} // namespace sprelio::platform

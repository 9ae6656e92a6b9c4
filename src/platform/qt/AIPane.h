#pragma once
// The AI tab: the user's own presets (name, prompt, model) with their order, kept by IntelligencePresetsViewModel;
// each edit is saved as it is made.
#include <QWidget>
#include <memory>
#include <vector>

#include "ai/IntelligencePresetsViewModel.h"

class QComboBox;
class QLineEdit;
class QListWidget;
class QPlainTextEdit;
class QPushButton;

namespace sprelio::platform {

class AIPane final : public QWidget {
    Q_OBJECT
public:
    AIPane(IntelligencePresetsViewModel& presets, QWidget* parent = nullptr);

    // The tab comes into view: the list and the offered models are read afresh.
    void appear();

    QListWidget* presetList() const { return list_; }
    QLineEdit* titleEdit() const { return title_; }
    QPlainTextEdit* promptEdit() const { return prompt_; }
    QComboBox* modelBox() const { return model_; }
    QPushButton* addButton() const { return add_; }
    QPushButton* removeButton() const { return remove_; }

private:
    void reload(const IntelligencePresetsViewModel::Preset& select);
    void showSelected();
    IntelligencePresetsViewModel::Preset selected() const;

    IntelligencePresetsViewModel& presets_;
    std::vector<IntelligencePresetsViewModel::Preset> shown_;
    // Filling the editors from a preset is no edit of it.
    bool filling_ = false;
    QListWidget* list_ = nullptr;
    QLineEdit* title_ = nullptr;
    QPlainTextEdit* prompt_ = nullptr;
    QComboBox* model_ = nullptr;
    QPushButton* add_ = nullptr;
    QPushButton* remove_ = nullptr;
    QPushButton* up_ = nullptr;
    QPushButton* down_ = nullptr;
};

} // namespace sprelio::platform

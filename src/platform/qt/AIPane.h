#pragma once
// The AI tab: the user's own presets (name, prompt, model) with their order, kept by IntelligencePresetsViewModel,
// each edit saved as it is made; and the AI service the embedded server sends the AI actions to.
#include <QWidget>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ai/IntelligencePresetsViewModel.h"
#include "ui/AIActionsList.h"

class QComboBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPlainTextEdit;
class QPushButton;
class QTreeWidget;

namespace sprelio::store {
class Settings;
}

namespace sprelio::platform {

class AIPane final : public QWidget {
    Q_OBJECT
public:
    // `applyAiService` puts the service the settings name to use at once; an error text when it can't.
    AIPane(IntelligencePresetsViewModel& presets, store::Settings& settings,
           std::function<std::optional<std::string>()> applyAiService, QWidget* parent = nullptr);

    // The tab comes into view: the lists and the offered models are read afresh.
    void appear();
    // Where the list of the catalogue's actions and their shortcuts comes from; none: the list stays empty.
    void setActionsSource(std::function<std::vector<AIActionRow>()> source);
    QTreeWidget* actionsList() const { return actions_; }

    QListWidget* presetList() const { return list_; }
    QLineEdit* titleEdit() const { return title_; }
    QPlainTextEdit* promptEdit() const { return prompt_; }
    QComboBox* modelBox() const { return model_; }
    QPushButton* addButton() const { return add_; }
    QPushButton* removeButton() const { return remove_; }
    QLineEdit* serviceURLEdit() const { return serviceURL_; }
    QLineEdit* serviceModelEdit() const { return serviceModel_; }
    QLineEdit* serviceKeyEdit() const { return serviceKey_; }
    QPushButton* applyServiceButton() const { return applyService_; }
    QLabel* serviceStatus() const { return serviceStatus_; }

private:
    void reload(const IntelligencePresetsViewModel::Preset& select);
    void showSelected();
    IntelligencePresetsViewModel::Preset selected() const;
    void showService();
    void showActions();
    void applyService();

    IntelligencePresetsViewModel& presets_;
    store::Settings& settings_;
    std::function<std::optional<std::string>()> applyAiService_;
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
    QLineEdit* serviceURL_ = nullptr;
    QLineEdit* serviceModel_ = nullptr;
    QLineEdit* serviceKey_ = nullptr;
    QPushButton* applyService_ = nullptr;
    QPushButton* forgetKey_ = nullptr;
    QLabel* serviceStatus_ = nullptr;
    QTreeWidget* actions_ = nullptr;
    std::function<std::vector<AIActionRow>()> actionsSource_;
};

} // namespace sprelio::platform

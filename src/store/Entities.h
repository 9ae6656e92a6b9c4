#pragma once
// The four stored entities of the "Persistence" model.
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "base/Uuid.h"
#include "store/ManagedObject.h"

namespace sprelio::store {

const EntityDescription& userShortcutEntity();
const EntityDescription& logEntryEntity();
const EntityDescription& substitutionEntity();
const EntityDescription& intelligencePresetEntity();
// All entities of the model, in a fixed order.
const std::vector<const EntityDescription*>& persistenceModel();
// The entity with this name, or nullptr.
const EntityDescription* entityNamed(std::string_view name);

// Typed accessors over the value table. A UUID accessor reads nil for a value that is no UUID text (validation
// reports such a value); URLs are absolute URL texts.

class UserShortcut : public ManagedObject {
public:
    static constexpr const char* kEntityName = "UserShortcut";
    // A new shortcut is bound to no single key and no mouse button: -1, never key code 0 ("A") or button 0.
    UserShortcut();

    std::optional<Uuid> uuid() const;
    void setUuid(std::optional<Uuid> value);
    std::int64_t order() const;
    void setOrder(std::int64_t value);
    std::optional<double> timestamp() const; // seconds since 1970
    void setTimestamp(std::optional<double> value);
    std::optional<std::string> shortcutString() const;
    void setShortcutString(std::optional<std::string> value);
    std::int64_t modifierEventKeyCode() const;
    void setModifierEventKeyCode(std::int64_t value);
    std::optional<std::string> modifierEventCharacters() const;
    void setModifierEventCharacters(std::optional<std::string> value);
    std::optional<std::string> singleModifierDirection() const;
    void setSingleModifierDirection(std::optional<std::string> value);
    std::int64_t mouseEventMouseButton() const;
    void setMouseEventMouseButton(std::int64_t value);
    bool hold() const;
    // Refused (stays false) unless the shortcut's action is one of `holdCapableActions`.
    void setHold(bool value);
    std::optional<std::string> shortcutActionRawValue() const;
    // An action outside `holdCapableActions` also turns `hold` off.
    void setShortcutActionRawValue(std::optional<std::string> value);
    std::optional<std::string> inputLanguageCode() const;
    void setInputLanguageCode(std::optional<std::string> value);
    std::optional<std::string> intelligenceActionCategoryRawValue() const;
    void setIntelligenceActionCategoryRawValue(std::optional<std::string> value);
    std::optional<std::string> intelligenceActionItemIdString() const;
    void setIntelligenceActionItemIdString(std::optional<std::string> value);
    std::optional<std::string> intelligenceActionCompletionType() const;
    void setIntelligenceActionCompletionType(std::optional<std::string> value);
};

class LogEntry : public ManagedObject {
public:
    static constexpr const char* kEntityName = "LogEntry";
    LogEntry() : ManagedObject(logEntryEntity()) {}

    std::optional<std::string> message() const;
    void setMessage(std::optional<std::string> value);
    std::int64_t level() const;
    void setLevel(std::int64_t value);
    std::optional<std::string> fileURL() const; // absolute URL text, "file:///..."
    void setFileURL(std::optional<std::string> value);
    // The recording as a path; nothing when the entry has none.
    std::optional<std::filesystem::path> recordingPath() const;
    std::optional<std::string> fileDurationString() const;
    void setFileDurationString(std::optional<std::string> value);
    std::optional<Uuid> requestID() const;
    void setRequestID(std::optional<Uuid> value);
    std::optional<double> timestamp() const;
    void setTimestamp(std::optional<double> value);
};

class Substitution : public ManagedObject {
public:
    static constexpr const char* kEntityName = "Substitution";
    Substitution() : ManagedObject(substitutionEntity()) {}

    std::optional<std::string> input() const;
    void setInput(std::optional<std::string> value);
    std::optional<std::string> output() const;
    void setOutput(std::optional<std::string> value);
    bool isBlankNew() const;
    void setIsBlankNew(bool value);
    std::optional<double> timestamp() const;
    void setTimestamp(std::optional<double> value);
};

class IntelligencePreset : public ManagedObject {
public:
    static constexpr const char* kEntityName = "IntelligencePreset";
    IntelligencePreset() : ManagedObject(intelligencePresetEntity()) {}

    std::optional<Uuid> uuid() const;
    void setUuid(std::optional<Uuid> value);
    std::int64_t order() const;
    void setOrder(std::int64_t value);
    std::optional<std::string> title() const;
    void setTitle(std::optional<std::string> value);
    std::optional<std::string> prompt() const;
    void setPrompt(std::optional<std::string> value);
    std::optional<std::string> model() const;
    void setModel(std::optional<std::string> value);
};

} // namespace sprelio::store

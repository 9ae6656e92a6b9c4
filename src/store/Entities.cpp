#include "store/Entities.h"

#include "base/Log.h"
#include "store/AppConstants.h"
#include "store/DatabaseHelpers.h"

namespace sprelio::store {

namespace {

using T = AttributeType;

// Attribute positions; they follow the tables of the model exactly.
namespace us {
enum : std::size_t {
    uuid, order, timestamp, shortcutString, modifierEventKeyCode, modifierEventCharacters, singleModifierDirection,
    mouseEventMouseButton, hold, shortcutActionRawValue, inputLanguageCode, intelligenceActionCategoryRawValue,
    intelligenceActionItemIdString, intelligenceActionCompletionType
};
}
namespace le {
enum : std::size_t { message, level, fileURL, fileDurationString, requestID, timestamp };
}
namespace su {
enum : std::size_t { input, output, isBlankNew, timestamp };
}
namespace ip {
enum : std::size_t { uuid, order, title, prompt, model };
}

template <class C> std::shared_ptr<ManagedObject> makeObject() { return std::make_shared<C>(); }

std::optional<Uuid> uuidFrom(const std::optional<std::string>& text) {
    if (!text) return std::nullopt;
    return Uuid::parse(*text);
}
std::optional<std::string> uuidText(const std::optional<Uuid>& value) {
    if (!value) return std::nullopt;
    return value->string();
}

} // namespace

const EntityDescription& userShortcutEntity() {
    static const EntityDescription e{"UserShortcut",
                                     {{"uuid", T::uuid},
                                      {"order", T::int16},
                                      {"timestamp", T::date},
                                      {"shortcutString", T::string},
                                      {"modifierEventKeyCode", T::int16},
                                      {"modifierEventCharacters", T::string},
                                      {"singleModifierDirection", T::string},
                                      {"mouseEventMouseButton", T::int16},
                                      {"hold", T::boolean},
                                      {"shortcutActionRawValue", T::string},
                                      {"inputLanguageCode", T::string},
                                      {"intelligenceActionCategoryRawValue", T::string},
                                      {"intelligenceActionItemIdString", T::string},
                                      {"intelligenceActionCompletionType", T::string}},
                                     &makeObject<UserShortcut>};
    return e;
}

const EntityDescription& logEntryEntity() {
    static const EntityDescription e{"LogEntry",
                                     {{"message", T::string, true},
                                      {"level", T::int16},
                                      {"fileURL", T::url},
                                      {"fileDurationString", T::string},
                                      {"requestID", T::uuid},
                                      {"timestamp", T::date}},
                                     &makeObject<LogEntry>};
    return e;
}

const EntityDescription& substitutionEntity() {
    static const EntityDescription e{"Substitution",
                                     {{"input", T::string, true},
                                      {"output", T::string, true},
                                      {"isBlankNew", T::boolean},
                                      {"timestamp", T::date}},
                                     &makeObject<Substitution>};
    return e;
}

const EntityDescription& intelligencePresetEntity() {
    static const EntityDescription e{"IntelligencePreset",
                                     {{"uuid", T::uuid},
                                      {"order", T::int16},
                                      {"title", T::string, true},
                                      {"prompt", T::string, true},
                                      {"model", T::string}},
                                     &makeObject<IntelligencePreset>};
    return e;
}

const std::vector<const EntityDescription*>& persistenceModel() {
    static const std::vector<const EntityDescription*> model{&userShortcutEntity(), &logEntryEntity(),
                                                             &substitutionEntity(), &intelligencePresetEntity()};
    return model;
}

const EntityDescription* entityNamed(std::string_view name) {
    for (const auto* e : persistenceModel()) {
        if (e->name == name) return e;
    }
    return nullptr;
}

// MARK: UserShortcut

UserShortcut::UserShortcut() : ManagedObject(userShortcutEntity()) {
    setModifierEventKeyCode(-1);
    setMouseEventMouseButton(-1);
}

std::optional<Uuid> UserShortcut::uuid() const { return uuidFrom(stringAt(us::uuid)); }
void UserShortcut::setUuid(std::optional<Uuid> value) { setStringAt(us::uuid, uuidText(value)); }
std::int64_t UserShortcut::order() const { return integerAt(us::order); }
void UserShortcut::setOrder(std::int64_t value) { setIntegerAt(us::order, value); }
std::optional<double> UserShortcut::timestamp() const { return dateAt(us::timestamp); }
void UserShortcut::setTimestamp(std::optional<double> value) { setDateAt(us::timestamp, value); }
std::optional<std::string> UserShortcut::shortcutString() const { return stringAt(us::shortcutString); }
void UserShortcut::setShortcutString(std::optional<std::string> value) {
    setStringAt(us::shortcutString, std::move(value));
}
std::int64_t UserShortcut::modifierEventKeyCode() const { return integerAt(us::modifierEventKeyCode); }
void UserShortcut::setModifierEventKeyCode(std::int64_t value) { setIntegerAt(us::modifierEventKeyCode, value); }
std::optional<std::string> UserShortcut::modifierEventCharacters() const {
    return stringAt(us::modifierEventCharacters);
}
void UserShortcut::setModifierEventCharacters(std::optional<std::string> value) {
    setStringAt(us::modifierEventCharacters, std::move(value));
}
std::optional<std::string> UserShortcut::singleModifierDirection() const {
    return stringAt(us::singleModifierDirection);
}
void UserShortcut::setSingleModifierDirection(std::optional<std::string> value) {
    setStringAt(us::singleModifierDirection, std::move(value));
}
std::int64_t UserShortcut::mouseEventMouseButton() const { return integerAt(us::mouseEventMouseButton); }
void UserShortcut::setMouseEventMouseButton(std::int64_t value) { setIntegerAt(us::mouseEventMouseButton, value); }
bool UserShortcut::hold() const { return boolAt(us::hold); }

void UserShortcut::setHold(bool value) {
    if (value && !isHoldCapableAction(shortcutActionRawValue())) {
        logWarning("UserShortcut.setHold() - hold refused for shortcutActionRawValue: " +
                   shortcutActionRawValue().value_or("nil"));
        return;
    }
    setBoolAt(us::hold, value);
}

std::optional<std::string> UserShortcut::shortcutActionRawValue() const { return stringAt(us::shortcutActionRawValue); }

void UserShortcut::setShortcutActionRawValue(std::optional<std::string> value) {
    bool capable = isHoldCapableAction(value);
    setStringAt(us::shortcutActionRawValue, std::move(value));
    if (!capable && hold()) setBoolAt(us::hold, false);
}

std::optional<std::string> UserShortcut::inputLanguageCode() const { return stringAt(us::inputLanguageCode); }
void UserShortcut::setInputLanguageCode(std::optional<std::string> value) {
    setStringAt(us::inputLanguageCode, std::move(value));
}
std::optional<std::string> UserShortcut::intelligenceActionCategoryRawValue() const {
    return stringAt(us::intelligenceActionCategoryRawValue);
}
void UserShortcut::setIntelligenceActionCategoryRawValue(std::optional<std::string> value) {
    setStringAt(us::intelligenceActionCategoryRawValue, std::move(value));
}
std::optional<std::string> UserShortcut::intelligenceActionItemIdString() const {
    return stringAt(us::intelligenceActionItemIdString);
}
void UserShortcut::setIntelligenceActionItemIdString(std::optional<std::string> value) {
    setStringAt(us::intelligenceActionItemIdString, std::move(value));
}
std::optional<std::string> UserShortcut::intelligenceActionCompletionType() const {
    return stringAt(us::intelligenceActionCompletionType);
}
void UserShortcut::setIntelligenceActionCompletionType(std::optional<std::string> value) {
    setStringAt(us::intelligenceActionCompletionType, std::move(value));
}

// MARK: LogEntry

std::optional<std::string> LogEntry::message() const { return stringAt(le::message); }
void LogEntry::setMessage(std::optional<std::string> value) { setStringAt(le::message, std::move(value)); }
std::int64_t LogEntry::level() const { return integerAt(le::level); }
void LogEntry::setLevel(std::int64_t value) { setIntegerAt(le::level, value); }
std::optional<std::string> LogEntry::fileURL() const { return stringAt(le::fileURL); }
void LogEntry::setFileURL(std::optional<std::string> value) { setStringAt(le::fileURL, std::move(value)); }
std::optional<std::filesystem::path> LogEntry::recordingPath() const {
    const auto url = fileURL();
    if (!url || url->empty()) return std::nullopt;
    return AppConstants::pathFromFileURLOrPath(*url);
}
std::optional<std::string> LogEntry::fileDurationString() const { return stringAt(le::fileDurationString); }
void LogEntry::setFileDurationString(std::optional<std::string> value) {
    setStringAt(le::fileDurationString, std::move(value));
}
std::optional<Uuid> LogEntry::requestID() const { return uuidFrom(stringAt(le::requestID)); }
void LogEntry::setRequestID(std::optional<Uuid> value) { setStringAt(le::requestID, uuidText(value)); }
std::optional<double> LogEntry::timestamp() const { return dateAt(le::timestamp); }
void LogEntry::setTimestamp(std::optional<double> value) { setDateAt(le::timestamp, value); }

// MARK: Substitution

std::optional<std::string> Substitution::input() const { return stringAt(su::input); }
void Substitution::setInput(std::optional<std::string> value) { setStringAt(su::input, std::move(value)); }
std::optional<std::string> Substitution::output() const { return stringAt(su::output); }
void Substitution::setOutput(std::optional<std::string> value) { setStringAt(su::output, std::move(value)); }
bool Substitution::isBlankNew() const { return boolAt(su::isBlankNew); }
void Substitution::setIsBlankNew(bool value) { setBoolAt(su::isBlankNew, value); }
std::optional<double> Substitution::timestamp() const { return dateAt(su::timestamp); }
void Substitution::setTimestamp(std::optional<double> value) { setDateAt(su::timestamp, value); }

// MARK: IntelligencePreset

std::optional<Uuid> IntelligencePreset::uuid() const { return uuidFrom(stringAt(ip::uuid)); }
void IntelligencePreset::setUuid(std::optional<Uuid> value) { setStringAt(ip::uuid, uuidText(value)); }
std::int64_t IntelligencePreset::order() const { return integerAt(ip::order); }
void IntelligencePreset::setOrder(std::int64_t value) { setIntegerAt(ip::order, value); }
std::optional<std::string> IntelligencePreset::title() const { return stringAt(ip::title); }
void IntelligencePreset::setTitle(std::optional<std::string> value) { setStringAt(ip::title, std::move(value)); }
std::optional<std::string> IntelligencePreset::prompt() const { return stringAt(ip::prompt); }
void IntelligencePreset::setPrompt(std::optional<std::string> value) { setStringAt(ip::prompt, std::move(value)); }
std::optional<std::string> IntelligencePreset::model() const { return stringAt(ip::model); }
void IntelligencePreset::setModel(std::optional<std::string> value) { setStringAt(ip::model, std::move(value)); }

} // namespace sprelio::store

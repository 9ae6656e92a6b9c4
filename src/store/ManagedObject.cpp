#include "store/ManagedObject.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <limits>

#include "base/Utf8.h"
#include "base/Log.h"
#include "store/ManagedObjectContext.h"

namespace sprelio::store {

namespace {

const AttributeValue kNil{};

// The text form of a UUID (8-4-4-4-12 hex digits, either case), as Uuid::parse accepts it; branch-light, since the
// validation walk of every save runs it over all registered objects.
bool isUuidText(std::string_view s) {
    static const auto kHex = [] {
        std::array<bool, 256> t{};
        for (char c : std::string_view("0123456789abcdefABCDEF")) t[static_cast<unsigned char>(c)] = true;
        return t;
    }();
    if (s.size() != 36 || s[8] != '-' || s[13] != '-' || s[18] != '-' || s[23] != '-') return false;
    bool ok = true;
    for (std::size_t i = 0; i < 36; ++i) {
        if (i == 8 || i == 13 || i == 18 || i == 23) continue;
        ok &= kHex[static_cast<unsigned char>(s[i])];
    }
    return ok;
}

// An absolute URL as Foundation's URL(string:) accepts it with a scheme: scheme ":" rest, where the scheme is
// ALPHA *( ALPHA / DIGIT / "+" / "-" / "." ), the rest is not empty and nothing is a space or control character.
bool isAbsoluteUrl(std::string_view s) {
    auto colon = s.find(':');
    if (colon == std::string_view::npos || colon == 0 || colon + 1 >= s.size()) return false;
    auto isAlpha = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    if (!isAlpha(s[0])) return false;
    for (std::size_t i = 1; i < colon; ++i) {
        char c = s[i];
        if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return false;
    }
    for (char c : s) {
        auto u = static_cast<unsigned char>(c);
        if (u <= 0x20 || u == 0x7F) return false;
    }
    return isValidUtf8(s);
}

// A value as a log line may show it: private text is "<privatized>"; control characters, and every byte above
// ASCII when the text is no UTF-8, are escaped as \xNN, so that a line stays one line.
std::string displayValue(const AttributeDescription& attribute, const AttributeValue& value) {
    const auto* s = std::get_if<std::string>(&value);
    if (!s) return describeValue(value);
    if (attribute.privateText) return std::string(kPrivatized);
    const bool utf8 = isValidUtf8(*s);
    std::string out = "\"";
    for (char c : *s) {
        auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7F || (!utf8 && u >= 0x80)) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\x%02X", u);
            out += buf;
        } else {
            out.push_back(c);
        }
    }
    return out + "\"";
}

Error validationError(const ManagedObject& object, const AttributeDescription& attribute, const AttributeValue& value,
                      long code, const std::string& problem) {
    Error e;
    e.domain = kStoreErrorDomain;
    e.code = code;
    auto shown = displayValue(attribute, value);
    e.localizedDescription = "The value " + shown + " of attribute '" + attribute.name + "' of " +
                             object.entity().name + " " + problem + ".";
    e.userInfo[kValidationKeyErrorKey] = attribute.name;
    e.userInfo[kValidationValueErrorKey] = shown;
    return e;
}

std::string typeNameOf(const AttributeValue& v) {
    switch (v.index()) {
    case 0: return "nil";
    case 1: return "an integer";
    case 2: return "a real number";
    case 3: return "a boolean";
    default: return "a string";
    }
}

} // namespace

std::string_view attributeTypeName(AttributeType type) {
    switch (type) {
    case AttributeType::uuid: return "UUID";
    case AttributeType::int16: return "Integer 16";
    case AttributeType::date: return "Date";
    case AttributeType::string: return "String";
    case AttributeType::boolean: return "Boolean";
    case AttributeType::url: return "URI";
    }
    return "?";
}

int EntityDescription::indexOf(std::string_view attribute) const {
    for (std::size_t i = 0; i < attributes.size(); ++i) {
        if (attributes[i].name == attribute) return static_cast<int>(i);
    }
    return -1;
}

std::string describeValue(const AttributeValue& value) {
    switch (value.index()) {
    case 0: return "nil";
    case 1: return std::to_string(std::get<std::int64_t>(value));
    case 2: {
        char buf[64];
        std::snprintf(buf, sizeof buf, "%.17g", std::get<double>(value));
        return buf;
    }
    case 3: return std::get<bool>(value) ? "true" : "false";
    default: return "\"" + std::get<std::string>(value) + "\"";
    }
}

std::string describeUserInfo(const std::map<std::string, std::string>& userInfo) {
    if (userInfo.empty()) return "[:]";
    std::string s = "[";
    bool first = true;
    for (const auto& [k, v] : userInfo) {
        if (!first) s += ", ";
        first = false;
        s += "\"" + k + "\": \"" + v + "\"";
    }
    return s + "]";
}

ManagedObject::ManagedObject(const EntityDescription& entity) : entity_(&entity), values_(entity.attributes.size()) {
    for (std::size_t i = 0; i < entity.attributes.size(); ++i) {
        switch (entity.attributes[i].type) {
        case AttributeType::int16: values_[i] = std::int64_t{0}; break;
        case AttributeType::boolean: values_[i] = false; break;
        default: break;
        }
    }
}

std::string ManagedObject::objectIDString() const {
    if (primaryKey_ > 0) {
        return "x-sprelio://" + (storeID_ ? *storeID_ : std::string()) + "/" + entity_->name + "/p" +
               std::to_string(primaryKey_);
    }
    return "x-sprelio:///" + entity_->name + "/t" + std::to_string(temporaryID_);
}

bool ManagedObject::isUpdated() const {
    return context_ && !inserted_ && !deleted_ && touched_ && values_ != committed_;
}

const AttributeValue& ManagedObject::value(std::string_view attribute) const {
    int i = entity_->indexOf(attribute);
    if (i < 0) throw std::invalid_argument("entity " + entity_->name + " has no attribute '" + std::string(attribute) + "'");
    return values_[static_cast<std::size_t>(i)];
}

void ManagedObject::setValue(std::string_view attribute, AttributeValue value) {
    int i = entity_->indexOf(attribute);
    if (i < 0) throw std::invalid_argument("entity " + entity_->name + " has no attribute '" + std::string(attribute) + "'");
    setValueAt(static_cast<std::size_t>(i), std::move(value));
}

void ManagedObject::setValueAt(std::size_t index, AttributeValue value) {
    auto& slot = values_.at(index);
    if (slot == value) return;
    slot = std::move(value);
    if (context_ && !inserted_ && !touched_) context_->noteChanged(*this);
}

const AttributeValue& ManagedObject::committedValueAt(std::size_t index) const {
    if (committed_.empty()) return kNil;
    return committed_.at(index);
}

std::optional<Error> ManagedObject::validateForUpdate() const {
    for (std::size_t i = 0; i < entity_->attributes.size(); ++i) {
        const auto& attribute = entity_->attributes[i];
        const auto& v = values_[i];
        switch (attribute.type) {
        case AttributeType::int16: {
            if (std::holds_alternative<std::monostate>(v))
                return validationError(*this, attribute, v, store_error::kMissingMandatoryProperty,
                                       "is missing; a 16-bit integer is required");
            if (!std::holds_alternative<std::int64_t>(v))
                return validationError(*this, attribute, v, store_error::kValidation,
                                       "is " + typeNameOf(v) + ", not a 16-bit integer");
            auto n = std::get<std::int64_t>(v);
            if (n > std::numeric_limits<std::int16_t>::max())
                return validationError(*this, attribute, v, store_error::kNumberTooLarge,
                                       "is too large for a 16-bit integer (-32768...32767)");
            if (n < std::numeric_limits<std::int16_t>::min())
                return validationError(*this, attribute, v, store_error::kNumberTooSmall,
                                       "is too small for a 16-bit integer (-32768...32767)");
            break;
        }
        case AttributeType::boolean:
            if (std::holds_alternative<std::monostate>(v))
                return validationError(*this, attribute, v, store_error::kMissingMandatoryProperty,
                                       "is missing; a boolean is required");
            if (!std::holds_alternative<bool>(v))
                return validationError(*this, attribute, v, store_error::kValidation,
                                       "is " + typeNameOf(v) + ", not a boolean");
            break;
        case AttributeType::date:
            if (std::holds_alternative<std::monostate>(v)) break;
            if (!std::holds_alternative<double>(v) || !std::isfinite(std::get<double>(v)))
                return validationError(*this, attribute, v, store_error::kValidation,
                                       "is " + typeNameOf(v) + ", not a date (finite seconds since 1970)");
            break;
        case AttributeType::uuid:
            if (std::holds_alternative<std::monostate>(v)) break;
            if (!std::holds_alternative<std::string>(v) || !isUuidText(std::get<std::string>(v)))
                return validationError(*this, attribute, v, store_error::kValidation, "is not a UUID");
            break;
        case AttributeType::url:
            if (std::holds_alternative<std::monostate>(v)) break;
            if (!std::holds_alternative<std::string>(v) || !isAbsoluteUrl(std::get<std::string>(v)))
                return validationError(*this, attribute, v, store_error::kValidation, "is not an absolute URL");
            break;
        case AttributeType::string:
            if (std::holds_alternative<std::monostate>(v)) break;
            if (!std::holds_alternative<std::string>(v))
                return validationError(*this, attribute, v, store_error::kValidation,
                                       "is " + typeNameOf(v) + ", not a string");
            if (!isValidUtf8(std::get<std::string>(v)))
                return validationError(*this, attribute, v, store_error::kValidation, "is not valid UTF-8");
            break;
        }
    }
    return std::nullopt;
}

std::string ManagedObject::description() const {
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
    std::string s = "<" + entity_->name + ": " + address + "> (entity: " + entity_->name + "; id: " + objectIDString() +
                    "; data: {";
    for (std::size_t i = 0; i < entity_->attributes.size(); ++i) {
        const auto& attribute = entity_->attributes[i];
        if (i) s += " ";
        s += attribute.name + " = " + displayValue(attribute, values_[i]) + ";";
    }
    s += "})";
    return s;
}

std::optional<std::string> ManagedObject::stringAt(std::size_t index) const {
    const auto& v = values_.at(index);
    if (const auto* p = std::get_if<std::string>(&v)) return *p;
    return std::nullopt;
}

void ManagedObject::setStringAt(std::size_t index, std::optional<std::string> value) {
    if (value) setValueAt(index, std::move(*value));
    else setValueAt(index, std::monostate{});
}

std::int64_t ManagedObject::integerAt(std::size_t index) const {
    const auto& v = values_.at(index);
    if (const auto* p = std::get_if<std::int64_t>(&v)) return *p;
    if (const auto* b = std::get_if<bool>(&v)) return *b ? 1 : 0;
    if (const auto* d = std::get_if<double>(&v)) {
        if (std::isfinite(*d) && std::fabs(*d) < 9.2e18) return static_cast<std::int64_t>(*d);
    }
    return 0;
}

void ManagedObject::setIntegerAt(std::size_t index, std::int64_t value) { setValueAt(index, value); }

bool ManagedObject::boolAt(std::size_t index) const {
    const auto& v = values_.at(index);
    if (const auto* b = std::get_if<bool>(&v)) return *b;
    if (const auto* p = std::get_if<std::int64_t>(&v)) return *p != 0;
    return false;
}

void ManagedObject::setBoolAt(std::size_t index, bool value) { setValueAt(index, value); }

std::optional<double> ManagedObject::dateAt(std::size_t index) const {
    const auto& v = values_.at(index);
    if (const auto* d = std::get_if<double>(&v)) return *d;
    if (const auto* p = std::get_if<std::int64_t>(&v)) return static_cast<double>(*p);
    return std::nullopt;
}

void ManagedObject::setDateAt(std::size_t index, std::optional<double> secondsSince1970) {
    if (secondsSince1970) setValueAt(index, *secondsSince1970);
    else setValueAt(index, std::monostate{});
}

StoreError::StoreError(Error error, std::vector<DetailedError> detailed)
    : std::runtime_error(error.debugDescription()), error_(std::move(error)), detailed_(std::move(detailed)) {}

} // namespace sprelio::store

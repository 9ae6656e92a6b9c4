#include "base/JsonAccess.h"

#include <charconv>

namespace sprelio {

namespace {

const nlohmann::json* member(const nlohmann::json& object, const char* key) {
    if (!object.is_object()) return nullptr;
    auto it = object.find(key);
    return it == object.end() ? nullptr : &*it;
}

} // namespace

std::optional<std::string> stringValue(const nlohmann::json& object, const char* key) {
    const auto* value = member(object, key);
    if (!value || !value->is_string()) return std::nullopt;
    return value->get<std::string>();
}

std::optional<std::string> stringValue(const std::optional<nlohmann::json>& object, const char* key) {
    if (!object) return std::nullopt;
    return stringValue(*object, key);
}

std::optional<bool> boolValue(const nlohmann::json& object, const char* key) {
    const auto* value = member(object, key);
    if (!value || !value->is_boolean()) return std::nullopt;
    return value->get<bool>();
}

std::optional<long long> integerValue(const nlohmann::json& object, const char* key) {
    const auto* value = member(object, key);
    if (!value || !value->is_number_integer()) return std::nullopt;
    return value->get<long long>();
}

std::string doubleText(double value) {
    char buffer[64];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
    if (ec != std::errc()) return std::to_string(value);
    std::string text(buffer, end);
    if (text.find_first_of(".eEn") == std::string::npos) text += ".0";
    return text;
}

} // namespace sprelio

#pragma once
// Typed reads of one member of a JSON answer. A member that is missing or of another type reads as nothing: answers
// come from other programs, and a wrong type is no reason to throw.
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace sprelio {

std::optional<std::string> stringValue(const nlohmann::json& object, const char* key);
std::optional<std::string> stringValue(const std::optional<nlohmann::json>& object, const char* key);
std::optional<bool> boolValue(const nlohmann::json& object, const char* key);
// Integers only: a fraction or a text is no count.
std::optional<long long> integerValue(const nlohmann::json& object, const char* key);

// The shortest text that reads back as the same double, always with a decimal point or exponent ("2.0", "0.25").
std::string doubleText(double value);

} // namespace sprelio

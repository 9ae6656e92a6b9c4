#pragma once
// The settings archive of a problem report: every setting, written as an XML property list into the folder
// "SPR_configs" of the log folder and zipped beside it as "UserDefaultsBackup.zip".
#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace sprelio {

// The settings as an XML property list (strings, numbers, booleans, arrays and dictionaries; a null has no form
// there and is left out).
std::string propertyListXml(const std::map<std::string, nlohmann::json>& settings);

// Writes the property list and zips the folder's contents; the archive's path, or nothing (logged) when the log
// folder is missing or a step fails. An older archive is replaced.
std::optional<std::filesystem::path> gatherConfigData(const std::map<std::string, nlohmann::json>& settings,
                                                      const std::filesystem::path& logsFolder);

} // namespace sprelio

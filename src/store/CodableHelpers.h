#pragma once
// CodableHelpers: lists kept as JSON files in the support folder.
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace sprelio::store {

struct CodableHelpers {
    // Encodes the array as JSON and writes it to `path` (atomically: temp file in the same folder, rename).
    // A failure logs at error level "CodableHelpers.persistArray() - error saving <path>, error: <error>".
    template <typename T>
    static void persistArray(const std::vector<T>& array, const std::filesystem::path& path) {
        nlohmann::json encoded;
        try {
            encoded = array;
        } catch (const std::exception& e) {
            logPersistError(path, e.what());
            return;
        }
        writeJson(encoded, path);
    }

    // Reads and decodes the file. A missing file logs at warning level "CodableHelpers.retrieveArray() - failed
    // to load <path>, will treat it as empty!"; any other failure (unreadable, not JSON, not an array of T) logs
    // at error level "CodableHelpers.retrieveArray() - error loading <path>, error: <description>". Both return
    // an empty array.
    template <typename T>
    static std::vector<T> retrieveArray(const std::filesystem::path& path) {
        auto json = readJson(path);
        if (!json) return {};
        try {
            if (!json->is_array()) throw std::runtime_error("the content is not a JSON array");
            return json->get<std::vector<T>>();
        } catch (const std::exception& e) {
            logRetrieveError(path, e.what());
            return {};
        }
    }

    // The untyped halves, used by the templates.
    static void writeJson(const nlohmann::json& json, const std::filesystem::path& path);
    static std::optional<nlohmann::json> readJson(const std::filesystem::path& path); // logs; nullopt on failure
    static void logPersistError(const std::filesystem::path& path, const std::string& error);
    static void logRetrieveError(const std::filesystem::path& path, const std::string& error);
};

} // namespace sprelio::store

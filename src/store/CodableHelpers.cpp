#include "store/CodableHelpers.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "base/Log.h"
#include "store/AtomicFile.h"

namespace sprelio::store {

void CodableHelpers::logPersistError(const std::filesystem::path& path, const std::string& error) {
    logError("CodableHelpers.persistArray() - error saving " + path.string() + ", error: " + error);
}

void CodableHelpers::logRetrieveError(const std::filesystem::path& path, const std::string& error) {
    logError("CodableHelpers.retrieveArray() - error loading " + path.string() + ", error: " + error);
}

void CodableHelpers::writeJson(const nlohmann::json& json, const std::filesystem::path& path) {
    std::string text;
    try {
        text = json.dump();
    } catch (const std::exception& e) {
        logPersistError(path, e.what());
        return;
    }
    std::string error = writeFileAtomically(path, text, 0644);
    if (!error.empty()) logPersistError(path, error);
}

std::optional<nlohmann::json> CodableHelpers::readJson(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        int error = errno;
        std::error_code ec;
        if (error == ENOENT || !std::filesystem::exists(path, ec)) {
            logWarning("CodableHelpers.retrieveArray() - failed to load " + path.string() +
                       ", will treat it as empty!");
        } else {
            logRetrieveError(path, std::strerror(error));
        }
        return std::nullopt;
    }
    std::stringstream buffer;
    buffer << in.rdbuf();
    if (in.bad()) {
        logRetrieveError(path, std::strerror(errno));
        return std::nullopt;
    }
    try {
        return nlohmann::json::parse(buffer.str());
    } catch (const std::exception& e) {
        logRetrieveError(path, e.what());
        return std::nullopt;
    }
}

} // namespace sprelio::store

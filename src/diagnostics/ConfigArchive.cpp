#include "diagnostics/ConfigArchive.h"

#include "base/Log.h"
#include "diagnostics/ZipArchive.h"
#include "store/AtomicFile.h"

namespace sprelio {

namespace fs = std::filesystem;

namespace {

std::string escaped(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        default: out += c;
        }
    }
    return out;
}

void writeValue(std::string& out, const nlohmann::json& value, int depth);

void writeDictionary(std::string& out, const nlohmann::json& object, int depth) {
    const std::string indent(static_cast<std::size_t>(depth), '\t');
    out += indent + "<dict>\n";
    for (const auto& [key, value] : object.items()) {
        if (value.is_null()) continue;
        out += indent + "\t<key>" + escaped(key) + "</key>\n";
        writeValue(out, value, depth + 1);
    }
    out += indent + "</dict>\n";
}

void writeValue(std::string& out, const nlohmann::json& value, int depth) {
    const std::string indent(static_cast<std::size_t>(depth), '\t');
    if (value.is_string()) {
        out += indent + "<string>" + escaped(value.get<std::string>()) + "</string>\n";
    } else if (value.is_boolean()) {
        out += indent + (value.get<bool>() ? "<true/>\n" : "<false/>\n");
    } else if (value.is_number_integer()) {
        out += indent + "<integer>" + value.dump() + "</integer>\n";
    } else if (value.is_number_float()) {
        out += indent + "<real>" + value.dump() + "</real>\n";
    } else if (value.is_array()) {
        out += indent + "<array>\n";
        for (const auto& element : value) {
            if (!element.is_null()) writeValue(out, element, depth + 1);
        }
        out += indent + "</array>\n";
    } else if (value.is_object()) {
        writeDictionary(out, value, depth);
    }
}

} // namespace

std::string propertyListXml(const std::map<std::string, nlohmann::json>& settings) {
    std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                      "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                      "<plist version=\"1.0\">\n";
    nlohmann::json object = nlohmann::json::object();
    for (const auto& [key, value] : settings) object[key] = value;
    writeDictionary(out, object, 0);
    out += "</plist>\n";
    return out;
}

std::optional<fs::path> gatherConfigData(const std::map<std::string, nlohmann::json>& settings,
                                         const fs::path& logsFolder) {
    std::error_code ec;
    if (!fs::is_directory(logsFolder, ec)) return std::nullopt;
    const fs::path folder = logsFolder / "SPR_configs";
    const fs::path plist = folder / "UserDefaultsBackup.plist";
    const fs::path archive = logsFolder / "UserDefaultsBackup.zip";
    const auto failed = [](const std::string& error) {
        logError("gatherConfigData() - Error creating or zipping config data: " + error);
        return std::nullopt;
    };
    if (!fs::is_directory(folder, ec)) {
        if (!fs::create_directories(folder, ec) && ec)
            return failed("cannot create " + folder.string() + ": " + ec.message());
        logInfo("gatherConfigData() - Created config folder at: " + folder.string());
    }
    // The file holds the login token: readable by the user alone.
    const std::string writeError = store::writeFileAtomically(plist, propertyListXml(settings), 0600);
    if (!writeError.empty()) return failed(writeError);
    logInfo("gatherConfigData() - UserDefaults data saved to: " + plist.string());
    fs::remove(archive, ec);
    if (!zipFolderContents(folder, archive))
        return failed("cannot zip " + folder.string() + " into " + archive.string());
    fs::permissions(archive, fs::perms::owner_read | fs::perms::owner_write, ec);
    logInfo("gatherConfigData() - Config folder zipped at: " + archive.string());
    return archive;
}

} // namespace sprelio

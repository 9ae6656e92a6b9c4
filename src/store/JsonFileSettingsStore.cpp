#include "store/JsonFileSettingsStore.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "base/Log.h"
#include "store/AtomicFile.h"

namespace sprelio::store {
namespace fs = std::filesystem;

JsonFileSettingsStore::JsonFileSettingsStore(fs::path path) : path_(std::move(path)) { load(); }

namespace {

// Levels of nesting a settings file may have: its deepest values (lists of objects) use three.
constexpr int kMaxDepth = 64;


} // namespace

void JsonFileSettingsStore::load() {
    std::error_code ec;
    if (!fs::exists(path_, ec)) {
        if (ec) {
            logError("JsonFileSettingsStore.load() - cannot check settings file " + path_.string() + ": " +
                     ec.message() + ", using defaults; changes will not be saved");
            persistDisabled_ = true;
        }
        return;
    }
    std::ifstream in(path_, std::ios::binary);
    if (!in) {
        logError("JsonFileSettingsStore.load() - cannot read settings file " + path_.string() + ": " +
                 std::strerror(errno) + ", using defaults; changes will not be saved so as not to overwrite it");
        persistDisabled_ = true;
        return;
    }
    std::stringstream buffer;
    buffer << in.rdbuf();
    in.close();

    std::string reason;
    try {
        // No setting is nested more than a few levels; a deeper file is damaged or hostile, and copying or
        // writing such a tree would recurse once per level until the stack runs out.
        auto parsed = nlohmann::json::parse(buffer.str(), [](int depth, nlohmann::json::parse_event_t,
                                                             nlohmann::json&) {
            if (depth > kMaxDepth)
                throw std::runtime_error("nested deeper than " + std::to_string(kMaxDepth) + " levels");
            return true;
        });
        if (parsed.is_object()) {
            std::lock_guard lock(mutex_);
            for (auto it = parsed.begin(); it != parsed.end(); ++it) values_.insert_or_assign(it.key(), it.value());
            // The file holds the token: make sure only the user can read it.
            struct stat st {};
            if (::stat(path_.c_str(), &st) == 0 && (st.st_mode & 0777) != 0600) {
                if (::chmod(path_.c_str(), 0600) == 0)
                    logInfo("JsonFileSettingsStore.load() - set the mode of " + path_.string() + " to 0600");
            }
            return;
        }
        reason = std::string("the content is a JSON ") + parsed.type_name() + ", not an object";
    } catch (const std::exception& e) {
        reason = e.what();
    }

    // Corrupt: move it aside, keep it, use the defaults.
    std::string moveError;
    const fs::path aside = moveFileAside(path_, moveError);
    if (!aside.empty()) {
        movedAside_ = aside;
        logError("JsonFileSettingsStore.load() - settings file " + path_.string() +
                 " is not a valid JSON object (" + reason + "), moved it aside to " + aside.string() +
                 ", using defaults");
        return;
    }
    persistDisabled_ = true;
    logError("JsonFileSettingsStore.load() - settings file " + path_.string() + " is not a valid JSON object (" +
             reason + ") and could not be moved aside (" + moveError + "), using defaults; changes will not " +
             "be saved so as not to overwrite it");
}

bool JsonFileSettingsStore::persistLocked() {
    if (persistDisabled_) {
        lastWriteOk_ = false;
        return false;
    }
    nlohmann::json object = nlohmann::json::object();
    for (const auto& [key, value] : values_) object[key] = value;
    std::string text = object.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";

    std::string error;
    std::error_code ec;
    fs::path folder = path_.parent_path();
    if (!folder.empty() && !fs::is_directory(folder, ec)) {
        ec.clear();
        fs::create_directories(folder, ec);
        if (ec) error = "cannot create folder " + folder.string() + ": " + ec.message();
        else ::chmod(folder.c_str(), 0700);
    }
    if (error.empty()) error = writeFileAtomically(path_, text, 0600);
    if (!error.empty()) {
        logError("JsonFileSettingsStore.persist() - failed to write " + path_.string() + ": " + error +
                 "; the change stays in memory for this session only");
        lastWriteOk_ = false;
        return false;
    }
    lastWriteOk_ = true;
    return true;
}

void JsonFileSettingsStore::set(std::string key, nlohmann::json value) {
    std::lock_guard lock(mutex_);
    values_.insert_or_assign(std::move(key), std::move(value));
    persistLocked();
}

void JsonFileSettingsStore::remove(std::string_view key) {
    std::lock_guard lock(mutex_);
    auto it = values_.find(key);
    if (it == values_.end()) return;
    values_.erase(it);
    persistLocked();
}

bool JsonFileSettingsStore::lastWriteSucceeded() const {
    std::lock_guard lock(mutex_);
    return lastWriteOk_;
}

} // namespace sprelio::store

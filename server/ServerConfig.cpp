#include "server/ServerConfig.h"

#include <openssl/sha.h>

#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

namespace sprelio::server {

std::filesystem::path ServerConfig::effectiveTokenFile() const {
    return tokenFile.empty() ? dataFolder / "local-token" : tokenFile;
}

std::filesystem::path defaultServerDataFolder() {
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg) return std::filesystem::path(xdg) / "sprelio-server";
    if (const char* home = std::getenv("HOME"); home && *home)
        return std::filesystem::path(home) / ".local" / "share" / "sprelio-server";
    return std::filesystem::current_path() / "sprelio-server-data";
}

std::string uuidFromText(const std::string& text) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
    // Name-based layout: version 5 bits, RFC 4122 variant.
    digest[6] = static_cast<unsigned char>((digest[6] & 0x0F) | 0x50);
    digest[8] = static_cast<unsigned char>((digest[8] & 0x3F) | 0x80);
    std::string out;
    char buf[3];
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
        std::snprintf(buf, sizeof buf, "%02X", digest[i]);
        out += buf;
    }
    return out;
}

namespace {

template <typename T> bool parseNumber(const std::string& text, T& out) {
    T value{};
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size()) return false;
    out = value;
    return true;
}

bool parseSwitch(const std::string& text, bool& out) {
    if (text == "on" || text == "true" || text == "yes" || text == "1") out = true;
    else if (text == "off" || text == "false" || text == "no" || text == "0") out = false;
    else return false;
    return true;
}

bool parsePeer(const std::string& text, PeerBackend& peer) {
    auto eq = text.find('=');
    if (eq == std::string::npos || eq == 0 || eq + 1 == text.size()) return false;
    peer.name = text.substr(0, eq);
    peer.url = text.substr(eq + 1);
    peer.uuid = uuidFromText(peer.url);
    return true;
}

// "en, de,fr-CA" -> en, de, fr: the engines compare primary subtags in lower case.
bool parseLanguageList(const std::string& text, std::vector<std::string>& out) {
    std::vector<std::string> codes;
    std::size_t start = 0;
    while (start <= text.size()) {
        auto comma = text.find(',', start);
        auto item = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        std::string code;
        for (char c : item) {
            if (c == ' ' || c == '\t') continue;
            if (c == '-' || c == '_') break;
            if (!std::isalpha(static_cast<unsigned char>(c))) return false;
            code += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        if (code.empty()) return false;
        codes.push_back(code);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    out = std::move(codes);
    return true;
}

} // namespace

std::string serverUsage() {
    return "Usage: sprelio-server [options]\n"
           "  --config FILE        JSON configuration (command-line options override it)\n"
           "  --host HOST          listen address (default 127.0.0.1)\n"
           "  --port N             listen port, 0 for any free port (default 8765)\n"
           "  --data DIR           data folder: accounts database and local token\n"
           "  --public-url URL     URL announced to clients (default http://HOST:PORT)\n"
           "  --name NAME          name announced to clients\n"
           "  --peer NAME=URL      another transcription backend to announce (repeatable)\n"
           "  --engine NAME        transcription engine: pocketsphinx (default) or openai\n"
           "  --model DIR          pocketsphinx model folder\n"
           "  --openai-url URL     openai engine: OpenAI-compatible service (root, .../v1 or the full\n"
           "                       .../audio/transcriptions URL)\n"
           "  --openai-key KEY     openai engine: API key (prefer --openai-key-file)\n"
           "  --openai-key-file PATH  openai engine: file whose first line is the API key\n"
           "  --openai-model NAME  openai engine: model (default whisper-1)\n"
           "  --openai-languages LIST  openai engine: comma-separated language codes it serves, the first is the\n"
           "                       default (default: the Whisper languages, en first)\n"
           "  --ai-url URL         AI completions: OpenAI-compatible chat service (root, .../v1 or the full\n"
           "                       .../chat/completions URL); without it AI requests are refused\n"
           "  --ai-key KEY         AI completions: API key (prefer --ai-key-file)\n"
           "  --ai-key-file PATH   AI completions: file whose first line is the API key\n"
           "  --ai-model NAME      AI completions: model name (required with --ai-url)\n"
           "  --ai-timeout SECONDS AI completions: time allowed for one answer (default 60)\n"
           "  --ai-auto-detect on|off  AI completions without --ai-url: use a local OpenAI-compatible service\n"
           "                       if one answers at the --ai-auto-detect-url (looked for at start and, while\n"
           "                       none is found, at most every 30 s when asked); with --ai-url but no\n"
           "                       --ai-model: take the service's first model (default off)\n"
           "  --ai-auto-detect-url URL  where to look for the local service (default http://127.0.0.1:11434)\n"
           "  --file-retention-hours N  remove long-file uploads never transcribed after N hours, 0 keeps\n"
           "                       them (default 24)\n"
           "  --slots N            transcriptions at once (default 2); a live decoding holds one while it runs\n"
           "  --live-decoding on|off  decode dictations while they are spoken (default on)\n"
           "  --live-max-seconds N  end a live decoding that runs longer; its upload is transcribed as usual\n"
           "                       (default 900)\n"
           "  --threads N          HTTP worker threads (default 8)\n"
           "  --max-upload-mb N    largest accepted request body (default 100)\n"
           "  --max-file-upload-mb N  largest accepted long file (default 2048)\n"
           "  --smtp-url URL       mail server for sign-in mails (default: link and code go to the console log)\n"
           "  --smtp-from ADDRESS  sender of sign-in mails\n"
           "  --token-file PATH    where the local account's token is written (default DATA/local-token)\n";
}

bool applyServerConfigJson(const std::string& jsonText, ServerConfig& config, std::string& error) {
    auto json = nlohmann::json::parse(jsonText, nullptr, false);
    if (json.is_discarded() || !json.is_object()) {
        error = "the configuration is not a JSON object";
        return false;
    }
    try {
        for (auto& [key, value] : json.items()) {
            if (key == "host") config.host = value.get<std::string>();
            else if (key == "port") config.port = value.get<int>();
            else if (key == "dataFolder") config.dataFolder = value.get<std::string>();
            else if (key == "publicUrl") config.publicUrl = value.get<std::string>();
            else if (key == "name") config.name = value.get<std::string>();
            else if (key == "engine") config.engine = value.get<std::string>();
            else if (key == "modelFolder") config.modelFolder = value.get<std::string>();
            else if (key == "engineSlots") config.engineSlots = value.get<std::size_t>();
            else if (key == "workerThreads") config.workerThreads = value.get<std::size_t>();
            else if (key == "maxQueuedConnections") config.maxQueuedConnections = value.get<std::size_t>();
            else if (key == "maxUploadBytes") config.maxUploadBytes = value.get<std::size_t>();
            else if (key == "maxAudioSeconds") config.maxAudioSeconds = value.get<double>();
            else if (key == "tokenFile") config.tokenFile = value.get<std::string>();
            else if (key == "maxFileUploadBytes") config.maxFileUploadBytes = value.get<std::uint64_t>();
            else if (key == "fileChunkSeconds") config.fileChunkSeconds = value.get<double>();
            else if (key == "maxReportPartBytes") config.maxReportPartBytes = value.get<std::size_t>();
            else if (key == "smtpUrl") config.smtpUrl = value.get<std::string>();
            else if (key == "smtpFrom") config.smtpFrom = value.get<std::string>();
            else if (key == "signInValidSeconds") config.signInValidSeconds = value.get<int>();
            else if (key == "signInCodeAttempts") config.signInCodeAttempts = value.get<int>();
            else if (key == "signInWaitSeconds") config.signInWaitSeconds = value.get<int>();
            else if (key == "maxSignInWaiters") config.maxSignInWaiters = value.get<std::size_t>();
            else if (key == "signInFreeGuessesPerEmail") config.signInFreeGuessesPerEmail = value.get<int>();
            else if (key == "signInFreeGuessesPerClient") config.signInFreeGuessesPerClient = value.get<int>();
            else if (key == "signInFreeRequestsPerEmail") config.signInFreeRequestsPerEmail = value.get<int>();
            else if (key == "signInFreeRequestsPerClient") config.signInFreeRequestsPerClient = value.get<int>();
            else if (key == "signInBackOffSeconds") config.signInBackOffSeconds = value.get<int>();
            else if (key == "signInMaxBackOffSeconds") config.signInMaxBackOffSeconds = value.get<int>();
            else if (key == "signInForgetSeconds") config.signInForgetSeconds = value.get<int>();
            else if (key == "maxHeaderBytes") config.maxHeaderBytes = value.get<std::size_t>();
            else if (key == "requestHeadSeconds") config.requestHeadSeconds = value.get<double>();
            else if (key == "requestBodySeconds") config.requestBodySeconds = value.get<double>();
            else if (key == "minBodyBytesPerSecond") config.minBodyBytesPerSecond = value.get<std::uint64_t>();
            else if (key == "maxConnections") config.maxConnections = value.get<std::size_t>();
            else if (key == "maxConnectionsPerClient") config.maxConnectionsPerClient = value.get<std::size_t>();
            else if (key == "readTimeoutSeconds") config.readTimeoutSeconds = value.get<int>();
            else if (key == "keepAliveSeconds") config.keepAliveSeconds = value.get<int>();
            else if (key == "openaiUrl") config.openaiUrl = value.get<std::string>();
            else if (key == "openaiKey") config.openaiKey = value.get<std::string>();
            else if (key == "openaiKeyFile") config.openaiKeyFile = value.get<std::string>();
            else if (key == "openaiModel") config.openaiModel = value.get<std::string>();
            else if (key == "openaiLanguages") {
                std::string list;
                for (const auto& item : value.get<std::vector<std::string>>()) list += (list.empty() ? "" : ",") + item;
                config.openaiLanguages.clear();
                if (!list.empty() && !parseLanguageList(list, config.openaiLanguages)) {
                    error = "bad value for openaiLanguages: language codes such as \"en\" expected";
                    return false;
                }
            }
            else if (key == "openaiTimeoutSeconds") config.openaiTimeoutSeconds = value.get<int>();
            else if (key == "aiUrl") config.aiUrl = value.get<std::string>();
            else if (key == "aiKey") config.aiKey = value.get<std::string>();
            else if (key == "aiKeyFile") config.aiKeyFile = value.get<std::string>();
            else if (key == "aiModel") config.aiModel = value.get<std::string>();
            else if (key == "aiTimeoutSeconds") config.aiTimeoutSeconds = value.get<int>();
            else if (key == "aiAutoDetect") config.aiAutoDetect = value.get<bool>();
            else if (key == "aiAutoDetectUrl") config.aiAutoDetectUrl = value.get<std::string>();
            else if (key == "aiAutoDetectIntervalSeconds") config.aiAutoDetectIntervalSeconds = value.get<int>();
            else if (key == "maxCompletionTextBytes") config.maxCompletionTextBytes = value.get<std::size_t>();
            else if (key == "fileRetentionSeconds") config.fileRetentionSeconds = value.get<int>();
            else if (key == "fileCleanupIntervalSeconds") config.fileCleanupIntervalSeconds = value.get<int>();
            else if (key == "liveDecoding") config.liveDecoding = value.get<bool>();
            else if (key == "liveMaxSeconds") config.liveMaxSeconds = value.get<int>();
            else if (key == "peers") {
                config.peers.clear();
                for (const auto& item : value) {
                    PeerBackend peer;
                    peer.name = item.at("name").get<std::string>();
                    peer.url = item.at("url").get<std::string>();
                    peer.uuid = item.contains("uuid") ? item.at("uuid").get<std::string>() : uuidFromText(peer.url);
                    config.peers.push_back(std::move(peer));
                }
            } else {
                error = "unknown configuration key '" + key + "'";
                return false;
            }
        }
    } catch (const nlohmann::json::exception& e) {
        error = std::string("bad configuration value: ") + e.what();
        return false;
    }
    return true;
}

ConfigParseResult parseServerCommandLine(int argc, const char* const* argv) {
    ConfigParseResult result;
    ServerConfig config;
    config.dataFolder = defaultServerDataFolder();

    // The file comes first whatever its place among the flags, so that flags override it.
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::string(argv[i]) == "--config") {
            std::ifstream in(argv[i + 1], std::ios::binary);
            if (!in) {
                result.error = std::string("cannot read the configuration file ") + argv[i + 1];
                return result;
            }
            std::stringstream text;
            text << in.rdbuf();
            if (!applyServerConfigJson(text.str(), config, result.error)) {
                result.error = std::string(argv[i + 1]) + ": " + result.error;
                return result;
            }
        }
    }

    bool peersFromFlags = false;
    for (int i = 1; i < argc; ++i) {
        std::string flag = argv[i];
        if (flag == "--help" || flag == "-h") {
            result.help = true;
            return result;
        }
        if (i + 1 >= argc) {
            result.error = "missing value after " + flag;
            return result;
        }
        std::string value = argv[++i];
        bool ok = true;
        std::size_t megabytes = 0;
        if (flag == "--config") continue;
        else if (flag == "--host") config.host = value;
        else if (flag == "--port") ok = parseNumber(value, config.port) && config.port >= 0 && config.port <= 65535;
        else if (flag == "--data") config.dataFolder = value;
        else if (flag == "--public-url") config.publicUrl = value;
        else if (flag == "--name") config.name = value;
        else if (flag == "--engine") config.engine = value;
        else if (flag == "--model") config.modelFolder = value;
        else if (flag == "--slots") ok = parseNumber(value, config.engineSlots) && config.engineSlots > 0;
        else if (flag == "--threads") ok = parseNumber(value, config.workerThreads) && config.workerThreads > 0;
        else if (flag == "--token-file") config.tokenFile = value;
        else if (flag == "--smtp-url") config.smtpUrl = value;
        else if (flag == "--smtp-from") config.smtpFrom = value;
        else if (flag == "--openai-url") config.openaiUrl = value;
        else if (flag == "--openai-key") config.openaiKey = value;
        else if (flag == "--openai-key-file") config.openaiKeyFile = value;
        else if (flag == "--openai-model") ok = !(config.openaiModel = value).empty();
        else if (flag == "--openai-languages") ok = parseLanguageList(value, config.openaiLanguages);
        else if (flag == "--ai-url") config.aiUrl = value;
        else if (flag == "--ai-key") config.aiKey = value;
        else if (flag == "--ai-key-file") config.aiKeyFile = value;
        else if (flag == "--ai-model") config.aiModel = value;
        else if (flag == "--ai-timeout") ok = parseNumber(value, config.aiTimeoutSeconds) && config.aiTimeoutSeconds > 0;
        else if (flag == "--ai-auto-detect") ok = parseSwitch(value, config.aiAutoDetect);
        else if (flag == "--ai-auto-detect-url") ok = !(config.aiAutoDetectUrl = value).empty();
        else if (flag == "--live-decoding") ok = parseSwitch(value, config.liveDecoding);
        else if (flag == "--live-max-seconds") ok = parseNumber(value, config.liveMaxSeconds) && config.liveMaxSeconds > 0;
        else if (flag == "--file-retention-hours") {
            int hours = 0;
            ok = parseNumber(value, hours) && hours >= 0 && hours <= 24 * 365;
            config.fileRetentionSeconds = hours * 60 * 60;
        }
        else if (flag == "--max-file-upload-mb") {
            ok = parseNumber(value, megabytes) && megabytes > 0;
            config.maxFileUploadBytes = static_cast<std::uint64_t>(megabytes) * 1024 * 1024;
        }
        else if (flag == "--max-upload-mb") {
            ok = parseNumber(value, megabytes) && megabytes > 0;
            config.maxUploadBytes = megabytes * 1024 * 1024;
        } else if (flag == "--peer") {
            if (!peersFromFlags) config.peers.clear();
            peersFromFlags = true;
            PeerBackend peer;
            ok = parsePeer(value, peer);
            if (ok) config.peers.push_back(std::move(peer));
        } else {
            result.error = "unknown option " + flag;
            return result;
        }
        if (!ok) {
            result.error = "bad value for " + flag + ": " + value;
            return result;
        }
    }
    result.config = std::move(config);
    return result;
}

} // namespace sprelio::server

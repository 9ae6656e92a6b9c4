#include "server/RequestHelpers.h"

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <fstream>
#include <string_view>

#include "base/Log.h"

namespace sprelio::server {

std::string quotable(const std::string& text) {
    std::string out;
    for (char c : text.substr(0, 80)) out += (c >= 0x20 && c < 0x7F) ? c : '?';
    return out;
}

std::string loggablePath(const std::string& path) {
    std::string out;
    for (char c : path.substr(0, 120)) out += (c > 0x20 && c < 0x7F) ? c : '?';
    if (path.size() > 120) out += "...";
    return out.empty() ? "-" : out;
}

std::string queryKeys(const std::multimap<std::string, std::string>& params) {
    std::string out;
    std::string last;
    for (const auto& [key, value] : params) {
        (void)value;
        if (key == last) continue;
        last = key;
        if (!out.empty()) out += ',';
        out += loggablePath(key);
    }
    return out.empty() ? "-" : out;
}

bool isValidUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        auto c = static_cast<unsigned char>(text[i]);
        int extra = c < 0x80 ? 0 : (c >> 5) == 0x6 ? 1 : (c >> 4) == 0xE ? 2 : (c >> 3) == 0x1E ? 3 : -1;
        if (extra < 0) return false;
        if (extra > 0 && i + static_cast<std::size_t>(extra) >= text.size()) return false;
        std::uint32_t value = extra == 0 ? c : c & (0x3F >> extra);
        for (int k = 1; k <= extra; ++k) {
            auto next = static_cast<unsigned char>(text[i + static_cast<std::size_t>(k)]);
            if ((next & 0xC0) != 0x80) return false;
            value = (value << 6) | (next & 0x3F);
        }
        static constexpr std::uint32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
        if (value < kSmallest[extra] || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return false;
        i += static_cast<std::size_t>(extra) + 1;
    }
    return true;
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string trim(const std::string& text, const char* blanks) {
    auto begin = text.find_first_not_of(blanks);
    if (begin == std::string::npos) return {};
    auto end = text.find_last_not_of(blanks);
    return text.substr(begin, end - begin + 1);
}

std::string joined(const std::vector<std::string>& items) {
    std::string out;
    for (const auto& item : items) out += (out.empty() ? "" : ", ") + item;
    return out;
}

std::string bearerToken(const httplib::Request& request) {
    if (!request.has_header("Authorization")) return {};
    auto value = request.get_header_value("Authorization");
    constexpr std::string_view kScheme = "bearer ";
    if (value.size() < kScheme.size() || lower(value.substr(0, kScheme.size())) != kScheme) return {};
    return trim(value.substr(kScheme.size()));
}

std::optional<std::string> chooseLanguage(const httplib::Request& request, const EngineDescription& engine) {
    std::string language = engine.languages.empty() ? "" : engine.languages.front();
    auto requested = request.has_param("languages") ? trim(request.get_param_value("languages")) : "";
    if (requested.empty()) return language;
    std::size_t start = 0;
    while (start <= requested.size()) {
        auto comma = requested.find(',', start);
        auto code = lower(trim(requested.substr(start, comma == std::string::npos ? comma : comma - start)));
        auto primary = code.substr(0, code.find_first_of("-_"));
        if (std::find(engine.languages.begin(), engine.languages.end(), primary) != engine.languages.end())
            return primary;
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return std::nullopt;
}

std::optional<std::string> checkTranscriptionQuery(const httplib::Request& request, httplib::Response& response,
                                                   const EngineDescription& engine, const char* caller) {
    auto diarization = request.has_param("diarization") ? request.get_param_value("diarization") : "false";
    if (diarization != "true" && diarization != "false") {
        api_error::badRequest("The query value diarization must be true or false.").applyTo(response);
        return std::nullopt;
    }
    if (diarization == "true" && !engine.diarization) {
        api_error::diarizationUnsupported(engine.name).applyTo(response);
        return std::nullopt;
    }
    auto language = chooseLanguage(request, engine);
    if (!language) {
        // The requested codes are the user's settings, not dictated text; still kept out of the log.
        log(LogLevel::info, std::string(caller) + " - no requested language is supported by " + engine.name);
        api_error::unsupportedLanguage(trim(request.get_param_value("languages")), joined(engine.languages))
            .applyTo(response);
    }
    return language;
}

std::string readWholeFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::string text;
    char buffer[4096];
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0) text.append(buffer, static_cast<std::size_t>(in.gcount()));
    return text;
}

void refuseBody(httplib::Response& response, const ApiError& error) {
    error.applyTo(response);
    response.set_header("Connection", "close");
}

std::string htmlPage(const std::string& title, const std::string& text) {
    return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>" + title +
           "</title></head>\n<body style=\"font-family: sans-serif; margin: 4em auto; max-width: 32em\"><h1>" + title +
           "</h1><p>" + text + "</p></body></html>\n";
}

} // namespace sprelio::server

#include "ServerTestSupport.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace sprelio::server::test {

ServerConfig loopbackConfig(const std::filesystem::path& dataFolder) {
    ServerConfig config;
    config.host = "127.0.0.1";
    config.port = 0;
    config.dataFolder = dataFolder;
    config.workerThreads = 4;
    return config;
}

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return condition();
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::filesystem::path speak(const std::string& sentence, const std::filesystem::path& folder, const std::string& name) {
    auto textFile = folder / (name + ".txt");
    auto wavFile = folder / (name + ".wav");
    std::ofstream(textFile) << sentence << "\n";
    std::string command = "text2wave -eval '(voice_cmu_us_slt_arctic_hts)' -o '" + wavFile.string() + "' '" +
                          textFile.string() + "' >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0 || !std::filesystem::exists(wavFile)) return {};
    return wavFile;
}

httplib::Result postTranscribe(httplib::Client& client, const std::string& token, const Upload& upload,
                               const std::string& query) {
    httplib::MultipartFormDataItems items{{"file", upload.bytes, upload.fileName, "application/octet-stream"}};
    if (upload.aiJson) items.push_back({"ai", *upload.aiJson, "", "application/json"});
    httplib::Headers headers{{"Authorization", "Bearer " + token}};
    return client.Post(("/transcribe" + query).c_str(), headers, items);
}

} // namespace sprelio::server::test

#pragma once
// Shared pieces of the server tests: a temporary data folder, a server started on a free loopback port and
// stopped even when a test fails, speech made by festival, and word accuracy.
#include <httplib.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "server/BackendServer.h"
#include "helpers/WordAccuracy.h"
#include "platform/test/TemporaryFolder.h"

namespace sprelio::server::test {

using TempFolder = platform::test::TemporaryFolder;

ServerConfig loopbackConfig(const std::filesystem::path& dataFolder);

// Polls `condition` until it holds or `timeout` passes; returns whether it held.
bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout = std::chrono::seconds(20));

std::string readFile(const std::filesystem::path& path);

// A WAV file of `sentence` spoken by festival's US English voice; empty path when festival fails.
std::filesystem::path speak(const std::string& sentence, const std::filesystem::path& folder, const std::string& name);

using testhelpers::wordAccuracy;

struct Upload {
    std::string fileName;
    std::string bytes;
    std::optional<std::string> aiJson;
};

httplib::Result postTranscribe(httplib::Client& client, const std::string& token, const Upload& upload,
                               const std::string& query = "?app=linux-0.1.0&languages=en&os=Linux&diarization=false");

} // namespace sprelio::server::test

// Raw bytes from a client on the network, as sprelio-server reads them: request line, headers, chunked or sized
// bodies, multipart uploads (their parts and file names), JSON bodies, query strings, paths. The server runs
// in-process on loopback for the whole run with an engine that answers at once; each input is one connection.
// "@TOKEN@" in an input becomes the local account's token, so that inputs get past authentication too.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/test/TemporaryFolder.h"
#include "server/BackendServer.h"

using namespace sprelio;
using namespace sprelio::server;

namespace {

class InstantEngine final : public TranscriptionEngine {
public:
    Transcript transcribe(std::span<const std::int16_t> samples, const std::string& language) override {
        return {"heard " + std::to_string(samples.size()) + " samples", language};
    }
};

struct RunningServer {
    platform::test::TemporaryFolder data{"sprelio-fuzz-server"};
    std::unique_ptr<BackendServer> server;
    RunningServer() {
        ServerConfig config;
        config.host = "127.0.0.1";
        config.port = 0;
        config.dataFolder = data.path();
        config.workerThreads = 4;
        config.readTimeoutSeconds = 1;
        config.keepAliveSeconds = 1;
        config.signInWaitSeconds = 1;
        config.maxUploadBytes = 1024 * 1024;
        config.maxFileUploadBytes = 1024 * 1024;
        config.maxReportPartBytes = 256 * 1024;
        config.maxAudioSeconds = 30;
        config.fileChunkSeconds = 5;
        server = std::make_unique<BackendServer>(config, EngineDescription{"instant", {"en", "de"}, false},
                                                 [] { return std::make_unique<InstantEngine>(); });
        server->start();
    }
};

RunningServer& running() {
    static RunningServer* instance = new RunningServer();
    return *instance;
}

std::string withToken(std::string input, const std::string& token) {
    static const std::string placeholder = "@TOKEN@";
    for (std::size_t at = input.find(placeholder); at != std::string::npos; at = input.find(placeholder, at)) {
        input.replace(at, placeholder.size(), token);
        at += token.size();
    }
    return input;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto& r = running();
    const std::string request =
        withToken(std::string(reinterpret_cast<const char*>(data), size), r.server->localAccount().token);

    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return 0;
    timeval timeout{5, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(r.server->port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return 0;
    }
    std::size_t sent = 0;
    while (sent < request.size()) {
        const ssize_t n = ::send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<std::size_t>(n);
    }
    ::shutdown(fd, SHUT_WR);
    // The whole answer, until the server closes: a request that hangs past the time-out shows as a slow input.
    char buffer[16384];
    while (::recv(fd, buffer, sizeof buffer, 0) > 0) {
    }
    ::close(fd);
    return 0;
}

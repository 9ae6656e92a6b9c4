#pragma once
// An OpenAI-compatible service of the test's own on 127.0.0.1: POST /v1/chat/completions and
// /v1/audio/transcriptions, GET /v1/models, answered as the test scripts them, every request recorded with its
// headers, its body and its multipart parts.
#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

namespace sprelio::server::test {

// The string at `key` of an object; empty when there is none. (json::value() and find() trip GCC's
// null-dereference analysis when inlined into these tests.)
inline std::string jsonString(const nlohmann::json& object, const char* key) {
    if (!object.is_object() || !object.contains(key)) return {};
    const auto& value = object.at(key);
    if (!value.is_string()) return {};
    return value.get_ref<const std::string&>();
}

class ScriptedOpenAiService {
public:
    struct Received {
        std::string path;
        std::string authorization;
        std::string contentType;
        std::string body;
        std::map<std::string, httplib::MultipartFormData> parts;
        nlohmann::json json() const { return nlohmann::json::parse(body, nullptr, false); }
        // The chat request's message of `role` ("system", "user"); empty when there is none.
        std::string message(const std::string& role) const {
            auto parsed = json();
            if (!parsed.is_object() || !parsed.contains("messages")) return {};
            for (const auto& item : parsed["messages"])
                if (jsonString(item, "role") == role) return jsonString(item, "content");
            return {};
        }
    };
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    // `port` 0: any free port.
    explicit ScriptedOpenAiService(int port = 0) {
        chat_ = [](const httplib::Request&, httplib::Response& response) { chatAnswer(response, "Completed text."); };
        // Not every service lists its models; those that do are scripted by the test.
        models_ = [](const httplib::Request&, httplib::Response& response) { response.status = 404; };
        transcription_ = [](const httplib::Request&, httplib::Response& response) {
            response.set_content(R"({"text":"Hello from the scripted service."})", "application/json");
        };
        server_.Post("/v1/chat/completions", [this](const httplib::Request& q, httplib::Response& r) {
            record(q);
            handler(chat_)(q, r);
        });
        server_.Post("/v1/audio/transcriptions", [this](const httplib::Request& q, httplib::Response& r) {
            record(q);
            handler(transcription_)(q, r);
        });
        server_.Get("/v1/models", [this](const httplib::Request& q, httplib::Response& r) {
            record(q);
            handler(models_)(q, r);
        });
        port_ = port == 0 ? server_.bind_to_any_port("127.0.0.1")
                          : (server_.bind_to_port("127.0.0.1", port) ? port : -1);
        if (port_ <= 0) throw std::runtime_error("the scripted service cannot listen");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) std::this_thread::yield();
    }
    ~ScriptedOpenAiService() { stop(); }
    ScriptedOpenAiService(const ScriptedOpenAiService&) = delete;
    ScriptedOpenAiService& operator=(const ScriptedOpenAiService&) = delete;

    // Stops listening: later requests find nothing at this port.
    void stop() {
        if (!thread_.joinable()) return;
        server_.stop();
        thread_.join();
    }

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

    void onChat(Handler handler) {
        std::lock_guard lock(mutex_);
        chat_ = std::move(handler);
    }
    void onTranscription(Handler handler) {
        std::lock_guard lock(mutex_);
        transcription_ = std::move(handler);
    }
    void onModels(Handler handler) {
        std::lock_guard lock(mutex_);
        models_ = std::move(handler);
    }
    int port() const { return port_; }

    std::vector<Received> received() const {
        std::lock_guard lock(mutex_);
        return received_;
    }
    std::vector<Received> received(const std::string& pathEnd) const {
        std::vector<Received> out;
        for (auto& item : received())
            if (item.path.size() >= pathEnd.size() &&
                item.path.compare(item.path.size() - pathEnd.size(), pathEnd.size(), pathEnd) == 0)
                out.push_back(item);
        return out;
    }
    std::vector<Received> chats() const { return received("/chat/completions"); }
    std::vector<Received> transcriptions() const { return received("/audio/transcriptions"); }
    std::vector<Received> modelLists() const { return received("/v1/models"); }

    static void chatAnswer(httplib::Response& response, const std::string& content) {
        nlohmann::json choice = {{"index", 0},
                                 {"message", {{"role", "assistant"}, {"content", content}}},
                                 {"finish_reason", "stop"}};
        nlohmann::json answer = {
            {"id", "chatcmpl-test"}, {"object", "chat.completion"}, {"choices", nlohmann::json::array({choice})}};
        response.set_content(answer.dump(), "application/json");
    }

    // The OpenAI model list of a local runner: {"object": "list", "data": [{"id": ..., "object": "model"}]}.
    static void modelList(httplib::Response& response, const std::vector<std::string>& ids) {
        nlohmann::json data = nlohmann::json::array();
        for (const auto& id : ids) data.push_back({{"id", id}, {"object", "model"}, {"owned_by", "library"}});
        response.set_content(nlohmann::json{{"object", "list"}, {"data", data}}.dump(), "application/json");
    }

    // One chunk of a streamed chat answer as the services send it: "data: {...}" and a blank line.
    static std::string streamChunk(const nlohmann::json& delta, const nlohmann::json& finishReason = nullptr) {
        nlohmann::json chunk = {{"id", "chatcmpl-test"},
                                {"object", "chat.completion.chunk"},
                                {"choices", nlohmann::json::array({{{"index", 0},
                                                                    {"delta", delta},
                                                                    {"finish_reason", finishReason}}})}};
        return "data: " + chunk.dump() + "\n\n";
    }

private:
    void record(const httplib::Request& request) {
        Received item{request.path, request.get_header_value("Authorization"),
                      request.get_header_value("Content-Type"), request.body, {}};
        for (const auto& [name, part] : request.files) item.parts[name] = part;
        std::lock_guard lock(mutex_);
        received_.push_back(std::move(item));
    }
    Handler handler(const Handler& which) {
        std::lock_guard lock(mutex_);
        return which;
    }

    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
    mutable std::mutex mutex_;
    Handler chat_;
    Handler transcription_;
    Handler models_;
    std::vector<Received> received_;
};

// A loopback port whose connections the kernel accepts into the backlog and nobody ever answers.
class SilentListener {
public:
    SilentListener() {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&address), size) != 0 || ::listen(fd_, 16) != 0 ||
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size) != 0)
            throw std::runtime_error("the silent listener cannot listen");
        port_ = ntohs(address.sin_port);
    }
    ~SilentListener() { ::close(fd_); }
    SilentListener(const SilentListener&) = delete;
    SilentListener& operator=(const SilentListener&) = delete;
    int port() const { return port_; }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

private:
    int fd_ = -1;
    int port_ = 0;
};

// A loopback port nothing listens on: one that was free a moment ago.
inline int closedPort() { return SilentListener().port(); }

// Holds the requests that wait on it until the test opens it.
class TestGate {
public:
    void wait() {
        std::unique_lock lock(mutex_);
        ++waiting_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return open_; });
    }
    void open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    int waiting() const {
        std::lock_guard lock(mutex_);
        return waiting_;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    int waiting_ = 0;
    bool open_ = false;
};

} // namespace sprelio::server::test

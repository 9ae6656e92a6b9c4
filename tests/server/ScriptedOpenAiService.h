#pragma once
// An OpenAI-compatible service of the test's own on 127.0.0.1: POST /v1/chat/completions and
// /v1/audio/transcriptions, answered as the test scripts them, every request recorded with its headers, its
// body and its multipart parts.
#include <httplib.h>

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

    ScriptedOpenAiService() {
        chat_ = [](const httplib::Request&, httplib::Response& response) { chatAnswer(response, "Completed text."); };
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
        port_ = server_.bind_to_any_port("127.0.0.1");
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

    static void chatAnswer(httplib::Response& response, const std::string& content) {
        nlohmann::json choice = {{"index", 0},
                                 {"message", {{"role", "assistant"}, {"content", content}}},
                                 {"finish_reason", "stop"}};
        nlohmann::json answer = {
            {"id", "chatcmpl-test"}, {"object", "chat.completion"}, {"choices", nlohmann::json::array({choice})}};
        response.set_content(answer.dump(), "application/json");
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
    std::vector<Received> received_;
};

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

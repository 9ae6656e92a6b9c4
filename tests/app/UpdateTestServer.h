#pragma once
// An update feed on 127.0.0.1, as a release host serves it: the appcast and the packages, whole, cut off in the
// middle of the body, or behind a redirect. And the packages' signatures: the key pair that the build made for these
// tests (SPRELIO_UPDATE_TEST_KEY), or another key made here to play an impostor.
#include <httplib.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

namespace sprelio::updatetest {

class UpdateSigningKey {
public:
    // The build's test key (a PEM file of an Ed25519 private key).
    static UpdateSigningKey fromFile(const std::string& path) {
        std::FILE* file = std::fopen(path.c_str(), "r");
        if (!file) throw std::runtime_error("the update test key " + path + " is missing");
        EVP_PKEY* key = PEM_read_PrivateKey(file, nullptr, nullptr, nullptr);
        std::fclose(file);
        if (!key) throw std::runtime_error("the update test key " + path + " can't be read");
        return UpdateSigningKey(key);
    }
    // A key nobody trusts.
    static UpdateSigningKey generate() { return UpdateSigningKey(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519")); }

    std::string publicKeyBase64() const {
        unsigned char raw[32];
        std::size_t length = sizeof raw;
        if (EVP_PKEY_get_raw_public_key(key_.get(), raw, &length) != 1) return {};
        return base64(std::string(reinterpret_cast<const char*>(raw), length));
    }
    std::string signBase64(const std::string& data) const {
        std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
        unsigned char signature[64];
        std::size_t length = sizeof signature;
        if (EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key_.get()) != 1 ||
            EVP_DigestSign(context.get(), signature, &length, reinterpret_cast<const unsigned char*>(data.data()),
                           data.size()) != 1)
            return {};
        return base64(std::string(reinterpret_cast<const char*>(signature), length));
    }

private:
    explicit UpdateSigningKey(EVP_PKEY* key) : key_(key, &EVP_PKEY_free) {
        if (!key) throw std::runtime_error("no Ed25519 key");
    }
    static std::string base64(const std::string& bytes) {
        std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
        const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                      reinterpret_cast<const unsigned char*>(bytes.data()),
                                      static_cast<int>(bytes.size()));
        text.resize(static_cast<std::size_t>(n));
        return text;
    }
    std::shared_ptr<EVP_PKEY> key_;
};

class UpdateFeedServer {
public:
    enum class Delivery { whole, cutOffHalfway, redirect };

    UpdateFeedServer() {
        server_.Get(R"(/(.*))", [this](const httplib::Request& request, httplib::Response& response) {
            File file;
            {
                std::lock_guard lock(mutex_);
                ++requests_[request.path];
                auto it = files_.find(request.path);
                if (it == files_.end()) {
                    response.status = 404;
                    return;
                }
                file = it->second;
            }
            if (file.delivery == Delivery::redirect) {
                response.set_redirect(file.body, 302);
                return;
            }
            if (file.delivery == Delivery::whole) {
                response.set_content(file.body, file.contentType);
                return;
            }
            // The announced length, half of the bytes, then the connection goes.
            auto body = std::make_shared<std::string>(file.body);
            response.set_content_provider(body->size(), file.contentType,
                                          [body](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                                              if (offset >= body->size() / 2) return false;
                                              sink.write(body->data(), body->size() / 2);
                                              return true;
                                          });
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        if (port_ <= 0) throw std::runtime_error("the feed server cannot listen");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ~UpdateFeedServer() {
        server_.stop();
        if (thread_.joinable()) thread_.join();
    }
    UpdateFeedServer(const UpdateFeedServer&) = delete;
    UpdateFeedServer& operator=(const UpdateFeedServer&) = delete;

    // `body` is the target path for a redirect.
    void put(const std::string& path, std::string body, Delivery delivery = Delivery::whole,
             std::string contentType = "application/octet-stream") {
        std::lock_guard lock(mutex_);
        files_[path] = File{std::move(body), delivery, std::move(contentType)};
    }
    std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }
    int requests(const std::string& path) const {
        std::lock_guard lock(mutex_);
        auto it = requests_.find(path);
        return it == requests_.end() ? 0 : it->second;
    }

private:
    struct File {
        std::string body;
        Delivery delivery = Delivery::whole;
        std::string contentType;
    };
    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
    mutable std::mutex mutex_;
    std::map<std::string, File> files_;
    std::map<std::string, int> requests_;
};

} // namespace sprelio::updatetest

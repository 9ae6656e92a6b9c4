#include "base/Digest.h"

#include <openssl/evp.h>

#include <stdexcept>

namespace sprelio {

namespace {

std::string hexDigest(const EVP_MD* algorithm, std::string_view bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest, &length, algorithm, nullptr) != 1) {
        // Only a broken crypto library fails here; ids built from a wrong digest would silently never match.
        throw std::runtime_error("EVP_Digest failed");
    }
    return hexText(digest, length);
}

} // namespace

std::string hexText(const unsigned char* bytes, std::size_t length) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(length * 2);
    for (std::size_t i = 0; i < length; ++i) {
        text.push_back(kHex[bytes[i] >> 4]);
        text.push_back(kHex[bytes[i] & 0xF]);
    }
    return text;
}

std::string md5Hex(std::string_view bytes) { return hexDigest(EVP_md5(), bytes); }
std::string sha256Hex(std::string_view bytes) { return hexDigest(EVP_sha256(), bytes); }

Sha256Stream::Sha256Stream() : context_(EVP_MD_CTX_new()) {
    if (!context_ || EVP_DigestInit_ex(context_, EVP_sha256(), nullptr) != 1) {
        EVP_MD_CTX_free(context_);
        throw std::runtime_error("EVP_DigestInit_ex failed");
    }
}

Sha256Stream::~Sha256Stream() { EVP_MD_CTX_free(context_); }

void Sha256Stream::update(std::string_view bytes) {
    if (finished_) throw std::logic_error("Sha256Stream::update after finishHex");
    if (EVP_DigestUpdate(context_, bytes.data(), bytes.size()) != 1) throw std::runtime_error("EVP_DigestUpdate failed");
}

std::string Sha256Stream::finishHex() {
    if (finished_) throw std::logic_error("Sha256Stream::finishHex called twice");
    finished_ = true;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context_, digest, &length) != 1) throw std::runtime_error("EVP_DigestFinal_ex failed");
    return hexText(digest, length);
}

} // namespace sprelio

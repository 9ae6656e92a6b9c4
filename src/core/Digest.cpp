#include "core/Digest.h"

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
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(length * 2);
    for (unsigned int i = 0; i < length; ++i) {
        text.push_back(kHex[digest[i] >> 4]);
        text.push_back(kHex[digest[i] & 0xF]);
    }
    return text;
}

} // namespace

std::string md5Hex(std::string_view bytes) { return hexDigest(EVP_md5(), bytes); }
std::string sha256Hex(std::string_view bytes) { return hexDigest(EVP_sha256(), bytes); }

} // namespace sprelio

#include "diagnostics/UpdateSignature.h"

#include <openssl/evp.h>

#include <cctype>
#include <fstream>
#include <memory>

namespace sprelio {

namespace {

constexpr std::size_t kKeyBytes = 32;
constexpr std::size_t kSignatureBytes = 64;

struct KeyDeleter {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct ContextDeleter {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

int base64Value(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

} // namespace

std::optional<std::string> decodeBase64(std::string_view text) {
    std::string symbols;
    for (char c : text) {
        if (std::isspace(static_cast<unsigned char>(c))) continue;
        symbols.push_back(c);
    }
    while (!symbols.empty() && symbols.back() == '=') symbols.pop_back();
    if (symbols.size() % 4 == 1) return std::nullopt;
    std::string bytes;
    unsigned int buffer = 0;
    int bits = 0;
    for (char c : symbols) {
        const int value = base64Value(c);
        if (value < 0) return std::nullopt;
        buffer = (buffer << 6) | static_cast<unsigned int>(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes.push_back(static_cast<char>((buffer >> bits) & 0xFFu));
        }
    }
    return bytes;
}

std::optional<std::string> verifyUpdateSignature(const std::filesystem::path& file, std::string_view signatureBase64,
                                                 std::string_view publicKeyBase64) {
    const auto key = decodeBase64(publicKeyBase64);
    if (!key || key->size() != kKeyBytes) return "this build of Sprelio carries no valid key to check updates with";
    if (signatureBase64.empty()) return "the update feed gives no signature for the package";
    const auto signature = decodeBase64(signatureBase64);
    if (!signature || signature->size() != kSignatureBytes)
        return "the package's signature in the update feed is malformed";

    std::error_code error;
    const auto size = std::filesystem::file_size(file, error);
    std::ifstream in(file, std::ios::binary);
    if (error || !in) return "the downloaded package " + file.string() + " can't be read";
    std::string content(static_cast<std::size_t>(size), '\0');
    if (!in.read(content.data(), static_cast<std::streamsize>(content.size())))
        return "the downloaded package " + file.string() + " can't be read";

    std::unique_ptr<EVP_PKEY, KeyDeleter> publicKey(EVP_PKEY_new_raw_public_key(
        EVP_PKEY_ED25519, nullptr, reinterpret_cast<const unsigned char*>(key->data()), key->size()));
    std::unique_ptr<EVP_MD_CTX, ContextDeleter> context(EVP_MD_CTX_new());
    if (!publicKey || !context || EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, publicKey.get()) != 1)
        return "the signature check could not be set up";
    // Ed25519 signs the message itself, in one pass.
    const int verified = EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(signature->data()),
                                          signature->size(), reinterpret_cast<const unsigned char*>(content.data()),
                                          content.size());
    if (verified != 1) return "the package's signature does not match: it is not the package the publisher signed";
    return std::nullopt;
}

} // namespace sprelio

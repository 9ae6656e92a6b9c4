#pragma once
// Digests as lower-case hexadecimal text: MD5 for the stable ids of AI items (not for security), SHA-256 for
// file identities and tokens.
#include <cstddef>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace sprelio {

std::string md5Hex(std::string_view bytes);
std::string sha256Hex(std::string_view bytes);
// Any bytes as lower-case hexadecimal text, two digits a byte.
std::string hexText(const unsigned char* bytes, std::size_t length);

// SHA-256 over bytes that arrive in pieces, so that a file of any size is digested without being held whole.
class Sha256Stream {
public:
    Sha256Stream();
    ~Sha256Stream();
    Sha256Stream(const Sha256Stream&) = delete;
    Sha256Stream& operator=(const Sha256Stream&) = delete;

    void update(std::string_view bytes);
    // The digest of everything passed to update; the stream is used up afterwards.
    std::string finishHex();

private:
    evp_md_ctx_st* context_;
    bool finished_ = false;
};

} // namespace sprelio

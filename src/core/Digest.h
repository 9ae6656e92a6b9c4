#pragma once
// Digests as lower-case hexadecimal text: MD5 for the stable ids of AI items (not for security), SHA-256 for
// file identities and tokens.
#include <string>
#include <string_view>

namespace sprelio {

std::string md5Hex(std::string_view bytes);
std::string sha256Hex(std::string_view bytes);

} // namespace sprelio

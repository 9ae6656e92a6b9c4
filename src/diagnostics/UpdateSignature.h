#pragma once
// The check that a downloaded package is the one the publisher signed: an Ed25519 signature over the whole file,
// against the publisher's public key. Both come as base64 text, the key as its 32 raw bytes, the signature as its
// 64 raw bytes (the feed's sparkle:edSignature).
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace sprelio {

// Nothing when the file is what the key's owner signed; otherwise why not, as a sentence for the user.
std::optional<std::string> verifyUpdateSignature(const std::filesystem::path& file, std::string_view signatureBase64,
                                                 std::string_view publicKeyBase64);

// Standard base64 (with or without padding, surrounding white space ignored); nothing when the text is not base64.
std::optional<std::string> decodeBase64(std::string_view text);

} // namespace sprelio

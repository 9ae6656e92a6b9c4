#include "base/Uuid.h"

#include <random>

namespace sprelio {

Uuid Uuid::random() {
    // One generator per thread, seeded from the kernel: ids must never repeat across runs.
    thread_local std::mt19937_64 engine{[] {
        std::random_device device;
        std::seed_seq seed{device(), device(), device(), device(), device(), device(), device(), device()};
        return std::mt19937_64{seed};
    }()};
    Uuid u;
    for (std::size_t i = 0; i < 16; i += 8) {
        std::uint64_t r = engine();
        for (std::size_t j = 0; j < 8; ++j) u.bytes_[i + j] = static_cast<std::uint8_t>(r >> (8 * j));
    }
    u.bytes_[6] = static_cast<std::uint8_t>((u.bytes_[6] & 0x0F) | 0x40);
    u.bytes_[8] = static_cast<std::uint8_t>((u.bytes_[8] & 0x3F) | 0x80);
    return u;
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    Uuid u;
    std::size_t byte = 0;
    int nibble = -1;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (c != '-') return std::nullopt;
            continue;
        }
        int v;
        if (c >= '0' && c <= '9') v = c - '0';
        else if (c >= 'a' && c <= 'f') v = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F') v = c - 'A' + 10;
        else return std::nullopt;
        if (nibble < 0) {
            nibble = v;
        } else {
            u.bytes_[byte++] = static_cast<std::uint8_t>((nibble << 4) | v);
            nibble = -1;
        }
    }
    return u;
}

std::string Uuid::string() const {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string s;
    s.reserve(36);
    for (std::size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) s.push_back('-');
        s.push_back(kHex[bytes_[i] >> 4]);
        s.push_back(kHex[bytes_[i] & 0xF]);
    }
    return s;
}

bool Uuid::isNil() const {
    for (auto b : bytes_)
        if (b != 0) return false;
    return true;
}

} // namespace sprelio

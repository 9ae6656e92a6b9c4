#include "base/Utf8.h"

namespace sprelio {

std::size_t utf8SequenceLength(std::string_view text, std::size_t at) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(at);
    if (lead < 0x80) return 1;
    std::size_t length;
    // The second byte's range carries the rules against overlong forms, surrogates and values past U+10FFFF.
    unsigned char low = 0x80, high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (at + length > text.size()) return 0;
    if (byte(at + 1) < low || byte(at + 1) > high) return 0;
    for (std::size_t k = 2; k < length; ++k) {
        if ((byte(at + k) & 0xC0) != 0x80) return 0;
    }
    return length;
}

bool isValidUtf8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = utf8SequenceLength(text, i);
        if (length == 0) return false;
        i += length;
    }
    return true;
}

} // namespace sprelio

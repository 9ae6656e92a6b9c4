#pragma once
// Strict UTF-8: what the JSON writer, the store and the log file accept. Overlong forms, surrogates and code points
// above U+10FFFF are refused, so that text checked here never fails later at a writer.
#include <cstddef>
#include <string_view>

namespace sprelio {

// The length of the valid UTF-8 sequence that starts at `text[at]`, or 0 when the bytes there are not one.
std::size_t utf8SequenceLength(std::string_view text, std::size_t at);
bool isValidUtf8(std::string_view text);

} // namespace sprelio

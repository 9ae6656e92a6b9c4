#include "audio/AudioFileDuration.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <fstream>

#include "audio/CafReader.h"
#include "base/Log.h"

namespace sprelio {

namespace {

std::uint32_t le32(const unsigned char* p) {
    return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 | std::uint32_t(p[3]) << 24;
}
std::uint16_t le16(const unsigned char* p) { return static_cast<std::uint16_t>(p[0] | p[1] << 8); }

// RIFF/WAVE: the byte rate of the fmt chunk and the size of the data chunk, walked chunk by chunk. A data size
// that runs past the end of the file (a writer that never came back to fix it) counts up to the end.
std::optional<double> wavDuration(std::ifstream& in, std::uint64_t fileSize) {
    std::uint64_t offset = 12;
    std::optional<std::uint32_t> byteRate;
    while (offset + 8 <= fileSize) {
        unsigned char header[8];
        in.seekg(static_cast<std::streamoff>(offset));
        if (!in.read(reinterpret_cast<char*>(header), sizeof header)) return std::nullopt;
        const std::uint32_t size = le32(header + 4);
        const std::uint64_t body = offset + 8;
        if (std::memcmp(header, "fmt ", 4) == 0) {
            if (size < 16 || body + 16 > fileSize) return std::nullopt;
            unsigned char fmt[16];
            if (!in.read(reinterpret_cast<char*>(fmt), sizeof fmt)) return std::nullopt;
            const std::uint16_t channels = le16(fmt + 2);
            const std::uint32_t sampleRate = le32(fmt + 4);
            if (channels == 0 || sampleRate == 0) return std::nullopt;
            byteRate = le32(fmt + 8);
            if (*byteRate == 0) return std::nullopt;
        } else if (std::memcmp(header, "data", 4) == 0) {
            if (!byteRate) return std::nullopt;
            const std::uint64_t available = fileSize - body;
            const std::uint64_t bytes = size > available ? available : size;
            return static_cast<double>(bytes) / static_cast<double>(*byteRate);
        }
        offset = body + size + (size & 1u);
    }
    return std::nullopt;
}

} // namespace

std::optional<double> audioFileDurationSeconds(const std::filesystem::path& path) {
    std::error_code error;
    const auto fileSize = std::filesystem::file_size(path, error);
    if (error) return std::nullopt;
    std::ifstream in(path, std::ios::binary);
    std::array<char, 12> magic{};
    if (!in || !in.read(magic.data(), magic.size())) return std::nullopt;

    if (std::memcmp(magic.data(), "caff", 4) == 0) {
        try {
            return CafReader::open(path).durationSeconds();
        } catch (const caf::CafError& e) {
            logWarning("audioFileDurationSeconds() - unreadable CAF file " + path.string() + ": " + e.what());
            return std::nullopt;
        }
    }
    if (std::memcmp(magic.data(), "RIFF", 4) == 0 && std::memcmp(magic.data() + 8, "WAVE", 4) == 0) {
        return wavDuration(in, fileSize);
    }
    return std::nullopt;
}

} // namespace sprelio

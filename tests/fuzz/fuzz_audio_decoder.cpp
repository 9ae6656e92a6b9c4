// An upload's bytes as the server's decoder reads them, from memory (a recording) and from disk (a long file):
// any container FFmpeg knows, damaged or hostile, must end in samples or a failure, never a crash or a read of
// anything but the bytes given.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>

#include "platform/test/TemporaryFolder.h"
#include "server/AudioDecoder.h"

using namespace sprelio::server;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static sprelio::platform::test::TemporaryFolder folder{"sprelio-fuzz-decoder"};
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    (void)decodeAudio(bytes, 30);

    const auto file = folder.path() / "upload.upload";
    {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    std::uint64_t samples = 0;
    (void)decodeAudioFile(file, 30, [&samples](std::span<const std::int16_t> piece) {
        samples += piece.size();
        return true;
    });
    return 0;
}

// A CAF file from anywhere: a recording cut by a crash, a damaged or foreign file, a hostile one. It is read,
// every packet looked at and decoded; then the same bytes as a file on disk go through the recovery, and what
// the recovery leaves must read as a finished file.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>

#include "audio/CafReader.h"
#include "platform/test/TemporaryFolder.h"

using namespace sprelio;

namespace {

const std::filesystem::path& scratchFile() {
    static platform::test::TemporaryFolder folder{"sprelio-fuzz-caf"};
    static const std::filesystem::path file = folder.path() / "rec.caf";
    return file;
}

void readEverything(const CafReader& reader) {
    std::size_t total = 0;
    for (std::size_t i = 0; i < reader.packetCount(); ++i) total += reader.packet(i).size();
    (void)reader.durationSeconds();
    (void)total;
    // Decoding is bounded by the file's own size, so a small input can't ask for hours of audio.
    try {
        (void)reader.decodeAll(16000);
    } catch (const caf::CafError&) {
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        readEverything(CafReader::fromBytes(std::vector<std::uint8_t>(data, data + size), "fuzz.caf"));
    } catch (const caf::CafError&) {
    }

    const auto& file = scratchFile();
    {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    bool recovered = false;
    try {
        (void)CafReader::recover(file);
        recovered = true;
    } catch (const caf::CafError&) {
    }
    if (recovered) {
        // A recovered file is a finished one: it opens strictly and says so.
        const CafReader reader = CafReader::open(file);
        if (!reader.isComplete()) __builtin_trap();
        readEverything(reader);
    }
    return 0;
}

// Writes the CAF seeds of the reader's fuzz target with the recorder's own writer: a finished recording, one
// abandoned as a crash leaves it, the same cut inside a packet, and one without its packet table.
// Usage: make_caf_seeds <folder>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

#include "audio/CafOpusWriter.h"

using namespace sprelio;

namespace {

std::vector<float> tone(std::size_t frames) {
    std::vector<float> samples(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        const double t = static_cast<double>(i) / 16000.0;
        samples[i] = static_cast<float>(0.3 * std::sin(2 * 3.14159265358979 * 220.0 * t) * std::sin(3.0 * t));
    }
    return samples;
}

std::vector<char> readAll(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeAll(const std::filesystem::path& path, const std::vector<char>& bytes, std::size_t size) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(size));
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: make_caf_seeds <folder>\n";
        return 2;
    }
    const std::filesystem::path folder = argv[1];
    std::filesystem::create_directories(folder);
    const auto samples = tone(4000); // a quarter of a second: a dozen packets

    CafOpusWriter finished;
    finished.open(folder / "finished.caf");
    finished.appendSamples(samples.data(), samples.size());
    finished.finish();

    CafOpusWriter abandoned;
    abandoned.open(folder / "abandoned.caf");
    abandoned.appendSamples(samples.data(), samples.size());
    abandoned.abandon();

    const auto whole = readAll(folder / "abandoned.caf");
    writeAll(folder / "cut-in-a-packet.caf", whole, whole.size() - 7);
    const auto withTable = readAll(folder / "finished.caf");
    // The data chunk's packets end where the packet table's 24-byte head and one byte per packet begin.
    const auto packets = static_cast<std::size_t>(finished.packetsWritten());
    writeAll(folder / "no-packet-table.caf", withTable, withTable.size() - 12 - 24 - packets);
    return 0;
}

#pragma once
// Shared pieces of the audio tests: a temporary folder, a deterministic speech-like signal, FFmpeg as an
// independent reader, and the measure of likeness between two signals.
#include <sys/wait.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace sprelio::audio_test {

class TempDir {
public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "sprelio-audio-XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

// A voice-like test signal at 16 kHz: a fundamental gliding between 110 and 190 Hz with twelve harmonics shaped by
// two formant bumps, under a syllable envelope (about four syllables a second) with short pauses.
inline std::vector<float> speechLike(size_t frames, int rate = 16000) {
    std::vector<float> out(frames);
    const double pi = 3.14159265358979323846;
    double phase = 0;
    for (size_t i = 0; i < frames; ++i) {
        const double t = double(i) / rate;
        const double f0 = 150.0 + 40.0 * std::sin(2 * pi * 0.7 * t);
        phase += 2 * pi * f0 / rate;
        double v = 0;
        for (int h = 1; h <= 12; ++h) {
            const double f = f0 * h;
            const double formants = std::exp(-std::pow((f - 500.0) / 300.0, 2)) +
                                    0.6 * std::exp(-std::pow((f - 1500.0) / 400.0, 2)) + 0.05;
            v += formants * std::sin(h * phase) / h;
        }
        const double syllable = std::fmod(t * 4.0, 1.0);
        const double envelope = syllable < 0.8 ? std::pow(std::sin(pi * syllable / 0.8), 2) : 0.0;
        out[i] = float(0.5 * envelope * v);
    }
    return out;
}

struct ProcessOutput {
    int exitCode = -1;
    std::string out;
};

inline ProcessOutput runCommand(const std::string& command) {
    ProcessOutput result;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return result;
    char buffer[65536];
    size_t n = 0;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) result.out.append(buffer, n);
    const int status = pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

// A command's answer without its final newline.
inline std::string trimmed(std::string text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
    return text;
}

inline std::string shellQuoted(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// FFmpeg's decoding of a file to mono float samples at `rate`; exitCode tells whether FFmpeg accepted the file.
struct FfmpegDecoded {
    int exitCode = -1;
    std::vector<float> samples;
};

inline FfmpegDecoded ffmpegDecode(const std::filesystem::path& file, int rate = 16000) {
    const auto r = runCommand("ffmpeg -nostdin -hide_banner -loglevel error -i " + shellQuoted(file.string()) +
                              " -f f32le -ac 1 -ar " + std::to_string(rate) + " - 2>/dev/null");
    FfmpegDecoded d;
    d.exitCode = r.exitCode;
    d.samples.resize(r.out.size() / sizeof(float));
    std::copy_n(r.out.data(), d.samples.size() * sizeof(float), reinterpret_cast<char*>(d.samples.data()));
    return d;
}

struct Likeness {
    double correlation = 0; // normalised, at the best lag
    long lag = 0;           // b is a delayed by this many samples
};

// The best normalised correlation of b against a over lags in [-maxLag, maxLag], over the overlap.
inline Likeness bestCorrelation(const std::vector<float>& a, const std::vector<float>& b, long maxLag) {
    Likeness best{-2, 0};
    for (long lag = -maxLag; lag <= maxLag; ++lag) {
        double ab = 0, aa = 0, bb = 0;
        for (long i = 0; i < long(a.size()); ++i) {
            const long j = i + lag;
            if (j < 0 || j >= long(b.size())) continue;
            ab += double(a[size_t(i)]) * b[size_t(j)];
            aa += double(a[size_t(i)]) * a[size_t(i)];
            bb += double(b[size_t(j)]) * b[size_t(j)];
        }
        const double c = (aa > 0 && bb > 0) ? ab / std::sqrt(aa * bb) : 0;
        if (c > best.correlation) best = {c, lag};
    }
    return best;
}

inline std::vector<uint8_t> readBytes(const std::filesystem::path& p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeBytes(const std::filesystem::path& p, const std::vector<uint8_t>& bytes, size_t count) {
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(std::min(count, bytes.size())));
}

inline void writeBytes(const std::filesystem::path& p, const std::vector<uint8_t>& bytes) {
    writeBytes(p, bytes, bytes.size());
}

} // namespace sprelio::audio_test

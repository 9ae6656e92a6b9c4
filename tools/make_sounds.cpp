// Makes Sprelio's named sounds: short 16-bit mono WAV files, one per name, each synthesised here from tones,
// chirps and noise under envelopes. Run by the build: make_sounds <output folder>.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace {

constexpr int kRate = 44100;
constexpr double kPi = 3.14159265358979323846;

using Signal = std::vector<double>;


// A deterministic noise source, so that every build makes the same files.
class Noise {
public:
    double next() {
        state_ = state_ * 6364136223846793005ULL + 1442695040888963407ULL;
        return double(state_ >> 11) / double(1ULL << 53) * 2.0 - 1.0;
    }

private:
    std::uint64_t state_ = 0x5eed5eedULL;
};

// Attack and exponential decay; `decay` is the time for the level to fall to 1/e.
double envelope(double t, double attack, double decay) {
    if (t < attack) return t / attack;
    return std::exp(-(t - attack) / decay);
}

// A tone whose frequency moves from f0 to f1 (exponentially), with harmonics weighted 1/h^tilt.
Signal tone(double seconds, double f0, double f1, int harmonics, double tilt, double attack, double decay) {
    Signal out(std::size_t(seconds * kRate));
    double phase = 0;
    for (std::size_t i = 0; i < out.size(); ++i) {
        const double t = double(i) / kRate;
        const double f = f0 * std::pow(f1 / f0, t / seconds);
        phase += 2 * kPi * f / kRate;
        double v = 0;
        for (int h = 1; h <= harmonics; ++h) v += std::sin(h * phase) / std::pow(h, tilt);
        out[i] = v * envelope(t, attack, decay);
    }
    return out;
}

// A struck bell: inharmonic partials that die away at different speeds.
Signal bell(double seconds, double f, const std::vector<double>& ratios, double decay) {
    Signal out(std::size_t(seconds * kRate));
    for (std::size_t i = 0; i < out.size(); ++i) {
        const double t = double(i) / kRate;
        double v = 0;
        for (std::size_t k = 0; k < ratios.size(); ++k)
            v += std::sin(2 * kPi * f * ratios[k] * t) * std::exp(-t / (decay / (1 + 0.7 * double(k)))) / double(k + 1);
        out[i] = v * std::min(1.0, t / 0.002);
    }
    return out;
}

// Noise through a one-pole low-pass whose corner moves from c0 to c1 Hz.
Signal noise(double seconds, double c0, double c1, double attack, double decay) {
    Signal out(std::size_t(seconds * kRate));
    Noise source;
    double y = 0;
    for (std::size_t i = 0; i < out.size(); ++i) {
        const double t = double(i) / kRate;
        const double corner = c0 + (c1 - c0) * t / seconds;
        const double a = 1 - std::exp(-2 * kPi * corner / kRate);
        y += a * (source.next() - y);
        out[i] = y * envelope(t, attack, decay) * 3.0;
    }
    return out;
}

Signal& mixInto(Signal& into, const Signal& what, double at, double gain = 1.0) {
    const std::size_t start = std::size_t(at * kRate);
    if (into.size() < start + what.size()) into.resize(start + what.size(), 0.0);
    for (std::size_t i = 0; i < what.size(); ++i) into[start + i] += gain * what[i];
    return into;
}

Signal basso() { return tone(0.55, 98, 92, 9, 1.0, 0.005, 0.16); }
Signal glass() { return bell(0.9, 1568, {1.0, 2.76, 5.40, 8.93}, 0.30); }
Signal purr() {
    Signal out = noise(0.6, 300, 200, 0.03, 0.25);
    for (std::size_t i = 0; i < out.size(); ++i) out[i] *= 0.5 + 0.5 * std::sin(2 * kPi * 26 * double(i) / kRate);
    return mixInto(out, tone(0.6, 70, 65, 6, 1.2, 0.03, 0.25), 0, 0.5);
}
Signal pop() { return tone(0.09, 900, 160, 2, 2.0, 0.001, 0.02); }
Signal blow() { return noise(0.5, 2500, 600, 0.12, 0.15); }
Signal ping() { return bell(0.6, 1320, {1.0, 2.0}, 0.18); }
Signal tink() { return bell(0.12, 3520, {1.0, 2.4}, 0.03); }
Signal submarine() {
    Signal out = tone(0.25, 520, 500, 1, 1.0, 0.01, 0.12);
    mixInto(out, tone(0.25, 520, 500, 1, 1.0, 0.01, 0.12), 0.3, 0.35);
    return mixInto(out, tone(0.25, 520, 500, 1, 1.0, 0.01, 0.12), 0.6, 0.12);
}
Signal frog() {
    Signal croak = tone(0.12, 210, 150, 12, 0.6, 0.005, 0.05);
    for (std::size_t i = 0; i < croak.size(); ++i) croak[i] *= std::sin(2 * kPi * 45 * double(i) / kRate) > 0 ? 1 : 0.2;
    Signal out;
    mixInto(out, croak, 0);
    return mixInto(out, croak, 0.16);
}
Signal funk() {
    Signal out = tone(0.35, 220, 220, 15, 1.0, 0.005, 0.12);
    for (std::size_t i = 0; i < out.size(); ++i) out[i] *= 0.4 + 0.6 * std::sin(kPi * double(i) / double(out.size()));
    return out;
}
Signal hero() {
    Signal out;
    const double notes[] = {523.25, 659.25, 783.99, 1046.5};
    for (int k = 0; k < 4; ++k)
        mixInto(out, tone(k == 3 ? 0.4 : 0.12, notes[k], notes[k], 4, 1.5, 0.004, k == 3 ? 0.18 : 0.06), k * 0.09);
    return out;
}
Signal morse() {
    Signal out;
    const double starts[] = {0, 0.1, 0.2, 0.38};
    const double lengths[] = {0.06, 0.06, 0.06, 0.18};
    for (int k = 0; k < 4; ++k) mixInto(out, tone(lengths[k], 800, 800, 1, 1.0, 0.004, 10.0), starts[k]);
    return out;
}
Signal bottle() {
    Signal out = tone(0.5, 300, 310, 2, 3.0, 0.06, 0.2);
    return mixInto(out, noise(0.5, 900, 600, 0.05, 0.15), 0, 0.25);
}
Signal sosumi() {
    Signal out = tone(0.16, 880, 880, 3, 2.0, 0.003, 0.07);
    return mixInto(out, tone(0.25, 660, 660, 3, 2.0, 0.003, 0.1), 0.14);
}

void put16(std::ofstream& out, std::uint16_t v) { out.put(char(v & 0xff)).put(char(v >> 8)); }
void put32(std::ofstream& out, std::uint32_t v) {
    put16(out, std::uint16_t(v & 0xffff));
    put16(out, std::uint16_t(v >> 16));
}

// Scales to a peak of -3 dBFS, fades the last 5 ms so nothing clicks, writes RIFF/WAVE PCM.
bool writeWav(const std::filesystem::path& path, Signal signal) {
    double peak = 0;
    for (double v : signal) peak = std::max(peak, std::abs(v));
    const double gain = peak > 0 ? 0.707 / peak : 0;
    const std::size_t fade = std::min<std::size_t>(signal.size(), kRate / 200);
    for (std::size_t i = 0; i < fade; ++i) signal[signal.size() - 1 - i] *= double(i) / double(fade);
    const std::filesystem::path temporary = path.string() + ".tmp";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        if (!out) return false;
        const std::uint32_t dataBytes = std::uint32_t(signal.size() * 2);
        out.write("RIFF", 4);
        put32(out, 36 + dataBytes);
        out.write("WAVEfmt ", 8);
        put32(out, 16);
        put16(out, 1); // PCM
        put16(out, 1); // mono
        put32(out, kRate);
        put32(out, kRate * 2);
        put16(out, 2);
        put16(out, 16);
        out.write("data", 4);
        put32(out, dataBytes);
        for (double v : signal)
            put16(out, std::uint16_t(std::int16_t(std::lround(std::clamp(v * gain, -1.0, 1.0) * 32767))));
        if (!out.flush()) return false;
    }
    std::error_code ec;
    std::filesystem::rename(temporary, path, ec);
    return !ec;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <output folder>\n", argv[0]);
        return 2;
    }
    const std::filesystem::path folder = argv[1];
    std::error_code ec;
    std::filesystem::create_directories(folder, ec);
    const std::vector<std::pair<const char*, std::function<Signal()>>> sounds = {
        {"Basso", basso}, {"Blow", blow},   {"Bottle", bottle}, {"Frog", frog},         {"Funk", funk},
        {"Glass", glass}, {"Hero", hero},   {"Morse", morse},   {"Ping", ping},         {"Pop", pop},
        {"Purr", purr},   {"Sosumi", sosumi}, {"Submarine", submarine}, {"Tink", tink},
    };
    for (const auto& [name, make] : sounds) {
        if (!writeWav(folder / (std::string(name) + ".wav"), make())) {
            std::fprintf(stderr, "make_sounds: cannot write %s\n", (folder / name).c_str());
            return 1;
        }
    }
    return 0;
}

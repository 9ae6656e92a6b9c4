// Cost of writing recordings: CPU time of our writer per minute of audio against FFmpeg's libopus encoder on the
// same input, and the bytes a minute of recording takes. Prints figures; asserts nothing.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "audio/CafOpusWriter.h"
#include "audio/CafReader.h"

namespace {

double cpuSeconds(int who) {
    rusage usage{};
    getrusage(who, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// The same voice-like signal as the tests: harmonics of a gliding fundamental under a syllable envelope.
std::vector<float> speechLike(size_t frames) {
    std::vector<float> out(frames);
    const double pi = 3.14159265358979323846;
    double phase = 0;
    for (size_t i = 0; i < frames; ++i) {
        const double t = double(i) / 16000;
        const double f0 = 150.0 + 40.0 * std::sin(2 * pi * 0.7 * t);
        phase += 2 * pi * f0 / 16000;
        double v = 0;
        for (int h = 1; h <= 12; ++h) {
            const double f = f0 * h;
            const double formants = std::exp(-std::pow((f - 500.0) / 300.0, 2)) +
                                    0.6 * std::exp(-std::pow((f - 1500.0) / 400.0, 2)) + 0.05;
            v += formants * std::sin(h * phase) / h;
        }
        const double syllable = std::fmod(t * 4.0, 1.0);
        out[i] = float(0.5 * (syllable < 0.8 ? std::pow(std::sin(pi * syllable / 0.8), 2) : 0.0) * v);
    }
    return out;
}

} // namespace

int runCaptureBench(); // CaptureBench.cpp

int main(int argc, char** argv) {
    // `bench_audio capture`: the capture path against a private PulseAudio daemon.
    if (argc > 1 && std::string(argv[1]) == "capture") return runCaptureBench();
    const int minutes = 2;
    const auto signal = speechLike(size_t(16000) * 60 * minutes);
    char pattern[] = "/tmp/sprelio-audio-bench-XXXXXX";
    if (!mkdtemp(pattern)) return 1;
    const std::filesystem::path dir = pattern;

    // Our writer, fed in capture-sized buffers of 1024 frames; best of three.
    double ours = 1e9;
    for (int run = 0; run < 3; ++run) {
        const double start = cpuSeconds(RUSAGE_SELF);
        sprelio::CafOpusWriter writer;
        writer.open(dir / "ours.caf");
        for (size_t at = 0; at < signal.size(); at += 1024) {
            writer.appendSamples(signal.data() + at, std::min<size_t>(1024, signal.size() - at));
        }
        writer.finish();
        ours = std::min(ours, cpuSeconds(RUSAGE_SELF) - start);
    }
    const auto ourBytes = std::filesystem::file_size(dir / "ours.caf");
    const double ourDuration = sprelio::CafReader::open(dir / "ours.caf").durationSeconds();

    {
        std::ofstream raw(dir / "in.raw", std::ios::binary);
        raw.write(reinterpret_cast<const char*>(signal.data()), std::streamsize(signal.size() * sizeof(float)));
    }
    // FFmpeg's libopus as it runs by default (VBR), and in hard CBR as our writer runs it: the like-for-like figure.
    const auto ffmpeg = [&](const std::string& mode, const std::string& file, double& cpu) {
        const std::string command = "ffmpeg -nostdin -hide_banner -loglevel error -y -f f32le -ar 16000 -ac 1 -i " +
                                    (dir / "in.raw").string() +
                                    " -c:a libopus -b:a 16k -frame_duration 20 -application voip " + mode + " " +
                                    (dir / file).string();
        cpu = 1e9;
        for (int run = 0; run < 3; ++run) {
            const double start = cpuSeconds(RUSAGE_CHILDREN);
            if (std::system(command.c_str()) != 0) {
                std::printf("ffmpeg failed: %s\n", command.c_str());
                return false;
            }
            cpu = std::min(cpu, cpuSeconds(RUSAGE_CHILDREN) - start);
        }
        return true;
    };
    double vbr = 0, cbr = 0;
    if (!ffmpeg("", "ffmpeg-vbr.caf", vbr) || !ffmpeg("-vbr off", "ffmpeg-cbr.caf", cbr)) return 1;
    const auto vbrBytes = std::filesystem::file_size(dir / "ffmpeg-vbr.caf");
    const auto cbrBytes = std::filesystem::file_size(dir / "ffmpeg-cbr.caf");

    std::printf("input: %d min of 16 kHz mono speech-like signal\n", minutes);
    std::printf("our writer (CBR 16 kbit/s, 20 ms, VOIP):       %.3f s CPU per minute of audio\n", ours / minutes);
    std::printf("ffmpeg libopus, hard CBR (-vbr off), same:      %.3f s CPU per minute (process included)\n",
                cbr / minutes);
    std::printf("ffmpeg libopus, its default VBR:                %.3f s CPU per minute (process included)\n",
                vbr / minutes);
    std::printf("ratio ours / ffmpeg CBR: %.2f   ours / ffmpeg VBR: %.2f\n", ours / cbr, ours / vbr);
    std::printf("(hard CBR makes every packet 40 bytes, so that a recording cut off by a crash stays countable)\n");
    std::printf("our file:        %.0f bytes per minute (duration read back %.3f s)\n", double(ourBytes) / minutes,
                ourDuration);
    std::printf("ffmpeg CBR file: %.0f bytes per minute\n", double(cbrBytes) / minutes);
    std::printf("ffmpeg VBR file: %.0f bytes per minute\n", double(vbrBytes) / minutes);
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return 0;
}

#pragma once
// A private PulseAudio daemon for the tests and the benchmark: user mode with its own runtime folder and home in a
// temporary folder (so it also runs as root), a null sink, and a pipe source "mic" fed through a FIFO. The process
// is pointed at it by PULSE_SERVER. Also the feeder that writes audio into the FIFO at real-time pace.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "AudioTestSupport.h"

namespace sprelio::audio_test {

inline bool socketAccepts(const std::filesystem::path& socketPath) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socketPath.c_str());
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return ok;
}

// Polls a condition until it holds or the time is up; for conditions that announce themselves in no other way.
template <class Predicate>
bool waitFor(Predicate predicate, std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

class PulseDaemon {
public:
    PulseDaemon() {
        std::filesystem::create_directories(dir_ / "run");
        std::filesystem::create_directories(dir_ / "home");
        std::ofstream script(dir_ / "default.pa");
        script << "load-module module-native-protocol-unix auth-anonymous=1 socket=" << socket().string() << "\n"
               << "load-module module-null-sink sink_name=out\n"
               << "load-module module-pipe-source source_name=mic file=" << fifo().string()
               << " format=float32le rate=16000 channels=1"
               << " source_properties=device.description=TestMic\n"
               << "set-default-source mic\n";
    }
    ~PulseDaemon() { kill(); }
    PulseDaemon(const PulseDaemon&) = delete;
    PulseDaemon& operator=(const PulseDaemon&) = delete;

    std::filesystem::path socket() const { return dir_.path() / "run" / "native"; }
    std::filesystem::path fifo() const { return dir_.path() / "mic.fifo"; }
    std::string serverAddress() const { return "unix:" + socket().string(); }

    // Starts the daemon and waits until it accepts connections; points this process at it.
    void start() {
        std::error_code ec;
        std::filesystem::remove(socket(), ec);
        std::filesystem::remove(fifo(), ec); // the pipe source makes its FIFO itself and refuses an existing one
        const std::string log = (dir_ / "pulseaudio.log").string();
        pid_ = ::fork();
        if (pid_ < 0) throw std::runtime_error("fork failed");
        if (pid_ == 0) {
            // A test that dies (a sanitizer's halt, a crash, ctest's time-out) takes its daemon along.
            ::prctl(PR_SET_PDEATHSIG, SIGTERM);
            ::setenv("HOME", (dir_ / "home").c_str(), 1);
            ::setenv("XDG_RUNTIME_DIR", (dir_ / "run").c_str(), 1);
            ::setenv("PULSE_RUNTIME_PATH", (dir_ / "run").c_str(), 1);
            ::setenv("XDG_CONFIG_HOME", (dir_ / "home").c_str(), 1);
            ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
            const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
            if (out >= 0) {
                ::dup2(out, 1);
                ::dup2(out, 2);
            }
            const std::string scriptPath = (dir_ / "default.pa").string();
            ::execlp("pulseaudio", "pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--disallow-exit",
                     "--log-target=stderr", "-F", scriptPath.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::setenv("PULSE_SERVER", serverAddress().c_str(), 1);
        if (!waitFor([&] { return socketAccepts(socket()) && std::filesystem::exists(fifo()); },
                     std::chrono::milliseconds(10000)))
            throw std::runtime_error("pulseaudio did not come up; its log: " + logText());
    }

    void kill() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
    }

    bool running() const { return pid_ > 0; }

    ProcessOutput pactl(const std::string& arguments) const {
        return runCommand("PULSE_SERVER=" + shellQuoted(serverAddress()) + " pactl " + arguments + " 2>&1");
    }

    std::string logText() const {
        const auto bytes = readBytes(dir_ / "pulseaudio.log");
        return std::string(bytes.begin(), bytes.end());
    }

private:
    TempDir dir_;
    pid_t pid_ = -1;
};

// Writes audio into the daemon's FIFO at real-time pace from its own thread: the queued signal, then silence.
// Counts the frames written, so that a test can tell which fed frame was current at a given moment.
class FifoFeeder {
public:
    explicit FifoFeeder(const std::filesystem::path& fifo) {
        ::signal(SIGPIPE, SIG_IGN);
        fd_ = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
        if (fd_ < 0) throw std::runtime_error("cannot open the FIFO " + fifo.string());
        thread_ = std::thread([this] { run(); });
    }
    ~FifoFeeder() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        if (fd_ >= 0) ::close(fd_);
    }
    FifoFeeder(const FifoFeeder&) = delete;
    FifoFeeder& operator=(const FifoFeeder&) = delete;

    // Queues a signal to play after what is queued; returns the index of its first frame.
    std::int64_t play(const std::vector<float>& signal) {
        std::lock_guard guard(mutex_);
        const std::int64_t at = std::max<std::int64_t>(queuedEnd_, written_.load() + 1);
        pending_.push_back({at, signal});
        queuedEnd_ = at + std::int64_t(signal.size());
        return at;
    }
    std::int64_t framesWritten() const { return written_.load(); }
    bool broken() const { return broken_.load(); }

private:
    struct Pending {
        std::int64_t at;
        std::vector<float> signal;
    };

    void run() {
        constexpr int kChunk = 80; // 5 ms
        auto next = std::chrono::steady_clock::now();
        std::vector<float> chunk(kChunk);
        while (!stop_) {
            const std::int64_t first = written_.load();
            std::fill(chunk.begin(), chunk.end(), 0.0f);
            {
                std::lock_guard guard(mutex_);
                for (const auto& p : pending_) {
                    for (int i = 0; i < kChunk; ++i) {
                        const std::int64_t k = first + i - p.at;
                        if (k >= 0 && k < std::int64_t(p.signal.size())) chunk[std::size_t(i)] = p.signal[std::size_t(k)];
                    }
                }
            }
            const char* data = reinterpret_cast<const char*>(chunk.data());
            std::size_t left = chunk.size() * sizeof(float);
            while (left > 0) {
                const ssize_t n = ::write(fd_, data, left);
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) {
                    broken_ = true;
                    return;
                }
                data += n;
                left -= std::size_t(n);
            }
            written_ += kChunk;
            next += std::chrono::microseconds(kChunk * 1000000 / 16000);
            std::this_thread::sleep_until(next);
        }
    }

    int fd_ = -1;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> broken_{false};
    std::atomic<std::int64_t> written_{0};
    std::mutex mutex_;
    std::vector<Pending> pending_;
    std::int64_t queuedEnd_ = 0;
};

// Speech from festival, 16 kHz mono float; made once per process.
inline const std::vector<float>& festivalSpeech() {
    static const std::vector<float> speech = [] {
        TempDir dir;
        const auto wav = dir / "speech.wav";
        const auto raw = dir / "speech.f32";
        const auto made = runCommand("echo 'Sprelio keeps the first words and the last words of every dictation.' | "
                                     "text2wave -eval '(voice_cmu_us_slt_arctic_hts)' -o " +
                                     shellQuoted(wav.string()) + " >/dev/null 2>&1 && ffmpeg -nostdin -loglevel error -i " +
                                     shellQuoted(wav.string()) + " -f f32le -ac 1 -ar 16000 " +
                                     shellQuoted(raw.string()) + " 2>&1");
        if (made.exitCode != 0) throw std::runtime_error("festival or ffmpeg failed: " + made.out);
        const auto bytes = readBytes(raw);
        std::vector<float> samples(bytes.size() / sizeof(float));
        std::copy_n(bytes.data(), samples.size() * sizeof(float), reinterpret_cast<std::uint8_t*>(samples.data()));
        return samples;
    }();
    return speech;
}

} // namespace sprelio::audio_test

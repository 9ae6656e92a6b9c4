// How fast the capture path is ready and how much audio a recording loses at its ends, against a private PulseAudio
// daemon fed through a FIFO at real-time pace. Run: bench_audio capture. Prints figures; asserts nothing.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "../../tests/audio/PulseDaemon.h"
#include "audio/CaptureRecordingAudio.h"
#include "platform/linux/CurlStreamingUpload.h"
#include "platform/linux/PulseAudioCapture.h"
#include "platform/linux/PulseAudioConnection.h"
#include "platform/loop/RealTimeLoop.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Notes when the first buffer of each start arrives and which fed frame was current then.
class TimingCapture final : public sprelio::platform::AudioCapture {
public:
    explicit TimingCapture(sprelio::platform::AudioCapture& inner) : inner_(inner) {}
    bool start(SamplesHandler onSamples, ErrorHandler onError, std::string& error) override {
        first_ = false;
        return inner_.start(
            [this, onSamples](const float* s, std::size_t n) {
                if (!first_.exchange(true)) firstAt = Clock::now();
                onSamples(s, n);
            },
            std::move(onError), error);
    }
    void stop() override { inner_.stop(); }
    bool gotFirst() const { return first_.load(); }
    void reset() { first_ = false; }
    Clock::time_point firstAt;

private:
    sprelio::platform::AudioCapture& inner_;
    std::atomic<bool> first_{false};
};

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    const double rank = p * double(values.size() - 1);
    const auto low = std::size_t(std::floor(rank));
    const auto high = std::min(low + 1, values.size() - 1);
    return values[low] + (values[high] - values[low]) * (rank - double(low));
}

// Normalised correlation of a window of `file` against `fed` at fed offset `at`.
double correlationAt(const std::vector<float>& fed, long at, const std::vector<float>& file, long from, long length) {
    double ab = 0, aa = 0, bb = 0;
    for (long i = 0; i < length; ++i) {
        const long j = at + i;
        if (j < 0 || j >= long(fed.size()) || from + i >= long(file.size())) return -1;
        ab += double(fed[size_t(j)]) * file[size_t(from + i)];
        aa += double(fed[size_t(j)]) * fed[size_t(j)];
        bb += double(file[size_t(from + i)]) * file[size_t(from + i)];
    }
    return aa > 0 && bb > 0 ? ab / std::sqrt(aa * bb) : -1;
}

// The fed frame index that the file's window starting at `from` matches best, searched around `guess`.
long locate(const std::vector<float>& fed, long guess, const std::vector<float>& file, long from, long length) {
    long best = guess;
    double bestValue = -2;
    for (long at = guess - 8000; at <= guess + 8000; ++at) {
        const double c = correlationAt(fed, at, file, from, length);
        if (c > bestValue) {
            bestValue = c;
            best = at;
        }
    }
    return best;
}

struct Completion {
    std::mutex mutex;
    int count = 0;
    bool success = false;
};


// A loopback listener that takes each connection's bytes and throws them away: the far end of a live stream, so
// that the recorder's packets really travel through the streaming transport while it records.
class DiscardingListener {
public:
    DiscardingListener() {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(fd_, 16);
        socklen_t length = sizeof address;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] {
            for (;;) {
                const int connection = ::accept(fd_, nullptr, nullptr);
                if (connection < 0) return;
                std::thread([connection] {
                    char buffer[4096];
                    while (::recv(connection, buffer, sizeof buffer, 0) > 0) {
                    }
                    ::close(connection);
                }).detach();
            }
        });
    }
    ~DiscardingListener() {
        ::shutdown(fd_, SHUT_RDWR);
        ::close(fd_);
        thread_.join();
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/transcribe/live"; }

private:
    int fd_ = -1;
    int port_ = 0;
    std::thread thread_;
};

// What the live stream does with each packet on the capture's thread: frames it and hands it to the transfer.
class StreamingSink final : public sprelio::RecordingPacketSink {
public:
    explicit StreamingSink(std::shared_ptr<sprelio::platform::StreamingUpload> upload) : upload_(std::move(upload)) {}
    void packet(const std::uint8_t* data, std::size_t size) override {
        std::string framed;
        framed += static_cast<char>(size >> 8);
        framed += static_cast<char>(size & 0xff);
        framed.append(reinterpret_cast<const char*>(data), size);
        upload_->write(std::move(framed));
        ++packets;
    }
    void ended(bool complete) override {
        if (complete)
            upload_->finish();
        else
            upload_->cancel();
    }
    std::atomic<int> packets{0};

private:
    std::shared_ptr<sprelio::platform::StreamingUpload> upload_;
};

} // namespace

int runCaptureBench() {
    using namespace sprelio;
    audio_test::PulseDaemon daemon;
    daemon.start();
    audio_test::TempDir dir;
    platform::ThreadWorkerPool workers(2);
    platform::PulseAudioConnection connection("Sprelio bench");
    platform::PulseAudioCapture pulse(connection);
    TimingCapture capture(pulse);
    CaptureRecordingAudioFactory factory(capture, workers, {});

    // A rising chirp, 200 Hz to 3 kHz over 60 s: every moment of it is unlike every other, so a piece of the file
    // tells which fed frame it is.
    std::vector<float> chirp(size_t(16000) * 60);
    double phase = 0;
    for (std::size_t i = 0; i < chirp.size(); ++i) {
        const double f = 200.0 + 2800.0 * double(i) / double(chirp.size());
        phase += 2 * M_PI * f / 16000;
        chirp[i] = float(0.4 * std::sin(phase));
    }
    audio_test::FifoFeeder feeder(daemon.fifo());
    const std::int64_t chirpAt = feeder.play(chirp);
    // A pipe source reads its FIFO only while some stream takes its audio; between our recordings (corked stream)
    // the FIFO would back up and hand old audio to the next start. A second listener keeps the source running in
    // real time, as a microphone's clock runs.
    const pid_t listener = ::fork();
    if (listener == 0) {
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 1);
        ::execlp("parec", "parec", "--device=mic", "--raw", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    audio_test::waitFor([&] {
        return daemon.pactl("list short source-outputs").out.find("parec") != std::string::npos ||
               !daemon.pactl("list short source-outputs").out.empty();
    });

    platform::RealTimeLoop streamLoop;
    platform::CurlStreamingUploadClient streams(streamLoop);
    DiscardingListener farEnd;
    std::shared_ptr<StreamingSink> liveSink;
    auto recordOnce = [&](const std::string& name, std::chrono::milliseconds length, double* startMs,
                          std::int64_t* fedAtRecord, std::int64_t* fedAtStop) {
        auto recorder = factory.makeCaptureRecordingAudio(dir / name);
        if (liveSink) recorder->setPacketSink(liveSink);
        Completion done;
        recorder->setOnRecordingCompletion([&done](const std::filesystem::path&, bool ok) {
            std::lock_guard guard(done.mutex);
            ++done.count;
            done.success = ok;
        });
        capture.reset();
        const auto t0 = Clock::now();
        if (fedAtRecord) *fedAtRecord = feeder.framesWritten();
        recorder->record(Uuid::random(), std::make_shared<const Stopwatch>("bench", t0));
        audio_test::waitFor([&] { return capture.gotFirst(); });
        *startMs = std::chrono::duration<double, std::milli>(capture.firstAt - t0).count();
        const auto stopAt = t0 + length;
        while (Clock::now() < stopAt) std::this_thread::sleep_for(1ms);
        if (fedAtStop) *fedAtStop = feeder.framesWritten();
        recorder->stop();
        audio_test::waitFor([&] {
            std::lock_guard guard(done.mutex);
            return done.count > 0;
        });
        std::lock_guard guard(done.mutex);
        return done.success;
    };

    // Start latency: record() to the first captured buffer, over 50 starts.
    std::vector<double> starts;
    double cold = 0;
    recordOnce("cold.caf", 100ms, &cold, nullptr, nullptr);
    for (int i = 0; i < 50; ++i) {
        double ms = 0;
        recordOnce("warm.caf", 60ms, &ms, nullptr, nullptr);
        starts.push_back(ms);
    }
    std::printf("record() to first captured sample: first start (stream made) %.1f ms; then over 50 starts "
                "p50 %.1f ms, p95 %.1f ms, max %.1f ms\n",
                cold, percentile(starts, 0.5), percentile(starts, 0.95), *std::max_element(starts.begin(), starts.end()));

    // Audio lost at the ends, in ms of the fed signal: fed frames current at record() (stop()) that precede
    // (follow) what the file holds. Negative means the file holds more. Inside: fed frames between the file's first
    // and last that the file lacks (dropped buffers). Once as is, once with each recording's packets streamed live
    // over the streaming transport while it records.
    for (const bool live : {false, true}) {
        std::vector<double> startLoss, endLoss, insideLoss;
        int streamed = 0;
        for (int i = 0; i < 10; ++i) {
            double ms = 0;
            std::int64_t fedAtRecord = 0, fedAtStop = 0;
            const std::string name = std::string(live ? "live" : "loss") + std::to_string(i) + ".caf";
            if (live) {
                platform::HttpRequest request;
                request.method = "POST";
                request.url = farEnd.url();
                request.timeout = std::chrono::seconds(5);
                liveSink = std::make_shared<StreamingSink>(streams.start(std::move(request), {}));
            }
            if (!recordOnce(name, 1000ms, &ms, &fedAtRecord, &fedAtStop)) {
                std::printf("recording %d failed\n", i);
                continue;
            }
            if (liveSink) streamed += liveSink->packets.load();
            liveSink.reset();
            const auto decoded = audio_test::ffmpegDecode(dir / name);
            if (decoded.exitCode != 0 || decoded.samples.size() < 4000) continue;
            const long n = long(decoded.samples.size());
            const long window = 800;
            // The first packets may carry the decoder's warm-up; look a little into the file and count back.
            const long headFrom = 400;
            const long headAt = locate(chirp, long(fedAtRecord - chirpAt) + headFrom, decoded.samples, headFrom, window);
            const long tailFrom = n - window - 400;
            const long tailAt = locate(chirp, long(fedAtStop - chirpAt) - window - 400, decoded.samples, tailFrom, window);
            const double firstFed = double(headAt - headFrom);             // chirp index of the file's first frame
            const double lastFed = double(tailAt + (n - 1 - tailFrom));     // chirp index of the file's last frame
            startLoss.push_back((firstFed - double(fedAtRecord - chirpAt)) / 16.0);
            endLoss.push_back((double(fedAtStop - chirpAt) - 1 - lastFed) / 16.0);
            insideLoss.push_back((lastFed - firstFed + 1 - double(n)) / 16.0);
        }
        if (!startLoss.empty()) {
            const char* how = live ? " [live stream on]" : "";
            std::printf("audio lost at the start (fed at record() but not in the file), %zu recordings%s: median %.1f ms, "
                        "max %.1f ms\n",
                        startLoss.size(), how, percentile(startLoss, 0.5),
                        *std::max_element(startLoss.begin(), startLoss.end()));
            std::printf("audio lost at the end (fed before stop() but not in the file), %zu recordings%s: median %.1f ms, "
                        "max %.1f ms\n",
                        endLoss.size(), how, percentile(endLoss, 0.5), *std::max_element(endLoss.begin(), endLoss.end()));
            std::printf("audio missing inside (between the file's first and last fed frame), %zu recordings%s: median "
                        "%.1f ms, max %.1f ms\n",
                        insideLoss.size(), how, percentile(insideLoss, 0.5),
                        *std::max_element(insideLoss.begin(), insideLoss.end()));
            if (live) std::printf("packets streamed live meanwhile: %d\n", streamed);
        }
    }
    ::kill(listener, SIGKILL);
    ::waitpid(listener, nullptr, 0);
    return 0;
}

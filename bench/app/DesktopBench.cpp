// The desktop application measured as a user runs it: `sprelio` on a private X desktop with openbox, its own
// PulseAudio daemon fed festival speech, the embedded server, and the tests' X application in front.
//
//   build/bench/bench_app [startup] [idle] [dictation] [latency] [ai] [continuous]
//                                                           (no argument: all six, about 7 minutes)
//
// startup    from the process's start to "ready: the hotkeys are live", for a first launch on an empty home (store,
//            settings and default shortcuts made), for later launches on the same home, and, when run as root, for
//            cold launches: the kernel's page cache dropped first, so the program and its libraries come from disk.
// idle       CPU time and resident memory of 60 s at rest, the floating button shown.
// dictation  the same over a 60-second held dictation, then the time its transcription takes.
// latency    a 5-second utterance, from the key's release (the tap's decision) to the text in the application,
//            split into recorder stop, upload, engine and delivery; the median of five.
// ai         a dictation on a key with an AI item, the AI service a chat service on loopback that answers at once:
//            from the completion's arrival in the application to the text in the application in front, and from
//            the key's release to that text; the median of five.
// continuous continuous dictation on its key: CPU time and resident memory while it listens to 60 s of silence
//            (and the recorders it cycles meanwhile); then five sentences, each closed by a pause, from the end of
//            the silence that closes a piece (its recorder's stop) to its text in the application; the median.
//
// Times come from the application's own log (microseconds, local wall clock) and, for the text's arrival, from this
// process's wall clock when the test application's file shows it.
#include <unistd.h>

#include <ctime>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <numeric>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

// Before the X headers, whose macros (None, Success) clash with the HTTP library's names.
#include "server/ScriptedOpenAiService.h"

#include "app/ContinuousTestSupport.h"
#include "app/SprelioAppProcess.h"
#include "base/Digest.h"
#include "platform/test/TemporaryFolder.h"

namespace {

using namespace std::chrono_literals;
using namespace sprelio;
namespace fs = std::filesystem;
using apptest::SprelioApp;
using audio_test::FifoFeeder;
using audio_test::PulseDaemon;
using x11test::TestClient;
using x11test::XServer;

constexpr const char* kReady = "Desktop.launch() - ready: the hotkeys are live";
constexpr const char* kKeyUp = "KeyboardShortcutManager.executeActionForKeyCode() - keyCode: 61, isKeyDown: false";
constexpr const char* kRecordingStarted = "- preparing finished in";
constexpr const char* kRecorderFinished = "RecordingAudio.audioRecorderDidFinishRecording() - success: true";
constexpr const char* kRequestSent = "AudioUploadManager.uploadRecording() - request: ";
constexpr const char* kAnswer = "AudioUploadManager.uploadRecording() - handle JSON response";
constexpr const char* kEngine = "BackendServer.handleTranscribe() - ";

double now() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// The wall-clock time of the n-th (1-based) log line that holds `needle`, in seconds since the epoch.
std::optional<double> logTime(const std::string& log, const std::string& needle, std::size_t nth = 1) {
    std::istringstream in(log);
    std::size_t seen = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.find(needle) == std::string::npos || ++seen < nth) continue;
        std::tm tm{};
        int micros = 0;
        if (std::sscanf(line.c_str(), "%d-%d-%d %d:%d:%d.%d", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &tm.tm_hour,
                        &tm.tm_min, &tm.tm_sec, &micros) != 7)
            return std::nullopt;
        tm.tm_year -= 1900;
        tm.tm_mon -= 1;
        tm.tm_isdst = -1;
        return static_cast<double>(std::mktime(&tm)) + micros / 1e6;
    }
    return std::nullopt;
}

// The engine's own time from its log line ("recognised in 697 ms"), in seconds.
std::optional<double> engineSeconds(const std::string& log, std::size_t nth) {
    std::istringstream in(log);
    std::size_t seen = 0;
    static const std::regex recognised(R"(decoded in ([0-9]+) ms, recognised in ([0-9]+) ms)");
    for (std::string line; std::getline(in, line);) {
        if (line.find(kEngine) == std::string::npos) continue;
        std::smatch m;
        if (!std::regex_search(line, m, recognised) || ++seen < nth) continue;
        return (std::stod(m[1]) + std::stod(m[2])) / 1000.0;
    }
    return std::nullopt;
}

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct ProcessUse {
    double cpuSeconds = 0;
    long rssKiB = 0;
};

ProcessUse processUse(pid_t pid) {
    ProcessUse use;
    // Time on a CPU in nanoseconds, per thread (the scheduler's own account, finer than the clock ticks of
    // /proc/PID/stat); threads that ended before the reading are missed, which at rest none do.
    std::error_code error;
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
        std::ifstream schedstat(task.path() / "schedstat");
        double onCpu = 0;
        if (schedstat >> onCpu) use.cpuSeconds += onCpu / 1e9;
    }
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0) use.rssKiB = std::stol(line.substr(6));
    return use;
}

// CPU share and resident memory (mean and peak) of the process over `duration`, sampled each second.
void measureUse(pid_t pid, std::chrono::seconds duration, const std::string& label) {
    const ProcessUse start = processUse(pid);
    const double began = now();
    long peak = start.rssKiB, sum = 0;
    int samples = 0;
    while (now() - began < static_cast<double>(duration.count())) {
        std::this_thread::sleep_for(1s);
        const long rss = processUse(pid).rssKiB;
        peak = std::max(peak, rss);
        sum += rss;
        ++samples;
    }
    const ProcessUse end = processUse(pid);
    const double wall = now() - began;
    std::printf("%-34s CPU %.0f ms in %.0f s (%.2f %% of one core); resident memory mean %.1f MiB, peak %.1f MiB\n",
                label.c_str(), (end.cpuSeconds - start.cpuSeconds) * 1000, wall,
                100.0 * (end.cpuSeconds - start.cpuSeconds) / wall, samples ? sum / samples / 1024.0 : 0.0,
                peak / 1024.0);
}

class Desktop {
public:
    Desktop() {
        if (!server.ready() || !server.startWindowManager()) throw std::runtime_error("no X server");
        pulse.start();
        feeder = std::make_unique<FifoFeeder>(pulse.fifo());
    }
    ~Desktop() {
        client.reset();
        pulse.kill();
        feeder.reset();
        server.stop();
    }
    std::unique_ptr<SprelioApp> launch(const fs::path& home, double& seconds) {
        // The log of a home is kept from one launch to the next: this launch's line is the next one.
        const std::size_t launches =
            SprelioApp::countIn(x11test::readFile(home / ".local/share/Sprelio/logs/app_log.txt"), kReady);
        const double started = now();
        auto app = std::make_unique<SprelioApp>(server, pulse, home);
        if (!app->waitForCount(kReady, launches + 1, 60000ms))
            throw std::runtime_error("sprelio did not start: " + app->output());
        seconds = *logTime(app->log(), kReady, launches + 1) - started;
        return app;
    }
    // Sprelio with a held right Alt, our application in front: ready to dictate.
    std::unique_ptr<SprelioApp> launchForDictation(const fs::path& home, std::optional<std::string> aiItemId = {}) {
        apptest::storeRightAltShortcut(home, true, std::move(aiItemId));
        double seconds = 0;
        auto app = launch(home, seconds);
        bringClientForward();
        return app;
    }
    void bringClientForward() {
        client = std::make_unique<TestClient>(server, TestClient::Options{});
        if (!client->waitUntilFocused()) throw std::runtime_error("the test application did not take the focus");
        x11test::waitFor([&] {
            const std::string out = server.output("xdotool getactivewindow getwindowpid");
            return !out.empty() && std::atoi(out.c_str()) == client->pid();
        }, 10000ms);
    }
    // Plays `signal` and waits until it and `tail` of silence have been fed.
    void play(const std::vector<float>& signal, std::chrono::milliseconds tail) {
        const auto at = feeder->play(signal);
        const auto end = at + static_cast<std::int64_t>(signal.size()) + tail.count() * 16;
        x11test::waitFor([&] { return feeder->framesWritten() >= end; }, std::chrono::milliseconds(180000));
    }

    XServer server;
    PulseDaemon pulse;
    std::unique_ptr<FifoFeeder> feeder;
    std::unique_ptr<TestClient> client;
};

// Empties the kernel's page cache, so that the next launch reads the program and its libraries from disk.
bool dropPageCache() {
    ::sync();
    std::ofstream control("/proc/sys/vm/drop_caches");
    control << "3\n";
    control.flush();
    return bool(control);
}

void startup() {
    Desktop desktop;
    platform::test::TemporaryFolder home("sprelio-bench");
    double seconds = 0;
    desktop.launch(home.path(), seconds)->stop();
    std::printf("%-34s %.0f ms\n", "start-up to ready, first launch", seconds * 1000);
    std::vector<double> warm;
    for (int i = 0; i < 5; ++i) {
        desktop.launch(home.path(), seconds)->stop();
        warm.push_back(seconds);
    }
    std::printf("%-34s median %.0f ms, min %.0f ms, max %.0f ms (5 launches)\n", "start-up to ready, later launches",
                median(warm) * 1000, *std::min_element(warm.begin(), warm.end()) * 1000,
                *std::max_element(warm.begin(), warm.end()) * 1000);
    std::vector<double> cold;
    for (int i = 0; i < 5 && dropPageCache(); ++i) {
        desktop.launch(home.path(), seconds)->stop();
        cold.push_back(seconds);
    }
    if (cold.empty()) {
        std::printf("%-34s not measured: dropping the page cache needs root\n", "start-up to ready, cold");
        return;
    }
    std::printf("%-34s median %.0f ms, min %.0f ms, max %.0f ms (%zu launches, page cache dropped before each)\n",
                "start-up to ready, cold", median(cold) * 1000, *std::min_element(cold.begin(), cold.end()) * 1000,
                *std::max_element(cold.begin(), cold.end()) * 1000, cold.size());
}

void idle() {
    Desktop desktop;
    platform::test::TemporaryFolder home("sprelio-bench");
    double seconds = 0;
    auto app = desktop.launch(home.path(), seconds);
    std::this_thread::sleep_for(2s); // the launch's own work settles
    measureUse(app->pid(), 60s, "idle for 60 s");
    app->stop();
}

void dictation() {
    Desktop desktop;
    platform::test::TemporaryFolder home("sprelio-bench");
    auto app = desktop.launchForDictation(home.path());
    // A minute of speech: the sentence again and again with a breath between.
    const auto sentence = apptest::festivalSentence(
        "Sprelio records the microphone while the key is held and types the words where the cursor is.");
    std::vector<float> minute;
    while (minute.size() < 60 * 16000) {
        minute.insert(minute.end(), sentence.begin(), sentence.end());
        minute.insert(minute.end(), 8000, 0.0f);
    }
    minute.resize(60 * 16000);
    desktop.server.run("xdotool keydown Alt_R");
    if (!app->waitForCount(kRecordingStarted, 1)) throw std::runtime_error("the recording did not start");
    const auto at = desktop.feeder->play(minute);
    std::thread player([&] {
        x11test::waitFor([&] { return desktop.feeder->framesWritten() >= at + 60 * 16000; }, 120000ms);
    });
    measureUse(app->pid(), 60s, "during a 60 s dictation");
    player.join();
    desktop.server.run("xdotool keyup Alt_R");
    const double released = now();
    if (!x11test::waitFor([&] { return desktop.client->textSize() > 0; }, 180000ms))
        throw std::runtime_error("no text arrived");
    x11test::waitFor([&] { return app->count("performPasting() - text character count") > 0; }, 10000ms);
    std::printf("%-34s %.1f s from the release to the text (%zu characters)\n", "transcription of the 60 s",
                now() - released, desktop.client->text().size());
    app->stop();
}

// The n-th held dictation of `utterance` on right Alt; the wall-clock time its text reached the application.
double dictateOnce(Desktop& desktop, SprelioApp& app, const std::vector<float>& utterance, std::size_t n) {
    const auto before = desktop.client->textSize();
    desktop.server.run("xdotool keydown Alt_R");
    if (!app.waitForCount(kRecordingStarted, n)) throw std::runtime_error("the recording did not start");
    desktop.play(utterance, 300ms);
    desktop.server.run("xdotool keyup Alt_R");
    if (!x11test::waitFor([&] { return desktop.client->textSize() > before; }, 60000ms))
        throw std::runtime_error("no text arrived");
    return now();
}

// The next dictation starts once the user's clipboard is back (the microphone stands still in between, so the
// feeder can't be the clock here).
void waitForClipboardBack(SprelioApp& app, std::size_t n) {
    app.waitForCount("restoreOriginalContent() - restoring originalContent", n, 10000ms);
}

void latency() {
    Desktop desktop;
    platform::test::TemporaryFolder home("sprelio-bench");
    auto app = desktop.launchForDictation(home.path());
    const auto utterance = apptest::festivalSentence(
        "Please send the quarterly report to the whole team before the meeting on Thursday afternoon.");
    std::printf("latency of a %.1f s utterance, release to text (median of 5):\n", utterance.size() / 16000.0);
    std::map<std::string, std::vector<double>> parts;
    for (std::size_t n = 1; n <= 5; ++n) {
        const double arrived = dictateOnce(desktop, *app, utterance, n);
        app->waitForCount(kAnswer, n, 10000ms);
        const std::string log = app->log();
        const auto up = logTime(log, kKeyUp, n), finished = logTime(log, kRecorderFinished, n),
                   sent = logTime(log, kRequestSent, n), answer = logTime(log, kAnswer, n);
        const auto engine = engineSeconds(log, n);
        if (!up || !finished || !sent || !answer || !engine) throw std::runtime_error("a log line is missing");
        parts["1 recorder stop"].push_back(*finished - *up);
        parts["2 upload (request out, answer in, less the engine)"].push_back(*answer - *finished - *engine);
        parts["3 engine (decode and recognise)"].push_back(*engine);
        parts["4 delivery (answer to text in the application)"].push_back(arrived - *answer);
        parts["total"].push_back(arrived - *up);
        waitForClipboardBack(*app, n);
    }
    for (const auto& [name, values] : parts) std::printf("  %-52s %7.1f ms\n", name.c_str(), median(values) * 1000);
    app->stop();
}

void ai() {
    server::test::ScriptedOpenAiService chat;
    chat.onChat([](const httplib::Request&, httplib::Response& response) {
        server::test::ScriptedOpenAiService::chatAnswer(response, "Please send the quarterly report to the team.");
    });
    Desktop desktop;
    platform::test::TemporaryFolder home("sprelio-bench");
    apptest::storeAiService(home.path(), chat.url(), "chat-test");
    auto app = desktop.launchForDictation(home.path(), md5Hex("improveWriting"));
    const auto utterance = apptest::festivalSentence("Please send the quarterly report to the whole team.");
    std::printf("a dictation with an AI item, the AI service on loopback (median of 5):\n");
    std::map<std::string, std::vector<double>> parts;
    for (std::size_t n = 1; n <= 5; ++n) {
        const double arrived = dictateOnce(desktop, *app, utterance, n);
        const std::string log = app->log();
        const auto up = logTime(log, kKeyUp, n);
        const auto completion = logTime(log, "AudioUploadManager.uploadRecording() - got COMPLETION event", n);
        if (!up || !completion) throw std::runtime_error("a log line is missing");
        parts["completion's arrival to the text in the application"].push_back(arrived - *completion);
        parts["key's release to the text (recording, transcript, AI step)"].push_back(arrived - *up);
        waitForClipboardBack(*app, n);
    }
    for (const auto& [name, values] : parts) std::printf("  %-60s %7.1f ms\n", name.c_str(), median(values) * 1000);
    app->stop();
}

void continuous() {
    Desktop desktop;
    platform::test::TemporaryFolder home("sprelio-bench");
    apptest::storeContinuousShortcut(home.path());
    double seconds = 0;
    auto app = desktop.launch(home.path(), seconds);
    desktop.bringClientForward();
    const auto tap = [&](std::size_t n) {
        desktop.server.run("xdotool keydown Alt_R");
        app->waitForCount("KeyboardShortcutManager.executeActionForKeyCode() - keyCode: 61, isKeyDown: true", n);
        desktop.server.run("xdotool keyup Alt_R");
    };
    tap(1);
    if (!app->waitForCount(apptest::kContinuousCalibrated, 1, 10000ms))
        throw std::runtime_error("continuous dictation did not calibrate");
    // One line per recorder that started.
    const std::size_t recordersBefore = app->count(kRecordingStarted);
    measureUse(app->pid(), 60s, "continuous, 60 s of silence");
    const std::size_t cycled = app->count(kRecordingStarted) - recordersBefore;
    std::size_t files = 0;
    for (const auto& entry : fs::recursive_directory_iterator(home.path() / ".local/share/Sprelio/recordings"))
        files += entry.path().extension() == ".caf" ? 1 : 0;
    std::printf("  %zu recorders started and stopped in the minute; %zu recording files on disk\n", cycled, files);

    const auto sentence = apptest::festivalSentence("Please send the quarterly report to the whole team.");
    std::vector<double> afterPause;
    for (std::size_t n = 1; n <= 5; ++n) {
        const auto before = desktop.client->textSize();
        const std::size_t stops = app->count(apptest::kContinuousPieceStopped);
        desktop.feeder->play(sentence);
        if (!x11test::waitFor([&] { return desktop.client->textSize() > before; }, 60000ms))
            throw std::runtime_error("a piece's text did not arrive");
        const double arrived = now();
        const auto stopped = logTime(app->log(), apptest::kContinuousPieceStopped, stops + 1);
        if (!stopped) throw std::runtime_error("the piece's stop is not in the log");
        afterPause.push_back(arrived - *stopped);
        // The next sentence after the rate limit between uploads (2.85 s with the defaults) has passed.
        std::this_thread::sleep_for(3s);
    }
    std::printf("continuous, a %.1f s sentence per piece (median of 5):\n", sentence.size() / 16000.0);
    std::printf("  %-60s %7.1f ms (min %.1f, max %.1f)\n", "end of the closing silence to the text in the application",
                median(afterPause) * 1000, *std::min_element(afterPause.begin(), afterPause.end()) * 1000,
                *std::max_element(afterPause.begin(), afterPause.end()) * 1000);
    tap(2);
    app->stop();
}

} // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::vector<std::string> wanted(argv + 1, argv + argc);
    if (wanted.empty()) wanted = {"startup", "idle", "dictation", "latency", "ai", "continuous"};
    try {
        for (const auto& part : wanted) {
            if (part == "startup") startup();
            else if (part == "idle") idle();
            else if (part == "dictation") dictation();
            else if (part == "latency") latency();
            else if (part == "ai") ai();
            else if (part == "continuous") continuous();
            else {
                std::cerr << "unknown part " << part << " (startup, idle, dictation, latency, ai, continuous)\n";
                return 2;
            }
        }
    } catch (const std::exception& e) {
        std::cerr << "bench_app: " << e.what() << "\n";
        return 1;
    }
    return 0;
}

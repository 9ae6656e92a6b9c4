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
// latency    5, 30 and 60-second utterances with live decoding off and on, side by side: from the key's release to
//            the text in the application, split into recorder stop, upload, engine wait (recognition, or with live
//            decoding the wait for the stream's last words) and delivery; and the CPU time of the process
//            (application and embedded server) during the 60-second dictation and after its release.
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

// The engine's own time from its log line ("recognised in 697 ms"), in seconds. An upload answered from its live
// stream counts the wait for the stream's last words instead ("answered from the live stream, matched in 3 ms");
// `live` tells which it was.
std::optional<double> engineSeconds(const std::string& log, std::size_t nth, bool* live = nullptr) {
    std::istringstream in(log);
    std::size_t seen = 0;
    static const std::regex recognised(R"(decoded in ([0-9]+) ms, recognised in ([0-9]+) ms)");
    static const std::regex matched(R"(answered from the live stream, matched in ([0-9]+) ms)");
    for (std::string line; std::getline(in, line);) {
        if (line.find(kEngine) == std::string::npos) continue;
        std::smatch m;
        if (std::regex_search(line, m, recognised)) {
            if (++seen < nth) continue;
            if (live) *live = false;
            return (std::stod(m[1]) + std::stod(m[2])) / 1000.0;
        }
        if (std::regex_search(line, m, matched)) {
            if (++seen < nth) continue;
            if (live) *live = true;
            return std::stod(m[1]) / 1000.0;
        }
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

// CPU time of the whole process in seconds, the threads that have ended included (the kernel's account in clock
// ticks): a dictation's streams and transfers run on threads that end with them.
double processCpuSeconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(stat, text);
    const auto afterName = text.rfind(')');
    if (afterName == std::string::npos) return 0;
    std::istringstream fields(text.substr(afterName + 2));
    std::string field;
    double utime = 0, stime = 0;
    // State is field 3; utime and stime are fields 14 and 15.
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14) utime = std::stod(field);
        if (i == 15) stime = std::stod(field);
    }
    return (utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
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
    std::unique_ptr<SprelioApp> launch(const fs::path& home, double& seconds,
                                       const std::vector<std::string>& environment = {}) {
        // The log of a home is kept from one launch to the next: this launch's line is the next one.
        const std::size_t launches =
            SprelioApp::countIn(x11test::readFile(home / ".local/share/Sprelio/logs/app_log.txt"), kReady);
        const double started = now();
        auto app = std::make_unique<SprelioApp>(server, pulse, home, false, environment);
        if (!app->waitForCount(kReady, launches + 1, 60000ms))
            throw std::runtime_error("sprelio did not start: " + app->output());
        seconds = *logTime(app->log(), kReady, launches + 1) - started;
        return app;
    }
    // Sprelio with a held right Alt, our application in front: ready to dictate.
    std::unique_ptr<SprelioApp> launchForDictation(const fs::path& home, std::optional<std::string> aiItemId = {},
                                                   const std::vector<std::string>& environment = {}) {
        apptest::storeRightAltShortcut(home, true, std::move(aiItemId));
        double seconds = 0;
        auto app = launch(home, seconds, environment);
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

// Speech of `seconds` exactly: festival's sentences one after the other with a breath between.
std::vector<float> speechOf(int seconds) {
    static const std::vector<std::string> sentences = {
        "Please send the quarterly report to the whole team before the meeting on Thursday afternoon.",
        "The weather today is sunny with a light wind from the west.",
        "We will meet at the office tomorrow morning at nine o clock.",
        "After the meeting we can have lunch at the small restaurant near the river.",
        "The train to the city leaves every hour from the main station."};
    std::vector<float> speech;
    for (std::size_t i = 0; speech.size() < static_cast<std::size_t>(seconds) * 16000; ++i) {
        const auto sentence = apptest::festivalSentence(sentences[i % sentences.size()]);
        if (sentence.empty()) throw std::runtime_error("festival could not speak");
        speech.insert(speech.end(), sentence.begin(), sentence.end());
        speech.insert(speech.end(), 6400, 0.0f);
    }
    speech.resize(static_cast<std::size_t>(seconds) * 16000);
    return speech;
}

// Release to text for 5, 30 and 60 s utterances with live decoding off and on, each on its own launch of the
// application (the embedded server's option is read at start); the 60 s dictation's CPU use is measured too.
void latency() {
    struct Length {
        int seconds;
        std::size_t repeats;
        std::vector<float> speech;
    };
    std::vector<Length> lengths = {{5, 3, speechOf(5)}, {30, 2, speechOf(30)}, {60, 1, speechOf(60)}};
    struct Mode {
        const char* name;
        std::vector<std::string> environment;
    };
    const std::vector<Mode> modes = {{"off", {"SPRELIO_LIVE_DECODING=off"}}, {"on", {}}};
    // parts[length][part][mode]
    std::map<int, std::map<std::string, std::map<std::string, std::vector<double>>>> parts;
    std::map<std::string, std::string> cpu;
    std::map<std::string, std::size_t> answeredLive;
    for (const auto& mode : modes) {
        Desktop desktop;
        platform::test::TemporaryFolder home("sprelio-bench");
        auto app = desktop.launchForDictation(home.path(), std::nullopt, mode.environment);
        std::size_t n = 0;
        for (const auto& length : lengths) {
            for (std::size_t r = 0; r < length.repeats; ++r) {
                ++n;
                const auto before = desktop.client->textSize();
                desktop.server.run("xdotool keydown Alt_R");
                if (!app->waitForCount(kRecordingStarted, n)) throw std::runtime_error("the recording did not start");
                if (length.seconds == 60) {
                    // The whole process: the application and its embedded server, which runs on its threads.
                    const auto at = desktop.feeder->play(length.speech);
                    const auto end = at + static_cast<std::int64_t>(length.speech.size()) + 300 * 16;
                    const double start = processCpuSeconds(app->pid());
                    const double began = now();
                    x11test::waitFor([&] { return desktop.feeder->framesWritten() >= end; }, 180000ms);
                    const double stop = processCpuSeconds(app->pid());
                    const double wall = now() - began;
                    char line[160];
                    std::snprintf(line, sizeof line, "CPU %.0f ms in %.0f s (%.1f %% of one core)",
                                  (stop - start) * 1000, wall, 100.0 * (stop - start) / wall);
                    cpu[mode.name] = line;
                } else {
                    desktop.play(length.speech, 300ms);
                }
                const double cpuAtRelease = processCpuSeconds(app->pid());
                desktop.server.run("xdotool keyup Alt_R");
                if (!x11test::waitFor([&] { return desktop.client->textSize() > before; }, 180000ms))
                    throw std::runtime_error("no text arrived");
                const double arrived = now();
                if (length.seconds == 60) {
                    char line[120];
                    std::snprintf(line, sizeof line, "; from the release to the text %.0f ms",
                                  (processCpuSeconds(app->pid()) - cpuAtRelease) * 1000);
                    cpu[mode.name] += line;
                }
                app->waitForCount(kAnswer, n, 10000ms);
                const std::string log = app->log();
                const auto up = logTime(log, kKeyUp, n), finished = logTime(log, kRecorderFinished, n),
                           answer = logTime(log, kAnswer, n);
                bool live = false;
                const auto engine = engineSeconds(log, n, &live);
                if (!up || !finished || !answer || !engine) throw std::runtime_error("a log line is missing");
                answeredLive[mode.name] += live ? 1 : 0;
                auto& row = parts[length.seconds];
                row["1 recorder stop"][mode.name].push_back(*finished - *up);
                row["2 upload (request out, answer in, less the engine)"][mode.name].push_back(*answer - *finished -
                                                                                               *engine);
                row["3 engine wait (recognise, or the live stream's end)"][mode.name].push_back(*engine);
                row["4 delivery (answer to text in the application)"][mode.name].push_back(arrived - *answer);
                row["total"][mode.name].push_back(arrived - *up);
                waitForClipboardBack(*app, n);
            }
        }
        app->stop();
    }
    std::printf("release to text, live decoding off and on (median of the repeats; ms):\n");
    for (const auto& length : lengths) {
        std::printf("  %d s utterance (%zu dictation%s each)%*s %9s %9s\n", length.seconds, length.repeats,
                    length.repeats == 1 ? "" : "s", length.repeats == 1 ? 23 : 22, "", "off", "on");
        for (const auto& [name, byMode] : parts[length.seconds]) {
            const auto find = [&](const char* mode) {
                auto found = byMode.find(mode);
                return found == byMode.end() ? 0.0 : median(found->second) * 1000;
            };
            std::printf("    %-52s %9.1f %9.1f\n", name.c_str(), find("off"), find("on"));
        }
    }
    for (const auto& mode : modes)
        std::printf("  answered from the live stream with it %-4s %zu of %zu\n", mode.name, answeredLive[mode.name],
                    lengths[0].repeats + lengths[1].repeats + lengths[2].repeats);
    for (const auto& mode : modes)
        std::printf("  60 s dictation, live decoding %-4s (application and embedded server): %s\n", mode.name,
                    cpu[mode.name].c_str());
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

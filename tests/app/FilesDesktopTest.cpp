// The Files tab through the real application under Xvfb with the tests' PulseAudio, reached from a terminal:
// `sprelio files add` with a ten-minute recording of festival's speech and a video whose sound track is speech,
// with progress lines and a text that matches; bad input, each item with its message while the others go on; a
// server killed mid-stream; `sprelio files record` of the microphone and the computer's sound at once.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "DesktopTestFixture.h"
#include "helpers/WordAccuracy.h"
#include "store/JsonFileSettingsStore.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using audio_test::runCommand;
using audio_test::shellQuoted;

// Ten sentences of about three seconds each; the long recording repeats them, with a pause after each.
const std::vector<std::string> kSentences = {
    "Please call me tomorrow morning at the office.",
    "The weather is nice today.",
    "We will meet again next week.",
    "I would like a cup of coffee.",
    "The children are playing in the garden.",
    "She reads a book every evening.",
    "Turn left at the next corner.",
    "My brother works at the bank.",
    "The train leaves at seven o'clock.",
    "Thank you very much for your help.",
};

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

// Festival's speech of the sentences, each followed by a second of silence, as a 16 kHz WAV file.
fs::path speechWav(const fs::path& dir, const std::string& name, const std::vector<std::string>& sentences) {
    std::string inputs, filter;
    for (std::size_t i = 0; i < sentences.size(); ++i) {
        const auto text = dir / (name + std::to_string(i) + ".txt");
        std::ofstream(text) << sentences[i] << "\n";
        const auto wav = dir / (name + std::to_string(i) + ".wav");
        if (runCommand("text2wave -eval '(voice_cmu_us_slt_arctic_hts)' -o " + shellQuoted(wav.string()) + " " +
                       shellQuoted(text.string()) + " >/dev/null 2>&1")
                .exitCode != 0)
            return {};
        inputs += " -i " + shellQuoted(wav.string());
        filter += "[" + std::to_string(i) + ":a]aresample=16000,apad=pad_dur=1[a" + std::to_string(i) + "];";
    }
    for (std::size_t i = 0; i < sentences.size(); ++i) filter += "[a" + std::to_string(i) + "]";
    filter += "concat=n=" + std::to_string(sentences.size()) + ":v=0:a=1[out]";
    const auto out = dir / (name + ".wav");
    if (runCommand("ffmpeg -nostdin -loglevel error -y" + inputs + " -filter_complex " + shellQuoted(filter) +
                   " -map '[out]' -ac 1 -ar 16000 " + shellQuoted(out.string()))
            .exitCode != 0)
        return {};
    return out;
}

class FilesDesktop : public apptest::DesktopFixture {
protected:
    FilesDesktop() : DesktopFixture("sprelio-files-e2e") {}
    void TearDown() override {
        DesktopFixture::TearDown();
        if (backend > 0) {
            ::kill(backend, SIGKILL);
            ::waitpid(backend, nullptr, 0);
        }
    }
    std::string failureLogName() const override {
        return std::string("files-") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    }

    // `sprelio ARGS` from a terminal of the same session; its output goes to files that the test can read while
    // it runs.
    std::string commandLine(const std::vector<std::string>& args, const std::string& tag) const {
        std::string arguments;
        for (const auto& arg : args) arguments += (arguments.empty() ? "" : " ") + shellQuoted(arg);
        return apptest::terminalCommand(home.path(), server.name(), arguments) + " >" +
               shellQuoted((home.path() / (tag + ".out")).string()) + " 2>" +
               shellQuoted((home.path() / (tag + ".err")).string());
    }
    Result run(const std::vector<std::string>& args, const std::string& tag = "cli") {
        const int raw = std::system(commandLine(args, tag).c_str());
        return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, x11test::readFile(home.path() / (tag + ".out")),
                x11test::readFile(home.path() / (tag + ".err"))};
    }

    // The text `files add` printed for one file, when it printed several.
    static std::string textOf(const std::string& out, const fs::path& file) {
        const std::string head = "== " + file.string() + " ==\n";
        const auto at = out.find(head);
        if (at == std::string::npos) return {};
        const auto start = at + head.size();
        const auto end = out.find("\n== ", start);
        return out.substr(start, end == std::string::npos ? std::string::npos : end - start);
    }

    platform::test::TemporaryFolder media{"sprelio-files-media"};
    pid_t backend = -1;
};

TEST_F(FilesDesktop, ATenMinuteRecordingAndAVideoBecomeTextWithProgress) {
    // Ten minutes: the ten sentences (about 30 s with their pauses) twenty times over.
    const auto round = speechWav(media.path(), "round", kSentences);
    ASSERT_FALSE(round.empty()) << "festival's text2wave or ffmpeg could not make speech";
    const auto longFile = media.path() / "lecture.wav";
    ASSERT_EQ(runCommand("ffmpeg -nostdin -loglevel error -y -stream_loop 19 -i " + shellQuoted(round.string()) +
                         " -ac 1 -ar 16000 " + shellQuoted(longFile.string()))
                  .exitCode,
              0);
    std::string longReference;
    for (int i = 0; i < 20; ++i)
        for (const auto& sentence : kSentences) longReference += sentence + " ";
    const double seconds = std::stod(runCommand("ffprobe -v error -show_entries format=duration -of csv=p=0 " +
                                                shellQuoted(longFile.string())).out);
    ASSERT_GE(seconds, 570.0);
    ASSERT_LE(seconds, 660.0);
    // A video: a moving test picture with speech in its sound track.
    const std::vector<std::string> videoSentences(kSentences.begin(), kSentences.begin() + 4);
    const auto videoSpeech = speechWav(media.path(), "video", videoSentences);
    ASSERT_FALSE(videoSpeech.empty());
    const auto video = media.path() / "clip.mp4";
    ASSERT_EQ(runCommand("ffmpeg -nostdin -loglevel error -y -f lavfi -i testsrc=size=320x240:rate=25 -i " +
                         shellQuoted(videoSpeech.string()) +
                         " -shortest -c:v libx264 -pix_fmt yuv420p -c:a aac -b:a 64k " + shellQuoted(video.string()))
                  .exitCode,
              0);
    std::string videoReference;
    for (const auto& sentence : videoSentences) videoReference += sentence + " ";

    launch();
    const auto before = std::make_pair(x11test::readFile(longFile), x11test::readFile(video));
    // While it runs: a screenshot once the first progress line of the long file has come.
    std::thread watcher([&] {
        if (app->waitForCount("AudioUploadManager.transcribeFile() - Transcription progress:", 2, 120000ms))
            screenshot("files-tab-in-progress");
    });
    auto r = run({"files", "add", longFile.string(), video.string()});
    watcher.join();
    screenshot("files-tab-done");
    ASSERT_EQ(r.status, 0) << r.err << "\n" << app->log().substr(0, 4000);

    // Progress lines for each file: the upload, then the server's progress with the seconds done.
    for (const auto& name : {std::string("lecture.wav"), std::string("clip.mp4")}) {
        EXPECT_NE(r.err.find(name + ": Uploading file... (100%)"), std::string::npos) << r.err;
        EXPECT_NE(r.err.find(name + ": Transcribing file..."), std::string::npos) << r.err;
    }
    const std::regex progressLine(R"(lecture\.wav:   .* \[(\d+) s\])");
    std::size_t progressLines = 0;
    long lastSeconds = -1;
    std::istringstream lines(r.err);
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (!std::regex_match(line, match, progressLine)) continue;
        ++progressLines;
        const long at = std::stol(match[1]);
        EXPECT_GE(at, lastSeconds) << "progress goes forward";
        lastSeconds = at;
    }
    EXPECT_GE(progressLines, 10u) << "a ten-minute file shows its progress as it goes:\n" << r.err;
    EXPECT_GE(lastSeconds, 500);

    const double longAccuracy = testhelpers::wordAccuracy(longReference, textOf(r.out, longFile));
    const double videoAccuracy = testhelpers::wordAccuracy(videoReference, textOf(r.out, video));
    std::cout << "[ measured ] word accuracy: 10-minute recording " << longAccuracy << ", video " << videoAccuracy
              << "\n";
    EXPECT_GE(longAccuracy, 0.9) << textOf(r.out, longFile).substr(0, 2000);
    EXPECT_GE(videoAccuracy, 0.9) << textOf(r.out, video);
    // The user's files are as they were.
    EXPECT_EQ(x11test::readFile(longFile), before.first);
    EXPECT_EQ(x11test::readFile(video), before.second);
    // Two history entries of level success.
    EXPECT_EQ(app->count("log() - creating LogEntry with level: 4"), 2u);
}

TEST_F(FilesDesktop, BadInputGivesEachItemItsMessageAndTheOthersGoOn) {
    const auto good = speechWav(media.path(), "good", {kSentences[1]});
    ASSERT_FALSE(good.empty());
    const auto notes = media.path() / "notes.txt";
    std::ofstream(notes) << "a shopping list";
    const auto fake = media.path() / "song.mp3";
    std::ofstream(fake) << "this is text wearing an mp3 name";
    const auto empty = media.path() / "empty.wav";
    std::ofstream{empty};
    const auto missing = media.path() / "gone" / "talk.ogg";
    launch();
    auto r = run({"files", "add", notes.string(), fake.string(), empty.string(), missing.string(), good.string()});
    screenshot("files-tab-bad-input");
    EXPECT_EQ(r.status, 1) << "some items failed";
    struct Row {
        fs::path file;
        std::string message; // a part of what the user reads
    };
    const std::vector<Row> rows = {{notes, "Only audio and video files are supported."},
                                   {fake, "song.mp3: "},
                                   {empty, "The file is empty."},
                                   {missing, "The file does not exist."}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.file.string());
        const std::string prefix = "sprelio: files add: " + row.file.string() + ": ";
        const auto at = r.err.find(prefix);
        ASSERT_NE(at, std::string::npos) << r.err;
        const std::string line = r.err.substr(at, r.err.find('\n', at) - at);
        EXPECT_GT(line.size(), prefix.size() + 10) << "a message, not a bare failure: " << line;
        if (row.message.find(": ") == std::string::npos) {
            EXPECT_NE(line.find(row.message), std::string::npos) << line;
        }
    }
    // The good file after them all is transcribed.
    EXPECT_GE(testhelpers::wordAccuracy(kSentences[1], textOf(r.out, good)), 0.8) << r.out;
    // Nothing of the user's was removed or changed.
    EXPECT_EQ(x11test::readFile(notes), "a shopping list");
    EXPECT_EQ(x11test::readFile(fake), "this is text wearing an mp3 name");
    EXPECT_TRUE(fs::exists(empty));
    EXPECT_TRUE(app->running()) << "no crash";
}

TEST_F(FilesDesktop, AServerKilledMidStreamFailsThatItemAndTheNextOneSaysSoToo) {
    // A backend of its own, in a process the test can kill while it streams.
    platform::test::TemporaryFolder data{"sprelio-files-server"};
    const auto log = data.path() / "server.log";
    backend = ::fork();
    ASSERT_GE(backend, 0);
    if (backend == 0) {
        std::FILE* out = std::freopen(log.c_str(), "w", stderr);
        (void)out;
        ::execl(SPRELIO_SERVER_BINARY, SPRELIO_SERVER_BINARY, "--port", "0", "--data", data.path().c_str(),
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    std::smatch match;
    const std::regex listening("listening on 127\\.0\\.0\\.1:([0-9]+)");
    std::string serverLog;
    ASSERT_TRUE(x11test::waitFor([&] {
        serverLog = x11test::readFile(log);
        return std::regex_search(serverLog, match, listening);
    }, 20000ms)) << serverLog;
    std::string token = x11test::readFile(data.path() / "local-token");
    ASSERT_FALSE(token.empty());
    token.pop_back();
    {
        store::JsonFileSettingsStore settings(home.path() / ".config/Sprelio/settings.json");
        settings.set("apiBaseURL", "http://127.0.0.1:" + match[1].str());
        settings.set("token", token);
    }
    const auto round = speechWav(media.path(), "round", kSentences);
    ASSERT_FALSE(round.empty());
    const auto longFile = media.path() / "long.wav";
    ASSERT_EQ(runCommand("ffmpeg -nostdin -loglevel error -y -stream_loop 4 -i " + shellQuoted(round.string()) + " " +
                         shellQuoted(longFile.string()))
                  .exitCode,
              0);
    const auto second = media.path() / "second.wav";
    fs::copy_file(round, second);
    launch();

    const std::string command = commandLine({"files", "add", longFile.string(), second.string()}, "killed");
    std::thread cli([&] { std::system(command.c_str()); });
    const bool streaming =
        app->waitForCount("AudioUploadManager.transcribeFile() - Transcription progress:", 1, 60000ms);
    ::kill(backend, SIGKILL);
    ::waitpid(backend, nullptr, 0);
    backend = -1;
    cli.join();
    ASSERT_TRUE(streaming) << app->log();
    const std::string err = x11test::readFile(home.path() / "killed.err");
    for (const auto& file : {longFile, second}) {
        const std::string prefix = "sprelio: files add: " + file.string() + ": ";
        const auto at = err.find(prefix);
        ASSERT_NE(at, std::string::npos) << err;
        EXPECT_GT(err.find('\n', at) - at, prefix.size() + 10) << err;
    }
    EXPECT_TRUE(fs::exists(longFile) && fs::exists(second));
    EXPECT_TRUE(app->running());
}

TEST_F(FilesDesktop, RecordingTheMicrophoneAndTheComputerSoundWritesTwoFilesEachWithItsSpeech) {
    const std::string speakerSentence = kSentences[0];
    const std::string micSentence = kSentences[1];
    const auto speaker = speechWav(media.path(), "speaker", {speakerSentence});
    const auto mic = apptest::festivalSentence(micSentence);
    ASSERT_FALSE(speaker.empty() || mic.empty());
    launch();
    const std::string command = commandLine({"files", "record", "--mode", "both", "--seconds", "9"}, "record");
    std::thread cli([&] { std::system(command.c_str()); });
    ASSERT_TRUE(app->waitForCount("ScreenCaptureKitManager.startRecording() - Started", 1, 20000ms)) << app->log();
    const auto played = runCommand("PULSE_SERVER=" + shellQuoted(pulse.serverAddress()) + " paplay -d out " +
                                   shellQuoted(speaker.string()) + " 2>&1");
    EXPECT_EQ(played.exitCode, 0) << played.out;
    feeder->play(mic);
    screenshot("files-tab-recording");
    cli.join();
    const std::string out = x11test::readFile(home.path() / "record.out");
    const std::string err = x11test::readFile(home.path() / "record.err");
    std::vector<fs::path> files;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) files.emplace_back(line);
    ASSERT_EQ(files.size(), 2u) << out << err;
    EXPECT_TRUE(files[0].string().ends_with("_mic.caf")) << files[0];
    EXPECT_TRUE(files[1].string().ends_with("_sys.caf")) << files[1];
    for (const auto& file : files) EXPECT_EQ(audio_test::ffmpegDecode(file).exitCode, 0) << "FFmpeg reads " << file;
    // The tab transcribes both, one after the other, into the history.
    ASSERT_TRUE(app->waitForCount("log() - creating LogEntry with level: 4", 2, 60000ms)) << app->log();
    screenshot("files-tab-recorded");
    const auto heard = [](const fs::path& file) {
        platform::test::TemporaryFolder other{"sprelio-files-heard"};
        return runCommand("env -i PATH=/usr/bin:/bin HOME=" + shellQuoted(other.path().string()) + " " +
                          shellQuoted(SPRELIO_BINARY) + " transcribe " + shellQuoted(file.string()) + " 2>/dev/null")
            .out;
    };
    const std::string micText = heard(files[0]);
    const std::string sysText = heard(files[1]);
    std::cout << "[ measured ] recorded both: _mic.caf \"" << micText << "\", _sys.caf \"" << sysText << "\"\n";
    EXPECT_GE(testhelpers::wordAccuracy(micSentence, micText), 0.8) << micText;
    EXPECT_GE(testhelpers::wordAccuracy(speakerSentence, sysText), 0.8) << sysText;
}

TEST_F(FilesDesktop, WithoutARunningApplicationTheCommandsSaySoAndFail) {
    for (const auto& args : {std::vector<std::string>{"files", "add", "x.wav"},
                             std::vector<std::string>{"files", "record", "--mode", "both", "--seconds", "2"}}) {
        auto r = run(args);
        EXPECT_EQ(r.status, 3) << r.err;
        EXPECT_NE(r.err.find("Sprelio is not running"), std::string::npos) << r.err;
    }
    auto usage = run({"files", "record", "--mode", "loud", "--seconds", "2"});
    EXPECT_NE(usage.status, 0);
}

} // namespace
} // namespace sprelio

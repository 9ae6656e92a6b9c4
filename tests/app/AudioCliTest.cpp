// `sprelio devices` and `sprelio record` as a user runs them, against the tests' own PulseAudio daemon whose
// microphone is fed a tone: the listing, and a recording that FFmpeg reads and that lasts what was asked.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <regex>
#include <sstream>

#include "CliTestSupport.h"
#include "audio/PulseDaemon.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using sprelio::audio_test::FifoFeeder;
using sprelio::audio_test::PulseDaemon;

std::string trimmed(std::string text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
    return text;
}

std::vector<float> tone(double seconds, double amplitude = 0.5) {
    std::vector<float> out(std::size_t(16000 * seconds));
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = float(amplitude * std::sin(2 * M_PI * 440.0 * double(i) / 16000));
    return out;
}

double rms(const std::vector<float>& x, std::size_t from, std::size_t to) {
    double sum = 0;
    for (std::size_t i = from; i < to; ++i) sum += double(x[i]) * x[i];
    return to > from ? std::sqrt(sum / double(to - from)) : 0;
}

class AudioCli : public clitest::CliFixture {
protected:
    void SetUp() override {
        CliFixture::SetUp();
        ASSERT_NO_THROW(daemon.start());
        environment.emplace_back("PULSE_SERVER", daemon.serverAddress());
    }
    void TearDown() override {
        // The daemon goes first: a feeder blocked on a FIFO that nobody reads any more is freed by its end.
        daemon.kill();
        feeder.reset();
        listener.reset();
        CliFixture::TearDown();
    }

    // The index of a source, as the server numbers it.
    std::string sourceIndex(const std::string& name) {
        std::istringstream lines(daemon.pactl("list short sources").out);
        for (std::string line; std::getline(lines, line);) {
            std::istringstream fields(line);
            std::string index, sourceName;
            fields >> index >> sourceName;
            if (sourceName == name) return index;
        }
        return {};
    }

    // The microphone gets a tone. A pipe source reads its FIFO only while some stream takes its audio, so a second
    // listener keeps it running in real time, as a microphone's clock runs; without it the tone would back up in
    // the FIFO and reach the recording faster than real time.
    void feedTone(double seconds) {
        listener = std::make_unique<clitest::BackgroundRun>(
            "env PULSE_SERVER=" + clitest::quote(daemon.serverAddress()) + " parec --device=mic --raw >/dev/null 2>" +
                clitest::quote((root_ / "parec.err").string()),
            root_ / "parec.out", root_ / "parec.err");
        ASSERT_TRUE(listener->started());
        ASSERT_TRUE(clitest::waitFor([&] { return !trimmed(daemon.pactl("list short source-outputs").out).empty(); },
                                     10s))
            << listener->err();
        feeder = std::make_unique<FifoFeeder>(daemon.fifo());
        feeder->play(tone(seconds));
    }

    PulseDaemon daemon;
    std::unique_ptr<clitest::BackgroundRun> listener;
    std::unique_ptr<FifoFeeder> feeder;
};

TEST_F(AudioCli, DevicesListsEachMicrophoneWithItsTransportAndMarksTheDefault) {
    const auto loaded = daemon.pactl("load-module module-pipe-source source_name=builtin file=" +
                                     (root_ / "builtin.fifo").string() +
                                     " \"source_properties=\\\"device.description='Built-in Mic' "
                                     "device.form_factor=internal\\\"\"");
    ASSERT_EQ(loaded.exitCode, 0) << loaded.out;
    const std::string mic = sourceIndex("mic");
    const std::string builtin = sourceIndex("builtin");
    ASSERT_FALSE(mic.empty());
    ASSERT_FALSE(builtin.empty());

    auto listed = run({"devices"});
    ASSERT_EQ(listed.status, 0) << listed.err;
    EXPECT_EQ(listed.out, "* " + mic + "\tVirtual\tTestMic\n" + "  " + builtin + "\tBuilt-in\tBuilt-in Mic\n")
        << "the null sink's monitor is no microphone and is not listed";
    EXPECT_TRUE(listed.err.empty()) << listed.err;

    // The default follows the server's, whoever changed it.
    ASSERT_EQ(daemon.pactl("set-default-source builtin").exitCode, 0);
    listed = run({"devices"});
    ASSERT_EQ(listed.status, 0) << listed.err;
    EXPECT_EQ(listed.out, "  " + mic + "\tVirtual\tTestMic\n" + "* " + builtin + "\tBuilt-in\tBuilt-in Mic\n");
    EXPECT_EQ(trimmed(daemon.pactl("get-default-source").out), "builtin") << "listing changes nothing";

    auto extra = run({"devices", "--all"});
    EXPECT_EQ(extra.status, 2);
    EXPECT_EQ(extra.err, "sprelio: devices: takes no arguments\n");
}

TEST_F(AudioCli, RecordWritesAnOpusFileOfTheAskedLengthThatFFmpegReads) {
    feedTone(30);
    const fs::path output = root_ / "take one.caf";
    const auto started = std::chrono::steady_clock::now();
    auto recorded = run({"record", "--seconds", "2", "--output", output.string()});
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    ASSERT_EQ(recorded.status, 0) << recorded.err << "\n" << clitest::readFile(logFile());
    EXPECT_EQ(recorded.out, output.string() + "\n");
    EXPECT_TRUE(recorded.err.empty()) << recorded.err;
    ASSERT_TRUE(fs::exists(output));

    const auto probe = sprelio::audio_test::runCommand(
        "ffprobe -v error -show_entries stream=codec_name,channels -of default=noprint_wrappers=1 " +
        clitest::quote(output.string()));
    EXPECT_EQ(probe.exitCode, 0);
    EXPECT_EQ(probe.out, "codec_name=opus\nchannels=1\n");

    const auto decoded = sprelio::audio_test::ffmpegDecode(output);
    ASSERT_EQ(decoded.exitCode, 0);
    const double seconds = double(decoded.samples.size()) / 16000;
    // The tone, not silence: a sine of amplitude 0.5 has an RMS of 0.354.
    const double level = rms(decoded.samples, decoded.samples.size() / 4, decoded.samples.size() * 3 / 4);
    std::printf("[ measured ] record --seconds 2: %.3f s in the file, RMS %.3f, %.2f s for the whole command\n",
                seconds, level, wall);
    EXPECT_NEAR(seconds, 2.0, 0.25);
    EXPECT_NEAR(level, 0.354, 0.05);

    // The log tells the recording's story, from start to its successful end.
    const std::string log = clitest::readFile(logFile());
    EXPECT_NE(log.find("++++ start recording with AVAudioRecorder ++++"), std::string::npos);
    EXPECT_NE(log.find("RecordingAudio.audioRecorderDidFinishRecording() - success: true"), std::string::npos);
}

TEST_F(AudioCli, RecordWithoutOutputGoesToTodaysRecordingsFolder) {
    feedTone(30);
    auto recorded = run({"record", "--seconds", "1"});
    ASSERT_EQ(recorded.status, 0) << recorded.err << "\n" << clitest::readFile(logFile());
    const std::string path = trimmed(recorded.out);
    const std::string folder = (root_ / ".local/share/Sprelio/recordings").string();
    EXPECT_EQ(path.rfind(folder + "/", 0), 0u) << path;
    const std::regex dated(R"(/(\d{4})/(\d{2})/(\d{2})/rec_(\d{4})(\d{2})(\d{2})-\d{6}-\d{3}\.caf)");
    const std::string dayAndName = path.substr(folder.size());
    std::smatch m;
    ASSERT_TRUE(std::regex_match(dayAndName, m, dated)) << path;
    EXPECT_EQ(m[1].str() + m[2].str() + m[3].str(), m[4].str() + m[5].str() + m[6].str());
    const auto decoded = sprelio::audio_test::ffmpegDecode(path);
    ASSERT_EQ(decoded.exitCode, 0);
    EXPECT_NEAR(double(decoded.samples.size()) / 16000, 1.0, 0.25);
}

TEST_F(AudioCli, WithoutTheSoundServerBothCommandsFailWithAClearError) {
    daemon.kill();
    environment.clear();
    environment.emplace_back("PULSE_SERVER", "unix:" + (root_ / "no-server").string());

    auto listed = run({"devices"});
    EXPECT_EQ(listed.status, 1);
    EXPECT_EQ(listed.err, "sprelio: devices: the sound server (PulseAudio) is not reachable\n");
    EXPECT_TRUE(listed.out.empty());

    const fs::path output = root_ / "nothing.caf";
    const auto started = std::chrono::steady_clock::now();
    auto recorded = run({"record", "--seconds", "30", "--output", output.string()});
    EXPECT_EQ(recorded.status, 1);
    EXPECT_EQ(recorded.err, "sprelio: record: the sound server (PulseAudio) is not reachable\n");
    EXPECT_TRUE(recorded.out.empty());
    EXPECT_FALSE(fs::exists(output)) << "no empty recording is left behind";
    // Told before the recording's length has passed, not after waiting it out.
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
}

TEST_F(AudioCli, BadArgumentsAreRefusedBeforeAnythingIsRecorded) {
    for (const auto& args : std::vector<std::vector<std::string>>{{"record"},
                                                                  {"record", "--seconds", "soon"},
                                                                  {"record", "--seconds", "0"},
                                                                  {"record", "--seconds", "2", "--output"},
                                                                  {"record", "--seconds", "2", "--loud", "yes"}}) {
        auto refused = run(args);
        EXPECT_EQ(refused.status, 2) << args.size();
        EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;
        EXPECT_EQ(refused.err.rfind("sprelio: record: ", 0), 0u) << refused.err;
        EXPECT_TRUE(refused.out.empty());
    }
    EXPECT_FALSE(fs::exists(root_ / ".local/share/Sprelio/recordings"));
}

} // namespace

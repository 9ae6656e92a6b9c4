#pragma once
// `sprelio` as a user runs it, for the end-to-end tests and the desktop benchmark: a process of its own with a home
// of its own, on a given X display and PulseAudio daemon; its log read back; speech made by festival.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "audio/AudioTestSupport.h"
#include "audio/PulseDaemon.h"
#include "base/Uuid.h"
#include "input/Key.h"
#include "platform/X11TestSupport.h"
#include "store/JsonFileSettingsStore.h"
#include "store/Entities.h"
#include "store/Persistence.h"

namespace sprelio::apptest {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using audio_test::PulseDaemon;
using x11test::XServer;

// A sentence spoken by festival's US voice, 16 kHz mono float; empty when festival or ffmpeg failed.
inline std::vector<float> festivalSentence(const std::string& sentence) {
    audio_test::TempDir dir;
    const auto wav = dir / "speech.wav";
    const auto raw = dir / "speech.f32";
    const auto made = audio_test::runCommand(
        "echo " + audio_test::shellQuoted(sentence) + " | text2wave -eval '(voice_cmu_us_slt_arctic_hts)' -o " +
        audio_test::shellQuoted(wav.string()) + " >/dev/null 2>&1 && ffmpeg -nostdin -loglevel error -i " +
        audio_test::shellQuoted(wav.string()) + " -f f32le -ac 1 -ar 16000 " +
        audio_test::shellQuoted(raw.string()) + " 2>&1");
    if (made.exitCode != 0) return {};
    const auto bytes = audio_test::readBytes(raw);
    std::vector<float> samples(bytes.size() / sizeof(float));
    std::copy_n(bytes.data(), samples.size() * sizeof(float), reinterpret_cast<std::uint8_t*>(samples.data()));
    return samples;
}

// The right Alt key as a shortcut of its own, held or tapped, stored in a home before Sprelio starts there. With
// an AI item the key dictates and runs that item on the text, pasting the result.
inline void storeRightAltShortcut(const fs::path& home, bool hold, std::optional<std::string> aiItemId = {}) {
    store::PersistenceController store(home / ".local/share/Sprelio");
    auto& context = store.container().viewContext();
    auto shortcut = context.insertNew<store::UserShortcut>();
    shortcut->setUuid(Uuid::random());
    shortcut->setShortcutActionRawValue(std::string(aiItemId ? "recordAndProcessWithAI" : "recordAndTranscribe"));
    if (aiItemId) {
        shortcut->setIntelligenceActionItemIdString(aiItemId);
        shortcut->setIntelligenceActionCategoryRawValue(std::string("action"));
        shortcut->setIntelligenceActionCompletionType(std::string("paste"));
    }
    shortcut->setModifierEventKeyCode(61);
    shortcut->setMouseEventMouseButton(-1);
    shortcut->setShortcutString(keyString(61));
    shortcut->setOrder(0);
    shortcut->setHold(hold);
    context.save();
}

// The AI service a user names on the AI tab, stored in a home before Sprelio starts there.
inline void storeAiService(const fs::path& home, const std::string& url, const std::string& model) {
    store::JsonFileSettingsStore file(home / ".config/Sprelio/settings.json");
    file.set("aiServiceURL", url);
    file.set("aiServiceModel", model);
}

inline fs::path screenshotFolder() { return fs::path(SPRELIO_BINARY).parent_path().parent_path() / "screenshots"; }

// `sprelio` in a process of its own, with a home of its own and nothing else from this process's environment.
class SprelioApp {
public:
    // `extraEnvironment`: further NAME=value entries.
    SprelioApp(const XServer& x, const PulseDaemon& pulse, const fs::path& home, bool offline = false,
               const std::vector<std::string>& extraEnvironment = {})
        : home_(home) {
        fs::create_directories(home / "run");
        fs::permissions(home / "run", fs::perms::owner_all, fs::perm_options::replace);
        std::vector<std::string> environment = {
            "PATH=/usr/bin:/bin", "HOME=" + home.string(), "XDG_RUNTIME_DIR=" + (home / "run").string(),
            "DISPLAY=" + x.name(), "PULSE_SERVER=" + pulse.serverAddress(), "LANG=C.UTF-8"};
        environment.insert(environment.end(), extraEnvironment.begin(), extraEnvironment.end());
        std::vector<std::string> argv;
        // Offline is a network of its own with nothing but loopback: the embedded server still answers there.
        if (offline) argv = {"unshare", "-n", "sh", "-c", "ip link set lo up && exec \"$0\"", SPRELIO_BINARY};
        else argv = {SPRELIO_BINARY};
        pid_ = ::fork();
        if (pid_ == 0) {
            const auto out = (home / "sprelio.out").string();
            const int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (fd >= 0) {
                ::dup2(fd, 1);
                ::dup2(fd, 2);
            }
            std::vector<char*> args, env;
            for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
            args.push_back(nullptr);
            for (const auto& e : environment) env.push_back(const_cast<char*>(e.c_str()));
            env.push_back(nullptr);
            ::execvpe(args[0], args.data(), env.data());
            ::_exit(127);
        }
    }
    ~SprelioApp() { stop(); }
    SprelioApp(const SprelioApp&) = delete;
    SprelioApp& operator=(const SprelioApp&) = delete;

    // Asks the application to quit as a session does at log-out; its exit status, -1 when it had to be killed.
    int stop() {
        if (pid_ <= 0) return status_;
        ::kill(pid_, SIGTERM);
        int status = 0;
        if (x11test::waitFor([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, 15000ms)) {
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        } else {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &status, 0);
            status_ = -1;
        }
        pid_ = -1;
        return status_;
    }

    // Ends the application as a crash or an out-of-memory kill would: no handler of its own runs.
    void kill() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        status_ = -1;
    }

    fs::path dataFolder() const { return home_ / ".local/share/Sprelio"; }
    std::string log() const { return x11test::readFile(dataFolder() / "logs" / "app_log.txt"); }
    std::string output() const { return x11test::readFile(home_ / "sprelio.out"); }
    std::size_t count(const std::string& needle) const { return countIn(log(), needle); }
    static std::size_t countIn(const std::string& text, const std::string& needle) {
        std::size_t n = 0;
        for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + needle.size())) ++n;
        return n;
    }
    bool waitForCount(const std::string& needle, std::size_t n, std::chrono::milliseconds timeout = 20000ms) const {
        return x11test::waitFor([&] { return count(needle) >= n; }, timeout);
    }
    // A process that has ended is reaped here, its status kept for stop().
    bool running() {
        if (pid_ <= 0) return false;
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) != pid_) return true;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        pid_ = -1;
        return false;
    }
    pid_t pid() const { return pid_; }

private:
    fs::path home_;
    pid_t pid_ = -1;
    int status_ = -1;
};

} // namespace sprelio::apptest

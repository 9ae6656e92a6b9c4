#include "app/AudioCommands.h"

#include <charconv>
#include <chrono>
#include <cmath>
#include <optional>
#include <ostream>

#include "app/CommandSupport.h"
#include "app/AppEnvironment.h"
#include "audio/CaptureRecordingAudio.h"
#include "audio/MicDeviceTransport.h"
#include "audio/RecordingPathHelper.h"
#include "base/Log.h"
#include "platform/linux/PulseAudioCapture.h"
#include "platform/linux/PulseAudioConnection.h"
#include "platform/linux/PulseAudioDevices.h"
#include "platform/loop/RealTimeLoop.h"

namespace sprelio::app {

namespace {

int devices(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() != 2) return fail(err, "devices: takes no arguments", 2);
    AppEnvironment env;
    platform::RealTimeLoop loop;
    platform::PulseAudioConnection connection;
    platform::PulseAudioDevices audioDevices(connection, loop);
    auto list = audioDevices.inputDevices();
    if (!list) return fail(err, "devices: the sound server (PulseAudio) is not reachable");
    // One line per microphone: a star for the default input, the id, the transport and the name.
    for (const auto& device : *list) {
        out << (device.isDefault ? "* " : "  ") << device.id << "\t"
            << micDeviceTransportTypeText(micDeviceTransportType(device)) << "\t" << device.name << "\n";
    }
    if (list->empty()) out << "(no microphones)\n";
    return 0;
}

int record(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    std::optional<double> seconds;
    std::optional<std::string> output;
    std::optional<platform::AudioDeviceID> device;
    for (std::size_t i = 2; i < args.size(); ++i) {
        const std::string& option = args[i];
        if (i + 1 >= args.size()) return fail(err, "record: " + option + " needs a value", 2);
        const std::string& value = args[++i];
        if (option == "--seconds") {
            try {
                std::size_t used = 0;
                seconds = std::stod(value, &used);
                if (used != value.size() || !std::isfinite(*seconds) || *seconds <= 0 || *seconds > 3600) throw 0;
            } catch (...) {
                return fail(err, "record: --seconds wants a number of seconds between 0 and 3600", 2);
            }
        } else if (option == "--output") {
            output = value;
        } else if (option == "--device") {
            platform::AudioDeviceID id = 0;
            const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), id);
            if (ec != std::errc() || end != value.data() + value.size())
                return fail(err, "record: --device wants a device id (see sprelio devices)", 2);
            device = id;
        } else {
            return fail(err, "record: unknown option " + option + " (see sprelio --help)", 2);
        }
    }
    if (!seconds) return fail(err, "record: --seconds N is required", 2);

    AppEnvironment env;
    platform::RealTimeLoop loop;
    platform::ThreadWorkerPool workers(2);
    platform::PulseAudioConnection connection;
    platform::PulseAudioDevices audioDevices(connection, loop);
    platform::PulseAudioCapture capture(connection);
    // Said at once, rather than after the whole recording's length spent waiting for a capture that cannot start.
    if (!connection.waitUntilReady(std::chrono::seconds(5)))
        return fail(err, "record: the sound server (PulseAudio) is not reachable");

    // The recorder records from the default input, so choosing a device means making it the default.
    if (device && !audioDevices.setDefaultInputDevice(*device))
        return fail(err, "record: device " + std::to_string(*device) + " could not be made the default input");

    std::filesystem::path path;
    if (output) {
        path = *output;
    } else {
        std::error_code folderError;
        path = RecordingPathHelper::pathForDate(env.settings().saveRecordingsFolder(), env.clock().now(), folderError)
                   .file;
        if (folderError) return fail(err, "record: could not create the folder of " + path.string());
    }

    // No session here: the completion below is always set before the recording can end.
    CaptureRecordingAudioFactory factory(capture, workers, {});
    auto recorder = factory.makeRecordingAudio(path);
    std::optional<bool> result;
    recorder->setOnRecordingCompletion([&](const std::filesystem::path&, bool success) {
        loop.post([&result, success] { result = success; });
    });
    const auto requestID = Uuid::random();
    auto stopwatch = std::make_shared<const Stopwatch>("record - requestID: " + requestID.string(),
                                                       Stopwatch::Clock::now());
    recorder->record(requestID, stopwatch);
    loop.schedule(std::chrono::duration_cast<platform::Duration>(std::chrono::duration<double>(*seconds)),
                  [&] { recorder->stop(); });
    // A recorder that never started gives no completion: the wait then ends at the deadline.
    const auto limit = std::chrono::duration_cast<platform::Duration>(std::chrono::duration<double>(*seconds) +
                                                                      std::chrono::seconds(5));
    if (!loop.runUntil([&] { return result.has_value(); }, limit) || !*result) {
        return fail(err, "record: the recording failed (see the log); the file, if any, is " + path.string());
    }
    out << path.string() << "\n";
    return 0;
}

} // namespace

int audioCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() >= 2 && args[1] == "devices") return devices(args, out, err);
    return record(args, out, err);
}

} // namespace sprelio::app

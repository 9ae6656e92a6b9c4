#include "app/FilesRemoteCommand.h"

#include <filesystem>
#include <map>
#include <memory>
#include <ostream>
#include <set>

#include "app/CommandSupport.h"
#include "files/FilesMenuViewModel.h"
#include "platform/MainLoop.h"
#include "platform/linux/InstanceSocket.h"
#include "platform/qt/SingleInstance.h"

namespace sprelio::app {

namespace {

namespace fs = std::filesystem;

constexpr const char* kUsage =
    "usage: sprelio files add FILE... | sprelio files record --mode microphone|system|both --seconds N";

// What one `files add` waits for: its items, and what it has said of each.
struct AddState {
    std::set<int> open;
    std::map<int, int> lastTenth;
    std::map<int, FileItem::State> lastState;
    std::map<int, std::string> lastText;
    bool single = false;
    bool allDone = true;
    int observer = 0;
};

void report(const std::shared_ptr<AddState>& state, const platform::RemoteCommand& command, const FileItem& item) {
    const std::string name = item.file.filename().string();
    const auto previous = state->lastState.count(item.id) ? state->lastState[item.id] : FileItem::State::waiting;
    state->lastState[item.id] = item.state;
    switch (item.state) {
    case FileItem::State::waiting: break;
    case FileItem::State::uploading: {
        // One line per tenth, so that a terminal gets a readable log rather than a counter.
        const int percent = static_cast<int>(item.uploadProgress * 100);
        const int tenth = percent / 10;
        if (state->lastTenth.count(item.id) && state->lastTenth[item.id] == tenth) break;
        state->lastTenth[item.id] = tenth;
        command.printError(name + ": Uploading file... (" + std::to_string(percent) + "%)");
        break;
    }
    case FileItem::State::transcribing:
        if (previous != FileItem::State::transcribing) command.printError(name + ": Transcribing file...");
        if (!item.text.empty() && state->lastText[item.id] != item.text) {
            // A server whose progress text is the transcript so far would repeat all of it at every line: a line
            // says what is new.
            const std::string& before = state->lastText[item.id];
            std::string news = item.text;
            if (!before.empty() && item.text.starts_with(before)) news = "…" + item.text.substr(before.size());
            state->lastText[item.id] = item.text;
            std::string line = name + ":   " + news;
            if (item.duration) line += " [" + std::to_string(static_cast<long long>(*item.duration)) + " s]";
            command.printError(line);
        }
        break;
    case FileItem::State::done:
        if (state->single) {
            command.print(item.text);
        } else {
            command.print("== " + item.file.string() + " ==");
            command.print(item.text);
        }
        break;
    case FileItem::State::failed:
    case FileItem::State::cancelled:
        command.printError("sprelio: files add: " + item.file.string() + ": " + item.error);
        break;
    }
    if (item.finished()) {
        if (item.state != FileItem::State::done) state->allDone = false;
        state->open.erase(item.id);
    }
}

void addFiles(FilesMenuViewModel& files, platform::RemoteCommand command) {
    std::vector<fs::path> paths(command.args.begin() + 2, command.args.end());
    auto state = std::make_shared<AddState>();
    state->single = paths.size() == 1;
    // The items' first steps happen inside addFiles; the observer takes them up from its return on.
    state->observer = files.addItemObserver([state, command, &files](const FileItem& item) {
        if (!state->open.count(item.id)) return;
        report(state, command, item);
        if (state->open.empty()) {
            files.removeItemObserver(state->observer);
            command.finish(state->allDone ? 0 : 1);
        }
    });
    const auto ids = files.addFiles(paths);
    state->open.insert(ids.begin(), ids.end());
    for (int id : ids) {
        if (const FileItem* item = files.item(id); item && (item->finished() || item->state != FileItem::State::waiting))
            report(state, command, *item);
    }
    if (state->open.empty()) {
        files.removeItemObserver(state->observer);
        command.finish(state->allDone ? 0 : 1);
    }
}

void record(FilesMenuViewModel& files, platform::MainLoop& loop, platform::RemoteCommand command) {
    std::optional<FilesMenuRecordingMode> mode;
    std::optional<long> seconds;
    for (std::size_t i = 2; i + 1 < command.args.size(); i += 2) {
        const std::string& option = command.args[i];
        const std::string& value = command.args[i + 1];
        if (option == "--mode") {
            if (value == "microphone") mode = FilesMenuRecordingMode::microphoneOnly;
            else if (value == "system") mode = FilesMenuRecordingMode::systemOnly;
            else if (value == "both") mode = FilesMenuRecordingMode::both;
        } else if (option == "--seconds") {
            try {
                std::size_t used = 0;
                const long n = std::stol(value, &used);
                if (used == value.size() && n > 0 && n <= 24 * 3600) seconds = n;
            } catch (const std::exception&) {
            }
        }
    }
    if (!mode || !seconds || command.args.size() != 6) {
        command.printError(kUsage);
        return command.finish(2);
    }
    if (files.isRecording()) {
        command.printError("sprelio: files record: the Files tab is recording already");
        return command.finish(1);
    }
    const long duration = *seconds;
    const bool accepted = files.startRecording(*mode, [&files, &loop, command, duration](std::vector<fs::path> started) {
        if (started.empty()) {
            command.printError("sprelio: files record: " + files.errorLine());
            return command.finish(1);
        }
        command.printError("Recording for " + std::to_string(duration) + " s…");
        loop.postAfter(std::chrono::seconds(duration), [&files, command] {
            files.stopRecording([command](std::vector<fs::path> written) {
                for (const auto& file : written) command.print(file.string());
                if (written.empty()) command.printError("sprelio: files record: nothing was recorded");
                command.finish(written.empty() ? 1 : 0);
            });
        });
    });
    if (!accepted) {
        command.printError("sprelio: files record: the recording could not start");
        command.finish(1);
    }
}

} // namespace

int filesCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() < 3 || (args[2] != "add" && args[2] != "record")) return fail(err, kUsage, 2);
    std::vector<std::string> forwarded(args.begin() + 1, args.end());
    if (args[2] == "add") {
        if (args.size() < 4) return fail(err, "files add: FILE is required", 2);
        for (std::size_t i = 2; i < forwarded.size(); ++i) {
            std::error_code ec;
            const fs::path absolute = fs::absolute(forwarded[i], ec);
            if (!ec) forwarded[i] = absolute.lexically_normal().string();
        }
    }
    return platform::askRunningInstance(forwarded, out, err);
}

void runFilesRemoteCommand(FilesMenuViewModel& files, platform::MainLoop& loop, const std::function<void()>& showFilesTab,
                           platform::RemoteCommand command) {
    const std::string verb = command.args.size() >= 2 ? command.args[1] : std::string();
    if (verb == "add" && command.args.size() >= 3) {
        if (showFilesTab) showFilesTab();
        return addFiles(files, std::move(command));
    }
    if (verb == "record") {
        if (showFilesTab) showFilesTab();
        return record(files, loop, std::move(command));
    }
    command.printError(kUsage);
    command.finish(2);
}

} // namespace sprelio::app

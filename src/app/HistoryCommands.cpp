#include "app/HistoryCommands.h"

#include <charconv>
#include <ostream>

#include "app/CommandSupport.h"
#include "app/BackendContext.h"
#include "ui/HistoryViewModel.h"
#include "base/Log.h"
#include "store/AppConstants.h"
#include "store/Entities.h"

namespace sprelio::app {

namespace {

namespace fs = std::filesystem;

constexpr auto kRetryLimit = std::chrono::minutes(15);

std::string levelWord(std::int64_t level) {
    if (level >= 0 && level <= 4) return std::string(historyManagerLogLevelName(static_cast<HistoryManagerLogLevel>(level)));
    return "other(" + std::to_string(level) + ")";
}

std::optional<std::int64_t> parseId(const std::string& text) {
    std::int64_t id = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), id);
    if (ec != std::errc() || end != text.data() + text.size() || id <= 0) return std::nullopt;
    return id;
}

// The view model over the history of this process; `upload` only where entries are transcribed again.
HistoryViewModel makeViewModel(BackendContext& context, AudioUploadManager* upload) {
    auto& history = context.history();
    return HistoryViewModel(HistoryViewModel::Dependencies{
        context.loop(), context.workers(), history.defaultContext(), history, context.maintenance(),
        context.appState(), context.messages(), context.env().settings(), context.sounds(), upload, nullptr,
        // A terminal has no file manager to select the file in, and no clipboard of its own.
        {}, {}});
}

std::shared_ptr<store::LogEntry> findEntry(HistoryViewModel& model, std::int64_t id) {
    for (auto& entry : model.logEntries()) {
        if (entry->primaryKey() == id) return entry;
    }
    return nullptr;
}

std::string recordingText(const store::LogEntry& entry) {
    const auto url = entry.fileURL();
    if (!url) return "(recording not available)";
    return store::AppConstants::pathFromFileURLOrPath(*url).string();
}

void printRow(std::ostream& out, const HistoryRow& row) {
    out << "[" << row.entry->primaryKey() << "] " << levelWord(row.entry->level()) << "  " << row.dateLine << "  "
        << recordingText(*row.entry) << "\n";
    // The text as the row shows it, indented so that a text of several lines stays with its entry.
    std::string::size_type start = 0;
    do {
        const auto end = row.text.find('\n', start);
        out << "    " << row.text.substr(start, end == std::string::npos ? std::string::npos : end - start) << "\n";
        start = end == std::string::npos ? std::string::npos : end + 1;
    } while (start != std::string::npos);
}

int list(BackendContext& context, std::ostream& out) {
    auto model = makeViewModel(context, nullptr);
    const auto entries = model.logEntries();
    if (entries.empty()) {
        out << kNoHistoryDataText << "\n";
        return 0;
    }
    out << historyHeaderText(entries.size()) << "\n";
    for (const auto& entry : entries) printRow(out, model.row(entry));
    context.drain(); // durations worked out for entries of older versions are saved
    return 0;
}

int remove(BackendContext& context, std::int64_t id, std::ostream& out, std::ostream& err) {
    auto model = makeViewModel(context, nullptr);
    auto entry = findEntry(model, id);
    if (!entry) return fail(err, "history remove: no entry " + std::to_string(id) + " (see sprelio history list)");
    const std::string recording = recordingText(*entry);
    model.remove(entry);
    out << "Removed entry " << id << (entry->fileURL() ? " and its recording " + recording : std::string()) << ".\n";
    return 0;
}

int wipe(BackendContext& context, std::ostream& out) {
    auto model = makeViewModel(context, nullptr);
    const auto count = model.logEntries().size();
    model.wipeAll();
    const auto left = model.logEntries().size();
    out << "Removed " << (count - left) << " of " << count << (count == 1 ? " entry" : " entries")
        << " and their recordings.\n";
    return left == 0 ? 0 : 1;
}

int retry(BackendContext& context, std::int64_t id, std::ostream& out, std::ostream& err) {
    std::string startError;
    if (!context.start(startError)) return fail(err, "history retry: " + startError);
    auto model = makeViewModel(context, &context.uploadManager());
    auto entry = findEntry(model, id);
    if (!entry) return fail(err, "history retry: no entry " + std::to_string(id) + " (see sprelio history list)");

    bool done = false;
    std::optional<HistoryViewModel::RetryResult> outcome;
    context.loop().post([&] {
        // The backend list of an earlier run may name an embedded server that is gone: fetched afresh first.
        context.balancing().initializeIfNeeded("sprelio history retry", false, [&] {
            std::string missing;
            const auto file = entry->fileURL();
            if (file && entry->requestID() &&
                !context.checkBackends(store::AppConstants::pathFromFileURLOrPath(*file), Uuid::random(), missing)) {
                outcome = HistoryViewModel::RetryResult{false, std::nullopt,
                                                        SPRStringError::errorMessageError(missing, missing).toError(),
                                                        nullptr};
                done = true;
                return;
            }
            model.retry(entry, [&](HistoryViewModel::RetryResult result) {
                outcome = std::move(result);
                done = true;
            });
        });
    });
    const bool ended = context.runUntil([&] { return done; }, kRetryLimit);
    context.drain();
    if (!ended) return fail(err, "history retry: no answer from the backend (see the log)");
    if (outcome->text) {
        out << *outcome->text << "\n";
        if (outcome->newEntry) err << "sprelio: new entry " << outcome->newEntry->primaryKey() << "\n";
        return 0;
    }
    if (outcome->error) {
        if (!context.toasts().printed(outcome->error->localizedDescription))
            err << "sprelio: " << outcome->error->localizedDescription << "\n";
        return 1;
    }
    return fail(err, "history retry: the backend gave no text (see the messages above and the log)");
}

} // namespace

int historyCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.size() < 3) return fail(err, "history: expected list, retry ID, remove ID or wipe", 2);
    const std::string& verb = args[2];
    const bool takesId = verb == "retry" || verb == "remove";
    if (verb != "list" && verb != "wipe" && !takesId)
        return fail(err, "history: unknown action \"" + verb + "\" (use list, retry ID, remove ID or wipe)", 2);
    if (args.size() != (takesId ? 4u : 3u))
        return fail(err, "history " + verb + ": wrong number of arguments (see sprelio --help)", 2);
    std::optional<std::int64_t> id;
    if (takesId) {
        id = parseId(args[3]);
        if (!id) return fail(err, "history " + verb + ": ID is the number in brackets of sprelio history list", 2);
    }

    AppEnvironment env;
    BackendContext context(env, err);
    if (verb == "list") return list(context, out);
    if (verb == "wipe") return wipe(context, out);
    if (verb == "remove") return remove(context, *id, out, err);
    return retry(context, *id, out, err);
}

} // namespace sprelio::app

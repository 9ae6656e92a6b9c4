#include "app/BackendCommands.h"

#include <chrono>
#include <fstream>
#include <ostream>

#include "app/BackendContext.h"
#include "app/CommandSupport.h"
#include "backend/ProblemReportUpload.h"
#include "base/Log.h"
#include "diagnostics/ConfigArchive.h"
#include "diagnostics/LogManager.h"
#include "diagnostics/ZipArchive.h"
#include "base/Uuid.h"
#include "shared/Errors.h"
#include "ui/SendReportViewModel.h"

// sprelio report: a problem report as the Send Report tab sends it, from a terminal.
namespace sprelio::app {

namespace {
// The upload's own timeout is a minute; making the archives and asking for the account come before it.
constexpr auto kReportLimit = std::chrono::minutes(3);

// A folder of the command's own in the temporary folder, gone with the command.
class ScratchFolder {
public:
    ScratchFolder() : path_(std::filesystem::temp_directory_path() / ("sprelio-report-" + Uuid::random().string())) {
        std::filesystem::create_directories(path_ / "notes");
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};
} // namespace

int reportCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    bool withLogs = true;
    std::vector<std::string> text;
    for (std::size_t i = 2; i < args.size(); ++i) {
        if (args[i] == "--no-logs") {
            withLogs = false;
        } else if (args[i].starts_with("--")) {
            return fail(err, "report: unknown option " + args[i] + " (see sprelio --help)", 2);
        } else {
            text.push_back(args[i]);
        }
    }
    if (text.empty()) return fail(err, "report: expected TEXT, what happened (see sprelio --help)", 2);

    AppEnvironment env;
    BackendContext context(env, err);
    std::string startError;
    if (!context.start(startError)) return fail(err, "report: " + startError);
    auto& settings = env.settings();

    // The archives as the tab makes them. Without the logs the report still carries a "logs" part, as the server
    // expects one: a note in place of the log files.
    std::optional<std::filesystem::path> logs;
    const ScratchFolder scratch;
    if (withLogs) {
        env.logManager().flush();
        logs = env.logManager().getLogZip();
        if (!logs) return fail(err, "report: the log archive could not be made (see the log)");
    } else {
        std::ofstream(scratch.path() / "notes" / "logs-not-included.txt")
            << "The sender chose to send this report without the logs.\n";
        logs = scratch.path() / "logs.zip";
        if (!zipFolderContents(scratch.path() / "notes", *logs))
            return fail(err, "report: the report's archive could not be made (see the log)");
    }
    const auto config = gatherConfigData(settings.store().dictionaryRepresentation(), env.constants().logsFolder());
    if (!config) return fail(err, "report: the settings archive could not be made (see the log)");

    ProblemReportUploader uploader(ProblemReportUploader::Dependencies{
        context.loop(), context.http(), settings, [&context] { return context.endpoint().baseURL(); },
        errorDescription(SPRLocalizedError::tokenUnavailableError, env.constants().appName())});
    std::optional<bool> sent;
    context.loop().post([&] {
        // The account is asked first, as at every start of the application: a stale token shows here.
        context.balancing().initializeIfNeeded("sprelio report", false, [&] {
            UploadData data;
            data.text = joined(text, " ");
            data.app = env.constants().clientVersion();
            data.deviceId = context.account().deviceId();
            data.os = env.constants().osName();
            data.languages = context.account().languageInfo();
            uploader.uploadDataWithFiles(data, *logs, *config, [&](bool ok) { sent = ok; });
        });
    });
    const bool ended = context.runUntil([&] { return sent.has_value(); }, kReportLimit);
    context.drain();
    if (!ended) return fail(err, "report: no answer from the server (see the log); try again");
    if (!*sent) return fail(err, std::string("report: ") + SendReportViewModel::kReportNotSentMessage);
    out << SendReportViewModel::kReportWasSentMessage << "\n";
    return 0;
}

} // namespace sprelio::app

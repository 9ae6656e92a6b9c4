#include "ui/SendReportViewModel.h"

#include "base/Log.h"
#include "shared/AppState.h"
#include "store/Settings.h"

namespace sprelio {

SendReportViewModel::SendReportViewModel(Dependencies deps) : deps_(std::move(deps)) {}

void SendReportViewModel::changed() {
    if (onChange) onChange();
}

std::string SendReportViewModel::message() const { return deps_.settings.sendReportViewMessage(); }
void SendReportViewModel::setMessage(const std::string& text) { deps_.settings.setSendReportViewMessage(text); }
std::string SendReportViewModel::phone() const { return deps_.settings.sendReportViewPhone(); }
void SendReportViewModel::setPhone(const std::string& text) { deps_.settings.setSendReportViewPhone(text); }

void SendReportViewModel::onAppear() {
    if (deps_.activateApp) deps_.activateApp();
    logsZipURL_.reset();
    configZipURL_.reset();
    const unsigned gathering = ++gathering_;
    auto gatherLogs = deps_.gatherLogs;
    auto gatherConfig = deps_.gatherConfig;
    auto* loop = &deps_.loop;
    auto deliver = lifetime_.guard([this, gathering](std::optional<std::filesystem::path> logs,
                                                     std::optional<std::filesystem::path> config) {
        if (gathering != gathering_) return;
        logsZipURL_ = std::move(logs);
        configZipURL_ = std::move(config);
        changed();
    });
    deps_.workers.submit([gatherLogs, gatherConfig, loop, deliver, alive = lifetime_.token()]() mutable {
        // The gathering reaches into the log and the settings, which go with the tab at shutdown.
        if (!alive) return;
        logInfo("gatherLogsData() - gathering report data");
        std::optional<std::filesystem::path> logs = gatherLogs ? gatherLogs() : std::nullopt;
        if (logs) {
            logInfo("gatherLogsData() -logsZipURL: " + logs->string());
        } else {
            logError("gatherLogsData() - failed to get zip file from LogManager");
        }
        if (!alive) return;
        std::optional<std::filesystem::path> config = gatherConfig ? gatherConfig() : std::nullopt;
        loop->post([deliver, logs = std::move(logs), config = std::move(config)]() mutable {
            deliver(std::move(logs), std::move(config));
        });
    });
}

void SendReportViewModel::send() {
    if (isProcessing_) return;
    isProcessing_ = true;
    changed();
    UploadData data = deps_.describeMachine ? deps_.describeMachine() : UploadData{};
    data.text = message();
    data.phone = phone();
    data.email = deps_.settings.userEmail();
    uploadData_ = data;
    if (!logsZipURL_ || !configZipURL_) {
        logError("uploadDataWithFiles - failure (no uploadData)");
        // As the upload would, the result arrives as a task of its own.
        deps_.loop.post(lifetime_.guard([this] { finished(false); }));
        return;
    }
    deps_.uploader.uploadDataWithFiles(*uploadData_, *logsZipURL_, *configZipURL_,
                                       lifetime_.guard([this](bool sent) { finished(sent); }));
}

void SendReportViewModel::finished(bool sent) {
    if (sent) {
        logInfo("uploadDataWithFiles - success");
        deps_.settings.setSendReportViewMessage("");
    } else {
        logWarning("uploadDataWithFiles - no success");
    }
    sheetSuccess_ = sent;
    isProcessing_ = false;
    sheetShowing_ = true;
    changed();
}

void SendReportViewModel::closeSheet() {
    sheetShowing_ = false;
    changed();
}

void SendReportViewModel::dismiss() {
    deps_.settings.setSendReportViewMessage("");
    isProcessing_ = false;
    sheetShowing_ = false;
    sheetSuccess_ = false;
    deps_.appState.setSelectedContentViewTab(ContentViewTab::main);
    changed();
}

} // namespace sprelio

#pragma once
// The Send Report tab without its widgets: the user's message and phone number (kept in the settings until sent),
// the two archives made when the tab opens, the send, and the result the tab shows.
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "backend/ProblemReportUpload.h"
#include "base/LifetimeGuard.h"
#include "platform/MainLoop.h"

namespace sprelio {

class AppState;
namespace store {
class Settings;
}

class SendReportViewModel {
public:
    static constexpr const char* kReportWasSentMessage = "The report was sent!";
    static constexpr const char* kReportNotSentMessage = "The report failed to send, can you please try again?";

    struct Dependencies {
        platform::MainLoop& loop;
        // The archives are made here, away from the main loop.
        platform::WorkerPool& workers;
        store::Settings& settings;
        AppState& appState;
        ProblemReportUploader& uploader;
        // The log archive (LogManager.getLogZip) and the settings archive; run on a worker.
        std::function<std::optional<std::filesystem::path>()> gatherLogs;
        std::function<std::optional<std::filesystem::path>()> gatherConfig;
        // The parts of the report that describe the machine: app, device id, os, languages.
        std::function<UploadData()> describeMachine;
        std::function<void()> activateApp;
    };

    explicit SendReportViewModel(Dependencies deps);

    // The tab opens: Sprelio comes to the front and both archives are made afresh.
    void onAppear();
    void send();
    // The result is put away and the window goes back to its first tab; the phone number stays.
    void dismiss();
    // The result sheet is closed; the form stays as it is.
    void closeSheet();

    std::string message() const;
    void setMessage(const std::string& text);
    std::string phone() const;
    void setPhone(const std::string& text);

    bool isProcessing() const { return isProcessing_; }
    bool sheetShowing() const { return sheetShowing_; }
    bool sheetSuccess() const { return sheetSuccess_; }
    // The result's text while the sheet shows.
    std::string sheetText() const { return sheetSuccess_ ? kReportWasSentMessage : kReportNotSentMessage; }
    const std::optional<std::filesystem::path>& logsZipURL() const { return logsZipURL_; }
    const std::optional<std::filesystem::path>& configZipURL() const { return configZipURL_; }

    // Called after every change of what the tab shows.
    std::function<void()> onChange;

private:
    void finished(bool sent);
    void changed();

    Dependencies deps_;
    std::optional<std::filesystem::path> logsZipURL_;
    std::optional<std::filesystem::path> configZipURL_;
    std::optional<UploadData> uploadData_;
    bool isProcessing_ = false;
    bool sheetShowing_ = false;
    bool sheetSuccess_ = false;
    // Each opening makes its own archives; a gathering overtaken by a newer one is dropped.
    unsigned gathering_ = 0;
    LifetimeGuard lifetime_;
};

} // namespace sprelio

// The Send Report tab's logic end to end on loopback: the archives made when it opens (the real log manager and
// the settings archive), the multipart POST as the account API receives it, and what the tab shows afterwards.
#include <gtest/gtest.h>

#include <zip.h>

#include <regex>

#include "backend/ProblemReportUpload.h"
#include "backend/UploadTestSupport.h"
#include "diagnostics/ConfigArchive.h"
#include "diagnostics/LogManager.h"
#include "ui/SendReportViewModel.h"

namespace sprelio::backendtest {
namespace {

// The names and contents of the files in a zip archive.
std::map<std::string, std::string> unzip(const std::string& bytes) {
    std::map<std::string, std::string> files;
    zip_error_t error;
    zip_error_init(&error);
    zip_source_t* source = zip_source_buffer_create(bytes.data(), bytes.size(), 0, &error);
    zip_t* archive = source ? zip_open_from_source(source, ZIP_RDONLY, &error) : nullptr;
    if (!archive) {
        if (source) zip_source_free(source);
        return files;
    }
    for (zip_int64_t i = 0; i < zip_get_num_entries(archive, 0); ++i) {
        zip_stat_t stat;
        if (zip_stat_index(archive, static_cast<zip_uint64_t>(i), 0, &stat) != 0) continue;
        zip_file_t* file = zip_fopen_index(archive, static_cast<zip_uint64_t>(i), 0);
        std::string content(static_cast<std::size_t>(stat.size), '\0');
        if (file) {
            zip_fread(file, content.data(), stat.size);
            zip_fclose(file);
        }
        files[stat.name] = content;
    }
    zip_close(archive);
    return files;
}

struct Part {
    std::string head;
    std::string content;
};

// Splits a multipart body at its boundary; the part headers and contents as they arrived.
std::vector<Part> partsOf(const std::string& body, const std::string& boundary) {
    std::vector<Part> parts;
    const std::string delimiter = "--" + boundary;
    std::size_t at = body.find(delimiter);
    while (at != std::string::npos) {
        const std::size_t start = at + delimiter.size();
        if (body.compare(start, 2, "--") == 0) break;
        const std::size_t next = body.find("\r\n" + delimiter, start);
        if (next == std::string::npos) break;
        const std::string part = body.substr(start + 2, next - start - 2);
        const std::size_t split = part.find("\r\n\r\n");
        parts.push_back({part.substr(0, split + 2), part.substr(split + 4)});
        at = next + 2;
    }
    return parts;
}

class SendReport : public UploadFixture {
protected:
    SendReport() {
        logManager = std::make_unique<LogManager>(tp, clock, folder.path() / "logs");
        setLogSink(logManager.get());
        logInfo("something went wrong here");
        // The log file is set up by its first write, on the log's own queue: the report needs it there.
        logManager->flush();
        settings->setUserEmail(std::string("ann@example.org"));
        uploader = std::make_unique<ProblemReportUploader>(ProblemReportUploader::Dependencies{
            loop, http, *settings, [this] { return server.url(""); }, "No JWT token available."});
        report = std::make_unique<SendReportViewModel>(SendReportViewModel::Dependencies{
            loop, workers, *settings, appState, *uploader, [this] { return logManager->getLogZip(); },
            [this] { return gatherConfigData(settings->store().dictionaryRepresentation(), folder.path() / "logs"); },
            [] {
                UploadData data;
                data.app = "linux-1.2.3";
                data.deviceId = "device-1";
                data.os = "Linux 6.1";
                data.languages = nlohmann::ordered_json{{"system", "de"}, {"region", "DE"}, {"app", "en"}};
                return data;
            },
            [this] { ++activations; }});
    }
    ~SendReport() override {
        report.reset();
        uploader.reset();
        setLogSink(&logs);
        logManager.reset();
    }
    ::testing::AssertionResult archivesReady() {
        if (waitFor([&] { return report->logsZipURL() && report->configZipURL(); }))
            return ::testing::AssertionSuccess();
        std::string lines;
        for (const auto& line : tp.systemLogLines()) lines += line.second + "\n";
        return ::testing::AssertionFailure() << "logs archive: " << report->logsZipURL().has_value()
                                             << ", settings archive: " << report->configZipURL().has_value()
                                             << "\n" << lines;
    }
    bool sent() {
        return waitFor([&] { return report->sheetShowing(); });
    }
    std::vector<RecordedRequest> reports() const {
        std::vector<RecordedRequest> found;
        for (const auto& request : server.requests())
            if (request.target == "/users/report") found.push_back(request);
        return found;
    }

    ScriptedServer server;
    std::unique_ptr<LogManager> logManager;
    std::unique_ptr<ProblemReportUploader> uploader;
    std::unique_ptr<SendReportViewModel> report;
    int activations = 0;
};

TEST_F(SendReport, TheReportGoesWithItsThreePartsAndOnlyThePhoneNumberStays) {
    server.script("/users/report", jsonAnswer(R"({"uuid":"R1","message":"The report was received."})"));
    report->onAppear();
    EXPECT_EQ(activations, 1);
    ASSERT_TRUE(archivesReady());
    report->setMessage("It stopped typing in my editor.");
    report->setPhone("+49 170 1234567");
    report->send();
    EXPECT_TRUE(report->isProcessing());
    ASSERT_TRUE(sent());
    EXPECT_TRUE(report->sheetSuccess());
    EXPECT_FALSE(report->isProcessing());
    EXPECT_EQ(report->sheetText(), "The report was sent!");
    EXPECT_EQ(report->message(), "");
    EXPECT_EQ(report->phone(), "+49 170 1234567");

    const auto received = reports();
    ASSERT_EQ(received.size(), 1u);
    const auto& request = received[0];
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.header("Authorization"), "Bearer tok-123");
    std::smatch match;
    const std::string type = request.header("Content-Type");
    ASSERT_TRUE(std::regex_match(type, match,
                                 std::regex("multipart/form-data; boundary=(Boundary-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-"
                                            "[0-9A-F]{4}-[0-9A-F]{12})")))
        << type;
    EXPECT_EQ(request.header("Content-Length"), std::to_string(request.body.size()));
    const std::string boundary = match[1];
    EXPECT_TRUE(request.body.ends_with("--" + boundary + "--\r\n"));
    const auto parts = partsOf(request.body, boundary);
    ASSERT_EQ(parts.size(), 3u);
    EXPECT_EQ(parts[0].head, "Content-Disposition: form-data; name=\"data\"; filename=\"data.json\"\r\n"
                             "Content-Type: application/json\r\n");
    EXPECT_EQ(parts[1].head, "Content-Disposition: form-data; name=\"logs\"; filename=\"logs.zip\"\r\n"
                             "Content-Type: application/zip\r\n");
    EXPECT_EQ(parts[2].head, "Content-Disposition: form-data; name=\"config\"; filename=\"config.zip\"\r\n"
                             "Content-Type: application/zip\r\n");
    EXPECT_EQ(parts[0].content,
              R"({"text":"It stopped typing in my editor.","phone":"+49 170 1234567","user":{"email":"ann@example.org"},)"
              R"("app":"linux-1.2.3","device_id":"device-1","os":"Linux 6.1",)"
              R"("info":{"languages":{"system":"de","region":"DE","app":"en"}}})");

    const auto logsZip = unzip(parts[1].content);
    ASSERT_TRUE(logsZip.count("app_log.txt")) << "the log archive holds the log";
    EXPECT_NE(logsZip.at("app_log.txt").find("something went wrong here"), std::string::npos);
    const auto configZip = unzip(parts[2].content);
    ASSERT_TRUE(configZip.count("UserDefaultsBackup.plist"));
    const std::string& plist = configZip.at("UserDefaultsBackup.plist");
    EXPECT_NE(plist.find("<key>userEmail</key>\n\t<string>ann@example.org</string>"), std::string::npos) << plist;
    EXPECT_NE(plist.find("<key>token</key>\n\t<string>tok-123</string>"), std::string::npos)
        << "every setting goes along, the login token among them";
}

TEST_F(SendReport, EveryFailureShowsTheFailureAndKeepsTheMessage) {
    struct Row {
        const char* what;
        int status;
        bool token;
        bool waitForArchives;
        bool requestLeaves;
    };
    const Row rows[] = {
        {"the server answers 201", 201, true, true, true},
        {"the server answers 500", 500, true, true, true},
        {"no login token", 200, false, true, false},
        {"the archives are not ready yet", 200, true, false, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        server.script("/users/report", jsonAnswer(R"({"message":"no"})", row.status));
        const std::size_t before = reports().size();
        if (row.token) {
            settings->setToken(std::string("tok-123"));
        } else {
            settings->setToken(std::nullopt);
        }
        report->closeSheet();
        report->onAppear();
        if (row.waitForArchives) {
            ASSERT_TRUE(archivesReady());
        }
        report->setMessage("Please keep me");
        report->send();
        ASSERT_TRUE(sent());
        EXPECT_FALSE(report->sheetSuccess());
        EXPECT_EQ(report->sheetText(), "The report failed to send, can you please try again?");
        EXPECT_EQ(report->message(), "Please keep me");
        EXPECT_EQ(reports().size() - before, row.requestLeaves ? 1u : 0u);
        // The archives of this opening are made all the same; the next row starts after them.
        ASSERT_TRUE(archivesReady());
    }
}

TEST_F(SendReport, DismissForgetsTheMessageAndGoesBackToTheFirstTab) {
    appState.setSelectedContentViewTab(ContentViewTab::sendreport);
    report->setMessage("never mind");
    report->setPhone("+1 555");
    report->dismiss();
    EXPECT_EQ(report->message(), "");
    EXPECT_EQ(report->phone(), "+1 555");
    EXPECT_FALSE(report->sheetShowing());
    EXPECT_EQ(appState.selectedContentViewTab(), ContentViewTab::main);
}

TEST(ConfigArchive, SettingsBecomeAPropertyListWithEveryValueType) {
    const std::map<std::string, nlohmann::json> settings = {
        {"a<b", "x & y"}, {"flag", true}, {"count", 3}, {"ratio", 0.5}, {"list", {"en", nullptr, 2}},
        {"nothing", nullptr}, {"nested", {{"k", false}}}};
    EXPECT_EQ(propertyListXml(settings),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
              "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
              "<plist version=\"1.0\">\n"
              "<dict>\n"
              "\t<key>a&lt;b</key>\n\t<string>x &amp; y</string>\n"
              "\t<key>count</key>\n\t<integer>3</integer>\n"
              "\t<key>flag</key>\n\t<true/>\n"
              "\t<key>list</key>\n\t<array>\n\t\t<string>en</string>\n\t\t<integer>2</integer>\n\t</array>\n"
              "\t<key>nested</key>\n\t<dict>\n\t\t<key>k</key>\n\t\t<false/>\n\t</dict>\n"
              "\t<key>ratio</key>\n\t<real>0.5</real>\n"
              "</dict>\n"
              "</plist>\n");
}

} // namespace
} // namespace sprelio::backendtest

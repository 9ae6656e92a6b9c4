// The long-file path: the upload of the bytes and the line stream of the transcription, against scripted servers.
#include <gtest/gtest.h>

#include "backend/FileUploadManager.h"
#include "backend/UploadTestSupport.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using backendtest::jsonAnswer;
using backendtest::streamAnswer;

class FileUploadTest : public backendtest::UploadFixture {
protected:
    FileUploadTest() {
        files = std::make_unique<FileUploadManager>(
            FileUploadManager::Dependencies{loop, hooked, *balancing, *settings, *constants, "DEVICE"});
        useBackends(1);
        hash = *sha256Hash(recording);
    }
    ~FileUploadTest() override { files.reset(); }

    struct UploadResult {
        bool done = false;
        std::optional<std::string> id;
        std::optional<int> status;
        std::optional<Error> error;
    };
    UploadResult upload() {
        UploadResult result;
        files->uploadFile(recording, hash, "F-1", true, [&](auto id, auto status, auto error) {
            result = {true, id, status, error};
        });
        EXPECT_TRUE(waitFor([&] { return result.done; }));
        return result;
    }

    struct StreamResult {
        std::vector<std::pair<std::string, std::optional<double>>> progress;
        std::optional<std::string> text;
        std::optional<Error> error;
        bool ended() const { return text || error; }
    };
    StreamResult transcribe(backendtest::Script script) {
        servers[0]->script("/transcribe/file/F-1", std::move(script));
        StreamResult result;
        files->transcribeFile(
            "F-1", hash, false, [&](const std::string& t, std::optional<double> d) { result.progress.emplace_back(t, d); },
            [&](const std::string& t, std::optional<double>) { result.text = t; },
            [&](const Error& e) { result.error = e; });
        EXPECT_TRUE(waitFor([&] { return result.ended(); }));
        drain();
        return result;
    }

    std::unique_ptr<FileUploadManager> files;
    std::string hash;
};

TEST_F(FileUploadTest, UploadSendsTheRawFileAndRemembersTheBackend) {
    servers[0]->script("/transcribe/file/F-1", jsonAnswer(R"({"uuid":"SERVER-ID"})"));
    auto result = upload();
    ASSERT_TRUE(result.id);
    EXPECT_EQ(*result.id, "SERVER-ID");
    EXPECT_EQ(result.status, 200);
    auto request = posts(*servers[0]).at(0);
    EXPECT_EQ(request.body, recordingBytes);
    EXPECT_EQ(request.header("Authorization"), "Bearer tok-123");
    EXPECT_EQ(request.header("Content-Type"), "");
    EXPECT_EQ(request.target, "/transcribe/file/F-1?diarization=true&file_hash=" + hash +
                                  "&device_id=DEVICE&os=" + request.target.substr(request.target.find("&os=") + 4));
    EXPECT_NE(request.target.find("&app=linux-"), std::string::npos);
    ASSERT_EQ(files->endpointByFileHash().count(hash), 1u);
    EXPECT_EQ(files->endpointByFileHash().at(hash)->name, "B1");
    EXPECT_TRUE(logs.contains("AudioUploadManager.uploadFile() - File uploaded successfully to B1 with UUID: SERVER-ID"));
}

TEST_F(FileUploadTest, UploadFailures) {
    servers[0]->script("/transcribe/file/F-1", jsonAnswer(R"({"uuid":"X"})", 201));
    auto created = upload();
    ASSERT_TRUE(created.error);
    EXPECT_EQ(created.error->code, static_cast<long>(SPRLocalizedError::balancerError)) << "only 200 is accepted";
    servers[0]->script("/transcribe/file/F-1", jsonAnswer(R"({"id":"X"})"));
    auto noUuid = upload();
    ASSERT_TRUE(noUuid.error);
    EXPECT_EQ(noUuid.error->code, static_cast<long>(SPRLocalizedError::uploadFailedError));
    EXPECT_TRUE(logs.contains("AudioUploadManager.uploadFile() - Unexpected response format.", LogLevel::error));
    recording = folder.path() / "missing.caf";
    auto missing = upload();
    ASSERT_TRUE(missing.error);
    EXPECT_EQ(missing.error->domain, "NSCocoaErrorDomain");
    EXPECT_TRUE(logs.containsPrefix("AudioUploadManager.uploadRecording() - prepare data failed with error: "));
}

TEST_F(FileUploadTest, StreamDeliversProgressThenTheText) {
    servers[0]->script("/transcribe/file/F-1", jsonAnswer(R"({"uuid":"F-1"})"));
    upload();
    auto result = transcribe(streamAnswer({R"({"progress_text":"Decoding","duration":1.5})" "\n",
                                           R"({"progress_text":"the \"error\" word"})" "\n",
                                           R"({"text":"hello world"})" "\n"},
                                          "application/x-ndjson"));
    ASSERT_EQ(result.progress.size(), 2u);
    EXPECT_EQ(result.progress[0].second, 1.5);
    EXPECT_EQ(result.progress[1].first, "the \"error\" word") << "a quoted error in the text is no error";
    EXPECT_EQ(result.text, "hello world");
    EXPECT_FALSE(result.error);
    EXPECT_TRUE(files->endpointByFileHash().empty());
    EXPECT_EQ(servers[0]->requests().back().target.rfind("/transcribe/file/F-1?diarization=false&device_id=DEVICE", 0),
              0u);
    for (const auto& line : logs.lines()) EXPECT_EQ(line.message.find("hello world"), std::string::npos);
}

TEST_F(FileUploadTest, StreamErrorsUnknownLinesAndErrorStatuses) {
    servers[0]->script("/transcribe/file/F-1", jsonAnswer(R"({"uuid":"F-1"})"));
    upload();
    auto errorLine = transcribe(streamAnswer({R"({"progress_text":"a"})" "\n",
                                              R"({"error":"EngineFailed","message":"The engine stopped"})" "\n",
                                              R"({"text":"never"})" "\n"}));
    ASSERT_TRUE(errorLine.error);
    EXPECT_EQ(errorLine.error->localizedDescription, "The engine stopped");
    EXPECT_FALSE(errorLine.text);

    servers[0]->script("/transcribe/file/F-1", jsonAnswer(R"({"uuid":"F-1"})"));
    upload();
    auto unknown = transcribe(streamAnswer({R"({"status":"odd"})" "\n"}));
    ASSERT_TRUE(unknown.error);
    EXPECT_EQ(unknown.error->domain, "StreamError");
    EXPECT_EQ(unknown.error->code, -2);

    servers[0]->script("/transcribe/file/F-1", jsonAnswer(R"({"uuid":"F-1"})"));
    upload();
    auto notFound = transcribe(jsonAnswer(R"({"error":"NotFound","message":"No such file"})", 404));
    ASSERT_TRUE(notFound.error);
    EXPECT_EQ(notFound.error->domain, kSPRStringErrorDomain);
    EXPECT_EQ(notFound.error->localizedDescription, "No such file");
    EXPECT_TRUE(logs.containsPrefix("AudioUploadManager.transcribeFile() - FIRST STREAM LINE (error case): "));

    // Without an upload first there is no backend for the file.
    auto none = transcribe(jsonAnswer("{}"));
    ASSERT_TRUE(none.error);
    EXPECT_EQ(none.error->code, static_cast<long>(SPRLocalizedError::balancerError));
}

} // namespace
} // namespace sprelio

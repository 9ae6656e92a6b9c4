// The long-file path: the upload of the bytes and the line stream of the transcription, against scripted servers.
#include <gtest/gtest.h>

#include "backend/FileUploadManager.h"
#include "backend/UploadTestSupport.h"
#include "base/Digest.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using backendtest::jsonAnswer;
using backendtest::Script;
using backendtest::StreamStep;
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


// A server that keeps the upload's answer open by sending a byte now and then.
TEST_F(FileUploadTest, UploadWhoseAnswerNeverEndsFailsWithATimeOut) {
    FileUploadManager::Timeouts timeouts;
    timeouts.request = 2s;
    timeouts.uploadAnswer = 1s;
    files->setTimeouts(timeouts);
    Script endless = jsonAnswer(R"({"uuid":)");
    endless.trickle = " ";
    endless.trickleEvery = 20ms;
    servers[0]->script("/transcribe/file/F-1", endless);

    auto result = upload();
    ASSERT_TRUE(result.error);
    EXPECT_FALSE(result.id);
    EXPECT_EQ(result.error->domain, "NSURLErrorDomain");
    EXPECT_EQ(result.error->code, url_error::kTimedOut);
    EXPECT_NE(result.error->localizedDescription.find("answer had not ended"), std::string::npos)
        << result.error->localizedDescription;
    EXPECT_EQ(posts(*servers[0]).at(0).bodySize, recordingBytes.size()) << "the whole file went up first";
    EXPECT_FALSE(files->hasUploadTask());
    EXPECT_EQ(files->uploadProgress(), 0.0);
    EXPECT_TRUE(logs.containsPrefix("AudioUploadManager.uploadFile() - Upload error: "));
}

TEST_F(FileUploadTest, StreamThatNeverCompletesALineEndsInTheErrorPath) {
    servers[0]->script("/transcribe/file/F-1", jsonAnswer(R"({"uuid":"F-1"})"));
    ASSERT_TRUE(upload().id);
    FileUploadManager::Timeouts timeouts;
    timeouts.request = 2s;
    timeouts.streamLine = 600ms;
    files->setTimeouts(timeouts);
    Script partial;
    partial.headers = {{"Content-Type", "application/x-ndjson"}};
    partial.body = "{\"progress_text\":\"Decoding\",\"duration\":2}\n{\"progress_text\":\"";
    partial.trickle = "x";
    partial.trickleEvery = 20ms;

    auto result = transcribe(partial);
    ASSERT_TRUE(result.error);
    EXPECT_FALSE(result.text);
    EXPECT_EQ(result.error->code, url_error::kTimedOut);
    EXPECT_NE(result.error->localizedDescription.find("no complete line"), std::string::npos)
        << result.error->localizedDescription;
    ASSERT_EQ(result.progress.size(), 1u);
    EXPECT_EQ(result.progress[0].first, "Decoding");
    EXPECT_TRUE(files->endpointByFileHash().empty()) << "a failed transcription forgets the file's backend";
    EXPECT_TRUE(logs.containsPrefix("AudioUploadManager.transcribeFile() - Transcription failed: "));
}

TEST_F(FileUploadTest, StreamOfProgressThatNeverEndsHitsTheTotalLimit) {
    servers[0]->script("/transcribe/file/F-1", jsonAnswer(R"({"uuid":"F-1"})"));
    ASSERT_TRUE(upload().id);
    FileUploadManager::Timeouts timeouts;
    timeouts.request = 2s;
    timeouts.streamLine = 2s;
    timeouts.streamTotal = 1500ms;
    files->setTimeouts(timeouts);
    Script endless;
    endless.headers = {{"Content-Type", "application/x-ndjson"}};
    endless.body = "{\"progress_text\":\"start\",\"duration\":0}\n";
    endless.trickle = "{\"progress_text\":\"still working\"}\n";
    endless.trickleEvery = 50ms;

    auto result = transcribe(endless);
    ASSERT_TRUE(result.error);
    EXPECT_FALSE(result.text);
    EXPECT_EQ(result.error->domain, "NSURLErrorDomain");
    EXPECT_EQ(result.error->code, url_error::kTimedOut);
    EXPECT_FALSE(result.error->localizedDescription.empty());
    EXPECT_GT(result.progress.size(), 1u) << "the lines before the limit were delivered";
    EXPECT_TRUE(files->endpointByFileHash().empty());
}

TEST_F(FileUploadTest, StreamLineOver16MegabytesEndsInTheErrorPath) {
    servers[0]->script("/transcribe/file/F-1", jsonAnswer(R"({"uuid":"F-1"})"));
    ASSERT_TRUE(upload().id);
    Script huge;
    huge.headers = {{"Content-Type", "application/x-ndjson"}};
    huge.stream.push_back(StreamStep::write("{\"progress_text\":\"Decoding\"}\n{\"progress_text\":\""));
    const std::string megabyte(1024 * 1024, 'x');
    for (int i = 0; i < 17; ++i) huge.stream.push_back(StreamStep::write(megabyte));
    huge.stream.push_back(StreamStep::hangForever());

    auto result = transcribe(huge);
    ASSERT_TRUE(result.error);
    EXPECT_FALSE(result.text);
    EXPECT_EQ(result.error->domain, "NSURLErrorDomain");
    EXPECT_EQ(result.error->code, url_error::kBadServerResponse);
    EXPECT_NE(result.error->localizedDescription.find("16 MB"), std::string::npos)
        << result.error->localizedDescription;
    EXPECT_EQ(result.progress.size(), 1u);
    EXPECT_TRUE(files->endpointByFileHash().empty());
    EXPECT_TRUE(logs.containsPrefix("AudioUploadManager.transcribeFile() - Transcription failed: "));
}

// Bytes whose digest sha256sum gave: a little over 3 MiB, so that the file goes through in several pieces and
// the last one is short.
std::string digestSample() {
    std::string bytes(3 * 1024 * 1024 + 17, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>((i * 131 + (i >> 11)) & 0xFF);
    return bytes;
}

TEST(Sha256HashTest, FileDigestsMatchKnownValues) {
    backendtest::TempFolder folder;
    const auto sample = folder.path() / "sample.bin";
    const auto empty = folder.path() / "empty.caf";
    const auto abc = folder.path() / "abc.txt";
    std::ofstream(sample, std::ios::binary) << digestSample();
    std::ofstream(empty, std::ios::binary).flush();
    std::ofstream(abc, std::ios::binary) << "abc";

    EXPECT_EQ(sha256Hash(sample), std::optional<std::string>(
                                      "33bb046e2974dd7cdc5d702b9500070ca08c0423ed01fc9e13b99741fc1b7cf4"));
    EXPECT_EQ(sha256Hash(empty), std::optional<std::string>(
                                     "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"));
    EXPECT_EQ(sha256Hash(abc), std::optional<std::string>(
                                   "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
}

TEST(Sha256HashTest, PiecesOfAnySizeGiveTheDigestOfTheWhole) {
    const std::string sample = digestSample();
    Sha256Stream stream;
    std::size_t at = 0;
    for (std::size_t piece : {0u, 1u, 63u, 64u, 65u, 4096u, 1000003u}) {
        stream.update(std::string_view(sample).substr(at, piece));
        at += piece;
    }
    stream.update(std::string_view(sample).substr(at));
    EXPECT_EQ(stream.finishHex(), sha256Hex(sample));
    EXPECT_EQ(sha256Hex(sample), "33bb046e2974dd7cdc5d702b9500070ca08c0423ed01fc9e13b99741fc1b7cf4");
}

TEST(Sha256HashTest, UnreadableFileGivesNothingAndSaysWhy) {
    platform::test::RecordingLogSink logs;
    backendtest::TempFolder folder;
    EXPECT_EQ(sha256Hash(folder.path() / "missing.caf"), std::nullopt);
    EXPECT_TRUE(logs.containsPrefix("FileManager.sha256Hash() - Failed to compute SHA-256 hash: The file "
                                    "“missing.caf” couldn’t be read: No such file or directory"));
    logs.clear();
    std::filesystem::create_directory(folder.path() / "folder.mp4");
    EXPECT_EQ(sha256Hash(folder.path() / "folder.mp4"), std::nullopt);
    EXPECT_TRUE(logs.containsPrefix("FileManager.sha256Hash() - Failed to compute SHA-256 hash: The file "
                                    "“folder.mp4” couldn’t be read: Is a directory"));
}

} // namespace
} // namespace sprelio

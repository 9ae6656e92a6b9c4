// A long file's two answers as the backend's bytes reach the file upload manager: the first part answers the
// upload (the id), the next ones the transcription, whose body is read line by line (progress, text, errors).
#include <cstddef>
#include <cstdint>

#include "BackendFuzzSupport.h"
#include "backend/FileUploadManager.h"

using namespace sprelio;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::BackendFixture fixture;
    for (const auto& part : fuzz::splitParts(data, size)) fixture.http.answers.push_back(fuzz::parseAnswer(part));

    auto files = std::make_unique<FileUploadManager>(FileUploadManager::Dependencies{
        fixture.loop, fixture.http, fixture.balancing, fixture.settings, *fixture.fp.constants, "DEVICE"});
    const std::string hash(64, 'a');
    std::optional<std::string> fileId;
    files->uploadFile(fixture.fp.recording, hash, "F-1", false,
                      [&fileId](std::optional<std::string> id, std::optional<int>, std::optional<Error>) { fileId = id; });
    fixture.settle();

    int endings = 0;
    files->transcribeFile(
        fileId.value_or("F-1"), hash, false, [](const std::string&, std::optional<double>) {},
        [&endings](const std::string&, std::optional<double>) { ++endings; }, [&endings](const Error&) { ++endings; });
    fixture.settle();
    // Exactly one of the text and the error ends a transcription.
    if (endings > 1) __builtin_trap();
    files.reset();
    fixture.settle();
    return 0;
}

// The answer to a recording upload, as the backend's bytes reach the upload manager: one JSON object, or JSON
// lines under text/event-stream. Each part of the input is the answer of one attempt (a failing backend makes the
// manager try the next one); every result the manager hands on is read as its owners read it.
#include <cstddef>
#include <cstdint>

#include "BackendFuzzSupport.h"
#include "backend/HttpAudioUploadManager.h"
#include "backend/UploadAnswer.h"

using namespace sprelio;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::BackendFixture fixture;
    for (const auto& part : fuzz::splitParts(data, size)) fixture.http.answers.push_back(fuzz::parseAnswer(part));

    HttpAudioUploadManager::Dependencies deps{fixture.loop,     fixture.loop,     fixture.fp.tp,
                                              fixture.http,     fixture.balancing, fixture.appState,
                                              fixture.settings, *fixture.fp.constants, fixture.history,
                                              fixture.messages, {},               &fixture.refresher,
                                              {}};
    auto manager = std::make_unique<HttpAudioUploadManager>(std::move(deps));
    std::size_t answers = 0;
    manager->uploadRecording(
        fixture.fp.recording, Uuid::random(),
        [&answers](std::optional<nlohmann::json> result, std::optional<int>, std::optional<Error> error) {
            ++answers;
            const UploadAnswer answer = readUploadAnswer(result, error);
            // The text goes to the cursor and the history: it must be a whole string of its own.
            volatile std::size_t length = answer.text.size() + (answer.anyText ? answer.anyText->size() : 0);
            (void)length;
        },
        nullptr, "de,en", false, std::nullopt, std::nullopt);
    fixture.settle();
    manager.reset();
    fixture.settle();
    return 0;
}

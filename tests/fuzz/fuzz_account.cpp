// The account API's answers as the server's bytes reach the client: /users/info (flags, AI servers and models,
// backends, the user's details and token) and the two sign-in steps. Each part answers one request in order:
// the refresh first, then the sign-in request, then the code.
#include <cstddef>
#include <cstdint>

#include "BackendFuzzSupport.h"
#include "backend/LoginResourceService.h"

using namespace sprelio;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::BackendFixture fixture;
    for (const auto& part : fuzz::splitParts(data, size)) fixture.http.answers.push_back(fuzz::parseAnswer(part));

    LoginResourceService::Dependencies deps{fixture.loop,     fixture.fp.tp,        fixture.http,
                                            fixture.settings, *fixture.fp.constants, fixture.appState,
                                            fixture.fp.tp,    &fixture.balancing,   &fixture.messages,
                                            "http://127.0.0.1:9/api", "fuzz-machine", "??", false};
    auto service = std::make_unique<LoginResourceService>(std::move(deps));
    service->refreshUserInfo("fuzz", true, [](std::optional<Error>) {});
    fixture.settle();
    service->login("someone@example.org", [](auto, auto, auto) {});
    fixture.settle();
    service->loginViaCode("0b0e4b4c-5b6e-4a8f-9c57-1d6bfe7a3f55", "123456", [](auto, auto, auto) {});
    fixture.settle();
    // What a refresh stored is read back as the next start would read it.
    if (auto stored = fixture.settings.value("userDetailsResponse"); stored.is_object()) {
        (void)UserDetailsResponse::decode(stored);
    }
    BalancingManager reread(fixture.loop, fixture.fp.tp, fixture.settings, fixture.appState, "Sprelio");
    service.reset();
    fixture.settle();
    return 0;
}

// The embedded engine on read speech (the LibriVox clips of pocketsphinx-testdata). One engine serves request after
// request in its slot, for different users and microphones: what it recognises in one recording must not depend
// on the recordings before it.
#include <gtest/gtest.h>

#include <vector>

#include "ServerTestSupport.h"
#include "server/AudioDecoder.h"
#include "server/PocketsphinxEngine.h"

namespace sprelio::server::test {
namespace {

const char* kModelFolder = "/usr/share/pocketsphinx/model/en-us";
const std::filesystem::path kClips = "/usr/share/pocketsphinx/test/data/librivox";

std::vector<std::int16_t> clip(const std::string& id) {
    auto decoded = decodeAudio(readFile(kClips / ("sense_and_sensibility_01_austen_64kb-" + id + ".wav")), 60);
    auto* audio = std::get_if<DecodedAudio>(&decoded);
    return audio ? audio->samples : std::vector<std::int16_t>{};
}

TEST(PocketsphinxEngine, ARecordingGivesTheSameTextWhateverTheEngineHeardBefore) {
    auto before = clip("0870");
    auto recording = clip("0880");
    ASSERT_FALSE(before.empty() || recording.empty())
        << "the clips of pocketsphinx-testdata are missing in " << kClips << " (scripts/install-deps.sh)";

    PocketsphinxEngine fresh(kModelFolder);
    const auto expected = fresh.transcribe(recording, "en").text;
    ASSERT_FALSE(expected.empty());

    // The cepstral mean the decoder estimated from earlier audio changed these words before each request started
    // from the model's own.
    PocketsphinxEngine used(kModelFolder);
    used.transcribe(before, "en");
    EXPECT_EQ(used.transcribe(recording, "en").text, expected);
    EXPECT_EQ(used.transcribe(recording, "en").text, expected);
}

} // namespace
} // namespace sprelio::server::test

#include "server/PocketsphinxEngine.h"

#include <pocketsphinx.h>
#include <sphinxbase/feat.h>

#include <algorithm>
#include <string>
#include <vector>

namespace sprelio::server {

namespace {

// The decoder's running estimate of the cepstral mean, which it subtracts from every frame and updates at the end
// of every utterance. Left alone it carries over from one request to the next: the text of one user's recording
// would then depend on the voice and microphone of whoever came before (a clip read right after another one
// came out "until this blows" instead of "an illness those"). Each request starts from the model's own estimate,
// as a new process of pocketsphinx_continuous does.
struct CepstralMeanStart {
    std::vector<mfcc_t> mean;
    std::vector<mfcc_t> sum;
    int32 frames = 0;

    static CepstralMeanStart of(const cmn_t& cmn) {
        return {{cmn.cmn_mean, cmn.cmn_mean + cmn.veclen}, {cmn.sum, cmn.sum + cmn.veclen}, cmn.nframe};
    }
    void restore(cmn_t& cmn) const {
        std::copy(mean.begin(), mean.end(), cmn.cmn_mean);
        std::copy(sum.begin(), sum.end(), cmn.sum);
        cmn.nframe = frames;
    }
};

} // namespace

struct PocketsphinxEngine::Impl {
    cmd_ln_t* config = nullptr;
    ps_decoder_t* decoder = nullptr;
    CepstralMeanStart cepstralMeanStart;
};

EngineDescription PocketsphinxEngine::description() { return {"pocketsphinx", {"en"}, false}; }

PocketsphinxEngine::PocketsphinxEngine(const std::filesystem::path& modelFolder) : impl_(new Impl) {
    auto hmm = (modelFolder / "en-us").string();
    auto lm = (modelFolder / "en-us.lm.bin").string();
    auto dict = (modelFolder / "cmudict-en-us.dict").string();
    for (const auto& file : {hmm, lm, dict}) {
        if (!std::filesystem::exists(file)) {
            delete impl_;
            throw EngineError("pocketsphinx model file missing: " + file);
        }
    }
    // The library writes its own chatter to stderr unless told otherwise; it would drown the server's log.
    impl_->config = cmd_ln_init(nullptr, ps_args(), TRUE, "-hmm", hmm.c_str(), "-lm", lm.c_str(), "-dict",
                                dict.c_str(), "-logfn", "/dev/null", nullptr);
    if (impl_->config) impl_->decoder = ps_init(impl_->config);
    if (!impl_->decoder) {
        if (impl_->config) cmd_ln_free_r(impl_->config);
        delete impl_;
        throw EngineError("pocketsphinx could not load the model in " + modelFolder.string());
    }
    impl_->cepstralMeanStart = CepstralMeanStart::of(*ps_get_feat(impl_->decoder)->cmn_struct);
}

PocketsphinxEngine::~PocketsphinxEngine() {
    ps_free(impl_->decoder);
    cmd_ln_free_r(impl_->config);
    delete impl_;
}

Transcript PocketsphinxEngine::transcribe(std::span<const std::int16_t> samples, const std::string& language) {
    // The recogniser is cut into utterances at the pauses its own voice-activity detector finds: one long
    // utterance costs memory and accuracy, and a file of an hour must not be one utterance.
    constexpr std::size_t kChunk = 2048;
    ps_decoder_t* ps = impl_->decoder;
    impl_->cepstralMeanStart.restore(*ps_get_feat(ps)->cmn_struct);
    // A new stream to the library too: the noise level its voice-activity detector tracks starts afresh.
    if (ps_start_stream(ps) < 0) throw EngineError("pocketsphinx refused to start a stream");
    std::string text;
    auto appendHypothesis = [&] {
        int32 score = 0;
        const char* hyp = ps_get_hyp(ps, &score);
        if (hyp && *hyp) {
            if (!text.empty()) text += ' ';
            text += hyp;
        }
    };
    if (ps_start_utt(ps) < 0) throw EngineError("pocketsphinx refused to start an utterance");
    bool inSpeech = false;
    for (std::size_t at = 0; at < samples.size(); at += kChunk) {
        std::size_t count = std::min(kChunk, samples.size() - at);
        if (ps_process_raw(ps, samples.data() + at, count, FALSE, FALSE) < 0) {
            ps_end_utt(ps); // the next request must find the decoder idle
            throw EngineError("pocketsphinx failed on the audio");
        }
        bool speech = ps_get_in_speech(ps) != 0;
        if (speech && !inSpeech) inSpeech = true;
        if (!speech && inSpeech) {
            ps_end_utt(ps);
            appendHypothesis();
            if (ps_start_utt(ps) < 0) throw EngineError("pocketsphinx refused to start an utterance");
            inSpeech = false;
        }
    }
    ps_end_utt(ps);
    appendHypothesis();
    return {text, language};
}

} // namespace sprelio::server

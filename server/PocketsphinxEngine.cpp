#include "server/PocketsphinxEngine.h"

#include <pocketsphinx.h>
#include <sphinxbase/feat.h>

#include <algorithm>
#include <memory>
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

EngineDescription PocketsphinxEngine::description() { return {"pocketsphinx", {"en"}, false, true}; }

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

namespace {

// The recogniser is cut into utterances at the pauses its own voice-activity detector finds: one long utterance
// costs memory and accuracy, and a file of an hour must not be one utterance. The audio goes in in pieces of a
// fixed size whatever pieces it arrives in, so that a recording fed while it is spoken meets the detector at the
// same points as the same recording fed at once, and gets the same text.
class PocketsphinxRun final : public IncrementalTranscription {
public:
    static constexpr std::size_t kChunk = 2048;

    PocketsphinxRun(ps_decoder_t* ps, std::string language) : ps_(ps), language_(std::move(language)) {
        if (ps_start_stream(ps_) < 0) throw EngineError("pocketsphinx refused to start a stream");
        if (ps_start_utt(ps_) < 0) throw EngineError("pocketsphinx refused to start an utterance");
        inUtterance_ = true;
    }
    ~PocketsphinxRun() override {
        // The next request must find the decoder idle.
        if (inUtterance_) ps_end_utt(ps_);
    }

    void feed(std::span<const std::int16_t> samples) override {
        // Whole pieces straight from the caller's buffer; only a remainder waits.
        while (!samples.empty()) {
            if (pending_.empty() && samples.size() >= kChunk) {
                process(samples.first(kChunk));
                samples = samples.subspan(kChunk);
                continue;
            }
            std::size_t take = std::min(kChunk - pending_.size(), samples.size());
            pending_.insert(pending_.end(), samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(take));
            samples = samples.subspan(take);
            if (pending_.size() == kChunk) {
                process(pending_);
                pending_.clear();
            }
        }
    }

    Transcript finish() override {
        if (!pending_.empty()) process(pending_);
        pending_.clear();
        inUtterance_ = false;
        ps_end_utt(ps_);
        appendHypothesis();
        return {text_, language_};
    }

private:
    void process(std::span<const std::int16_t> chunk) {
        if (ps_process_raw(ps_, chunk.data(), chunk.size(), FALSE, FALSE) < 0)
            throw EngineError("pocketsphinx failed on the audio");
        bool speech = ps_get_in_speech(ps_) != 0;
        if (speech && !inSpeech_) inSpeech_ = true;
        if (!speech && inSpeech_) {
            inUtterance_ = false;
            ps_end_utt(ps_);
            appendHypothesis();
            if (ps_start_utt(ps_) < 0) throw EngineError("pocketsphinx refused to start an utterance");
            inUtterance_ = true;
            inSpeech_ = false;
        }
    }

    void appendHypothesis() {
        int32 score = 0;
        const char* hyp = ps_get_hyp(ps_, &score);
        if (hyp && *hyp) {
            if (!text_.empty()) text_ += ' ';
            text_ += hyp;
        }
    }

    ps_decoder_t* ps_;
    std::string language_;
    std::vector<std::int16_t> pending_;
    std::string text_;
    bool inSpeech_ = false;
    bool inUtterance_ = false;
};

} // namespace

std::unique_ptr<IncrementalTranscription> PocketsphinxEngine::beginIncremental(const std::string& language) {
    impl_->cepstralMeanStart.restore(*ps_get_feat(impl_->decoder)->cmn_struct);
    // A new stream to the library too: the noise level its voice-activity detector tracks starts afresh.
    return std::make_unique<PocketsphinxRun>(impl_->decoder, language);
}

Transcript PocketsphinxEngine::transcribe(std::span<const std::int16_t> samples, const std::string& language) {
    auto run = beginIncremental(language);
    run->feed(samples);
    return run->finish();
}

} // namespace sprelio::server

#include "server/LiveAudioDecoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

#include <cstring>
#include <vector>

namespace sprelio::server {

namespace {

// How the container of a recording describes its Opus stream to FFmpeg: Opus counts its frames at 48 kHz, and a
// packet holds 20 ms. The codec is set up from exactly these values, so that it behaves as it does behind the
// file demuxer of an upload.
constexpr int kOpusContainerRate = 48000;
constexpr int kFramesPerPacket = 960;

} // namespace

struct LiveOpusDecoder::Impl {
    double maxSeconds = 0;
    std::uint64_t delivered = 0;
    std::optional<DecodeFailure> openFailure;
    AVCodecContext* codec = nullptr;
    SwrContext* resampler = nullptr;
    AVFrame* frame = nullptr;
    AVPacket* packet = nullptr;
    std::vector<std::int16_t> samples;

    ~Impl() {
        swr_free(&resampler);
        avcodec_free_context(&codec);
        av_frame_free(&frame);
        av_packet_free(&packet);
    }

    std::optional<DecodeFailure> ensureResampler(const AVFrame& decoded) {
        if (resampler) return std::nullopt;
        AVChannelLayout inLayout{};
        if (decoded.ch_layout.nb_channels > 0 && decoded.ch_layout.order != AV_CHANNEL_ORDER_UNSPEC)
            av_channel_layout_copy(&inLayout, &decoded.ch_layout);
        else
            av_channel_layout_default(&inLayout, std::max(1, decoded.ch_layout.nb_channels));
        AVChannelLayout outLayout = AV_CHANNEL_LAYOUT_MONO;
        int rc = swr_alloc_set_opts2(&resampler, &outLayout, AV_SAMPLE_FMT_S16, DecodedAudio::kSampleRate, &inLayout,
                                     static_cast<AVSampleFormat>(decoded.format), decoded.sample_rate, 0, nullptr);
        av_channel_layout_uninit(&inLayout);
        if (rc < 0 || !resampler || swr_init(resampler) < 0) {
            swr_free(&resampler);
            return DecodeFailure{"The live audio has a sample layout the server can't convert."};
        }
        return std::nullopt;
    }

    std::optional<DecodeFailure> append(const std::uint8_t** input, int inputSamples) {
        int capacity = swr_get_out_samples(resampler, inputSamples);
        if (capacity <= 0) return std::nullopt;
        std::size_t offset = samples.size();
        samples.resize(offset + static_cast<std::size_t>(capacity));
        auto* out = reinterpret_cast<std::uint8_t*>(samples.data() + offset);
        int produced = swr_convert(resampler, &out, capacity, input, inputSamples);
        if (produced < 0) {
            samples.resize(offset);
            return DecodeFailure{"The live audio could not be converted."};
        }
        samples.resize(offset + static_cast<std::size_t>(produced));
        if (static_cast<double>(delivered + samples.size()) / DecodedAudio::kSampleRate > maxSeconds)
            return DecodeFailure{"The live audio is longer than this server accepts."};
        return std::nullopt;
    }

    std::optional<DecodeFailure> drain() {
        for (;;) {
            int rc = avcodec_receive_frame(codec, frame);
            if (rc < 0) return std::nullopt; // EAGAIN, the end, or a frame that fails: the rest goes on
            if (frame->sample_rate <= 0) {
                av_frame_unref(frame);
                continue;
            }
            if (auto failure = ensureResampler(*frame)) return failure;
            auto failure = append(const_cast<const std::uint8_t**>(frame->extended_data), frame->nb_samples);
            av_frame_unref(frame);
            if (failure) return failure;
        }
    }

    std::optional<DecodeFailure> deliver(const SampleSink& sink) {
        if (samples.empty()) return std::nullopt;
        if (!sink(std::span<const std::int16_t>(samples))) return DecodeFailure{"The decoding was stopped."};
        delivered += samples.size();
        samples.clear();
        return std::nullopt;
    }
};

LiveOpusDecoder::LiveOpusDecoder(int channels, double maxSeconds) : impl_(std::make_unique<Impl>()) {
    impl_->maxSeconds = maxSeconds;
    av_log_set_level(AV_LOG_QUIET);
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_OPUS);
    AVCodecParameters* parameters = avcodec_parameters_alloc();
    impl_->codec = codec ? avcodec_alloc_context3(codec) : nullptr;
    impl_->frame = av_frame_alloc();
    impl_->packet = av_packet_alloc();
    bool opened = false;
    if (codec && parameters && impl_->codec && impl_->frame && impl_->packet && (channels == 1 || channels == 2)) {
        parameters->codec_type = AVMEDIA_TYPE_AUDIO;
        parameters->codec_id = AV_CODEC_ID_OPUS;
        parameters->codec_tag = MKBETAG('o', 'p', 'u', 's');
        parameters->sample_rate = kOpusContainerRate;
        parameters->ch_layout.order = AV_CHANNEL_ORDER_UNSPEC;
        parameters->ch_layout.nb_channels = channels;
        parameters->frame_size = kFramesPerPacket;
        opened = avcodec_parameters_to_context(impl_->codec, parameters) >= 0 &&
                 avcodec_open2(impl_->codec, codec, nullptr) >= 0;
    }
    avcodec_parameters_free(&parameters);
    if (!opened) impl_->openFailure = DecodeFailure{"The server can't decode Opus audio."};
}

LiveOpusDecoder::~LiveOpusDecoder() = default;

const std::optional<DecodeFailure>& LiveOpusDecoder::openFailure() const { return impl_->openFailure; }

std::optional<DecodeFailure> LiveOpusDecoder::push(std::string_view bytes, const SampleSink& sink) {
    if (impl_->openFailure) return impl_->openFailure;
    if (bytes.empty()) return std::nullopt;
    if (av_new_packet(impl_->packet, static_cast<int>(bytes.size())) < 0)
        return DecodeFailure{"The server ran out of memory while decoding."};
    std::memcpy(impl_->packet->data, bytes.data(), bytes.size());
    int sent = avcodec_send_packet(impl_->codec, impl_->packet);
    av_packet_unref(impl_->packet);
    if (sent >= 0) {
        if (auto failure = impl_->drain()) return failure;
    }
    return impl_->deliver(sink);
}

std::optional<DecodeFailure> LiveOpusDecoder::finish(const SampleSink& sink) {
    if (impl_->openFailure) return impl_->openFailure;
    avcodec_send_packet(impl_->codec, nullptr);
    if (auto failure = impl_->drain()) return failure;
    if (impl_->resampler) {
        if (auto failure = impl_->append(nullptr, 0)) return failure;
    }
    return impl_->deliver(sink);
}

} // namespace sprelio::server

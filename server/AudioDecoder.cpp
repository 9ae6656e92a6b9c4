#include "server/AudioDecoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

namespace sprelio::server {

namespace {

struct MemoryReader {
    std::string_view bytes;
    std::int64_t position = 0;
};

int readPacket(void* opaque, std::uint8_t* buffer, int size) {
    auto* reader = static_cast<MemoryReader*>(opaque);
    auto left = static_cast<std::int64_t>(reader->bytes.size()) - reader->position;
    if (left <= 0) return AVERROR_EOF;
    int count = static_cast<int>(std::min<std::int64_t>(left, size));
    std::memcpy(buffer, reader->bytes.data() + reader->position, static_cast<std::size_t>(count));
    reader->position += count;
    return count;
}

std::int64_t seekTo(void* opaque, std::int64_t offset, int whence) {
    auto* reader = static_cast<MemoryReader*>(opaque);
    auto size = static_cast<std::int64_t>(reader->bytes.size());
    if (whence & AVSEEK_SIZE) return size;
    std::int64_t target;
    switch (whence & ~AVSEEK_FORCE) {
    case SEEK_SET: target = offset; break;
    case SEEK_CUR: target = reader->position + offset; break;
    case SEEK_END: target = size + offset; break;
    default: return -1;
    }
    if (target < 0 || target > size) return -1;
    reader->position = target;
    return target;
}

struct FileReader {
    std::FILE* file = nullptr;
};

int readFilePacket(void* opaque, std::uint8_t* buffer, int size) {
    auto* reader = static_cast<FileReader*>(opaque);
    auto count = std::fread(buffer, 1, static_cast<std::size_t>(size), reader->file);
    if (count == 0) return std::ferror(reader->file) ? AVERROR(EIO) : AVERROR_EOF;
    return static_cast<int>(count);
}

std::int64_t seekFile(void* opaque, std::int64_t offset, int whence) {
    auto* reader = static_cast<FileReader*>(opaque);
    if (whence & AVSEEK_SIZE) {
        auto here = ftello(reader->file);
        if (fseeko(reader->file, 0, SEEK_END) != 0) return -1;
        auto size = ftello(reader->file);
        fseeko(reader->file, here, SEEK_SET);
        return size;
    }
    if (fseeko(reader->file, offset, whence & ~AVSEEK_FORCE) != 0) return -1;
    return ftello(reader->file);
}

// The containers audio and video files come in. Anything else FFmpeg would open is refused after probing:
// playlists and scripts (concat, hls, dash, ffmetadata), image sequences, network descriptions (sdp, rtsp), and
// raw data; they would read other files or other servers in the uploader's name.
constexpr const char* kContainers =
    "wav,w64,caf,aiff,au,flac,ogg,mp3,aac,ac3,eac3,amr,amrnb,amrwb,matroska,webm,mov,mp4,m4a,3gp,3g2,mj2,avi,asf,"
    "mpeg,mpegts,flv,wv,ape,tta,dts,truehd,mlp,mpc,mpc8,xwma,dsf,voc,rm,gsm";

// The one input is the upload itself: every further file or URL a container names is refused.
int refuseNestedOpen(AVFormatContext*, AVIOContext**, const char*, int, AVDictionary**) { return AVERROR(EPERM); }

struct FileCloser {
    void operator()(std::FILE* file) const {
        if (file) std::fclose(file);
    }
};

struct FormatCloser {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct IoCloser {
    void operator()(AVIOContext* io) const {
        if (io) av_freep(&io->buffer);
        avio_context_free(&io);
    }
};
struct CodecCloser {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct SwrCloser {
    void operator()(SwrContext* context) const { swr_free(&context); }
};
struct FrameCloser {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketCloser {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

// The highest rate of real recordings and studio formats (DXD is 352.8 kHz; some converters offer 768 kHz).
constexpr int kMaxInputSampleRate = 768000;

class Decoder {
public:
    Decoder(std::string_view bytes, double maxSeconds) : reader_{bytes, 0}, maxSeconds_(maxSeconds) {}
    Decoder(std::filesystem::path path, double maxSeconds, const SampleSink* sink)
        : reader_{{}, 0}, maxSeconds_(maxSeconds), path_(std::move(path)), sink_(sink) {}

    bool cancelled() const { return cancelled_; }
    std::uint64_t delivered() const { return delivered_; }

    std::variant<DecodedAudio, DecodeFailure> run() {
        // Files are read through our own reader too, so that FFmpeg never opens a path or URL by itself.
        if (!path_.empty()) {
            file_.reset(std::fopen(path_.c_str(), "rb"));
            if (!file_) return DecodeFailure{"The uploaded file could not be read."};
            fileReader_.file = file_.get();
        }
        constexpr int kIoBufferSize = 64 * 1024;
        auto* buffer = static_cast<std::uint8_t*>(av_malloc(kIoBufferSize));
        if (!buffer) return DecodeFailure{"The server ran out of memory while reading the upload."};
        if (file_)
            io_.reset(avio_alloc_context(buffer, kIoBufferSize, 0, &fileReader_, readFilePacket, nullptr, seekFile));
        else
            io_.reset(avio_alloc_context(buffer, kIoBufferSize, 0, &reader_, readPacket, nullptr, seekTo));
        if (!io_) {
            av_free(buffer);
            return DecodeFailure{"The server ran out of memory while reading the upload."};
        }
        AVFormatContext* format = avformat_alloc_context();
        if (!format) return DecodeFailure{"The server ran out of memory while reading the upload."};
        format->pb = io_.get();
        format->flags |= AVFMT_FLAG_CUSTOM_IO;
        format->format_whitelist = av_strdup(kContainers);
        format->protocol_whitelist = av_strdup("none");
        format->io_open = refuseNestedOpen;
        // On failure avformat_open_input frees the context itself.
        if (avformat_open_input(&format, nullptr, nullptr, nullptr) < 0)
            return DecodeFailure{"The uploaded file is not an audio or video format the server can read."};
        format_.reset(format);
        return decode(format);
    }

private:
    std::variant<DecodedAudio, DecodeFailure> decode(AVFormatContext* format) {
        if (avformat_find_stream_info(format, nullptr) < 0)
            return DecodeFailure{"The uploaded file is damaged or incomplete: its streams can't be read."};

        const AVCodec* codec = nullptr;
        int stream = av_find_best_stream(format, AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
        if (stream < 0 || !codec) return DecodeFailure{"The uploaded file holds no audio the server can decode."};
        codecContext_.reset(avcodec_alloc_context3(codec));
        if (!codecContext_ ||
            avcodec_parameters_to_context(codecContext_.get(), format->streams[stream]->codecpar) < 0 ||
            avcodec_open2(codecContext_.get(), codec, nullptr) < 0)
            return DecodeFailure{"The audio codec of the uploaded file can't be opened."};

        DecodedAudio audio;
        audio.formatName = format->iformat ? format->iformat->name : "";
        audio.codecName = codec->name ? codec->name : "";

        frame_.reset(av_frame_alloc());
        std::unique_ptr<AVPacket, PacketCloser> packet(av_packet_alloc());
        if (!frame_ || !packet) return DecodeFailure{"The server ran out of memory while decoding."};

        bool anyPacket = false;
        int readError = 0;
        while ((readError = av_read_frame(format, packet.get())) >= 0) {
            if (packet->stream_index == stream) {
                anyPacket = true;
                // A damaged packet in the middle is skipped, like players do; what decodes is kept.
                if (avcodec_send_packet(codecContext_.get(), packet.get()) >= 0) {
                    if (auto failure = drain(audio)) return *failure;
                    if (auto failure = deliver(audio)) return *failure;
                }
            }
            av_packet_unref(packet.get());
        }
        avcodec_send_packet(codecContext_.get(), nullptr);
        if (auto failure = drain(audio)) return *failure;
        if (auto failure = flushResampler(audio)) return *failure;
        if (auto failure = deliver(audio)) return *failure;

        if (!anyPacket) return DecodeFailure{"The uploaded file holds no audio data."};
        if (audio.samples.empty() && delivered_ == 0) return DecodeFailure{"The audio of the uploaded file could not be decoded."};
        return audio;
    }

    // With a sink, the samples decoded so far leave the buffer.
    std::optional<DecodeFailure> deliver(DecodedAudio& audio) {
        if (!sink_ || audio.samples.empty()) return std::nullopt;
        if (!(*sink_)(std::span<const std::int16_t>(audio.samples))) {
            cancelled_ = true;
            return DecodeFailure{"The decoding was stopped."};
        }
        delivered_ += audio.samples.size();
        audio.samples.clear();
        return std::nullopt;
    }

    std::optional<DecodeFailure> ensureResampler(const AVFrame& frame) {
        if (resampler_) return std::nullopt;
        // A rate no real audio has (a damaged or hostile header) makes the resampler build a filter of gigabytes
        // and spend seconds on a few bytes of upload, holding a worker all that time.
        if (frame.sample_rate > kMaxInputSampleRate)
            return DecodeFailure{"The audio of the uploaded file has a sample rate the server can't convert."};
        AVChannelLayout inLayout{};
        if (frame.ch_layout.nb_channels > 0 && frame.ch_layout.order != AV_CHANNEL_ORDER_UNSPEC)
            av_channel_layout_copy(&inLayout, &frame.ch_layout);
        else
            av_channel_layout_default(&inLayout, std::max(1, frame.ch_layout.nb_channels));
        AVChannelLayout outLayout = AV_CHANNEL_LAYOUT_MONO;
        SwrContext* swr = nullptr;
        int rc = swr_alloc_set_opts2(&swr, &outLayout, AV_SAMPLE_FMT_S16, DecodedAudio::kSampleRate, &inLayout,
                                     static_cast<AVSampleFormat>(frame.format), frame.sample_rate, 0, nullptr);
        av_channel_layout_uninit(&inLayout);
        if (rc < 0 || !swr || swr_init(swr) < 0) {
            swr_free(&swr);
            return DecodeFailure{"The audio of the uploaded file has a sample layout the server can't convert."};
        }
        resampler_.reset(swr);
        return std::nullopt;
    }

    std::optional<DecodeFailure> append(const std::uint8_t** input, int inputSamples, DecodedAudio& audio) {
        int capacity = swr_get_out_samples(resampler_.get(), inputSamples);
        if (capacity <= 0) return std::nullopt;
        std::size_t offset = audio.samples.size();
        audio.samples.resize(offset + static_cast<std::size_t>(capacity));
        auto* out = reinterpret_cast<std::uint8_t*>(audio.samples.data() + offset);
        int produced = swr_convert(resampler_.get(), &out, capacity, input, inputSamples);
        if (produced < 0) {
            audio.samples.resize(offset);
            return DecodeFailure{"The audio of the uploaded file could not be converted."};
        }
        audio.samples.resize(offset + static_cast<std::size_t>(produced));
        if (static_cast<double>(delivered_ + audio.samples.size()) / DecodedAudio::kSampleRate > maxSeconds_)
            return DecodeFailure{"The uploaded audio is longer than this server accepts."};
        return std::nullopt;
    }

    std::optional<DecodeFailure> drain(DecodedAudio& audio) {
        for (;;) {
            int rc = avcodec_receive_frame(codecContext_.get(), frame_.get());
            if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return std::nullopt;
            if (rc < 0) return std::nullopt; // a frame that fails to decode is dropped; the rest goes on
            if (frame_->sample_rate <= 0) {
                av_frame_unref(frame_.get());
                continue;
            }
            if (auto failure = ensureResampler(*frame_)) return failure;
            auto failure = append(const_cast<const std::uint8_t**>(frame_->extended_data), frame_->nb_samples, audio);
            av_frame_unref(frame_.get());
            if (failure) return failure;
        }
    }

    std::optional<DecodeFailure> flushResampler(DecodedAudio& audio) {
        if (!resampler_) return std::nullopt;
        return append(nullptr, 0, audio);
    }

    MemoryReader reader_;
    FileReader fileReader_;
    std::unique_ptr<std::FILE, FileCloser> file_;
    double maxSeconds_;
    std::filesystem::path path_;
    const SampleSink* sink_ = nullptr;
    std::uint64_t delivered_ = 0;
    bool cancelled_ = false;
    std::unique_ptr<AVIOContext, IoCloser> io_;
    // Declared after io_ so that it is closed first: the format context reads through io_.
    std::unique_ptr<AVFormatContext, FormatCloser> format_;
    std::unique_ptr<AVCodecContext, CodecCloser> codecContext_;
    std::unique_ptr<SwrContext, SwrCloser> resampler_;
    std::unique_ptr<AVFrame, FrameCloser> frame_;
};

} // namespace

std::variant<DecodedAudio, DecodeFailure> decodeAudio(std::string_view bytes, double maxSeconds) {
    if (bytes.empty()) return DecodeFailure{"The uploaded file is empty."};
    av_log_set_level(AV_LOG_QUIET);
    Decoder decoder(bytes, maxSeconds);
    return decoder.run();
}

std::variant<DecodeSummary, FileDecodeFailure> decodeAudioFile(const std::filesystem::path& path, double maxSeconds,
                                                               const SampleSink& sink) {
    av_log_set_level(AV_LOG_QUIET);
    std::error_code error;
    if (std::filesystem::file_size(path, error) == 0 || error)
        return FileDecodeFailure{DecodeFailure{"The uploaded file is empty."}, false};
    Decoder decoder(path, maxSeconds, &sink);
    auto result = decoder.run();
    if (auto* failure = std::get_if<DecodeFailure>(&result)) return FileDecodeFailure{*failure, decoder.cancelled()};
    auto& audio = std::get<DecodedAudio>(result);
    return DecodeSummary{audio.formatName, audio.codecName, decoder.delivered()};
}

} // namespace sprelio::server

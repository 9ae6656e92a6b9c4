#pragma once
// Transcribes an uploaded long file as a stream of JSON lines: `progress_text` with `duration` (seconds of audio
// done) after each piece, then one `text` line with the whole transcript, or one `error` line. The file is decoded
// from disk and recognised piece by piece, so memory stays bounded whatever the file's length.
#include <atomic>
#include <filesystem>
#include <functional>
#include <span>
#include <string>

#include "server/TranscriptionEngine.h"

namespace sprelio::server {

class LongFileTranscriber {
public:
    // Writes one line (with its line feed); false when the client has gone away.
    using LineWriter = std::function<bool(const std::string& line)>;

    struct Options {
        std::string language;
        double chunkSeconds = 30;
        double maxSeconds = 3 * 60 * 60;
    };

    enum class Outcome { transcribed, failed, clientGone, stopped };

    // `stopping` is polled between pieces; when set the stream ends with an error line.
    static Outcome run(const std::filesystem::path& file, TranscriptionEngine& engine, const Options& options,
                       const std::atomic<bool>& stopping, const LineWriter& write);

    // Where to end a piece of `samples` (at most `limit` long): the quietest 20 ms in its last 30 %, so that a
    // cut falls between words rather than through one.
    static std::size_t cutPoint(std::span<const std::int16_t> samples, std::size_t limit);
};

} // namespace sprelio::server

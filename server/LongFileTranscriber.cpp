#include "server/LongFileTranscriber.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <vector>

#include "base/Log.h"
#include "server/AudioDecoder.h"

namespace sprelio::server {

namespace {

std::string line(const nlohmann::json& object) { return object.dump() + "\n"; }

std::string errorLine(const std::string& error, const std::string& message) {
    return line({{"error", error}, {"message", message}});
}

} // namespace

std::size_t LongFileTranscriber::cutPoint(std::span<const std::int16_t> samples, std::size_t limit) {
    limit = std::min(limit, samples.size());
    constexpr std::size_t kFrame = DecodedAudio::kSampleRate / 50;
    std::size_t from = limit * 7 / 10;
    if (limit < 2 * kFrame) return limit;
    std::size_t best = limit;
    std::uint64_t quietest = UINT64_MAX;
    for (std::size_t start = from; start + kFrame <= limit; start += kFrame / 2) {
        std::uint64_t energy = 0;
        for (std::size_t i = start; i < start + kFrame; ++i)
            energy += static_cast<std::uint64_t>(static_cast<std::int64_t>(samples[i]) * samples[i]);
        if (energy < quietest) {
            quietest = energy;
            best = start + kFrame / 2;
        }
    }
    return best;
}

LongFileTranscriber::Outcome LongFileTranscriber::run(const std::filesystem::path& file, TranscriptionEngine& engine,
                                                      const Options& options, const std::atomic<bool>& stopping,
                                                      const LineWriter& write) {
    if (!write(line({{"progress_text", "Transcribing"}, {"duration", 0}}))) return Outcome::clientGone;

    const auto chunk = static_cast<std::size_t>(std::max(1.0, options.chunkSeconds) * DecodedAudio::kSampleRate);
    std::vector<std::int16_t> pending;
    std::string text;
    std::uint64_t done = 0;
    Outcome outcome = Outcome::transcribed;

    auto recognise = [&](std::size_t count) -> bool {
        if (stopping) {
            outcome = Outcome::stopped;
            write(errorLine("ServerStopping", "The server is restarting; please try again."));
            return false;
        }
        try {
            auto piece = engine.transcribe(std::span<const std::int16_t>(pending.data(), count), options.language);
            if (!piece.text.empty()) text += (text.empty() ? "" : " ") + piece.text;
        } catch (const EngineRequestError& e) {
            outcome = Outcome::failed;
            write(errorLine("TranscriptionFailed", e.what()));
            return false;
        } catch (const EngineError& e) {
            log(LogLevel::error, std::string("LongFileTranscriber.run() - engine failure: ") + e.what());
            outcome = Outcome::failed;
            write(errorLine("EngineUnavailable", "The transcription engine of this server failed."));
            return false;
        }
        pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(count));
        done += count;
        double seconds = static_cast<double>(done) / DecodedAudio::kSampleRate;
        if (!write(line({{"progress_text", text}, {"duration", seconds}}))) {
            outcome = Outcome::clientGone;
            return false;
        }
        return true;
    };

    auto decoded = decodeAudioFile(file, options.maxSeconds, [&](std::span<const std::int16_t> samples) {
        pending.insert(pending.end(), samples.begin(), samples.end());
        while (pending.size() >= chunk + chunk / 4)
            if (!recognise(cutPoint(pending, chunk))) return false;
        return true;
    });

    if (auto* failure = std::get_if<FileDecodeFailure>(&decoded)) {
        if (failure->cancelled) return outcome;
        log(LogLevel::warning, "LongFileTranscriber.run() - not decodable: " + failure->failure.message);
        write(errorLine("UndecodableAudio", failure->failure.message));
        return Outcome::failed;
    }
    if (!pending.empty() && !recognise(pending.size())) return outcome;
    const auto& summary = std::get<DecodeSummary>(decoded);
    log(LogLevel::info, "LongFileTranscriber.run() - " + summary.formatName + "/" + summary.codecName + ", " +
                            std::to_string(static_cast<long long>(summary.seconds())) + " s of audio, text: " +
                            std::string(kPrivatized));
    if (!write(line({{"text", text}}))) return Outcome::clientGone;
    return Outcome::transcribed;
}

} // namespace sprelio::server

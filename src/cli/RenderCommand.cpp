// tarn render: the offline chain. Runs a file through exactly the code a live route runs,
// RouteDSPChain::processInterleaved, block by block, and writes 32-bit float WAV.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <memory>
#include <vector>

#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "cli/ChainOptions.hpp"
#include "cli/Command.hpp"
#include "core/dsp/BlockMath.hpp"
#include "core/dsp/DenormalGuard.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "player/AudioFileDecoder.hpp"
#include "player/AudioFileWriter.hpp"

namespace tarn::cli {
namespace {

struct RenderSettings {
    std::string input;
    std::string output;
    int blockFrames = 512;
    bool isJson = false;
    ChainOptions chain;
};

struct RenderSummary {
    std::string input;
    std::string output;
    std::int64_t frames = 0;
    int sampleRate = 0;
    int channels = 0;
    int blockFrames = 0;
    double inputPeak = 0.0;
    double outputPeak = 0.0;
    double estimatedPeakGainDb = 0.0;
    double ceilingAttenuationLinear = 1.0;
    bool isSafetyCeilingActive = false;
    double minHeadroomGain = 1.0;
    int leftOutSectionCount = 0;
    std::uint64_t nonFiniteInputSamples = 0;
    std::vector<std::string> warnings;
    double seconds = 0.0;
    double realtimeFactor = 0.0;
};

// Decoding and writing run in chunks this many frames long; the chain still sees --block frames
// at a time. Large chunks keep the per-call overhead of FFmpeg and libsndfile out of the way.
constexpr int chunkFrames = 32768;

std::atomic<int> interruptSignal{0};
extern "C" void onInterrupt(int signal) { interruptSignal.store(signal); }

// While a render runs, Ctrl-C (or SIGTERM) stops it cleanly so that the temporary output file
// is removed instead of being left behind.
class InterruptGuard {
public:
    InterruptGuard() {
        interruptSignal.store(0);
        struct sigaction action {};
        action.sa_handler = onInterrupt;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, &previousInt_);
        sigaction(SIGTERM, &action, &previousTerm_);
    }
    ~InterruptGuard() {
        sigaction(SIGINT, &previousInt_, nullptr);
        sigaction(SIGTERM, &previousTerm_, nullptr);
    }
    void check() const {
        if (int s = interruptSignal.load()) throw CommandError(128 + s, "interrupted; no output written");
    }

private:
    struct sigaction previousInt_ {}, previousTerm_ {};
};

// The true sample maximum of |x|; NaN and infinity are skipped (the chain counts them).
float peakOf(const float* samples, std::size_t count) {
    float peak = 0.0f;
    for (std::size_t done = 0; done < count;) {
        const int n = int(std::min<std::size_t>(count - done, 1 << 20));
        peak = std::max(peak, BlockMath::peak(samples + done, n));
        done += std::size_t(n);
    }
    return peak;
}

double toDb(double linear) { return linear > 0 ? 20.0 * std::log10(linear) : -INFINITY; }

std::string dbText(double linear) {
    return linear > 0 ? fmt::format("{:+.1f} dBFS", toDb(linear)) : std::string("silent");
}

class Progress {
public:
    Progress(bool isEnabled, std::optional<std::int64_t> totalFrames)
        : isEnabled_(isEnabled && totalFrames && *totalFrames > 0 && ::isatty(STDERR_FILENO)),
          total_(totalFrames.value_or(0)) {}
    void update(std::int64_t frames) {
        if (!isEnabled_) return;
        const int percent = static_cast<int>(std::min<std::int64_t>(100, frames * 100 / total_));
        if (percent == lastPercent_) return;
        lastPercent_ = percent;
        fmt::print(stderr, "\rrendering {:3d}%", percent);
        std::fflush(stderr);
    }
    void finish() {
        if (isEnabled_ && lastPercent_ >= 0) fmt::print(stderr, "\r\033[K");
    }

private:
    bool isEnabled_;
    std::int64_t total_;
    int lastPercent_ = -1;
};

RenderSummary render(RenderSettings& settings) {
    const auto started = std::chrono::steady_clock::now();
    InterruptGuard interrupts;

    settings.chain.loadFiles();

    std::unique_ptr<AudioFileDecoder> decoder;
    try {
        decoder = std::make_unique<AudioFileDecoder>(settings.input);
    } catch (const AudioFileDecoder::Error& e) {
        throw CommandError(exitFailure, e.what());
    }
    const int channels = decoder->channelCount();
    const int sampleRate = decoder->sampleRate();
    settings.chain.checkChannelCount(channels);

    RouteDSPChain chain(channels, sampleRate);
    settings.chain.applyTo(chain);

    std::unique_ptr<AudioFileWriter> writer;
    try {
        std::vector<std::filesystem::path> inputs = settings.chain.files();
        inputs.emplace_back(settings.input);
        writer = std::make_unique<AudioFileWriter>(settings.output, sampleRate, channels, inputs);
    } catch (const AudioFileWriter::Error& e) {
        throw CommandError(exitFailure, e.what());
    }

    // The live capture callback enables flush-to-zero before it runs the chain; so does this.
    DenormalGuard::enableFlushToZero();

    RenderSummary summary;
    summary.input = settings.input;
    summary.output = settings.output;
    summary.sampleRate = sampleRate;
    summary.channels = channels;
    summary.blockFrames = settings.blockFrames;

    Progress progress(!settings.isJson, decoder->estimatedFrameCount());
    std::vector<float> buffer(static_cast<std::size_t>(chunkFrames) * channels);
    float inputPeak = 0.0f, outputPeak = 0.0f;
    double minHeadroom = chain.headroomGain();
    try {
        for (;;) {
            interrupts.check();
            const int frames = decoder->read(buffer.data(), chunkFrames);
            if (frames == 0) break;
            const std::size_t samples = static_cast<std::size_t>(frames) * channels;
            inputPeak = std::max(inputPeak, peakOf(buffer.data(), samples));
            for (int offset = 0; offset < frames; offset += settings.blockFrames) {
                const int n = std::min(settings.blockFrames, frames - offset);
                chain.processInterleaved(buffer.data() + static_cast<std::size_t>(offset) * channels, n);
                minHeadroom = std::min(minHeadroom, chain.headroomGain());
            }
            outputPeak = std::max(outputPeak, peakOf(buffer.data(), samples));
            writer->write(buffer.data(), frames);
            summary.frames += frames;
            progress.update(summary.frames);
        }
        interrupts.check();
        writer->commit();
        if (auto shortfall = decoder->shortfall()) summary.warnings.push_back(*shortfall);
    } catch (const AudioFileDecoder::Error& e) {
        progress.finish();
        throw CommandError(exitFailure, e.what());
    } catch (const AudioFileWriter::Error& e) {
        progress.finish();
        throw CommandError(exitFailure, e.what());
    } catch (...) {
        progress.finish();
        throw;
    }
    progress.finish();

    summary.inputPeak = inputPeak;
    summary.outputPeak = outputPeak;
    summary.estimatedPeakGainDb = chain.estimatedPeakGainDb();
    summary.ceilingAttenuationLinear = chain.ceilingAttenuationLinear();
    summary.isSafetyCeilingActive = chain.isSafetyCeilingActive();
    summary.minHeadroomGain = minHeadroom;
    summary.leftOutSectionCount = chain.leftOutSectionCount();
    summary.nonFiniteInputSamples = chain.nonFiniteInputSampleCount();
    summary.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const double audioSeconds = double(summary.frames) / sampleRate;
    summary.realtimeFactor = summary.seconds > 0 ? audioSeconds / summary.seconds : 0.0;
    return summary;
}

void printJson(const RenderSummary& s) {
    nlohmann::ordered_json j;
    j["input"] = s.input;
    j["output"] = s.output;
    j["frames"] = s.frames;
    j["sampleRate"] = s.sampleRate;
    j["channels"] = s.channels;
    j["blockFrames"] = s.blockFrames;
    j["durationSeconds"] = double(s.frames) / s.sampleRate;
    j["inputPeak"] = s.inputPeak;
    j["outputPeak"] = s.outputPeak;
    j["estimatedPeakGainDb"] = s.estimatedPeakGainDb;
    j["ceilingAttenuationLinear"] = s.ceilingAttenuationLinear;
    j["isSafetyCeilingActive"] = s.isSafetyCeilingActive;
    j["minHeadroomGain"] = s.minHeadroomGain;
    j["leftOutSectionCount"] = s.leftOutSectionCount;
    j["nonFiniteInputSamples"] = s.nonFiniteInputSamples;
    j["warnings"] = s.warnings;
    j["seconds"] = s.seconds;
    j["realtimeFactor"] = s.realtimeFactor;
    fmt::print("{}\n", j.dump());
}

void printText(const RenderSummary& s) {
    const double audioSeconds = double(s.frames) / s.sampleRate;
    fmt::print("rendered {} -> {}\n", s.input, s.output);
    fmt::print("  audio          {:.2f} s: {} frames, {} Hz, {} channel{}, blocks of {}\n", audioSeconds, s.frames,
               s.sampleRate, s.channels, s.channels == 1 ? "" : "s", s.blockFrames);
    fmt::print("  input peak     {:.4f} ({})\n", s.inputPeak, dbText(s.inputPeak));
    fmt::print("  output peak    {:.4f} ({})\n", s.outputPeak, dbText(s.outputPeak));
    fmt::print("  peak gain      {:+.1f} dB estimated for the chain\n", s.estimatedPeakGainDb);
    if (s.isSafetyCeilingActive)
        fmt::print("  safety ceiling active: attenuation {:.4f} ({:+.1f} dB)\n", s.ceilingAttenuationLinear,
                   toDb(s.ceilingAttenuationLinear));
    else
        fmt::print("  safety ceiling not attenuating (attenuation {:.4f})\n", s.ceilingAttenuationLinear);
    fmt::print("  headroom gain  {:.4f} at its lowest\n", s.minHeadroomGain);
    if (s.leftOutSectionCount > 0)
        fmt::print("  left out       {} filter setting{} that cannot run at {} Hz (at or above 0.45 of the rate, or "
                   "out of range)\n",
                   s.leftOutSectionCount, s.leftOutSectionCount == 1 ? "" : "s", s.sampleRate);
    if (s.nonFiniteInputSamples > 0)
        fmt::print("  input          {} sample{} not a finite number (NaN or infinity), played as silence\n",
                   s.nonFiniteInputSamples, s.nonFiniteInputSamples == 1 ? " was" : "s were");
    fmt::print("  took           {:.3f} s ({:.0f}x real time)\n", s.seconds, s.realtimeFactor);
}

Command makeRenderCommand(CLI::App& root) {
    auto settings = std::make_shared<RenderSettings>();
    auto* app = root.add_subcommand("render", "Run an audio file through a route's chain and write 32-bit float WAV");
    app->footer(
        "Reads WAV, AIFF, FLAC, MP3, AAC/M4A and ALAC with 1 to 8 channels; the output keeps the input's rate "
        "and channel count. The output appears only when the render succeeds.\n"
        "Exit status: 0 done, 1 unreadable input, unwritable output or unusable EQ file, 2 bad usage.");
    app->add_option("INPUT", settings->input, "Audio file to read")->required();
    app->add_option("OUTPUT", settings->output, "WAV file to write (replaced if it exists)")->required();
    settings->chain.addTo(*app);
    app->add_option("--block", settings->blockFrames, "Frames per block the chain processes (default 512)")
        ->type_name("N")
        ->check(CLI::Range(1, 4096).description(""));
    app->add_flag("--json", settings->isJson, "Print the summary as one JSON object");
    return {app, [settings] {
                const auto summary = render(*settings);
                for (const auto& warning : summary.warnings) fmt::print(stderr, "tarn: warning: {}\n", warning);
                if (settings->isJson)
                    printJson(summary);
                else
                    printText(summary);
                return exitOk;
            }};
}

const CommandRegistration registration{"render", 10, &makeRenderCommand};

} // namespace
} // namespace tarn::cli

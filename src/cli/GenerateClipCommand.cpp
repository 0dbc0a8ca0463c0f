// tarn generate-clip: a short piece of music made from scratch (chords, bass line, drums), so that
// a chain can be tried and measured without bringing a file, and demos need no downloads.

#include <array>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

#include <fmt/format.h>

#include "cli/Command.hpp"
#include "cli/NumberOption.hpp"
#include "player/AudioFileWriter.hpp"

namespace tarn::cli {
namespace {

constexpr double pi = std::numbers::pi;

double noteHz(int midi) { return 440.0 * std::pow(2.0, (midi - 69) / 12.0); }

// A four-bar loop at 120 beats per minute: C, A minor, F, G, with the bass on the roots.
class ClipSynth {
public:
    static constexpr double beatSeconds = 0.5;
    static constexpr double barSeconds = 4 * beatSeconds;

    ClipSynth(double sampleRate, double lengthSeconds) : rate_(sampleRate), length_(lengthSeconds) {}

    // One stereo frame at time index i (frames must be asked for in order: the noise runs on).
    std::array<float, 2> frame(std::int64_t i) {
        const double t = double(i) / rate_;
        const int bar = int(t / barSeconds);
        const double inBar = t - bar * barSeconds;
        const int beat = int(inBar / beatSeconds);
        const double inBeat = inBar - beat * beatSeconds;
        const auto& chord = chords[bar % 4];

        // Pad: three notes with a few harmonics, swelling in and out with each bar.
        const double padEnvelope = std::min({1.0, inBar / 0.08, (barSeconds - inBar) / 0.15});
        double padLeft = 0, padRight = 0;
        for (int n = 0; n < 3; ++n) {
            const double f = noteHz(chord[n]);
            double v = 0;
            for (int h = 1; h <= 4; ++h) v += std::sin(2 * pi * f * h * t) / h;
            (n % 2 ? padRight : padLeft) += 0.045 * v * padEnvelope;
            (n % 2 ? padLeft : padRight) += 0.02 * v * padEnvelope;
        }

        // Bass: the chord's root two octaves down, plucked on every beat.
        const double bassHz = noteHz(chord[0] - 24);
        const double bass = 0.22 * std::exp(-inBeat / 0.25) * std::min(1.0, inBeat / 0.004) *
                            (std::sin(2 * pi * bassHz * t) + 0.4 * std::sin(4 * pi * bassHz * t));

        // Kick on beats 1 and 3: a falling sine. Snare on 2 and 4: noise and a body tone.
        double drums = 0;
        const double noise = nextNoise();
        if (beat % 2 == 0) {
            const double phase = 2 * pi * (45.0 * inBeat + (120.0 - 45.0) * 0.03 * (1 - std::exp(-inBeat / 0.03)));
            drums += 0.32 * std::exp(-inBeat / 0.12) * std::sin(phase);
        } else {
            drums += std::exp(-inBeat / 0.07) * (0.12 * noise + 0.08 * std::sin(2 * pi * 190.0 * inBeat));
        }

        // Hi-hat on every eighth: the difference of successive noise values, a bright hiss.
        const double inEighth = std::fmod(inBar, beatSeconds / 2);
        const double hat = 0.05 * std::exp(-inEighth / 0.02) * (noise - lastNoise_);
        lastNoise_ = noise;

        // Short fades at both ends so the clip starts and stops without a click.
        const double fade = std::clamp(std::min(t / 0.01, (length_ - t) / 0.5), 0.0, 1.0);
        return {float(fade * (padLeft + bass + drums + 0.4 * hat)), float(fade * (padRight + bass + drums + hat))};
    }

private:
    static constexpr std::array<std::array<int, 3>, 4> chords = {{{60, 64, 67}, {57, 60, 64}, {53, 57, 60}, {55, 59, 62}}};

    double nextNoise() {
        // xorshift32: the same clip every time.
        seed_ ^= seed_ << 13;
        seed_ ^= seed_ >> 17;
        seed_ ^= seed_ << 5;
        return double(seed_) / 2147483648.0 - 1.0;
    }

    double rate_;
    double length_;
    std::uint32_t seed_ = 0x9E3779B9u;
    double lastNoise_ = 0;
};

struct GenerateSettings {
    std::string output;
    double seconds = 8.0;
    int sampleRate = 48000;
    int channels = 2;
};

int generate(const GenerateSettings& s) {
    const auto frames = static_cast<std::int64_t>(std::llround(s.seconds * s.sampleRate));
    ClipSynth synth(s.sampleRate, s.seconds);
    try {
        AudioFileWriter writer(s.output, s.sampleRate, s.channels);
        constexpr int blockFrames = 4096;
        std::vector<float> block(static_cast<std::size_t>(blockFrames) * s.channels);
        for (std::int64_t start = 0; start < frames; start += blockFrames) {
            const int n = static_cast<int>(std::min<std::int64_t>(blockFrames, frames - start));
            for (int i = 0; i < n; ++i) {
                const auto lr = synth.frame(start + i);
                // More than two channels: the left mix on even channels, the right on odd ones.
                for (int c = 0; c < s.channels; ++c)
                    block[static_cast<std::size_t>(i) * s.channels + c] = s.channels == 1 ? 0.5f * (lr[0] + lr[1]) : lr[c % 2];
            }
            writer.write(block.data(), n);
        }
        writer.commit();
    } catch (const AudioFileWriter::Error& e) {
        throw CommandError(exitFailure, e.what());
    }
    return exitOk;
}

Command makeGenerateClipCommand(CLI::App& root) {
    auto settings = std::make_shared<GenerateSettings>();
    auto* app = root.add_subcommand(
        "generate-clip", "Write a short piece of music (chords, bass, drums) as 32-bit float WAV, for trying a chain");
    app->add_option("OUTPUT", settings->output, "WAV file to write (replaced if it exists)")->required();
    app->add_option("--seconds", settings->seconds, "Length in seconds (default 8)")
        ->type_name("S")
        ->check(numberWithin(0.01, 3600.0, " s"));
    app->add_option("--rate", settings->sampleRate, "Sample rate in Hz (default 48000)")
        ->type_name("HZ")
        ->check(CLI::Range(8000, 384000).description(""));
    app->add_option("--channels", settings->channels, "Channel count, 1 to 8 (default 2)")
        ->type_name("N")
        ->check(CLI::Range(1, 8).description(""));
    return {app, [settings] { return generate(*settings); }};
}

const CommandRegistration registration{"generate-clip", 20, &makeGenerateClipCommand};

} // namespace
} // namespace tarn::cli

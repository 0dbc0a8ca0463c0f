// tarn analyze: AI Tune on a file. Decodes it, feeds it through an AnalysisTap in capture-sized
// blocks exactly as a live route does, lets the band prominence analyser take every window, and
// runs the rule engine on the result.

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <optional>
#include <vector>

#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "cli/ChainOptions.hpp"
#include "cli/Command.hpp"
#include "cli/NumberOption.hpp"
#include "core/audio/IOBufferPolicy.hpp"
#include "core/dsp/TenBandLayout.hpp"
#include "core/profiles/BundledProfileCatalog.hpp"
#include "core/recommendation/BandProminenceAnalyzer.hpp"
#include "core/recommendation/RecommendationRuleEngine.hpp"
#include "player/AudioFileDecoder.hpp"

namespace tarn::cli {
namespace {

// Blocks of the size a music route's capture callback hands the tap.
constexpr int captureBlockFrames = int(IOBufferPolicy::musicFrames);
constexpr double maxLeanWeight = 4.0;

struct AnalyzeSettings {
    std::string file;
    bool isJson = false;
    std::string headphone;
    std::string genreText;
    std::optional<GenrePreset> genre;
    std::string scopeText = "song";
    RecommendationScope scope = RecommendationScope::song;
    std::vector<std::string> biasTexts;
    std::vector<double> biasDb = std::vector<double>(TenBandLayout::bandCount, 0.0);
    double leanWeight = 0.0;
    bool hasTimeline = false;
};

// "I=DB" into the bias list, or the reason it is not one.
std::string parseBias(const std::string& text, std::vector<double>& bias) {
    const auto eq = text.find('=');
    if (eq == std::string::npos) return fmt::format("\"{}\" is not I=DB (for example 1=+2)", text);
    const auto indexText = std::string_view(text).substr(0, eq);
    const auto band = ChainOptions::parseInteger(indexText);
    if (!band || *band < 0 || *band >= TenBandLayout::bandCount)
        return fmt::format("band index must be 0..{}, got \"{}\"", TenBandLayout::bandCount - 1, indexText);
    const auto db = ChainOptions::parseNumber(std::string_view(text).substr(eq + 1));
    if (!db) return fmt::format("\"{}\" is not a number of dB", text.substr(eq + 1));
    if (*db < TenBandLayout::minGainDb || *db > TenBandLayout::maxGainDb)
        return fmt::format("bias must be within {}..{} dB, got {}", TenBandLayout::minGainDb, TenBandLayout::maxGainDb,
                           text.substr(eq + 1));
    bias[*band] = *db;
    return "";
}

HeadphoneProfile resolveHeadphone(const std::string& text) {
    namespace fs = std::filesystem;
    std::error_code ec;
    const bool looksLikeFile = fs::exists(text, ec) || text.find('/') != std::string::npos ||
                               fs::path(text).extension() == ".json";
    if (looksLikeFile) return ChainOptions::loadProfileFile(text);
    try {
        if (const auto* profile = BundledProfileCatalog::shared().profile(text)) return *profile;
    } catch (const BundledProfileCatalog::LoadError& e) {
        throw CommandError(exitFailure, fmt::format("cannot look up headphone \"{}\": {}", text, e.what()));
    }
    throw CommandError(exitFailure,
                       fmt::format("unknown headphone \"{}\": neither a profile id of the headphone catalogue nor a "
                                   "profile file (find ids with: tarn profiles search TEXT)",
                                   text));
}

struct Analysis {
    int sampleRate = 0;
    int channelCount = 0;
    double durationSeconds = 0.0;
    ProminenceSnapshot snapshot;
    std::vector<BandProminenceAnalyzer::TimelineSecond> timeline;
};

Analysis analyse(const AnalyzeSettings& settings) {
    std::optional<AudioFileDecoder> decoder;
    try {
        decoder.emplace(settings.file);
    } catch (const AudioFileDecoder::Error& e) {
        throw CommandError(exitFailure, e.what());
    }
    Analysis result;
    result.sampleRate = decoder->sampleRate();
    result.channelCount = decoder->channelCount();

    BandProminenceAnalyzer analyzer;
    analyzer.start(result.sampleRate);
    analyzer.stop(); // offline: drained by hand, every window, no timer
    if (settings.hasTimeline) analyzer.setTimelineRecording(true);
    analyzer.tap().setEnabled(true);

    // Drain well before the tap's ring fills, so no audio is dropped.
    const std::int64_t drainAt = AnalysisTap::defaultFrameCapacity / 2;
    std::vector<float> block(std::size_t(captureBlockFrames) * result.channelCount);
    std::int64_t frames = 0;
    for (;;) {
        int n = 0;
        try {
            n = decoder->read(block.data(), captureBlockFrames);
        } catch (const AudioFileDecoder::Error& e) {
            throw CommandError(exitFailure, e.what());
        }
        if (n <= 0) break;
        analyzer.tap().write(block.data(), n, result.channelCount);
        frames += n;
        if (analyzer.tap().ring().availableFramesToRead() >= drainAt) analyzer.drainAvailableWindows();
    }
    analyzer.drainAvailableWindows();
    if (auto shortfall = decoder->shortfall()) fmt::print(stderr, "tarn: warning: {}\n", *shortfall);
    result.durationSeconds = double(frames) / result.sampleRate;
    result.snapshot = analyzer.snapshot();
    if (settings.hasTimeline) result.timeline = analyzer.timelineSnapshot();
    return result;
}

// "+1.5", "-2.0", and a plain "0.0" for anything that rounds to zero (never "-0.0").
std::string signedText(double v, int decimals) {
    const double scale = std::pow(10.0, decimals);
    if (std::round(std::abs(v) * scale) == 0.0) return fmt::format("{:.{}f}", 0.0, decimals);
    return fmt::format("{:+.{}f}", v, decimals);
}

nlohmann::json jsonNumber(double v) { return std::isfinite(v) ? nlohmann::json(v) : nlohmann::json(nullptr); }

int run(AnalyzeSettings& settings) {
    std::optional<HeadphoneProfile> profile;
    if (!settings.headphone.empty()) profile = resolveHeadphone(settings.headphone);

    const Analysis analysis = analyse(settings);
    const auto prominence = RecommendationRuleEngine::padded(analysis.snapshot.prominenceDb);

    RecommendationInput input;
    input.prominenceDb = prominence;
    input.prominenceConfident = analysis.snapshot.isConfident;
    if (profile) input.headphone = HeadphoneTraits::from(*profile, analysis.sampleRate);
    input.userBiasDb = settings.biasDb;
    input.genre = settings.genre.value_or(GenrePreset::flat);
    input.genreLeanWeight = settings.leanWeight;
    const auto recommendations = RecommendationRuleEngine::recommend(input, settings.scope);

    if (settings.isJson) {
        nlohmann::json out;
        out["prominenceDb"] = nlohmann::json::array();
        for (double p : prominence) out["prominenceDb"].push_back(p);
        out["isConfident"] = analysis.snapshot.isConfident;
        out["analyzedSeconds"] = analysis.snapshot.analyzedSeconds;
        out["recommendations"] = nlohmann::json::array();
        for (const auto& r : recommendations)
            out["recommendations"].push_back({{"bandIndex", r.bandIndex}, {"gainDb", r.gainDb}, {"rationale", r.rationale}});
        if (settings.hasTimeline) {
            out["timeline"] = nlohmann::json::array();
            for (const auto& second : analysis.timeline) {
                if (!second) {
                    out["timeline"].push_back(nullptr);
                    continue;
                }
                nlohmann::json levels = nlohmann::json::array();
                for (double v : *second) levels.push_back(jsonNumber(v));
                out["timeline"].push_back(levels);
            }
        }
        fmt::print("{}\n", out.dump(2));
        return exitOk;
    }

    fmt::print("{}: {} Hz, {} channel{}, {:.1f} s\n", settings.file, analysis.sampleRate, analysis.channelCount,
               analysis.channelCount == 1 ? "" : "s", analysis.durationSeconds);
    if (analysis.snapshot.prominenceDb.empty()) {
        fmt::print("Nothing to analyse: the file is silent (or shorter than one 4096-frame window).\n");
    } else {
        fmt::print("Analysed {:.1f} s — {}\n", analysis.snapshot.analyzedSeconds,
                   analysis.snapshot.isConfident ? "confident"
                                                 : "not yet confident (under 4 s of sound): AI Tune would still be "
                                                   "warming up");
        fmt::print("\nBand prominence (against the song's median band):\n");
        for (int b = 0; b < TenBandLayout::bandCount; ++b)
            fmt::print("  {:<22}{:>6} dB\n", RecommendationRuleEngine::bandName(b), signedText(prominence[b], 1));
    }

    fmt::print("\nRecommendations ({} scope, genre {}{}{}):\n", toString(settings.scope), displayName(input.genre),
               settings.leanWeight > 0 ? fmt::format(", genre lean {:g}", settings.leanWeight) : "",
               profile ? ", headphone " + profile->modelName : "");
    for (const auto& r : recommendations) {
        fmt::print("  {:<22}{:>3} dB\n", RecommendationRuleEngine::bandName(r.bandIndex), signedText(r.gainDb, 0));
        for (const auto& reason : r.rationale) fmt::print("      {}\n", reason);
    }

    if (settings.hasTimeline) {
        fmt::print("\nTimeline (per second, dB against that second's median band):\n");
        fmt::print("  {:>5}", "s");
        for (double fc : TenBandLayout::centerFrequenciesHz)
            fmt::print(" {:>6}", fc >= 1000 ? fmt::format("{:g}k", fc / 1000) : fmt::format("{:g}", fc));
        fmt::print("\n");
        for (std::size_t s = 0; s < analysis.timeline.size(); ++s) {
            fmt::print("  {:>5}", s);
            if (!analysis.timeline[s]) {
                fmt::print("   (silent)\n");
                continue;
            }
            for (double v : *analysis.timeline[s]) fmt::print(" {:>6}", signedText(v, 1));
            fmt::print("\n");
        }
    }
    return exitOk;
}

Command makeAnalyzeCommand(CLI::App& root) {
    auto settings = std::make_shared<AnalyzeSettings>();
    auto* app = root.add_subcommand("analyze", "Analyse a file as AI Tune hears it and show the band changes it would propose");
    app->footer("The file is decoded as `tarn render` does and fed through the analysis tap in capture-sized blocks.\n"
                "Offline, every 4096-frame window is analysed: the per-tick window cap of a live route does not apply.\n"
                "Prominence is each band's level against the song's median band; AI Tune is confident after 4 s of sound.");
    app->add_option("file", settings->file, "Audio file (WAV, FLAC, MP3, AAC/M4A, ALAC, AIFF, ...)")->required();
    app->add_flag("--json", settings->isJson,
                  "Print one JSON object: prominenceDb, isConfident, analyzedSeconds, recommendations (and timeline)");
    app->add_option("--headphone", settings->headphone,
                    "Headphone: a catalogue profile id, or a profile JSON file ({\"preampDb\": …, \"filters\": [...]})")
        ->type_name("ID|FILE");
    app->add_option("--genre", settings->genreText,
                    fmt::format("Genre preset whose curves AI Tune uses: {} (default flat)", ChainOptions::genreNames()))
        ->type_name("NAME")
        ->check(CLI::Validator(
            [settings](std::string& text) -> std::string {
                settings->genre = ChainOptions::parseGenre(text);
                if (settings->genre) return "";
                return fmt::format("unknown genre \"{}\" (one of {})", text, ChainOptions::genreNames());
            },
            ""));
    app->add_option("--scope", settings->scopeText, "Shape for the song playing (song, default) or your taste (taste)")
        ->type_name("song|taste")
        ->check(CLI::Validator(
            [settings](std::string& text) -> std::string {
                const auto scope = recommendationScopeFromString(text);
                if (!scope) return fmt::format("scope must be song or taste, got \"{}\"", text);
                settings->scope = *scope;
                return "";
            },
            ""));
    app->add_option("--bias", settings->biasTexts,
                    "Your standing preference for band I (0..9) in dB, repeatable, e.g. --bias 1=+2")
        ->type_name("I=DB")
        ->check(CLI::Validator([settings](std::string& text) { return parseBias(text, settings->biasDb); }, ""))
        ->take_all();
    app->add_option("--lean", settings->leanWeight,
                    fmt::format("Genre lean weight, 0 (off, default) to {:g}", maxLeanWeight))
        ->type_name("W")
        ->check(numberWithin(0.0, maxLeanWeight));
    app->add_flag("--timeline", settings->hasTimeline, "Also show the per-second band timeline (up to 600 s)");
    return {app, [settings] { return run(*settings); }};
}

const CommandRegistration registration{"analyze", 40, &makeAnalyzeCommand};

} // namespace
} // namespace tarn::cli

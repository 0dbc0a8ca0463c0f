#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "core/io/ImportedEQ.hpp"
#include "core/models/AppRoute.hpp"
#include "core/models/GenrePreset.hpp"
#include "core/profiles/HeadphoneProfile.hpp"

namespace tarn {
class RouteDSPChain;
}

namespace tarn::cli {

// The settings of one route's chain as command-line options, shared by every command that runs
// a chain (render, tap): --band, --channel-delta, --gain, --trim, --genre, --profile,
// --parametric and the bypass, ceiling and mute switches.
//
// Values are checked while the command line is parsed, so a bad one ends the command with exit
// code 2 and a line naming the option. Files named by --profile and --parametric are read by
// loadFiles(), which fails with exit code 1 and a message naming the file.
class ChainOptions {
public:
    struct BandGain {
        int band = 0;
        double gainDb = 0.0;
    };
    struct ChannelDelta {
        int channel = 0;
        int band = 0;
        double deltaDb = 0.0;
    };

    // Limits of the options that are not band gains (those follow TenBandLayout).
    static constexpr double minGainDb = -60.0;
    static constexpr double maxGainDb = 24.0;
    static constexpr double maxChannelDeltaDb = 24.0;

    // The options keep pointers into this object, so it must stay where it is (and alive) until
    // the command has run: hold it in the command's shared state, not in a temporary.
    void addTo(CLI::App& app);

    // Reads --profile and --parametric. Throws CommandError(exitFailure) naming the file.
    void loadFiles();

    // Throws CommandError(exitUsage) when a --channel-delta names a channel the audio lacks.
    void checkChannelCount(int channelCount) const;

    // The options as a route's settings; call loadFiles() first.
    AppRoute route() const;
    // Configures a chain (normally a fresh one) with every setting and the ceiling switch.
    void applyTo(RouteDSPChain& chain) const;

    const std::vector<BandGain>& bandGains() const { return bandGains_; }
    const std::vector<ChannelDelta>& channelDeltas() const { return channelDeltas_; }
    std::optional<GenrePreset> genre() const { return genre_; }
    const std::optional<HeadphoneProfile>& profile() const { return profile_; }
    const std::optional<ImportedEQ>& parametric() const { return parametric_; }
    // The files named by --profile and --parametric: inputs an output must never replace.
    std::vector<std::filesystem::path> files() const;

    // A finite decimal number, optionally with a leading '+' ("+2", "-3.5"); nothing otherwise.
    static std::optional<double> parseNumber(std::string_view text);
    // A whole decimal number with nothing around it; nothing otherwise.
    static std::optional<int> parseInteger(std::string_view text);

    // "flat", "hipHop", ... exactly as the raw values are spelt; nothing for anything else.
    static std::optional<GenrePreset> parseGenre(const std::string& name);
    // "flat, reference, edm, ..." for messages.
    static std::string genreNames();

    // A headphone profile from a JSON file: a full profile record, or at least
    // {"preampDb": …, "filters": [{"shape": …, "frequencyHz": …, "gainDb": …, "q": …}, …]}.
    // Throws CommandError(exitFailure) naming the file.
    static HeadphoneProfile loadProfileFile(const std::filesystem::path& path);

private:
    std::vector<std::string> bandTexts_;
    std::vector<std::string> channelDeltaTexts_;
    std::vector<BandGain> bandGains_;
    std::vector<ChannelDelta> channelDeltas_;
    double gainDb_ = 0.0;
    double trimDb_ = 0.0;
    std::string genreText_;
    std::optional<GenrePreset> genre_;
    std::string profilePath_;
    std::string parametricPath_;
    bool isEQBypassed_ = false;
    bool isCorrectionBypassed_ = false;
    bool isCeilingDisabled_ = false;
    bool isMuted_ = false;
    std::optional<HeadphoneProfile> profile_;
    std::optional<ImportedEQ> parametric_;
};

} // namespace tarn::cli

#include "cli/ChainOptions.hpp"

#include <charconv>
#include <cmath>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/RouteChainSettings.hpp"
#include "cli/Command.hpp"
#include "cli/ParametricEQFile.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "core/dsp/TenBandLayout.hpp"
#include "core/io/BoundedFileReader.hpp"
#include "core/io/JsonCodecs.hpp"

namespace tarn::cli {
namespace {

constexpr int lastBand = TenBandLayout::bandCount - 1;

// "I=DB" → band gain, or the reason it is not one.
std::string parseBandGain(const std::string& text, ChainOptions::BandGain& out) {
    const auto eq = text.find('=');
    if (eq == std::string::npos) return fmt::format("\"{}\" is not I=DB (for example 5=-3)", text);
    const auto band = ChainOptions::parseInteger(std::string_view(text).substr(0, eq));
    if (!band || *band < 0 || *band > lastBand)
        return fmt::format("band index must be 0..{}, got \"{}\"", lastBand, text.substr(0, eq));
    const auto gain = ChainOptions::parseNumber(std::string_view(text).substr(eq + 1));
    if (!gain) return fmt::format("\"{}\" is not a gain in dB", text.substr(eq + 1));
    if (*gain < TenBandLayout::minGainDb || *gain > TenBandLayout::maxGainDb)
        return fmt::format("band gain must be within {}..{} dB, got {}", TenBandLayout::minGainDb,
                           TenBandLayout::maxGainDb, text.substr(eq + 1));
    out = {*band, *gain};
    return "";
}

// "C:I=DB" → channel delta, or the reason it is not one.
std::string parseChannelDelta(const std::string& text, ChainOptions::ChannelDelta& out) {
    const auto colon = text.find(':');
    const auto eq = text.find('=');
    if (colon == std::string::npos || eq == std::string::npos || eq < colon)
        return fmt::format("\"{}\" is not C:I=DB (for example 1:5=-2)", text);
    const auto channel = ChainOptions::parseInteger(std::string_view(text).substr(0, colon));
    if (!channel || *channel < 0) return fmt::format("\"{}\" is not a channel index", text.substr(0, colon));
    const auto band = ChainOptions::parseInteger(std::string_view(text).substr(colon + 1, eq - colon - 1));
    if (!band || *band < 0 || *band > lastBand)
        return fmt::format("band index must be 0..{}, got \"{}\"", lastBand, text.substr(colon + 1, eq - colon - 1));
    const auto delta = ChainOptions::parseNumber(std::string_view(text).substr(eq + 1));
    if (!delta) return fmt::format("\"{}\" is not a gain in dB", text.substr(eq + 1));
    if (std::abs(*delta) > ChainOptions::maxChannelDeltaDb)
        return fmt::format("channel delta must be within ±{} dB, got {}", ChainOptions::maxChannelDeltaDb,
                           text.substr(eq + 1));
    out = {*channel, *band, *delta};
    return "";
}

CLI::Validator decibels(double min, double max) {
    return CLI::Validator(
        [min, max](std::string& text) -> std::string {
            const auto value = ChainOptions::parseNumber(text);
            if (!value) return fmt::format("\"{}\" is not a number of dB", text);
            if (*value < min || *value > max) return fmt::format("must be within {}..{} dB, got {}", min, max, text);
            return "";
        },
        "");
}

// A profile is a preamp and a few dozen filters: a few kilobytes.
constexpr std::size_t maxProfileFileBytes = std::size_t(1) << 20;

std::string readFile(const std::filesystem::path& path) {
    try {
        return BoundedFileReader::read(path, maxProfileFileBytes, "a headphone profile file");
    } catch (const BoundedFileReader::Error& e) {
        throw CommandError(exitFailure, e.what());
    }
}

} // namespace

std::optional<double> ChainOptions::parseNumber(std::string_view text) {
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    double value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
        return std::nullopt;
    return value;
}

std::optional<int> ChainOptions::parseInteger(std::string_view text) {
    int value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<GenrePreset> ChainOptions::parseGenre(const std::string& name) { return genrePresetFromString(name); }

std::string ChainOptions::genreNames() {
    std::string names;
    for (auto g : allGenrePresets) names += (names.empty() ? "" : ", ") + std::string(toString(g));
    return names;
}

void ChainOptions::addTo(CLI::App& app) {
    // The validators parse as they check, so the parsed lists exist as soon as parsing is done.
    app.add_option("--band", bandTexts_, "Band I (0..9) gain in dB, repeatable, e.g. --band 5=-3")
        ->type_name("I=DB")
        ->check(CLI::Validator(
            [this](std::string& text) {
                BandGain parsed;
                auto error = parseBandGain(text, parsed);
                if (error.empty()) bandGains_.push_back(parsed);
                return error;
            },
            ""))
        ->take_all();
    app.add_option("--channel-delta", channelDeltaTexts_,
                   "Per-channel delta for channel C, band I, in dB, repeatable, e.g. --channel-delta 1:5=-2")
        ->type_name("C:I=DB")
        ->check(CLI::Validator(
            [this](std::string& text) {
                ChannelDelta parsed;
                auto error = parseChannelDelta(text, parsed);
                if (error.empty()) channelDeltas_.push_back(parsed);
                return error;
            },
            ""))
        ->take_all();
    app.add_option("--gain", gainDb_, "Route gain in dB (default 0)")
        ->type_name("DB")
        ->check(decibels(minGainDb, maxGainDb));
    app.add_option("--trim", trimDb_, "Output trim in dB (default 0; the fixed +4 dB make-up is always there)")
        ->type_name("DB")
        ->check(decibels(minGainDb, maxGainDb));
    app.add_option("--genre", genreText_, "Genre preset: " + genreNames())
        ->type_name("NAME")
        ->check(CLI::Validator(
            [this](std::string& text) -> std::string {
                genre_ = parseGenre(text);
                if (!genre_) return fmt::format("unknown genre \"{}\" (one of {})", text, genreNames());
                return "";
            },
            ""));
    app.add_option("--profile", profilePath_,
                   "Headphone correction from a profile JSON file ({\"preampDb\": …, \"filters\": [...]} at least)")
        ->type_name("FILE");
    app.add_option("--parametric", parametricPath_,
                   "User parametric EQ from a text file (\"Preamp: … dB\", \"Filter N: ON PK Fc … Hz Gain … dB Q …\")")
        ->type_name("FILE");
    app.add_flag("--eq-bypass", isEQBypassed_, "Bypass the ten-band EQ");
    app.add_flag("--correction-bypass", isCorrectionBypassed_, "Bypass the headphone correction");
    app.add_flag("--no-ceiling", isCeilingDisabled_, "Turn the output safety ceiling off");
    app.add_flag("--mute", isMuted_, "Mute the route (the output is silence)");
}

HeadphoneProfile ChainOptions::loadProfileFile(const std::filesystem::path& path) {
    const auto text = readFile(path);
    nlohmann::json j;
    try {
        j = nlohmann::json::parse(text);
    } catch (const nlohmann::json::parse_error& e) {
        throw CommandError(exitFailure, fmt::format("{}: not valid JSON: {}", path.string(), e.what()));
    }
    try {
        if (!j.is_object()) throw DecodingError("expected a JSON object with \"preampDb\" and \"filters\"");
        // A full profile record (as `tarn profiles show --json` prints it) decodes as one; any
        // other object only needs the preamp and the filters.
        const bool isFullRecord = j.contains("id") && j.contains("modelName") && j.contains("sourceProject") &&
                                  j.contains("type") && j.contains("isFeatured");
        if (isFullRecord) return j.get<HeadphoneProfile>();
        HeadphoneProfile profile;
        profile.id = path.stem().string();
        profile.modelName = j.contains("modelName") ? j.at("modelName").get<std::string>() : path.stem().string();
        profile.sourceProject = "file";
        profile.preampDb = j.at("preampDb").get<double>();
        if (auto problem = ParametricFilterSpec::preampProblem(profile.preampDb)) throw ValueRangeError(*problem);
        profile.filters = j.at("filters").get<std::vector<ParametricFilterSpec>>();
        return profile;
    } catch (const ValueRangeError& e) {
        throw CommandError(exitFailure, fmt::format("{}: {}", path.string(), e.what()));
    } catch (const DecodingError& e) {
        throw CommandError(exitFailure, fmt::format("{}: not a headphone profile: {}", path.string(), e.what()));
    } catch (const nlohmann::json::exception& e) {
        // nlohmann's messages start with "[json.exception.type.NNN] "; the rest is the useful part.
        std::string why = e.what();
        if (auto end = why.find("] "); why.starts_with("[json.exception") && end != std::string::npos)
            why.erase(0, end + 2);
        throw CommandError(exitFailure, fmt::format("{}: not a headphone profile: {}", path.string(), why));
    }
}

void ChainOptions::loadFiles() {
    if (!profilePath_.empty()) profile_ = loadProfileFile(profilePath_);
    if (!parametricPath_.empty()) parametric_ = readParametricEQFile(parametricPath_).parsed.eq;
}

std::vector<std::filesystem::path> ChainOptions::files() const {
    std::vector<std::filesystem::path> paths;
    for (const auto* path : {&profilePath_, &parametricPath_})
        if (!path->empty()) paths.emplace_back(*path);
    return paths;
}

void ChainOptions::checkChannelCount(int channelCount) const {
    for (const auto& d : channelDeltas_)
        if (d.channel >= channelCount)
            throw CommandError(exitUsage, fmt::format("--channel-delta: channel {} does not exist (the audio has {} "
                                                      "channel{}, numbered from 0)",
                                                      d.channel, channelCount, channelCount == 1 ? "" : "s"));
}

AppRoute ChainOptions::route() const {
    AppRoute route;
    for (const auto& b : bandGains_) route.customEQBands[std::size_t(b.band)].gainDb = b.gainDb;
    for (const auto& d : channelDeltas_) {
        TenBandEQ::padChannelDeltaTable(route.channelEQDeltasDb, d.channel, TenBandLayout::bandCount);
        route.channelEQDeltasDb[std::size_t(d.channel)][std::size_t(d.band)] = d.deltaDb;
    }
    route.customEQBypassed = isEQBypassed_;
    // A profile file is not a catalogue entry: the route carries it as its snapshot.
    if (profile_) route.setCorrectionProfile(*profile_);
    route.correctionBypassed = isCorrectionBypassed_;
    if (parametric_) {
        route.importedProfileName = parametric_->modelName;
        route.importedParametricPreampDb = parametric_->preampDb;
        route.importedParametricFilters = parametric_->filters;
    }
    route.selectedGenre = genre_.value_or(GenrePreset::flat);
    route.gainDb = gainDb_;
    route.outputTrimDb = trimDb_;
    route.isMuted = isMuted_;
    return route;
}

void ChainOptions::applyTo(RouteDSPChain& chain) const {
    RouteChainSettings::applyTo(route(), chain);
    chain.setSafetyCeilingEnabled(!isCeilingDisabled_);
}

} // namespace tarn::cli

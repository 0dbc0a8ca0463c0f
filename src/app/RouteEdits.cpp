#include "app/RouteEdits.hpp"

#include <algorithm>
#include <cmath>

#include "app/RouteChainSettings.hpp"
#include "app/RouteGlides.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "core/dsp/TenBandEQ.hpp"
#include "core/dsp/TenBandLayout.hpp"

namespace tarn::RouteEdits {

namespace {

// What the band runs at now glides (or jumps) to what the settings say.
void followBand(Target t, int band, bool glide) {
    if (!t.chain) return;
    const double target = RouteChainSettings::effectiveBandGainDb(t.route, band);
    if (glide) {
        t.glides.glideBand(t.route.id, band, target);
    } else {
        t.glides.cancelBand(t.route.id, band);
        t.chain->customEQ().setGain(target, band);
    }
}

} // namespace

void setGain(Target t, double gainDb) {
    t.route.gainDb = std::clamp(gainDb, minGainDb, maxGainDb);
    if (t.chain) t.chain->setGain(t.route.gainDb);
}

void setMuted(Target t, bool muted) {
    t.route.isMuted = muted;
    if (t.chain) t.chain->setMuted(muted);
}

void setBandGain(Target t, int band, double gainDb, bool glide) {
    if (band < 0 || band >= int(t.route.customEQBands.size())) return;
    t.route.customEQBands[std::size_t(band)].gainDb =
        std::clamp(gainDb, TenBandLayout::minGainDb, TenBandLayout::maxGainDb);
    followBand(t, band, glide);
}

void setAITweak(Target t, int band, double tweakDb) {
    if (band < 0 || band >= int(t.route.aiTuneTweaksDb.size())) return;
    t.route.aiTuneTweaksDb[std::size_t(band)] =
        std::clamp(tweakDb, TenBandLayout::minGainDb, TenBandLayout::maxGainDb);
    followBand(t, band, true);
}

bool setAITweaks(Target t, const std::vector<double>& tweaksDb) {
    bool changed = false;
    for (int band = 0; band < TenBandLayout::bandCount && band < int(tweaksDb.size()); ++band) {
        if (t.route.isBandAILocked(band)) continue;
        if (t.route.aiTuneTweaksDb[std::size_t(band)] == tweaksDb[std::size_t(band)]) continue;
        setAITweak(t, band, tweaksDb[std::size_t(band)]);
        changed = true;
    }
    return changed;
}

void setAITuneScope(Target t, std::optional<RecommendationScope> scope) {
    t.route.aiTuneScope = scope;
    for (int band = 0; band < TenBandLayout::bandCount; ++band) followBand(t, band, true);
    if (!t.chain) return;
    t.chain->beatMeter().setEnabled(scope.has_value());
    if (!scope) t.chain->beatMeter().setActiveBands({});
}

void setTrim(Target t, double trimDb) {
    t.route.outputTrimDb = std::clamp(trimDb, minTrimDb, maxTrimDb);
    if (t.chain) t.glides.glideTrim(t.route.id, t.route.outputTrimDb);
}

void setEQBypassed(Target t, bool bypassed) {
    t.route.customEQBypassed = bypassed;
    if (t.chain) t.chain->customEQ().setBypassed(bypassed);
}

void setCorrectionBypassed(Target t, bool bypassed) {
    t.route.correctionBypassed = bypassed;
    if (t.chain) t.chain->correctionEQ().setBypassed(bypassed);
}

void setChannelDelta(Target t, int channel, int band, double deltaDb) {
    if (channel < 0 || channel >= maxChannels || band < 0 || band >= TenBandLayout::bandCount) return;
    auto& table = t.route.channelEQDeltasDb;
    TenBandEQ::padChannelDeltaTable(table, channel, TenBandLayout::bandCount);
    table[std::size_t(channel)][std::size_t(band)] = std::clamp(deltaDb, -maxChannelDeltaDb, maxChannelDeltaDb);
    if (t.chain) t.chain->customEQ().setChannelDeltas(table);
}

void setGenre(Target t, GenrePreset genre) {
    t.route.selectedGenre = genre;
    if (!t.chain) return;
    const auto correction = RouteChainSettings::correctionProfile(t.route);
    t.chain->recomputeEffectiveQs(genre, correction ? &*correction : nullptr);
}

void setCorrectionProfile(Target t, std::optional<HeadphoneProfile> profile) {
    t.route.setCorrectionProfile(std::move(profile));
    if (t.chain) RouteChainSettings::applyFilters(t.route, *t.chain);
}

void setImportedEQ(Target t, const std::optional<ImportedEQ>& eq) {
    t.route.importedProfileName = eq ? std::optional<std::string>(eq->modelName) : std::nullopt;
    t.route.importedParametricFilters = eq ? eq->filters : std::vector<ParametricFilterSpec>{};
    t.route.importedParametricPreampDb = eq ? eq->preampDb : 0.0;
    if (t.chain) RouteChainSettings::applyFilters(t.route, *t.chain);
}

void applyPreset(Target t, const EQPreset& preset, std::optional<HeadphoneProfile> correction) {
    for (int band = 0; band < TenBandLayout::bandCount && band < int(preset.bandGains.size()); ++band)
        setBandGain(t, band, preset.bandGains[std::size_t(band)], true);
    t.route.selectedGenre = preset.selectedGenre;
    t.route.setCorrectionProfile(std::move(correction));
    if (preset.hasParametricFilters() || preset.parametricPreampDb != 0.0)
        setImportedEQ(t, ImportedEQ{preset.name, preset.parametricPreampDb, preset.parametricFilters});
    else
        setImportedEQ(t, std::nullopt); // also redesigns the correction and the Qs of the genre
    setTrim(t, preset.outputTrimDb);
}

} // namespace tarn::RouteEdits

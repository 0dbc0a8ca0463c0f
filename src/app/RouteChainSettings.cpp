#include "app/RouteChainSettings.hpp"

#include <algorithm>
#include <exception>

#include "core/dsp/RouteDSPChain.hpp"
#include "core/dsp/TenBandLayout.hpp"

namespace tarn::RouteChainSettings {

double effectiveBandGainDb(const AppRoute& route, int band) {
    if (band < 0 || band >= int(route.customEQBands.size())) return 0.0;
    double gain = route.customEQBands[std::size_t(band)].gainDb;
    if (route.aiTuneScope && band < int(route.aiTuneTweaksDb.size())) gain += route.aiTuneTweaksDb[std::size_t(band)];
    return std::clamp(gain, TenBandLayout::minGainDb, TenBandLayout::maxGainDb);
}

std::optional<HeadphoneProfile> correctionProfile(const AppRoute& route) {
    try {
        return route.correctionProfile();
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::optional<HeadphoneProfile> importedProfile(const AppRoute& route) {
    if (!route.hasImportedParametricProfile() && route.importedParametricPreampDb == 0.0) return std::nullopt;
    HeadphoneProfile imported;
    const std::string name = route.importedProfileName.value_or("Imported EQ");
    imported.id = "import." + name;
    imported.modelName = name;
    imported.sourceProject = "import";
    imported.preampDb = route.importedParametricPreampDb;
    imported.filters = route.importedParametricFilters;
    return imported;
}

void applyBands(const AppRoute& route, RouteDSPChain& chain) {
    auto& eq = chain.customEQ();
    for (int band = 0; band < TenBandLayout::bandCount; ++band) eq.setGain(effectiveBandGainDb(route, band), band);
    eq.setChannelDeltas(route.channelEQDeltasDb);
}

void applyFilters(const AppRoute& route, RouteDSPChain& chain) {
    const auto correction = correctionProfile(route);
    if (correction) chain.correctionEQ().loadProfile(*correction);
    else chain.correctionEQ().removeProfile();
    if (auto imported = importedProfile(route)) chain.userParametricEQ().loadProfile(*imported);
    else chain.userParametricEQ().removeProfile();
    chain.recomputeEffectiveQs(route.selectedGenre, correction ? &*correction : nullptr);
}

void applyTo(const AppRoute& route, RouteDSPChain& chain) {
    applyBands(route, chain);
    chain.customEQ().setBypassed(route.customEQBypassed);
    applyFilters(route, chain);
    chain.correctionEQ().setBypassed(route.correctionBypassed);
    chain.setGain(route.gainDb);
    chain.setOutputTrim(route.outputTrimDb);
    chain.setMuted(route.isMuted);
}

} // namespace tarn::RouteChainSettings

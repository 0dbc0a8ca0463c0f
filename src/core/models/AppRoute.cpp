#include "core/models/AppRoute.hpp"

#include <algorithm>
#include <cmath>

#include "core/dsp/TenBandLayout.hpp"
#include "core/profiles/BundledProfileCatalog.hpp"

namespace tarn {

AppRoute::AppRoute(UUID id, std::string bundleID, std::string displayName,
                   std::optional<std::string> targetOutputDeviceID,
                   std::optional<std::uint32_t> targetOutputStreamIndex)
    : id(id),
      bundleID(std::move(bundleID)),
      displayName(std::move(displayName)),
      targetOutputDeviceID(std::move(targetOutputDeviceID)),
      targetOutputStreamIndex(targetOutputStreamIndex) {}

std::vector<EQBandState> AppRoute::defaultEQBands() {
    std::vector<EQBandState> bands;
    bands.reserve(TenBandLayout::bandCount);
    for (int i = 0; i < TenBandLayout::bandCount; ++i)
        bands.push_back({i, TenBandLayout::centerFrequenciesHz[static_cast<std::size_t>(i)], 0.0,
                         TenBandLayout::defaultQ});
    return bands;
}

std::optional<HeadphoneProfile> AppRoute::correctionProfile(const BundledProfileCatalog& catalog) const {
    if (correctionProfileSnapshot) return correctionProfileSnapshot;
    if (!correctionProfileID) return std::nullopt;
    if (const HeadphoneProfile* found = catalog.profile(*correctionProfileID)) return *found;
    return std::nullopt;
}

std::optional<HeadphoneProfile> AppRoute::correctionProfile() const {
    if (correctionProfileSnapshot) return correctionProfileSnapshot; // no catalogue load needed
    if (!correctionProfileID) return std::nullopt;
    return correctionProfile(BundledProfileCatalog::shared());
}

void AppRoute::setCorrectionProfile(std::optional<HeadphoneProfile> profile) {
    correctionProfileID = profile ? std::optional<std::string>(profile->id) : std::nullopt;
    correctionProfileSnapshot = std::move(profile);
}

bool AppRoute::isBandAILocked(int band) const {
    if (band < 0 || static_cast<std::size_t>(band) >= aiLockedBands.size()) return false;
    return aiLockedBands[static_cast<std::size_t>(band)];
}

double AppRoute::channelEQDelta(int band, int channel) const {
    if (channel < 0 || static_cast<std::size_t>(channel) >= channelEQDeltasDb.size()) return 0.0;
    const auto& deltas = channelEQDeltasDb[static_cast<std::size_t>(channel)];
    if (band < 0 || static_cast<std::size_t>(band) >= deltas.size()) return 0.0;
    return deltas[static_cast<std::size_t>(band)];
}

double AppRoute::channelEffectiveGainDb(int band, int channel) const {
    if (band < 0 || static_cast<std::size_t>(band) >= customEQBands.size()) return 0.0;
    const double gain = customEQBands[static_cast<std::size_t>(band)].gainDb + channelEQDelta(band, channel);
    return std::clamp(gain, TenBandLayout::minGainDb, TenBandLayout::maxGainDb);
}

bool AppRoute::hasChannelEQDeltas() const {
    for (const auto& channel : channelEQDeltasDb)
        for (double delta : channel)
            if (std::abs(delta) > 1e-9) return true;
    return false;
}

AppRoute AppRoute::restoredForCurrentSession() const {
    AppRoute copy = *this;
    copy.health = RouteHealth::idle;
    return copy;
}

} // namespace tarn

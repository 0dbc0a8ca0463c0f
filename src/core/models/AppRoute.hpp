#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/dsp/EQBandState.hpp"
#include "core/dsp/ParametricFilterSpec.hpp"
#include "core/models/GenrePreset.hpp"
#include "core/models/RouteActivationMode.hpp"
#include "core/models/RouteCaptureMode.hpp"
#include "core/models/RouteHealth.hpp"
#include "core/models/RouteKind.hpp"
#include "core/models/UUID.hpp"
#include "core/profiles/HeadphoneProfile.hpp"
#include "core/recommendation/RecommendationScope.hpp"

namespace tarn {

class BundledProfileCatalog;

// Everything that describes one route: what it captures, where it plays, every setting of its
// chain and the last known health of its engine. A plain value; the route store keeps, edits
// and persists a list of them.
struct AppRoute {
    UUID id;
    RouteKind kind = RouteKind::appTap;
    std::string bundleID;
    std::string displayName;
    std::optional<std::string> targetOutputDeviceID;       // none: the default output
    std::optional<std::uint32_t> targetOutputStreamIndex;  // none: first / automatic
    double gainDb = 0.0;
    bool isMuted = false;
    std::vector<EQBandState> customEQBands = defaultEQBands();
    bool customEQBypassed = false;
    double outputTrimDb = 0.0;
    std::optional<std::string> correctionProfileID;
    std::optional<HeadphoneProfile> correctionProfileSnapshot;
    bool correctionBypassed = false;
    GenrePreset selectedGenre = GenrePreset::flat;
    RouteHealth health = RouteHealth::idle;
    int effectiveOutputChannelCount = 2;
    std::string effectiveOutputLayoutDescription = "Stereo";
    RouteCaptureMode lastCaptureMode = RouteCaptureMode::stereoFallback;
    std::optional<std::string> importedProfileName;
    std::vector<ParametricFilterSpec> importedParametricFilters;
    double importedParametricPreampDb = 0.0;
    RouteActivationMode activationMode = RouteActivationMode::off;
    std::optional<RecommendationScope> aiTuneScope;
    std::vector<double> aiTuneTweaksDb = std::vector<double>(10, 0.0);
    std::vector<bool> aiLockedBands = std::vector<bool>(10, false);
    std::vector<std::vector<double>> channelEQDeltasDb; // [channel][band]
    std::optional<GenrePreset> aiGenrePreference;

    AppRoute() = default;
    AppRoute(UUID id, std::string bundleID, std::string displayName,
             std::optional<std::string> targetOutputDeviceID = std::nullopt,
             std::optional<std::uint32_t> targetOutputStreamIndex = std::nullopt);

    // Ten flat bands at the standard centres with the default Q.
    static std::vector<EQBandState> defaultEQBands();

    // The snapshot when there is one, else the catalogue's profile of correctionProfileID.
    // Loading the catalogue may throw CatalogError; a missing id gives none.
    std::optional<HeadphoneProfile> correctionProfile(const BundledProfileCatalog& catalog) const;
    std::optional<HeadphoneProfile> correctionProfile() const; // the shipped catalogue
    void setCorrectionProfile(std::optional<HeadphoneProfile> profile);

    bool hasImportedParametricProfile() const { return !importedParametricFilters.empty(); }
    bool isBandAILocked(int band) const;
    double channelEQDelta(int band, int channel) const;
    double channelEffectiveGainDb(int band, int channel) const;
    bool hasChannelEQDeltas() const;

    // Every route read at launch goes through this: health is a hint from the last session only.
    AppRoute restoredForCurrentSession() const;

    bool operator==(const AppRoute&) const = default;
};

} // namespace tarn

#pragma once

#include <optional>
#include <vector>

#include "core/io/ImportedEQ.hpp"
#include "core/models/AppRoute.hpp"
#include "core/models/EQPreset.hpp"
#include "core/profiles/HeadphoneProfile.hpp"

namespace tarn {

class RouteDSPChain;
class RouteGlides;

// How one edit lands in a route's settings and, when the route plays, in its live chain: the
// stored value changes at once, the sound follows (band and trim moves glide). Values are kept
// inside the ranges the route store allows; the store finds the route and saves.
namespace RouteEdits {

inline constexpr double minGainDb = -60.0, maxGainDb = 12.0;
inline constexpr double minTrimDb = -12.0, maxTrimDb = 6.0;
inline constexpr double maxChannelDeltaDb = 12.0;
// More channels than any output layout has (7.1.4 is 12).
inline constexpr int maxChannels = 32;

struct Target {
    AppRoute& route;
    RouteDSPChain* chain; // nullptr when the route does not play
    RouteGlides& glides;
};

void setGain(Target t, double gainDb);
void setMuted(Target t, bool muted);
// `band` must be 0…9 (the store checks).
void setBandGain(Target t, int band, double gainDb, bool glide);
void setAITweak(Target t, int band, double tweakDb);
// Every AI Tune tweak at once (ten entries); locked bands keep theirs. True when one changed.
bool setAITweaks(Target t, const std::vector<double>& tweaksDb);
// The AI layer engaged or not: every band glides to what it now runs at.
void setAITuneScope(Target t, std::optional<RecommendationScope> scope);
void setTrim(Target t, double trimDb);
void setEQBypassed(Target t, bool bypassed);
void setCorrectionBypassed(Target t, bool bypassed);
void setChannelDelta(Target t, int channel, int band, double deltaDb);
void setGenre(Target t, GenrePreset genre);
void setCorrectionProfile(Target t, std::optional<HeadphoneProfile> profile);
void setImportedEQ(Target t, const std::optional<ImportedEQ>& eq);
// Bands, genre, trim and parametric filters of the preset, and its correction when the
// catalogue still holds it (`correction`, looked up by the caller).
void applyPreset(Target t, const EQPreset& preset, std::optional<HeadphoneProfile> correction);

} // namespace RouteEdits
} // namespace tarn

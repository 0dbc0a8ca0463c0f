#pragma once

#include <optional>

#include "core/models/AppRoute.hpp"
#include "core/profiles/HeadphoneProfile.hpp"

namespace tarn {

class RouteDSPChain;

// The one place where a route's settings become its chain's: the live store, `tarn tap` and
// `tarn render` all configure chains through here, so a route sounds the same whichever runs it.
namespace RouteChainSettings {

// What band `band` runs at: the user's gain plus the AI Tune layer while a scope is engaged,
// inside the band range.
double effectiveBandGainDb(const AppRoute& route, int band);

// The route's headphone correction: its snapshot, else the catalogue's profile of its id. A
// catalogue that cannot be read counts as no correction (the route still plays).
std::optional<HeadphoneProfile> correctionProfile(const AppRoute& route);

// The imported parametric EQ as the profile-shaped value its stage runs; none without filters
// and without a preamp.
std::optional<HeadphoneProfile> importedProfile(const AppRoute& route);

// Configures every stage of `chain` from `route` (bands with the AI layer, per-channel offsets,
// bypasses, correction, imported EQ, effective Qs of the genre, gain, trim, mute). The safety
// ceiling stays as the chain has it.
void applyTo(const AppRoute& route, RouteDSPChain& chain);

// Only the parts that follow from the band gains and the AI layer (all ten bands and the
// per-channel offsets): what an AI Tune update or a preset changes.
void applyBands(const AppRoute& route, RouteDSPChain& chain);

// Correction and imported EQ stages, with the effective Qs that depend on them.
void applyFilters(const AppRoute& route, RouteDSPChain& chain);

} // namespace RouteChainSettings
} // namespace tarn

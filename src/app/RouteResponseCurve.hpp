#pragma once

#include <span>
#include <vector>

#include "core/models/AppRoute.hpp"

namespace tarn {

class RouteDSPChain;

// What a route's equalisers do to one channel, as the desk draws it: the user's ten bands, the
// AI Tune layer on top of them, the headphone correction and the imported parametric EQ (each
// with its preamp), and their sum. Every trace comes from the closed-form responses of the
// sections the route's chain runs, so the sum is what the route sounds like before its flat
// gains (route gain, trim, make-up, ceiling).
struct RouteResponseCurve {
    std::vector<double> frequenciesHz;
    std::vector<double> userDb;
    // The layer counts as what it changes in the ten-band stage, so a tweak the band range cuts
    // off shows as the part that plays, and user + AI is exactly what the stage runs.
    std::vector<double> aiDb;
    std::vector<double> correctionDb;
    std::vector<double> parametricDb;
    std::vector<double> totalDb;

    // `chain` runs (or would run) `route`: its Qs, channel offsets, bypasses and stages come from
    // there; the band gains from the route, where its glides land. Throws std::out_of_range for a
    // channel the chain does not have.
    static RouteResponseCurve of(const AppRoute& route, const RouteDSPChain& chain, int channel,
                                 std::span<const double> frequenciesHz);
};

} // namespace tarn

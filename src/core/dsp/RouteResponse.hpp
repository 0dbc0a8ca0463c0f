#pragma once

#include <span>
#include <vector>

namespace tarn {

class RouteDSPChain;
class TenBandEQ;

// How a route chain's equalisers shape one channel, stage by stage: the closed-form responses of
// the very sections each stage runs, each at its own rate, so what is drawn is what plays. The
// flat factors after the equalisers (route gain, trim with its make-up, the ceiling's
// attenuation) move every frequency alike and belong to no stage, so they are left out.
//
// Control thread (it reads the stages' settings, as their setters do).
struct RouteResponse {
    // The grid a desk draws on: log-spaced over the audible range.
    static constexpr double displayFromHz = 20.0;
    static constexpr double displayToHz = 20000.0;
    static constexpr int displayPointCount = 120;
    static std::vector<double> displayFrequencies();

    std::vector<double> frequenciesHz;
    std::vector<double> customEQDb;         // 0 while the equaliser is bypassed
    std::vector<double> correctionDb;       // preamp included; 0 while bypassed or without a profile
    std::vector<double> userParametricDb;   // preamp included; 0 without an imported EQ

    // The three stages together.
    std::vector<double> totalDb() const;

    // Throws std::out_of_range for a channel the chain does not have.
    static RouteResponse of(const RouteDSPChain& chain, int channel, std::span<const double> frequenciesHz);
    // The same with the ten-band stage evaluated at other shared band gains (one per band): the
    // gains a glide is still on its way to, or the user's own without a layer added on top.
    static RouteResponse of(const RouteDSPChain& chain, int channel, std::span<const double> frequenciesHz,
                            std::span<const double> bandGainsDb);
    // The ten-band stage alone for `channel` at those shared gains (its Qs, the channel's offsets
    // and its bypass as they are).
    static std::vector<double> tenBandDb(const TenBandEQ& eq, int channel, std::span<const double> bandGainsDb,
                                          std::span<const double> frequenciesHz);
};

} // namespace tarn

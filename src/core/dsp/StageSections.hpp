#pragma once

#include <span>
#include <vector>

#include "core/dsp/BiquadCoefficients.hpp"
#include "core/dsp/EQBandState.hpp"
#include "core/dsp/ParametricFilterSpec.hpp"

namespace tarn {

// One equaliser stage of a route as it runs: its preamp and its sections in order, designed at
// the stage's own rate. The stages design what they run from here, and the safety ceiling and
// the response graph evaluate the same value, so a curve on screen is the curve that plays.
struct StageSections {
    double sampleRate = 48000.0;
    double preampDb = 0.0;
    std::vector<BiquadCoefficients> sections;

    // The ten-band equaliser's section for one band: always a peaking section.
    static BiquadCoefficients tenBandSection(const EQBandState& band, double sampleRate);
    // One peaking section per band, in band order.
    static StageSections tenBand(std::span<const EQBandState> bands, double sampleRate);
    // A parametric stage: the preamp, then one section per filter with its own shape.
    static StageSections parametric(double preampDb, std::span<const ParametricFilterSpec> filters, double sampleRate);

    // The preamp plus every section's closed-form response at `hz`; 0 for a stage that runs
    // nothing.
    double responseDb(double hz) const;
    // The sections alone (no preamp); 0 without sections.
    double sectionsResponseDb(double hz) const;
};

} // namespace tarn

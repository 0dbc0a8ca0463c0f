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
//
// The one place that decides what can run at a rate. Near and past half the sample rate the
// cookbook design folds over and its poles reach the unit circle, so such a section oscillates
// at full scale or drifts to full-scale DC; a section whose frequency is at or above
// maxFrequencyFraction of the rate (or whose values are out of range: not finite, frequency or Q
// not above 0, gain beyond ±30 dB) is left out at that rate. A parametric stage simply omits
// it; the ten-band stage keeps a pass-through in its place, one section per band. Either way
// leftOutCount says so, for the route to show.
struct StageSections {
    static constexpr double maxFrequencyFraction = 0.45;

    double sampleRate = 48000.0;
    double preampDb = 0.0;
    std::vector<BiquadCoefficients> sections;
    // Sections (and a preamp that is not a finite number within range) left out at this rate
    // that would have changed the sound: a 0 dB section left out changes nothing and is not counted.
    int leftOutCount = 0;

    // Whether a section of these values runs at `sampleRate`.
    static bool canRun(const ParametricFilterSpec& filter, double sampleRate);

    // The ten-band equaliser's section for one band: a peaking section, or a pass-through when
    // it cannot run at this rate.
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

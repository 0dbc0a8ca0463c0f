#include "core/dsp/StageSections.hpp"

#include <cmath>

#include "core/dsp/FrequencyResponse.hpp"

namespace tarn {

namespace {

ParametricFilterSpec peakingSpec(const EQBandState& band) {
    return {ParametricFilterSpec::Shape::peaking, band.frequencyHz, band.gainDb, band.q};
}

} // namespace

bool StageSections::canRun(const ParametricFilterSpec& filter, double sampleRate) {
    return std::isfinite(sampleRate) && sampleRate > 0 && !filter.valueProblem() &&
           filter.frequencyHz < maxFrequencyFraction * sampleRate;
}

BiquadCoefficients StageSections::tenBandSection(const EQBandState& band, double sampleRate) {
    const ParametricFilterSpec spec = peakingSpec(band);
    return canRun(spec, sampleRate) ? spec.coefficients(sampleRate) : BiquadCoefficients::identity();
}

StageSections StageSections::tenBand(std::span<const EQBandState> bands, double sampleRate) {
    StageSections stage;
    stage.sampleRate = sampleRate;
    stage.sections.reserve(bands.size());
    for (const EQBandState& band : bands) {
        stage.sections.push_back(tenBandSection(band, sampleRate));
        if (!canRun(peakingSpec(band), sampleRate) && band.gainDb != 0.0) ++stage.leftOutCount;
    }
    return stage;
}

StageSections StageSections::parametric(double preampDb, std::span<const ParametricFilterSpec> filters,
                                        double sampleRate) {
    StageSections stage;
    stage.sampleRate = sampleRate;
    if (ParametricFilterSpec::preampProblem(preampDb)) {
        ++stage.leftOutCount;
    } else {
        stage.preampDb = preampDb;
    }
    stage.sections.reserve(filters.size());
    for (const ParametricFilterSpec& filter : filters) {
        if (canRun(filter, sampleRate)) stage.sections.push_back(filter.coefficients(sampleRate));
        else if (filter.gainDb != 0.0) ++stage.leftOutCount;
    }
    return stage;
}

double StageSections::sectionsResponseDb(double hz) const {
    return FrequencyResponse::magnitudeDb(sections, hz, sampleRate);
}

double StageSections::responseDb(double hz) const { return preampDb + sectionsResponseDb(hz); }

} // namespace tarn

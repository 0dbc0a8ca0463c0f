#include "core/dsp/StageSections.hpp"

#include "core/dsp/FrequencyResponse.hpp"

namespace tarn {

BiquadCoefficients StageSections::tenBandSection(const EQBandState& band, double sampleRate) {
    return BiquadCoefficients(BiquadKind::peaking, sampleRate, band.frequencyHz, band.gainDb, band.q);
}

StageSections StageSections::tenBand(std::span<const EQBandState> bands, double sampleRate) {
    StageSections stage;
    stage.sampleRate = sampleRate;
    stage.sections.reserve(bands.size());
    for (const EQBandState& band : bands) stage.sections.push_back(tenBandSection(band, sampleRate));
    return stage;
}

StageSections StageSections::parametric(double preampDb, std::span<const ParametricFilterSpec> filters,
                                        double sampleRate) {
    StageSections stage;
    stage.sampleRate = sampleRate;
    stage.preampDb = preampDb;
    stage.sections.reserve(filters.size());
    for (const ParametricFilterSpec& filter : filters) stage.sections.push_back(filter.coefficients(sampleRate));
    return stage;
}

double StageSections::sectionsResponseDb(double hz) const {
    return FrequencyResponse::magnitudeDb(sections, hz, sampleRate);
}

double StageSections::responseDb(double hz) const { return preampDb + sectionsResponseDb(hz); }

} // namespace tarn

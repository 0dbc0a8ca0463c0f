#include "core/dsp/RouteResponse.hpp"

#include <stdexcept>
#include <string>

#include "core/dsp/FrequencyResponse.hpp"
#include "core/dsp/RouteDSPChain.hpp"

namespace tarn {

namespace {

std::vector<double> evaluate(const StageSections& stage, std::span<const double> frequenciesHz) {
    std::vector<double> db;
    db.reserve(frequenciesHz.size());
    for (double hz : frequenciesHz) db.push_back(stage.responseDb(hz));
    return db;
}

void checkChannel(int channel, int channelCount) {
    if (channel < 0 || channel >= channelCount)
        throw std::out_of_range("channel must be 0.." + std::to_string(channelCount - 1) + ", got " +
                                std::to_string(channel));
}

StageSections customEQStage(const TenBandEQ& eq, int channel, std::span<const double> bandGainsDb) {
    if (bandGainsDb.size() != eq.bands().size())
        throw std::invalid_argument("one gain per band is needed, got " + std::to_string(bandGainsDb.size()));
    if (eq.isBypassed()) {
        StageSections none;
        none.sampleRate = eq.sampleRate();
        return none;
    }
    return eq.channelSections(channel, bandGainsDb);
}

} // namespace

std::vector<double> RouteResponse::displayFrequencies() {
    return FrequencyResponse::logSpacedFrequencies(displayFromHz, displayToHz, displayPointCount);
}

std::vector<double> RouteResponse::totalDb() const {
    std::vector<double> total(frequenciesHz.size());
    for (std::size_t i = 0; i < total.size(); ++i) total[i] = customEQDb[i] + correctionDb[i] + userParametricDb[i];
    return total;
}

RouteResponse RouteResponse::of(const RouteDSPChain& chain, int channel, std::span<const double> frequenciesHz) {
    const TenBandEQ& eq = chain.customEQ();
    std::vector<double> current;
    for (const EQBandState& band : eq.bands()) current.push_back(band.gainDb);
    return of(chain, channel, frequenciesHz, current);
}

RouteResponse RouteResponse::of(const RouteDSPChain& chain, int channel, std::span<const double> frequenciesHz,
                                std::span<const double> bandGainsDb) {
    checkChannel(channel, chain.channelCount());
    RouteResponse r;
    r.frequenciesHz.assign(frequenciesHz.begin(), frequenciesHz.end());
    r.customEQDb = evaluate(customEQStage(chain.customEQ(), channel, bandGainsDb), frequenciesHz);
    r.correctionDb = evaluate(chain.correctionEQ().runningSections(), frequenciesHz);
    r.userParametricDb = evaluate(chain.userParametricEQ().runningSections(), frequenciesHz);
    return r;
}

std::vector<double> RouteResponse::tenBandDb(const TenBandEQ& eq, int channel, std::span<const double> bandGainsDb,
                                              std::span<const double> frequenciesHz) {
    checkChannel(channel, eq.channelCount());
    return evaluate(customEQStage(eq, channel, bandGainsDb), frequenciesHz);
}

} // namespace tarn

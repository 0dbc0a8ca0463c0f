#include "app/RouteResponseCurve.hpp"

#include "app/RouteChainSettings.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "core/dsp/RouteResponse.hpp"
#include "core/dsp/TenBandLayout.hpp"

namespace tarn {

RouteResponseCurve RouteResponseCurve::of(const AppRoute& route, const RouteDSPChain& chain, int channel,
                                          std::span<const double> frequenciesHz) {
    std::vector<double> userGains(TenBandLayout::bandCount, 0.0), effectiveGains(TenBandLayout::bandCount, 0.0);
    for (int band = 0; band < TenBandLayout::bandCount; ++band) {
        if (band < int(route.customEQBands.size())) userGains[std::size_t(band)] = route.customEQBands[std::size_t(band)].gainDb;
        effectiveGains[std::size_t(band)] = RouteChainSettings::effectiveBandGainDb(route, band);
    }
    const RouteResponse stages = RouteResponse::of(chain, channel, frequenciesHz, effectiveGains);

    RouteResponseCurve curve;
    curve.frequenciesHz = stages.frequenciesHz;
    curve.userDb = RouteResponse::tenBandDb(chain.customEQ(), channel, userGains, frequenciesHz);
    curve.aiDb.resize(curve.userDb.size());
    for (std::size_t i = 0; i < curve.aiDb.size(); ++i) curve.aiDb[i] = stages.customEQDb[i] - curve.userDb[i];
    curve.correctionDb = stages.correctionDb;
    curve.parametricDb = stages.userParametricDb;
    curve.totalDb = stages.totalDb();
    return curve;
}

} // namespace tarn

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "core/dsp/RouteDSPChain.hpp"
#include "core/dsp/RouteResponse.hpp"
#include "dsp/CookbookReference.hpp"

namespace tarn {
namespace {

using Shape = ParametricFilterSpec::Shape;
using test::prototypeMagnitudeDb;

const std::vector<double> probes = {20, 31, 90, 440, 1000, 2600, 7000, 12000, 16000, 19500};

// Each stage against the analog prototypes its sections come from: the ten bands with a
// channel's own offsets, and the parametric stages with their preamps.
TEST(RouteResponse, EachStageMatchesItsPrototypesPerChannel) {
    const double fs = 44100;
    RouteDSPChain chain(2, fs);
    const std::vector<double> gains = {3, 0, -4, 0, 2, 0, -6, 0, 5, 9};
    for (int i = 0; i < 10; ++i) chain.customEQ().setGain(gains[i], i);
    chain.customEQ().setChannelDelta(-5, 2, 1);
    chain.customEQ().setChannelDelta(6, 9, 1);   // 9 + 6 plays as the band range's 12
    HeadphoneProfile correction;
    correction.preampDb = -3;
    correction.filters = {{Shape::lowShelf, 120, 4, 0.7}, {Shape::peaking, 3100, -2, 2.2}};
    chain.correctionEQ().loadProfile(correction);
    HeadphoneProfile imported;
    imported.preampDb = -1.25;
    imported.filters = {{Shape::highShelf, 8000, 2.5, 0.7}};
    chain.userParametricEQ().loadProfile(imported);

    for (int channel = 0; channel < 2; ++channel) {
        const RouteResponse r = RouteResponse::of(chain, channel, probes);
        ASSERT_EQ(r.frequenciesHz, probes);
        const auto total = r.totalDb();
        for (std::size_t i = 0; i < probes.size(); ++i) {
            const double f = probes[i];
            double eq = 0;
            for (int b = 0; b < 10; ++b) {
                double g = gains[b];
                if (channel == 1 && b == 2) g -= 5;
                if (channel == 1 && b == 9) g = 12;
                eq += prototypeMagnitudeDb(BiquadKind::peaking, fs, TenBandLayout::centerFrequenciesHz[b], g,
                                           TenBandLayout::defaultQ, f);
            }
            const double corr = -3 + prototypeMagnitudeDb(BiquadKind::lowShelf, fs, 120, 4, 0.7, f) +
                                prototypeMagnitudeDb(BiquadKind::peaking, fs, 3100, -2, 2.2, f);
            const double user = -1.25 + prototypeMagnitudeDb(BiquadKind::highShelf, fs, 8000, 2.5, 0.7, f);
            EXPECT_NEAR(r.customEQDb[i], eq, 1e-6) << channel << " " << f;
            EXPECT_NEAR(r.correctionDb[i], corr, 1e-6) << f;
            EXPECT_NEAR(r.userParametricDb[i], user, 1e-6) << f;
            EXPECT_NEAR(total[i], eq + corr + user, 1e-6) << f;
        }
    }

    // Other shared gains: the channel's offsets still apply on top of them.
    std::vector<double> flat(10, 0.0);
    const RouteResponse asFlat = RouteResponse::of(chain, 1, probes, flat);
    EXPECT_NEAR(asFlat.customEQDb[1], prototypeMagnitudeDb(BiquadKind::peaking, fs, 125, -5, TenBandLayout::defaultQ, 31) +
                                          prototypeMagnitudeDb(BiquadKind::peaking, fs, 16000, 6, TenBandLayout::defaultQ, 31),
                1e-6);
}

TEST(RouteResponse, BypassedOrEmptyStagesAreFlatAndBadArgumentsAreRefused) {
    RouteDSPChain chain(2, 48000);
    chain.customEQ().setGain(6, 5);
    HeadphoneProfile correction;
    correction.preampDb = -6;
    correction.filters = {{Shape::peaking, 1000, 3, 1}};
    chain.correctionEQ().loadProfile(correction);
    chain.customEQ().setBypassed(true);
    chain.correctionEQ().setBypassed(true);
    const RouteResponse r = RouteResponse::of(chain, 0, probes);
    for (std::size_t i = 0; i < probes.size(); ++i) {
        EXPECT_EQ(r.customEQDb[i], 0.0);
        EXPECT_EQ(r.correctionDb[i], 0.0);
        EXPECT_EQ(r.userParametricDb[i], 0.0) << "a stage without a profile";
    }
    EXPECT_THROW(RouteResponse::of(chain, 2, probes), std::out_of_range);
    EXPECT_THROW(RouteResponse::of(chain, -1, probes), std::out_of_range);
    EXPECT_THROW(RouteResponse::of(chain, 0, probes, std::vector<double>(9, 0.0)), std::invalid_argument);
}

} // namespace
} // namespace tarn

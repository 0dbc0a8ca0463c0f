// What a chain does with sections it cannot run at its rate: at or above 0.45 of the sample rate
// (a Bluetooth headset in call mode runs at 16 kHz) or with values no filter can be built from.
// Each is left out of the cascade, of the safety ceiling's estimate and of the response curve
// alike, and counted; the rest plays at its designed level.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <vector>

#include "core/dsp/RouteDSPChain.hpp"
#include "core/dsp/RouteResponse.hpp"
#include "core/profiles/BundledProfileCatalog.hpp"
#include "dsp/CookbookReference.hpp"
#include "support/Signals.hpp"

namespace tarn {
namespace {

using Shape = ParametricFilterSpec::Shape;

HeadphoneProfile hd650() {
    static const BundledProfileCatalog catalogue(std::filesystem::path(TARN_SOURCE_DIR) / "data/profiles/catalog.json");
    const HeadphoneProfile* profile = catalogue.profile("oratory1990.over-ear.sennheiser-hd-650");
    if (!profile) throw std::runtime_error("the catalogue has no Sennheiser HD 650");
    return *profile;
}

// The same profile without the filters a rate cannot run, written out by hand.
HeadphoneProfile withoutFiltersFrom(HeadphoneProfile profile, double limitHz) {
    std::erase_if(profile.filters, [&](const ParametricFilterSpec& f) { return f.frequencyHz >= limitHz; });
    return profile;
}

std::vector<float> runSine(RouteDSPChain& chain, double hz, double amplitude, int frames) {
    auto x = test::interleavedSine(hz, chain.sampleRate(), amplitude, frames, chain.channelCount());
    for (int done = 0; done < frames; done += 256)
        chain.processInterleaved(x.data() + std::size_t(done) * chain.channelCount(), std::min(256, frames - done));
    return x;
}

double kindDb(const ParametricFilterSpec& f, double fs, double hz) {
    return test::prototypeMagnitudeDb(ParametricFilterSpec::biquadKind(f.shape), fs, f.frequencyHz, f.gainDb, f.q, hz);
}

TEST(SectionsNearNyquist, HD650CorrectionAt16kHzStaysBoundedAtItsDesignedLevel) {
    const double fs = 16000;
    const HeadphoneProfile profile = hd650();
    ASSERT_EQ(withoutFiltersFrom(profile, 0.45 * fs).filters.size(), profile.filters.size() - 2)
        << "the profile this test is about has two filters above 7.2 kHz";
    RouteDSPChain chain(2, fs);
    chain.correctionEQ().loadProfile(profile);
    chain.setSafetyCeilingEnabled(false);
    EXPECT_EQ(chain.leftOutSectionCount(), 2);

    const double amplitude = 0.05;
    for (double hz : {100.0, 1000.0, 3000.0, 6500.0}) {
        double expectDb = profile.preampDb + RouteDSPChain::outputMakeupDb;
        for (const auto& f : profile.filters)
            if (f.frequencyHz < 0.45 * fs) expectDb += kindDb(f, fs, hz);
        const auto y = runSine(chain, hz, amplitude, 2 * int(fs));
        const double level = test::fittedAmplitude(y, 2, 0, hz, fs, long(fs), long(fs));
        EXPECT_NEAR(test::toDb(level / amplitude), expectDb, 0.05) << hz << " Hz";
        // Nothing but the tone: no oscillation, no drift to DC.
        float peak = 0;
        for (std::size_t i = std::size_t(fs) * 2; i < y.size(); ++i) peak = std::max(peak, std::abs(y[i]));
        EXPECT_LT(peak, level * 1.02) << hz << " Hz";
    }
}

TEST(SectionsNearNyquist, CascadeCeilingAndResponseLeaveOutTheSameSections) {
    const double fs = 16000;
    RouteDSPChain full(2, fs), byHand(2, fs);
    full.correctionEQ().loadProfile(hd650());
    byHand.correctionEQ().loadProfile(withoutFiltersFrom(hd650(), 0.45 * fs));
    for (RouteDSPChain* c : {&full, &byHand}) c->setGain(-3);

    EXPECT_EQ(full.leftOutSectionCount(), 2);
    EXPECT_EQ(byHand.leftOutSectionCount(), 0);
    EXPECT_EQ(full.estimatedPeakGainDb(), byHand.estimatedPeakGainDb());
    EXPECT_EQ(full.ceilingAttenuationLinear(), byHand.ceilingAttenuationLinear());
    const auto grid = RouteResponse::displayFrequencies();
    EXPECT_EQ(RouteResponse::of(full, 0, grid).correctionDb, RouteResponse::of(byHand, 0, grid).correctionDb);
    EXPECT_EQ(runSine(full, 440, 0.3, 8000), runSine(byHand, 440, 0.3, 8000));

    // At a rate that can run them, they are all back.
    full.rebuild(48000);
    EXPECT_EQ(full.leftOutSectionCount(), 0);
}

TEST(SectionsNearNyquist, TenBandBandsPastTheLimitPassThroughAndTheRestStillShape) {
    const double fs = 16000;
    RouteDSPChain chain(1, fs);
    chain.setSafetyCeilingEnabled(false);
    chain.customEQ().setGain(6, 5);    // 1 kHz
    chain.customEQ().setGain(6, 8);    // 8 kHz, at half the rate
    chain.customEQ().setGain(-6, 9);   // 16 kHz, at the rate itself
    EXPECT_EQ(chain.leftOutSectionCount(), 2);
    for (double hz : {1000.0, 5000.0}) {
        const double expectDb =
            RouteDSPChain::outputMakeupDb +
            test::prototypeMagnitudeDb(BiquadKind::peaking, fs, 1000, 6, TenBandLayout::defaultQ, hz);
        const auto y = runSine(chain, hz, 0.05, int(fs));
        EXPECT_NEAR(test::toDb(test::fittedAmplitude(y, 1, 0, hz, fs, 8000, 8000) / 0.05), expectDb, 0.05) << hz;
    }
    // A band at 0 dB left out changes nothing, so it is not reported.
    chain.customEQ().setGain(0, 8);
    EXPECT_EQ(chain.leftOutSectionCount(), 1);
}

// Values that reach a chain without passing a reader (an older saved route) are left out too:
// a 0 Hz filter used to drift to full-scale DC, Q 0 to silence the route.
TEST(SectionsNearNyquist, ValuesNoFilterCanBeBuiltFromAreLeftOutNotRun) {
    const double fs = 48000;
    const double nan = std::numeric_limits<double>::quiet_NaN();
    RouteDSPChain chain(1, fs);
    chain.setSafetyCeilingEnabled(false);
    HeadphoneProfile imported;
    imported.preampDb = 1e308;
    imported.filters = {{Shape::peaking, 0, 6, 1},    {Shape::peaking, 1000, 6, 0}, {Shape::lowShelf, -50, 6, 1},
                        {Shape::peaking, 1000, nan, 1}, {Shape::peaking, 2000, 400, 1}, {Shape::peaking, 1000, 6, 1}};
    chain.userParametricEQ().loadProfile(imported);
    EXPECT_EQ(chain.leftOutSectionCount(), 6);   // five filters and the preamp
    EXPECT_TRUE(std::isfinite(chain.estimatedPeakGainDb()));
    for (double hz : {30.0, 1000.0}) {
        const auto y = runSine(chain, hz, 0.05, int(fs));
        const double expectDb = RouteDSPChain::outputMakeupDb + test::prototypeMagnitudeDb(BiquadKind::peaking, fs, 1000, 6, 1, hz);
        EXPECT_NEAR(test::toDb(test::fittedAmplitude(y, 1, 0, hz, fs, 24000, 24000) / 0.05), expectDb, 0.05) << hz;
    }
}

} // namespace
} // namespace tarn

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "core/dsp/CpuDispatch.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "core/dsp/SectionCascade.hpp"
#include "support/Signals.hpp"

namespace tarn {
namespace {

// Something like music: a few partials with a slow envelope and a deterministic noise floor.
std::vector<float> musicLike(int frames, int channels, double level, unsigned seed = 1) {
    std::vector<float> x(std::size_t(frames) * channels);
    unsigned state = seed;
    for (int f = 0; f < frames; ++f) {
        const double t = f / 48000.0;
        const double env = 0.6 + 0.4 * std::sin(6.283185307179586 * 0.7 * t);
        for (int c = 0; c < channels; ++c) {
            state = state * 1664525u + 1013904223u;
            const double noise = (double(state >> 8) / double(1u << 24) - 0.5) * 0.05;
            const double v = 0.5 * std::sin(6.283185307179586 * (55 + 7 * c) * t) + 0.3 * std::sin(6.283185307179586 * 440 * t + c) +
                             0.15 * std::sin(6.283185307179586 * 3150 * t) + noise;
            x[std::size_t(f) * channels + c] = float(level * env * v);
        }
    }
    return x;
}

BiquadCoefficients designFor(int i) {
    const BiquadKind kinds[] = {BiquadKind::peaking, BiquadKind::lowShelf, BiquadKind::highShelf};
    return BiquadCoefficients(kinds[i % 3], 48000, 30.0 * std::pow(1.37, i % 23), double(i % 9) - 4.5, 0.5 + 0.17 * (i % 11));
}

struct Cascade {
    std::vector<std::unique_ptr<BiquadFilter>> filters;
    std::vector<SectionCascade::Section> sections;

    Cascade(int count, int channels) {
        for (int i = 0; i < count; ++i) {
            filters.push_back(std::make_unique<BiquadFilter>(channels));
            const BiquadFloatCoefficients a(designFor(i)), b(designFor(i + 5));
            sections.push_back({filters.back().get(), {a, b}, i % 7 == 3 ? 0.7071f : 1.0f});
        }
    }
};

void expectSameBits(const std::vector<float>& a, const std::vector<float>& b, const std::string& what) {
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t i = 0; i < a.size(); ++i)
        ASSERT_EQ(std::memcmp(&a[i], &b[i], sizeof(float)), 0) << what << " sample " << i << ": " << a[i] << " vs " << b[i];
}

TEST(SectionCascade, VectorPathIsBitIdenticalToSectionBySectionProcessing) {
    for (int pair : {1, 2}) {
        for (int count : {1, 3, 33, 65, 130}) {
            for (int frames : {1, 31, 1001}) {
                const int stride = 6, first = 3;
                Cascade vec(count, stride), ref(count, stride);
                auto a = musicLike(frames * 2, stride, 0.8, unsigned(count * 31 + frames)), b = a;
                const std::string what = std::to_string(pair) + " ch, " + std::to_string(count) + " sections, " +
                                         std::to_string(frames) + " frames";
                // Two blocks: the second starts from the state the first left behind.
                for (int block = 0; block < 2; ++block) {
                    float* pa = a.data() + std::size_t(block) * frames * stride;
                    float* pb = b.data() + std::size_t(block) * frames * stride;
                    SectionCascade::run(pa, frames, stride, first, pair, vec.sections);
                    SectionCascade::runScalar(pb, frames, stride, first, pair, ref.sections);
                }
                expectSameBits(a, b, what);
                for (int i = 0; i < count; ++i)
                    for (int c = first; c < first + pair; ++c)
                        ASSERT_EQ(vec.filters[i]->channelState(c), ref.filters[i]->channelState(c)) << what << " section " << i;
            }
        }
    }
}

TEST(SectionCascade, NonFiniteInputClearsTheSameStatesAsTheScalarPath) {
    Cascade vec(30, 2), ref(30, 2);
    auto a = musicLike(512, 2, 0.5), b = a;
    a[2 * 100] = b[2 * 100] = std::numeric_limits<float>::quiet_NaN();
    a[2 * 200 + 1] = b[2 * 200 + 1] = std::numeric_limits<float>::infinity();
    SectionCascade::run(a.data(), 512, 2, 0, 2, vec.sections);
    SectionCascade::runScalar(b.data(), 512, 2, 0, 2, ref.sections);
    for (std::size_t i = 0; i < a.size(); ++i) ASSERT_EQ(std::isnan(a[i]), std::isnan(b[i])) << i;
    for (int i = 0; i < 30; ++i)
        for (int c = 0; c < 2; ++c) {
            ASSERT_EQ(vec.filters[i]->channelState(c), ref.filters[i]->channelState(c));
            ASSERT_EQ(vec.filters[i]->channelState(c), BiquadFilter::ChannelState{});
        }
}

HeadphoneProfile profile(int filters, double preampDb, double shift) {
    HeadphoneProfile p;
    p.preampDb = preampDb;
    for (int i = 0; i < filters; ++i)
        p.filters.push_back({ParametricFilterSpec::Shape(i % 3), 40.0 * std::pow(1.6, i) * shift, double(i % 7) - 3, 0.6 + 0.2 * (i % 5)});
    return p;
}

// The whole route, vector cascade against every stage's own per-channel processBlock, on a
// signal loud enough to drive the limiter and the headroom, with uneven blocks and live edits.
TEST(SectionCascade, RouteChainOutputDoesNotDependOnThePath) {
    for (int channels : {1, 3, 6}) {
        RouteDSPChain vec(channels, 48000), ref(channels, 48000);
        ref.setVectorCascadeEnabled(false);
        auto both = [&](auto&& edit) { edit(vec), edit(ref); };
        both([&](RouteDSPChain& c) {
            for (int i = 0; i < 10; ++i) c.customEQ().setGain(double(i % 5) * 2 - 3, i);
            c.customEQ().setChannelDelta(4, 3, channels - 1);
            c.correctionEQ().loadProfile(profile(10, -4.5, 1.0));
            c.userParametricEQ().loadProfile(profile(10, -1.5, 1.1));
            c.setGain(5);
            c.setSafetyCeilingEnabled(false);
        });
        const int frames = 48000;
        auto a = musicLike(frames, channels, 0.9, unsigned(channels)), b = a;
        int done = 0, block = 0;
        double lowestHeadroom = 1.0;
        while (done < frames) {
            const int n = std::min(frames - done, 64 + (block * 97) % 700);
            if (block == 20) both([](RouteDSPChain& c) { c.userParametricEQ().loadProfile(profile(0, -3, 1)); });
            if (block == 40) both([](RouteDSPChain& c) { c.correctionEQ().setBypassed(true); });
            if (block == 60) both([](RouteDSPChain& c) { c.customEQ().setChannelDeltas({}); });
            vec.processInterleaved(a.data() + std::size_t(done) * channels, n);
            ref.processInterleaved(b.data() + std::size_t(done) * channels, n);
            ASSERT_EQ(vec.headroomGain(), ref.headroomGain());
            lowestHeadroom = std::min(lowestHeadroom, vec.headroomGain());
            done += n;
            ++block;
        }
        expectSameBits(a, b, std::to_string(channels) + " channels");
        EXPECT_LT(lowestHeadroom, 0.9) << "the test signal should have driven the headroom";
    }
}

// Shipped binaries pick the AVX2 build where the processor has it; both builds must give the
// same bits, or a route would sound different from one machine to the next.
TEST(SectionCascade, PortableAndAvx2BuildsGiveTheSameBits) {
    if (!CpuDispatch::hasAvx2()) GTEST_SKIP() << "no AVX2 on this machine: only the portable build runs";
    auto runOnce = [](bool portable) {
        CpuDispatch::setPortableOnly(portable);
        RouteDSPChain chain(2, 48000);
        for (int i = 0; i < 10; ++i) chain.customEQ().setGain(double(i % 4) * 3 - 4, i);
        chain.correctionEQ().loadProfile(profile(10, -4, 1.0));
        chain.userParametricEQ().loadProfile(profile(12, -2, 1.2));
        chain.setGain(8);
        chain.setSafetyCeilingEnabled(false);
        auto x = musicLike(20000, 2, 0.9);
        for (int done = 0; done < 20000; done += 500) chain.processInterleaved(x.data() + 2 * done, 500);
        CpuDispatch::setPortableOnly(false);
        return x;
    };
    expectSameBits(runOnce(true), runOnce(false), "portable against AVX2");
}

} // namespace
} // namespace tarn

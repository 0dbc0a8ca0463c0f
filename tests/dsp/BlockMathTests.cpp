#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "core/dsp/BlockMath.hpp"
#include "core/dsp/CpuDispatch.hpp"
#include "core/dsp/Limiter.hpp"

namespace tarn {
namespace {

constexpr float inf = std::numeric_limits<float>::infinity();
constexpr float nan = std::numeric_limits<float>::quiet_NaN();

std::vector<float> awkwardBlock(int n) {
    std::vector<float> x(n);
    for (int i = 0; i < n; ++i) x[i] = float(std::sin(0.37 * i) * (1.0 + 0.01 * i));
    if (n > 5) x[3] = nan, x[5] = -inf;
    return x;
}

TEST(BlockMath, ChannelPeaksMatchAPlainScanAndIgnoreNonFiniteSamples) {
    for (int channels : {1, 2, 3, 6, 8}) {
        for (int frames : {1, 333}) {
            const auto x = awkwardBlock(frames * channels);
            std::vector<float> peaks(channels, -1.0f), expect(channels, 0.0f);
            for (int i = 0; i < frames * channels; ++i)
                if (std::isfinite(x[i])) expect[i % channels] = std::max(expect[i % channels], std::fabs(x[i]));
            BlockMath::channelPeaks(x.data(), frames, channels, peaks.data());
            EXPECT_EQ(peaks, expect) << channels << " channels, " << frames << " frames";
        }
    }
}

TEST(BlockMath, ScaleAndPeakAppliesBothGainsInOrder) {
    for (int n : {3, 8, 77}) {
        auto x = awkwardBlock(n);
        const auto input = x;
        const float peak = BlockMath::scaleAndPeak(x.data(), n, 1.7f, 0.3f);
        float expectPeak = 0;
        for (int i = 0; i < n; ++i) {
            const float v = input[i] * 1.7f;
            if (std::isfinite(v)) expectPeak = std::max(expectPeak, std::fabs(v));
            const float y = v * 0.3f;
            ASSERT_EQ(std::memcmp(&x[i], &y, sizeof y), 0) << i;
        }
        EXPECT_EQ(peak, expectPeak);
    }
}

TEST(BlockMath, SilenceNonFiniteZeroesAndCountsExactlyTheNonFiniteSamples) {
    for (bool portable : {false, true}) {
        CpuDispatch::setPortableOnly(portable);
        for (int n : {0, 7, 8, 77}) {
            auto x = awkwardBlock(n);
            if (n > 70) x[70] = inf, x[76] = -nan;   // in the vector part and in the tail
            std::vector<float> expect = x;
            int bad = 0;
            for (float& v : expect)
                if (!std::isfinite(v)) v = 0.0f, ++bad;
            EXPECT_EQ(BlockMath::silenceNonFinite(x.data(), n), bad) << n;
            EXPECT_EQ(x, expect) << n;
            EXPECT_EQ(BlockMath::silenceNonFinite(x.data(), n), 0) << "a clean block is left alone";
        }
    }
    CpuDispatch::setPortableOnly(false);
}

TEST(Limiter, VectorBlockPathIsTheScalarLawSampleForSample) {
    std::vector<float> x;
    for (int i = 0; i <= 40001; ++i) x.push_back(-6.0f + 12.0f * float(i) / 40001.0f);
    x.insert(x.end(), {inf, -inf, nan, 0.83f, -0.83f, 0.8300001f, 1e30f, -0.0f});
    auto y = x;
    Limiter l;
    const float peak = l.processBlock(y.data(), int(y.size()));
    float expectPeak = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        const float expect = std::isnan(x[i]) ? 0.0f : Limiter::saturate(x[i]);
        ASSERT_EQ(std::memcmp(&y[i], &expect, sizeof expect), 0) << x[i] << " gave " << y[i] << " not " << expect;
        expectPeak = std::max(expectPeak, std::fabs(expect));
    }
    EXPECT_EQ(peak, expectPeak);
    EXPECT_TRUE(l.isClipping());

    // Blocks at or below the knee pass unchanged, including a tail past the last full vector, and
    // a NaN there still becomes silence.
    for (int n : {8, 37}) {
        std::vector<float> quiet;
        for (int i = 0; i < n; ++i) quiet.push_back(0.83f * std::sin(0.7f * float(i)));
        quiet[std::size_t(n - 3)] = -0.83f;
        auto out = quiet;
        EXPECT_EQ(l.processBlock(out.data(), n), 0.83f) << n;
        EXPECT_EQ(out, quiet) << n;
        EXPECT_FALSE(l.isClipping()) << n;
        out.back() = nan;
        l.processBlock(out.data(), n);
        EXPECT_EQ(out.back(), 0.0f) << n;
    }
}

} // namespace
} // namespace tarn

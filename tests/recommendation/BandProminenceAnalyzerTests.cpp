#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "core/recommendation/BandProminenceAnalyzer.hpp"
#include "support/ProminenceReference.hpp"

namespace tarn {
namespace {

// The analyser's numbers are checked against closed forms (support/ProminenceReference), not
// against its own FFT: every analysis window of a repeated multisine sees exactly one period.

using test::bandPowers;
using test::expectedProminence;
using test::Multisine;

constexpr int N = test::prominenceWindow;

Multisine pink(double rate, int boostedBand = -1, double boostDb = 0, unsigned seed = 7, double level = 0.02) {
    return test::pinkMultisine(rate, boostedBand, boostDb, seed, level);
}

// Feeds whole periods through the tap in blocks of `block` frames, of `channels` identical
// channels, draining whenever six windows have gone in (the ring holds just under 8).
void feed(BandProminenceAnalyzer& analyzer, const std::vector<float>& period, int periods, int channels = 2,
          int block = 480) {
    std::vector<float> signal;
    for (int p = 0; p < periods; ++p) signal.insert(signal.end(), period.begin(), period.end());
    std::vector<float> interleaved(std::size_t(block) * channels);
    std::size_t done = 0;
    std::size_t sinceDrain = 0;
    while (done < signal.size()) {
        const std::size_t n = std::min<std::size_t>(block, signal.size() - done);
        for (std::size_t i = 0; i < n; ++i)
            for (int c = 0; c < channels; ++c) interleaved[i * channels + c] = signal[done + i];
        analyzer.tap().write(interleaved.data(), int(n), channels);
        done += n;
        sinceDrain += n;
        if (sinceDrain >= 6 * N) {
            analyzer.drainNowForTesting();
            sinceDrain = 0;
        }
    }
    analyzer.drainNowForTesting();
}

std::unique_ptr<BandProminenceAnalyzer> startedAnalyzer(double rate) {
    auto analyzer = std::make_unique<BandProminenceAnalyzer>();
    analyzer->start(rate);
    analyzer->stop(); // drained by hand in these tests
    analyzer->tap().setEnabled(true);
    return analyzer;
}

void expectProminence(const ProminenceSnapshot& snap, const std::array<double, 10>& expected, double tol) {
    ASSERT_EQ(snap.prominenceDb.size(), 10u);
    for (int b = 0; b < 10; ++b) EXPECT_NEAR(snap.prominenceDb[b], expected[b], tol) << "band " << b;
}

TEST(BandProminenceAnalyzer, PinkNoiseWithABoostedBandMatchesTheClosedForm) {
    for (double rate : {48000.0, 44100.0}) {
        SCOPED_TRACE(rate);
        const auto control = pink(rate);
        const auto boosted = pink(rate, 6, 6.0);

        auto analyzer = startedAnalyzer(rate);
        feed(*analyzer, control.period(), 10);
        const auto controlSnap = analyzer->snapshot();
        expectProminence(controlSnap, expectedProminence(bandPowers(control.windowedPower(), rate)), 0.01);

        analyzer = startedAnalyzer(rate);
        feed(*analyzer, boosted.period(), 10);
        const auto snap = analyzer->snapshot();
        expectProminence(snap, expectedProminence(bandPowers(boosted.windowedPower(), rate)), 0.01);
        // Against a neighbour, the boosted band stands out by the 6 dB put in.
        const double lift = (snap.prominenceDb[6] - snap.prominenceDb[4]) -
                            (controlSnap.prominenceDb[6] - controlSnap.prominenceDb[4]);
        EXPECT_NEAR(lift, 6.0, 0.15);
    }
}

TEST(BandProminenceAnalyzer, SilenceIsNeverAnalysed) {
    auto analyzer = startedAnalyzer(48000);
    feed(*analyzer, std::vector<float>(N, 0.0f), 12);
    EXPECT_EQ(analyzer->snapshot(), ProminenceSnapshot::empty());
    // Just under the gate: RMS 0.0000999.
    std::vector<float> faint(N);
    for (int i = 0; i < N; ++i) faint[i] = (i % 2 ? 1 : -1) * 0.0000999f;
    feed(*analyzer, faint, 3);
    EXPECT_EQ(analyzer->snapshot(), ProminenceSnapshot::empty());
    // Just over it, and the snapshot appears.
    for (float& v : faint) v *= 1.01f;
    feed(*analyzer, faint, 1);
    EXPECT_EQ(analyzer->snapshot().prominenceDb.size(), 10u);
}

TEST(BandProminenceAnalyzer, ConfidenceArrivesAtFourSecondsAnalysed) {
    const double rate = 48000, w = N / rate;
    auto analyzer = startedAnalyzer(rate);
    const auto period = pink(rate).period();
    feed(*analyzer, period, 46);
    EXPECT_FALSE(analyzer->snapshot().isConfident);
    feed(*analyzer, period, 1);
    EXPECT_NEAR(analyzer->snapshot().analyzedSeconds, 47 * w, 1e-9);
    EXPECT_TRUE(analyzer->snapshot().isConfident);
    EXPECT_NEAR(analyzer->songClockSeconds(), 47 * w, 1e-9);
}

TEST(BandProminenceAnalyzer, SmoothingWeighsTheTimeEachWindowStandsFor) {
    const double rate = 48000, w = N / rate;
    const auto a = pink(rate, 1, 12.0, 1), b = pink(rate, 8, 12.0, 2);
    const auto pa = bandPowers(a.windowedPower(), rate), pb = bandPowers(b.windowedPower(), rate);
    auto blend = [&](double alpha) {
        std::array<double, 10> p{};
        for (int i = 0; i < 10; ++i) p[i] = pa[i] + alpha * (pb[i] - pa[i]);
        return expectedProminence(p);
    };

    // Back to back: the second window stands for one window length.
    auto analyzer = startedAnalyzer(rate);
    feed(*analyzer, a.period(), 1);
    expectProminence(analyzer->snapshot(), expectedProminence(pa), 0.01); // the first fill is the window itself
    feed(*analyzer, b.period(), 1);
    expectProminence(analyzer->snapshot(), blend(w * 0.125), 0.01);

    // After 5 s of silence the next window counts as 2.0 s, no more.
    analyzer = startedAnalyzer(rate);
    feed(*analyzer, a.period(), 1);
    feed(*analyzer, std::vector<float>(N, 0.0f), 59); // 60 windows later: t = 5.12 s
    feed(*analyzer, b.period(), 1);
    expectProminence(analyzer->snapshot(), blend(2.0 * 0.125), 0.01);
    EXPECT_NEAR(analyzer->snapshot().analyzedSeconds, 2 * w, 1e-12);

    // Reset forgets everything: the next window is a first fill again.
    analyzer->reset();
    EXPECT_EQ(analyzer->songClockSeconds(), 0.0);
    feed(*analyzer, b.period(), 1);
    expectProminence(analyzer->snapshot(), expectedProminence(pb), 0.01);
}

TEST(BandProminenceAnalyzer, BandsAboveTheUsableRangeStayAtZero) {
    // At 16 kHz the 16 kHz band is never measurable: it is 0 from the first fill and left out
    // of the median.
    const double rate = 16000;
    const auto sig = pink(rate, 3, 6.0);
    auto analyzer = startedAnalyzer(rate);
    feed(*analyzer, sig.period(), 5);
    const auto snap = analyzer->snapshot();
    EXPECT_EQ(snap.prominenceDb[9], 0.0);
    expectProminence(snap, expectedProminence(bandPowers(sig.windowedPower(), rate)), 0.01);
}

TEST(BandProminenceAnalyzer, AQuietBandIsExactlyZeroAndOutOfTheMedian) {
    // Energy only in 500 Hz … 16 kHz: bins below 500 Hz's lower skirt are exactly empty.
    const double rate = 48000;
    Multisine m = pink(rate, -1, 0, 7, 0.002);
    for (int k = 0; k < 60; ++k) m.amplitude[k] = 0;
    auto analyzer = startedAnalyzer(rate);
    feed(*analyzer, m.period(), 3);
    const auto expected = expectedProminence(bandPowers(m.windowedPower(), rate));
    const auto snap = analyzer->snapshot();
    // The float FFT leaves a little rounding noise in empty bins; far below −110 dB it is silence.
    EXPECT_EQ(snap.prominenceDb[0], 0.0);
    EXPECT_EQ(snap.prominenceDb[2], 0.0);
    for (int b = 5; b < 10; ++b) EXPECT_NEAR(snap.prominenceDb[b], expected[b], 0.05) << b;
}

TEST(BandProminenceAnalyzer, TrackModeAnalysesOneWindowPerSongSecond) {
    const double rate = 48000, w = N / rate;
    auto analyzer = startedAnalyzer(rate);
    analyzer->setMode(BandProminenceAnalyzer::Mode::track);
    const auto period = pink(rate).period();
    // Windows start at 0, w, 2w, … (w = 85.3 ms): seconds 0, 1 and 2 each get one analysis
    // over 35 windows (2.99 s).
    feed(*analyzer, period, 35);
    EXPECT_NEAR(analyzer->snapshot().analyzedSeconds, 3 * w, 1e-12);

    // Recording a timeline needs every window: track is taken as settle.
    analyzer->setTimelineRecording(true);
    analyzer->setMode(BandProminenceAnalyzer::Mode::track);
    EXPECT_EQ(analyzer->currentMode(), BandProminenceAnalyzer::Mode::settle);
    feed(*analyzer, period, 5);
    EXPECT_NEAR(analyzer->snapshot().analyzedSeconds, 8 * w, 1e-12);
}

TEST(BandProminenceAnalyzer, TimelineHoldsPerSecondRelativeLevels) {
    // Windows start every w = 85.3 ms: 12 windows of `a` fill second 0, 12 of silence second 1,
    // and 24 of `b` run from 2.05 s to 4.1 s.
    const double rate = 48000;
    const auto a = pink(rate, 2, 9.0, 3), b = pink(rate, 7, -9.0, 4);
    auto analyzer = startedAnalyzer(rate);
    analyzer->setTimelineRecording(true);
    feed(*analyzer, a.period(), 12);
    feed(*analyzer, std::vector<float>(N, 0.0f), 12);
    feed(*analyzer, b.period(), 24);
    const auto timeline = analyzer->timelineSnapshot();
    ASSERT_EQ(timeline.size(), 5u);
    // Each second holds the mean of its own windows' relative levels: no smoothing across time.
    const auto ea = expectedProminence(bandPowers(a.windowedPower(), rate));
    const auto eb = expectedProminence(bandPowers(b.windowedPower(), rate));
    ASSERT_TRUE(timeline[0]);
    for (int i = 0; i < 10; ++i) EXPECT_NEAR((*timeline[0])[i], ea[i], 0.01) << i;
    EXPECT_FALSE(timeline[1]); // nothing but silence in second 1
    for (int second : {2, 3, 4}) {
        ASSERT_TRUE(timeline[second]);
        for (int i = 0; i < 10; ++i) EXPECT_NEAR((*timeline[second])[i], eb[i], 0.01) << second << " " << i;
    }
    // The published snapshot, smoothed, lies between the two.
    EXPECT_GT(analyzer->snapshot().prominenceDb[2], eb[2]);

    analyzer->setTimelineRecording(false);
    EXPECT_TRUE(analyzer->timelineSnapshot().empty());
}

TEST(BandProminenceAnalyzer, TimelineStopsAt600Seconds) {
    const double rate = 8000; // a 10-minute song at a low rate keeps the test quick
    const auto period = pink(rate).period();
    auto analyzer = startedAnalyzer(rate);
    analyzer->setTimelineRecording(true);
    const int periods = int(610 * rate / N) + 1; // 610 s
    feed(*analyzer, period, periods, 1, 4096);
    const auto timeline = analyzer->timelineSnapshot();
    ASSERT_EQ(timeline.size(), 600u);
    EXPECT_TRUE(timeline[599]);
    EXPECT_GT(analyzer->snapshot().analyzedSeconds, 609.0); // the analysis itself goes on
}

TEST(AnalysisTap, MixesDownInChunksAndKeepsTheSongClock) {
    AnalysisTap tap;
    std::vector<float> stereo(2 * 10000);
    for (int i = 0; i < 10000; ++i) {
        stereo[2 * i] = float(i);
        stereo[2 * i + 1] = float(i) + 1.0f;
    }
    tap.write(stereo.data(), 10000, 2); // disabled: ignored
    EXPECT_EQ(tap.framesObserved(), 0);

    tap.setEnabled(true);
    tap.write(stereo.data(), 10000, 2);
    EXPECT_EQ(tap.framesObserved(), 10000);
    std::vector<float> mono(10000);
    ASSERT_EQ(tap.ring().read(mono.data(), 10000), 10000);
    for (int i = 0; i < 10000; ++i) ASSERT_EQ(mono[i], float(i) + 0.5f) << i;

    tap.setClockPaused(true);
    tap.write(stereo.data(), 100, 2);
    EXPECT_EQ(tap.framesObserved(), 10000);
    EXPECT_EQ(tap.ring().availableFramesToRead(), 0);
    tap.setClockPaused(false);

    // A full ring drops audio, but the song clock counts every frame offered.
    std::vector<float> big(2 * 40000, 0.25f);
    tap.write(big.data(), 40000, 2);
    EXPECT_EQ(tap.framesObserved(), 50000);
    EXPECT_EQ(tap.ring().availableFramesToRead(), AnalysisTap::defaultFrameCapacity - 1);
}

} // namespace
} // namespace tarn

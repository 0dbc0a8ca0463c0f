// The deck's playback against the simulated sound server: what reaches the device, measured.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "core/dsp/RouteDSPChain.hpp"
#include "player/DeckPlayback.hpp"
#include "support/SimulatedAudioPlatform.hpp"
#include "support/SoundFiles.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

using test::SoundData;
constexpr AudioPlatform::ObjectID speakers = 10;
constexpr int rate = 48000;
// Well below the limiter, so the chain only scales.
constexpr double level = 0.1;

// One channel of a stereo sine from frame `first` on: a track cut from a longer tone.
SoundData sineSlice(double hz, std::size_t first, std::size_t frames, int sampleRate = rate) {
    SoundData d{sampleRate, 2, {}};
    for (std::size_t i = first; i < first + frames; ++i) {
        const float v = float(level * std::sin(2 * M_PI * hz * double(i) / sampleRate));
        d.samples.push_back(v);
        d.samples.push_back(v);
    }
    return d;
}

std::vector<float> channel0(const std::vector<float>& interleaved) {
    std::vector<float> out;
    for (std::size_t i = 0; i < interleaved.size(); i += 2) out.push_back(interleaved[i]);
    return out;
}

class DeckPlaybackTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform.addDevice({speakers, "speakers", "Test Speakers", {2}});
        platform.setDefaultOutputDevice(speakers);
        // About twice real time, in cycles a real device would use: fast, yet a loaded machine's
        // worker keeps well ahead of it, as it does of a real device.
        platform.setRenderSink({512, 0, std::chrono::microseconds(5000)});
        deck.setOutputDevice(speakers);
    }
    void TearDown() override {
        deck.stop();
        EXPECT_TRUE(platform.isClean());
    }

    // Polls like the owner does until the deck stops (the queue is over); false on timeout.
    bool playToTheEnd(std::chrono::seconds limit = std::chrono::seconds(20)) {
        const auto until = std::chrono::steady_clock::now() + limit;
        while (deck.status().state != DeckPlayback::State::stopped) {
            for (auto& m : deck.poll()) messages.push_back(m);
            if (std::chrono::steady_clock::now() > until) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }

    std::filesystem::path write(const std::string& name, const SoundData& data) {
        test::writeSoundFile(dir / name, data);
        return dir / name;
    }

    test::TemporaryDirectory dir;
    test::SimulatedAudioPlatform platform;
    DeckPlayback deck{platform, [](int channels) { return std::make_shared<RouteDSPChain>(channels, 48000.0); }};
    std::vector<std::string> messages;
};

TEST_F(DeckPlaybackTest, TwoTracksCutFromOneSineJoinWithoutAGapOrAClick) {
    constexpr double hz = 997;
    constexpr std::size_t first = 48000 + 317, second = 30011; // not a multiple of any block size
    deck.setQueue({write("a.wav", sineSlice(hz, 0, first)), write("b.wav", sineSlice(hz, first, second))});
    ASSERT_TRUE(deck.play());
    ASSERT_TRUE(playToTheEnd());
    EXPECT_TRUE(messages.empty()) << messages.front();

    const auto out = channel0(platform.renderedSamples(speakers));
    // Where the sound is: from the start fade to where the last sample's short decay (the
    // output running dry at the end of the queue) falls below hearing.
    std::size_t begin = 0, end = out.size();
    while (begin < out.size() && out[begin] == 0.0f) ++begin;
    while (end > begin && std::abs(out[end - 1]) < 1e-4f) --end;
    ASSERT_GT(end, begin);
    EXPECT_NEAR(double(end - begin), double(first + second), 150) << "nothing inserted, nothing lost";

    // A sine obeys x[n+1] = 2cos(w) x[n] - x[n-1]; a gap, a repeat or a click breaks it by about
    // the signal's own size. Checked away from the start fade and the end of the queue.
    const double c = 2 * std::cos(2 * M_PI * hz / rate);
    double worst = 0;
    std::size_t worstAt = 0;
    for (std::size_t n = begin + 2000; n + 1 < end - 2000; ++n) {
        const double residual = std::abs(double(out[n + 1]) - c * out[n] + double(out[n - 1]));
        if (residual > worst) worst = residual, worstAt = n - begin;
    }
    EXPECT_LT(worst, 0.002) << "at frame " << worstAt << " (the join is at " << first << ")";
}

TEST_F(DeckPlaybackTest, SeekingLandsWithin10msOfTheAskedPosition) {
    // Each 10 ms of this file carries its own tone, so where playback landed can be read back.
    SoundData steps{rate, 2, {}};
    for (int block = 0; block < 400; ++block)
        for (int i = 0; i < rate / 100; ++i) {
            const float v = float(level * std::sin(2 * M_PI * (300 + 10 * block) * double(block * 480 + i) / rate));
            steps.samples.push_back(v);
            steps.samples.push_back(v);
        }
    const auto source = channel0(steps.samples);
    deck.setQueue({write("steps.wav", steps)});
    ASSERT_TRUE(deck.play());
    ASSERT_TRUE(platform.waitForRenderCycles(20));
    for (double target : {2.5, 0.7, 3.31}) {
        deck.pause();
        platform.clearRenderedSamples();
        deck.seek(target);
        EXPECT_NEAR(deck.status().positionSeconds, target, 0.001) << "the position says where it is";
        deck.play();
        const auto cycles = platform.renderCycles();
        ASSERT_TRUE(platform.waitForRenderCycles(cycles + 12));
        deck.pause();
        const auto out = channel0(platform.renderedSamples(speakers));
        std::size_t begin = 0;
        while (begin < out.size() && out[begin] == 0.0f) ++begin;
        ASSERT_GT(out.size(), begin + 2048);
        // The best match of 1024 rendered frames (past the fade-in) within ±50 ms of the target.
        const std::size_t probe = begin + 480, length = 1024;
        double gain = 0, power = 0;
        const auto expected = std::int64_t(target * rate) + 480;
        std::int64_t best = -1;
        double bestError = 1e30;
        for (std::int64_t at = expected - 2400; at <= expected + 2400; ++at) {
            double e = 0, dot = 0, energy = 0;
            for (std::size_t i = 0; i < length; ++i) {
                dot += double(out[probe + i]) * source[std::size_t(at) + i];
                energy += double(source[std::size_t(at) + i]) * source[std::size_t(at) + i];
            }
            gain = energy > 0 ? dot / energy : 0;
            for (std::size_t i = 0; i < length; ++i) e += std::abs(out[probe + i] - gain * source[std::size_t(at) + i]);
            if (e < bestError) bestError = e, best = at;
        }
        (void)power;
        EXPECT_LE(std::abs(best - expected), 480) << "asked for " << target << " s, landed " << (best - expected) << " frames off";
    }
}

TEST_F(DeckPlaybackTest, ADamagedFileIsSkippedWithAMessageAndTheQueueGoesOn) {
    std::ofstream(dir / "broken.flac") << "fLaC but nothing a decoder could use after these four bytes";
    deck.setQueue({write("one.wav", sineSlice(500, 0, 24000)), dir / "broken.flac", write("three.wav", sineSlice(1500, 0, 24000))});
    ASSERT_TRUE(deck.play());
    ASSERT_TRUE(playToTheEnd());
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_NE(messages.front().find("broken.flac"), std::string::npos) << messages.front();
    const SoundData out{rate, 2, platform.renderedSamples(speakers)};
    std::size_t begin = 0;
    while (begin < out.frameCount() && out.at(begin, 0) == 0.0f) ++begin;
    EXPECT_GT(test::toneAmplitude(out, 0, 500, begin + 4000, 16000), level) << "the first track played";
    EXPECT_GT(test::toneAmplitude(out, 0, 1500, begin + 28000, 16000), level) << "and the one after the damaged file";
}

TEST_F(DeckPlaybackTest, AnotherRateRestartsTheOutputAtThatRateBetweenTheTracks) {
    deck.setQueue({write("48k.wav", sineSlice(500, 0, 9600)), write("44k.wav", sineSlice(500, 0, 8820, 44100))});
    ASSERT_TRUE(deck.play());
    ASSERT_TRUE(playToTheEnd());
    ASSERT_TRUE(platform.lastOutputUnitFormat());
    EXPECT_EQ(platform.lastOutputUnitFormat()->sampleRate, 44100) << "the second file plays at its own rate";
    EXPECT_TRUE(messages.empty());
}

TEST_F(DeckPlaybackTest, AFileAtAnotherRateThanTheGraphIsResampledToItAndKeepsItsPitch) {
    platform.setGraphRate(48000);
    deck.setQueue({write("44k.wav", sineSlice(1000, 0, 44100 * 2, 44100)), write("48k.wav", sineSlice(1000, 0, 48000 * 2))});
    ASSERT_TRUE(deck.play());
    ASSERT_TRUE(playToTheEnd());
    ASSERT_TRUE(platform.lastOutputUnitFormat());
    EXPECT_EQ(platform.lastOutputUnitFormat()->sampleRate, 48000) << "the output runs at the graph's rate";
    const SoundData out{rate, 2, platform.renderedSamples(speakers)};
    std::size_t begin = 0;
    while (begin < out.frameCount() && out.at(begin, 0) == 0.0f) ++begin;
    // Converted from the first frame: never a moment at the file's own rate.
    EXPECT_LT(test::toneAmplitude(out, 0, 1088, begin + 256, 4096), level * 0.1) << "the start played too fast";
    // The tone stays at 1 kHz in a 48 kHz output: resampled, not played fast.
    EXPECT_GT(test::toneAmplitude(out, 0, 1000, begin + 48000, 24000), level * 0.9);
    EXPECT_LT(test::toneAmplitude(out, 0, 1088, begin + 48000, 24000), level * 0.1);
    EXPECT_GT(test::toneAmplitude(out, 0, 1000, out.frameCount() - 60000, 24000), level * 0.9) << "and the 48 kHz track after it";
}

TEST_F(DeckPlaybackTest, ShufflePlaysEveryEntryOnceARound) {
    std::vector<std::filesystem::path> files;
    for (int i = 0; i < 5; ++i) files.push_back(write("t" + std::to_string(i) + ".wav", sineSlice(300 + 100 * i, 0, 9600)));
    deck.setShuffle(true);
    deck.setQueue(files);
    ASSERT_TRUE(deck.play());
    std::vector<int> heard;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (deck.status().state != DeckPlayback::State::stopped && std::chrono::steady_clock::now() < until) {
        deck.poll();
        const int now = deck.status().trackIndex;
        if (now >= 0 && (heard.empty() || heard.back() != now)) heard.push_back(now);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    std::vector<int> sorted = heard;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(sorted, (std::vector<int>{0, 1, 2, 3, 4})) << "each entry once, none twice, none left out";
}

TEST_F(DeckPlaybackTest, NextPreviousAndRepeatMoveThroughTheQueue) {
    deck.setQueue({write("a.wav", sineSlice(500, 0, 480000)), write("b.wav", sineSlice(700, 0, 480000)),
                   write("c.wav", sineSlice(900, 0, 480000))});
    ASSERT_TRUE(deck.play(1));
    EXPECT_EQ(deck.status().trackIndex, 1);
    ASSERT_TRUE(deck.next());
    EXPECT_EQ(deck.status().trackIndex, 2);
    EXPECT_FALSE(deck.next()) << "no track after the last without repeat";
    deck.setRepeat(DeckPlayback::Repeat::all);
    ASSERT_TRUE(deck.next());
    EXPECT_EQ(deck.status().trackIndex, 0) << "repeat goes round";
    ASSERT_TRUE(deck.previous());
    EXPECT_EQ(deck.status().trackIndex, 2);
    deck.pause();
    deck.seek(5);
    EXPECT_EQ(deck.status().state, DeckPlayback::State::paused);
    ASSERT_TRUE(deck.previous());
    EXPECT_EQ(deck.status().trackIndex, 2) << "well into a track, previous goes to its start";
    EXPECT_NEAR(deck.status().positionSeconds, 0.0, 0.001);
    EXPECT_EQ(deck.status().state, DeckPlayback::State::paused);
}

} // namespace
} // namespace tarn

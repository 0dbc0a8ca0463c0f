#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "core/audio/AudioOutputRenderer.hpp"
#include "core/audio/AudioRingBuffer.hpp"
#include "core/audio/ProcessStreamHold.hpp"
#include "core/audio/ProcessTapEngine.hpp"
#include "core/audio/RouteAudioEngine.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "support/SimulatedAudioPlatform.hpp"

namespace tarn {
namespace {

using test::SimulatedAudioPlatform;
using Step = SimulatedAudioPlatform::Step;
using Calls = std::vector<std::string>;

constexpr AudioPlatform::ObjectID app = 10;
constexpr AudioPlatform::ObjectID speakers = 41;

struct Engines : ::testing::Test {
    SimulatedAudioPlatform platform;
    RouteAudioFormat stereo{speakers, "speakers", 0u, 2, "Stereo", RouteCaptureMode::multichannelStream};
    std::shared_ptr<AudioRingBuffer> ring = std::make_shared<AudioRingBuffer>(2, 1 << 16);

    void SetUp() override {
        platform.addProcess({app, 4242, "com.spotify.Client", true, std::nullopt});
        platform.addDevice({speakers, "speakers", "Test Speakers", {2}});
        platform.addDevice({42, "surround", "Test Surround", {6}});
        platform.setDefaultOutputDevice(speakers);
    }
    Calls callsSinceClear() {
        auto c = platform.calls();
        platform.clearCalls();
        return c;
    }
    void fillRing(float value, int frames) {
        std::vector<float> music(2 * std::size_t(frames), value);
        ring->write(music.data(), frames);
    }
    void captureSteady(float value) {
        SimulatedAudioPlatform::CaptureSource source;
        source.sample = [value](std::uint64_t, std::uint32_t) { return value; };
        platform.setCaptureSource(source);
    }
    // What a start that must fail says ("started" if it did not fail).
    template <typename Error, typename Start> static std::string startError(Start&& start) {
        try {
            start();
        } catch (const Error& error) {
            return error.what();
        }
        return "started";
    }
};

// ---- capture -----------------------------------------------------------------------------------

TEST_F(Engines, CaptureBuildsTapAggregateAndCallbackAndUndoesThemInReverse) {
    ProcessTapEngine capture(platform, app, "com.spotify.Client", stereo, ring);
    capture.setPreferredIOBufferFrames(2048);
    // The simulated platform refuses a step whose prerequisites are missing, so a start that
    // succeeds took its steps in a workable order.
    EXPECT_EQ(capture.start(nullptr), 48000.0);
    platform.clearCalls();
    auto tap = platform.lastTapDescription();
    EXPECT_FALSE(tap->isStereoMixdown);
    EXPECT_EQ(tap->deviceUID, "speakers");
    EXPECT_TRUE(tap->isMuted) << "the application's own output must go quiet";
    EXPECT_EQ(tap->processes, std::vector<AudioPlatform::ObjectID>{app});
    auto aggregate = platform.lastAggregateDescription();
    ASSERT_EQ(aggregate->taps.size(), 1u);
    EXPECT_EQ(aggregate->taps[0].uid, "tap-" + std::to_string(capture.tapID()));
    EXPECT_EQ(platform.bufferRequests().back(),
              (std::pair<AudioPlatform::ObjectID, std::uint32_t>{capture.aggregateDeviceID(), 2048}));

    ASSERT_TRUE(platform.waitForCaptureCycles(3));
    EXPECT_GE(ring->totalFramesWritten(), 3u * 512u) << "captured audio reaches the ring";
    EXPECT_EQ(capture.start(nullptr), 48000.0) << "already running";
    EXPECT_EQ(platform.liveTaps(), 1u);

    capture.stop();
    EXPECT_EQ(callsSinceClear(), (Calls{"stopDevice", "destroyIOProc", "destroyAggregateDevice", "destroyProcessTap"}));
    EXPECT_TRUE(platform.isClean());
    capture.stop();
    EXPECT_TRUE(callsSinceClear().empty()) << "a second stop does nothing";
}

TEST_F(Engines, TapFollowsTheRouteFormat) {
    ProcessTapEngine mixdown(platform, app, "x", RouteAudioFormat::stereoFallback(stereo), ring);
    mixdown.start(nullptr);
    EXPECT_TRUE(platform.lastTapDescription()->isStereoMixdown) << "without a stream the tap is a stereo mixdown";
    mixdown.stop();

    auto ring6 = std::make_shared<AudioRingBuffer>(6, 16384);
    ProcessTapEngine multichannel(platform, app, "x", {42, "surround", 0u, 6, "5.1", RouteCaptureMode::multichannelStream},
                                  ring6);
    multichannel.start(nullptr);
    EXPECT_EQ(multichannel.captureFormat()->channelCount, 6u);
    ASSERT_TRUE(platform.waitForCaptureCycles(platform.captureCycles() + 2));
    EXPECT_GT(ring6->totalFramesWritten(), 0u);
    multichannel.stop();
    EXPECT_TRUE(platform.isClean());
}

struct Failure {
    Step step;
    std::int32_t status;
    const char* description;
    std::size_t tapsLeft = 0; // what a failed capture start leaves until the next stop()
    friend void PrintTo(const Failure& f, std::ostream* os) { *os << f.description; }
};

class CaptureFailures : public Engines, public ::testing::WithParamInterface<Failure> {};

TEST_P(CaptureFailures, SayWhatFailedAndLeaveNothingAfterStop) {
    const auto& p = GetParam();
    ProcessTapEngine capture(platform, app, "com.spotify.Client", stereo, ring);
    platform.fail(p.step, p.status);
    EXPECT_EQ(startError<ProcessTapEngine::StartError>([&] { capture.start(nullptr); }), p.description);
    EXPECT_FALSE(capture.isRunning());
    EXPECT_EQ(platform.liveTaps(), p.tapsLeft);
    EXPECT_EQ(platform.liveAggregateDevices() + platform.liveIOProcs() + platform.runningCallbackThreads(), 0u);
    capture.stop();
    EXPECT_TRUE(platform.isClean());

    platform.clearFailures();
    EXPECT_EQ(capture.start(nullptr), 48000.0) << "the same engine starts once the platform recovers";
    capture.stop();
    EXPECT_TRUE(platform.isClean());
}

// The first step, a middle one that leaves the tap behind (with a status that reads as a
// four-character code), the last, and a callback the platform accepted without a handle.
INSTANTIATE_TEST_SUITE_P(
    Steps, CaptureFailures,
    ::testing::Values(Failure{Step::createProcessTap, -13, "tapCreationFailed(-13: Permission denied)"},
                      Failure{Step::tapFormat, 0x666d743f, "tapFormatQueryFailed(1718449215 'fmt?')", 1},
                      Failure{Step::startDevice, -16, "deviceStartFailed(-16: Device or resource busy)"},
                      Failure{Step::createIOProcWithoutHandle, 1, "ioProcCreationFailed(0)"}));

// What the failure texts say about a status: never a code made of unprintable bytes.
TEST(PlatformStatus, ReadsAsWords) {
    EXPECT_EQ(AudioPlatform::statusDescription(-2), "-2: No such file or directory");
    EXPECT_EQ(AudioPlatform::statusDescription(0x21646174), "560226676 '!dat'");
    EXPECT_EQ(AudioPlatform::statusDescription(0x7FFFFFFF), "2147483647") << "a byte above ASCII";
    EXPECT_EQ(AudioPlatform::statusDescription(0x20), "32") << "control bytes";
    EXPECT_EQ(AudioPlatform::statusDescription(-10875), "-10875") << "a negative macOS status is no errno";
    EXPECT_EQ(AudioPlatform::statusDescription(std::numeric_limits<std::int32_t>::min()), "-2147483648");
}

// ---- renderer ----------------------------------------------------------------------------------

// A slow device (one 2048-frame cycle every 100 ms) runs no cycle inside a short wait, so stop
// must wait for the cycle that carries the fade-out.
TEST_F(Engines, RendererFadesInAndOutWithoutAClickAndStopsInOrder) {
    fillRing(0.5f, 60000);
    AudioOutputRenderer renderer(platform, speakers, nullptr, ring, RouteDSPStage::capture);
    renderer.setPreferredIOBufferFrames(512);
    platform.setRenderSink({2048, 0, std::chrono::milliseconds(100)});
    renderer.start(44100);
    EXPECT_EQ(platform.outputUnitCaptures(), std::vector<AudioPlatform::ObjectID>{0})
        << "a renderer that plays what another producer wrote has no capture to pair with";
    EXPECT_EQ(platform.lastOutputUnitFormat(), (AudioStreamFormat{44100, 2}));
    EXPECT_EQ(platform.bufferFramesOf(speakers), 512u);
    ASSERT_TRUE(platform.waitForRenderCycles(2));
    platform.clearCalls();
    renderer.stop();
    EXPECT_EQ(callsSinceClear(), (Calls{"stopOutputUnit", "uninitializeOutputUnit", "disposeOutputUnit"}));
    EXPECT_TRUE(platform.isClean());
    EXPECT_FALSE(renderer.hasScratch());
    renderer.stop();
    EXPECT_TRUE(callsSinceClear().empty()) << "a second stop does nothing";

    const auto out = platform.renderedSamples();
    EXPECT_NEAR(out[0], 0.5 / 220.5, 1e-6) << "fade-in over 5 ms at 44.1 kHz";
    EXPECT_EQ(out[2 * 300], 0.5f);
    ASSERT_GE(out.size(), 3u * 2 * 2048) << "a cycle ran after the fade-out was asked for";
    for (std::size_t i = out.size() - 2 * 1024; i < out.size(); ++i) ASSERT_EQ(out[i], 0.0f) << "the unit stopped faded out";
    for (std::size_t i = 2; i < out.size(); i += 2)
        ASSERT_LE(std::fabs(out[i] - out[i - 2]), 0.5f / 220.5f + 1e-6f) << "no click at frame " << i / 2;
}

class RenderFailures : public Engines, public ::testing::WithParamInterface<Failure> {};

TEST_P(RenderFailures, SayWhatFailedAndUndoThemselves) {
    const auto& p = GetParam();
    AudioOutputRenderer renderer(platform, speakers, nullptr, ring, RouteDSPStage::render);
    platform.fail(p.step, p.status);
    EXPECT_EQ(startError<AudioOutputRenderer::StartError>([&] { renderer.start(48000); }), p.description);
    EXPECT_FALSE(renderer.isRunning());
    EXPECT_FALSE(renderer.hasScratch());
    EXPECT_TRUE(platform.isClean());
    // Once the platform recovers the renderer starts, even where buffer sizes cannot be set.
    platform.clearFailures();
    platform.fail(Step::setBufferFrameSize, -1);
    platform.fail(Step::setMaximumFramesPerSlice, -1);
    renderer.setPreferredIOBufferFrames(512);
    renderer.start(48000);
    EXPECT_TRUE(renderer.isRunning());
    renderer.stop();
    EXPECT_TRUE(platform.isClean());
}

INSTANTIATE_TEST_SUITE_P(Steps, RenderFailures,
                         ::testing::Values(Failure{Step::outputUnitComponent, -1, "auComponentNotFound"},
                                           Failure{Step::setOutputUnitFormat, -22,
                                                   "setStreamFormatFailed(-22: Invalid argument)"},
                                           Failure{Step::startOutputUnit, -16, "startFailed(-16: Device or resource busy)"},
                                           Failure{Step::initializeOutputUnit, 0x6e6f7065, "initFailed(1852797029 'nope')"}));

// ---- route engine ------------------------------------------------------------------------------

// A steady 0.1 through the chain (only its fixed make-up gain) reaches the device, again after a
// restart, and destroying a running route stops the renderer before the capture.
TEST_F(Engines, RouteRunsCaptureThroughTheChainToTheDeviceAndRestarts) {
    auto chain = std::make_shared<RouteDSPChain>(2, 48000);
    chain->setSafetyCeilingEnabled(false);
    chain->setOutputTrim(0.0);
    const float level = 0.1f * RouteDSPChain::outputMakeupLinearFloat;
    auto engine = std::make_unique<RouteAudioEngine>(platform, "com.spotify.Client", app, stereo, chain, 16384, 2048);
    captureSteady(0.1f);
    platform.setRenderSink({512, 0});

    EXPECT_EQ(engine->start(), 48000.0);
    EXPECT_EQ(platform.lastOutputUnitFormat(), (AudioStreamFormat{48000, 2})) << "the renderer runs at the tap's rate";
    EXPECT_EQ(platform.lastOutputUnitDevice(), speakers);
    EXPECT_EQ(platform.calls().front(), "createProcessTap") << "capture starts first";
    ASSERT_EQ(platform.bufferRequests().size(), 2u);
    for (const auto& [device, frames] : platform.bufferRequests()) EXPECT_EQ(frames, 2048u) << "both ends, same size";
    ASSERT_TRUE(platform.waitForRenderCycles(40));
    engine->stop();
    EXPECT_TRUE(platform.isClean());
    const auto first = platform.renderedSamples();
    float peak = 0;
    for (float s : first) peak = std::max(peak, std::fabs(s));
    EXPECT_NEAR(peak, level, 2e-3) << "processed audio reached the device";

    engine->start();
    ASSERT_TRUE(platform.waitForRenderCycles(platform.renderCycles() + 40));
    platform.clearCalls();
    engine.reset(); // destroyed while running
    EXPECT_TRUE(platform.isClean());
    const auto calls = platform.calls();
    EXPECT_LT(std::find(calls.begin(), calls.end(), "stopOutputUnit"), std::find(calls.begin(), calls.end(), "stopDevice"))
        << "the renderer stops first";
    const auto all = platform.renderedSamples();
    ASSERT_GT(all.size(), first.size());
    EXPECT_NEAR(*std::max_element(all.begin() + std::ptrdiff_t(first.size()), all.end()), level, 2e-3)
        << "a restarted route plays again";
}

// One process runs many routes. Every start pairs the route's output with its own capture, with
// a stream hold (a capture that has no output) standing, a route moving to another device (its
// new engine starts before the old one stops), and routes stopped and started out of order.
TEST_F(Engines, EveryRouteOutputIsPairedWithItsOwnCaptureHoweverRoutesInterleave) {
    constexpr AudioPlatform::ObjectID browser = 11, headphones = 43;
    platform.addProcess({browser, 4343, "org.mozilla.firefox", true, std::nullopt});
    platform.addDevice({headphones, "headphones", "Test Headphones", {2}});
    const RouteAudioFormat onHeadphones{headphones, "headphones", 0u, 2, "Stereo", RouteCaptureMode::multichannelStream};
    auto route = [&](AudioPlatform::ObjectID process, const RouteAudioFormat& format) {
        return std::make_unique<RouteAudioEngine>(platform, "x", process, format,
                                                  std::make_shared<RouteDSPChain>(2, 48000), 16384, std::nullopt);
    };
    auto expectPaired = [&](std::vector<RouteAudioEngine*> running, const char* when) {
        std::vector<AudioPlatform::ObjectID> own, paired = platform.outputUnitCaptures();
        for (auto* r : running) own.push_back(r->capture().aggregateDeviceID());
        std::sort(own.begin(), own.end());
        std::sort(paired.begin(), paired.end());
        EXPECT_EQ(paired, own) << when;
    };

    auto music = route(app, stereo);
    auto browserRoute = route(browser, onHeadphones);
    ProcessStreamHold browserHold(platform, browser, "org.mozilla.firefox");
    ASSERT_EQ(browserHold.hold(), AudioPlatform::noError);
    music->start();
    browserRoute->start(); // resumes while its hold still stands
    browserHold.release();
    expectPaired({music.get(), browserRoute.get()}, "two routes, one resumed over its hold");

    auto moved = route(app, onHeadphones);
    moved->start();
    expectPaired({music.get(), browserRoute.get(), moved.get()}, "while a route moves to another device");
    music.reset();
    expectPaired({browserRoute.get(), moved.get()}, "after the move");

    ProcessStreamHold musicHold(platform, app, "com.spotify.Client");
    ASSERT_EQ(musicHold.hold(), AudioPlatform::noError);
    moved->stop();
    browserRoute->stop();
    browserRoute->start();
    moved->start();
    musicHold.release();
    expectPaired({browserRoute.get(), moved.get()}, "restarted in another order");

    browserRoute.reset();
    moved.reset();
    EXPECT_TRUE(platform.isClean());
}

TEST_F(Engines, RouteThatFailsToStartLeavesNothingAndSaysWhichSideFailed) {
    RouteAudioEngine engine(platform, "x", app, stereo, std::make_shared<RouteDSPChain>(2, 48000), 16384, std::nullopt);
    auto failure = [&] { return startError<RouteAudioEngine::StartError>([&] { engine.start(); }); };
    platform.fail(Step::setOutputUnitDevice, -19);
    EXPECT_EQ(failure(), "render(setDeviceFailed(-19: No such device))");
    EXPECT_FALSE(engine.capture().isRunning());
    EXPECT_TRUE(platform.isClean());

    platform.clearFailures();
    platform.fail(Step::tapFormat, -5);
    EXPECT_EQ(failure(), "capture(tapFormatQueryFailed(-5: Input/output error))");
    EXPECT_TRUE(platform.isClean()) << "even the tap that the format query left behind";

    // Pairing the output with its capture is part of connecting the unit.
    platform.clearFailures();
    platform.fail(Step::setOutputUnitCapture, -2);
    EXPECT_EQ(failure(), "render(initFailed(-2: No such file or directory))");
    EXPECT_TRUE(platform.isClean());
}

TEST_F(Engines, RouteReportsWhichSideThePlatformStopped) {
    RouteAudioEngine engine(platform, "x", app, stereo, std::make_shared<RouteDSPChain>(2, 48000), 16384, std::nullopt);
    engine.start();
    EXPECT_EQ(engine.interruption(), std::nullopt);
    platform.interruptOutputUnits("Test Speakers went away");
    EXPECT_EQ(engine.interruption(), "output stopped: Test Speakers went away");
    platform.interruptIOProcs("the sound server went away");
    EXPECT_EQ(engine.interruption(), "capture stopped: the sound server went away") << "capture is reported first";
    engine.stop();
    EXPECT_EQ(engine.interruption(), std::nullopt);
}

} // namespace
} // namespace tarn

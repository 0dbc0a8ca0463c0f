#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "core/audio/AudioOutputRenderer.hpp"
#include "core/audio/AudioRingBuffer.hpp"
#include "core/audio/ProcessTapEngine.hpp"
#include "core/audio/RouteAudioEngine.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "support/SimulatedAudioPlatform.hpp"

namespace tarn {
namespace {

using test::SimulatedAudioPlatform;
using Step = SimulatedAudioPlatform::Step;
using TapCase = ProcessTapEngine::StartError::Case;
using RenderCase = AudioOutputRenderer::StartError::Case;

constexpr AudioPlatform::ObjectID app = 10;
constexpr AudioPlatform::ObjectID speakers = 41;
constexpr AudioPlatform::ObjectID surround = 42;

struct Engines : ::testing::Test {
    SimulatedAudioPlatform platform;
    RouteAudioFormat stereo{speakers, "speakers", 0u, 2, "Stereo", RouteCaptureMode::multichannelStream};
    RouteAudioFormat sixChannel{surround, "surround", 0u, 6, "5.1", RouteCaptureMode::multichannelStream};

    void SetUp() override {
        platform.addProcess({app, 4242, "com.spotify.Client", true, std::nullopt});
        platform.addDevice({speakers, "speakers", "Test Speakers", {2}});
        platform.addDevice({surround, "surround", "Test Surround", {6}});
        platform.setDefaultOutputDevice(speakers);
    }
    std::vector<std::string> callsSinceClear() {
        auto c = platform.calls();
        platform.clearCalls();
        return c;
    }
};

// ---- errors ------------------------------------------------------------------------------------

TEST(StartErrors, Descriptions) {
    EXPECT_STREQ(ProcessTapEngine::StartError(TapCase::tapCreationFailed, 0x77686174).what(),
                 "tapCreationFailed(2003329396 'what')");
    EXPECT_STREQ(ProcessTapEngine::StartError(TapCase::aggregateCreationFailed, 0x21646576).what(),
                 "aggregateCreationFailed(560227702 '!dev')");
    EXPECT_STREQ(AudioOutputRenderer::StartError(RenderCase::auComponentNotFound).what(), "auComponentNotFound");
    RouteAudioEngine::StartError wrapped(AudioOutputRenderer::StartError(RenderCase::initFailed, -5));
    EXPECT_STREQ(wrapped.what(), "render(initFailed(-5))");
    EXPECT_EQ(wrapped.status(), -5);
    EXPECT_FALSE(wrapped.isCapture());
    RouteAudioEngine::StartError captured(ProcessTapEngine::StartError(TapCase::tapUIDQueryFailed, -22));
    EXPECT_STREQ(captured.what(), "capture(tapUIDQueryFailed(-22 '?\?\?\?'))");
    ASSERT_NE(captured.captureError(), nullptr);
    EXPECT_EQ(captured.captureError()->errorCase(), TapCase::tapUIDQueryFailed);
}

// ---- capture -----------------------------------------------------------------------------------

TEST_F(Engines, CaptureCreatesTapAggregateAndCallbackInOrderAndUndoesThemInReverse) {
    auto ring = std::make_shared<AudioRingBuffer>(2, 16384);
    ProcessTapEngine capture(platform, app, "com.spotify.Client", stereo, ring);
    capture.setPreferredIOBufferFrames(2048);
    EXPECT_EQ(capture.start(nullptr), 48000.0);
    EXPECT_EQ(callsSinceClear(),
              (std::vector<std::string>{"createProcessTap", "tapUID", "tapFormat", "createAggregateDevice",
                                        "bufferFrameSizeRange", "setBufferFrameSize", "bufferFrameSize", "createIOProc",
                                        "startDevice"}));
    auto tap = platform.lastTapDescription();
    EXPECT_FALSE(tap->isStereoMixdown);
    EXPECT_EQ(tap->deviceUID, "speakers");
    EXPECT_EQ(tap->name, "Tarn Tap com.spotify.Client");
    EXPECT_TRUE(tap->isPrivate);
    EXPECT_TRUE(tap->isMuted);
    EXPECT_EQ(tap->processes, std::vector<AudioPlatform::ObjectID>{app});
    auto aggregate = platform.lastAggregateDescription();
    std::string tapUID = "tap-" + std::to_string(capture.tapID());
    EXPECT_EQ(aggregate->uid, "com.tarn.aggregate." + tapUID);
    EXPECT_EQ(aggregate->name, "Tarn Capture com.spotify.Client");
    EXPECT_TRUE(aggregate->isPrivate);
    EXPECT_FALSE(aggregate->isStacked);
    ASSERT_EQ(aggregate->taps.size(), 1u);
    EXPECT_EQ(aggregate->taps[0].uid, tapUID);
    EXPECT_TRUE(aggregate->taps[0].driftCompensation);
    EXPECT_EQ(platform.bufferRequests().back(), (std::pair<AudioPlatform::ObjectID, std::uint32_t>{capture.aggregateDeviceID(), 2048}));
    EXPECT_EQ(capture.scratchSampleCount(), 2 * 4096);

    ASSERT_TRUE(platform.waitForCaptureCycles(3));
    EXPECT_GE(ring->totalFramesWritten(), 3u * 512u) << "captured audio reaches the ring";

    EXPECT_EQ(capture.start(nullptr), 48000.0) << "already running";
    EXPECT_EQ(platform.liveTaps(), 1u);

    capture.stop();
    EXPECT_EQ(callsSinceClear(), (std::vector<std::string>{"stopDevice", "destroyIOProc", "destroyAggregateDevice",
                                                           "destroyProcessTap"}));
    EXPECT_TRUE(platform.isClean());
    EXPECT_EQ(capture.scratchSampleCount(), 0);
    EXPECT_EQ(capture.captureFormat(), (AudioStreamFormat{48000, 2})) << "the last format outlives stop";
    capture.stop();
    EXPECT_TRUE(callsSinceClear().empty()) << "a second stop does nothing";
}

TEST_F(Engines, WithoutAStreamTheTapIsAStereoMixdown) {
    auto ring = std::make_shared<AudioRingBuffer>(2, 16384);
    RouteAudioFormat noStream = stereo;
    noStream.streamIndex.reset();
    ProcessTapEngine capture(platform, app, "x", noStream, ring);
    capture.start(nullptr);
    EXPECT_TRUE(platform.lastTapDescription()->isStereoMixdown);
    capture.stop();

    auto ring6 = std::make_shared<AudioRingBuffer>(6, 16384);
    ProcessTapEngine multichannel(platform, app, "x", sixChannel, ring6);
    const auto cycles = platform.captureCycles();
    multichannel.start(nullptr);
    EXPECT_FALSE(platform.lastTapDescription()->isStereoMixdown);
    EXPECT_EQ(multichannel.captureFormat()->channelCount, 6u);
    ASSERT_TRUE(platform.waitForCaptureCycles(cycles + 2));
    EXPECT_GT(ring6->totalFramesWritten(), 0u);
    multichannel.stop();
    EXPECT_TRUE(platform.isClean());
}

struct CaptureFailure {
    Step step;
    TapCase expected;
    std::int32_t status;
    // What the failed start leaves until the next stop().
    std::size_t tapsLeft;
};

class CaptureFailures : public Engines, public ::testing::WithParamInterface<CaptureFailure> {};

TEST_P(CaptureFailures, EachStepFailsWithItsCaseAndLeavesNothingAfterStop) {
    const auto& p = GetParam();
    auto ring = std::make_shared<AudioRingBuffer>(2, 16384);
    ProcessTapEngine capture(platform, app, "com.spotify.Client", stereo, ring);
    platform.fail(p.step, p.status);
    try {
        capture.start(nullptr);
        FAIL() << "start should fail";
    } catch (const ProcessTapEngine::StartError& error) {
        EXPECT_EQ(error.errorCase(), p.expected);
        EXPECT_EQ(error.status(), p.status);
        EXPECT_EQ(error.description().rfind(std::string(ProcessTapEngine::StartError::name(p.expected)) + "(" +
                                                std::to_string(p.status) + " '", 0),
                  0u)
            << error.description();
    }
    EXPECT_FALSE(capture.isRunning());
    EXPECT_EQ(platform.liveTaps(), p.tapsLeft);
    EXPECT_EQ(capture.tapID() != 0, p.tapsLeft == 1);
    EXPECT_EQ(platform.liveAggregateDevices(), 0u);
    EXPECT_EQ(capture.aggregateDeviceID(), 0u);
    EXPECT_EQ(platform.liveIOProcs(), 0u);
    EXPECT_EQ(capture.ioProcID(), 0u);
    EXPECT_EQ(capture.scratchSampleCount(), 0);
    EXPECT_EQ(platform.runningCallbackThreads(), 0u);
    capture.stop();
    EXPECT_TRUE(platform.isClean());

    // Once the platform recovers, the same engine starts cleanly.
    platform.clearFailures();
    EXPECT_EQ(capture.start(nullptr), 48000.0);
    capture.stop();
    EXPECT_TRUE(platform.isClean());
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, CaptureFailures,
    ::testing::Values(CaptureFailure{Step::createProcessTap, TapCase::tapCreationFailed, -13, 0},
                      CaptureFailure{Step::tapUID, TapCase::tapUIDQueryFailed, -5, 1},
                      CaptureFailure{Step::tapFormat, TapCase::tapFormatQueryFailed, 0x666d743f, 1},
                      CaptureFailure{Step::createAggregateDevice, TapCase::aggregateCreationFailed, -12, 0},
                      CaptureFailure{Step::createIOProc, TapCase::ioProcCreationFailed, -22, 0},
                      CaptureFailure{Step::startDevice, TapCase::deviceStartFailed, -16, 0}));

TEST_F(Engines, AnIOProcWithoutHandleIsAFailure) {
    auto ring = std::make_shared<AudioRingBuffer>(2, 16384);
    ProcessTapEngine capture(platform, app, "x", stereo, ring);
    platform.fail(Step::createIOProcWithoutHandle, 1);
    try {
        capture.start(nullptr);
        FAIL();
    } catch (const ProcessTapEngine::StartError& error) {
        EXPECT_EQ(error.errorCase(), TapCase::ioProcCreationFailed);
        EXPECT_EQ(error.status(), 0);
    }
    EXPECT_TRUE(platform.isClean());
}

TEST_F(Engines, ACaptureThatCannotFindTheApplicationFails) {
    auto ring = std::make_shared<AudioRingBuffer>(2, 16384);
    ProcessTapEngine capture(platform, 999, "gone", stereo, ring);
    EXPECT_THROW(capture.start(nullptr), ProcessTapEngine::StartError);
    EXPECT_TRUE(platform.isClean());
}

// ---- renderer ----------------------------------------------------------------------------------

TEST_F(Engines, RendererStartsFadesInAndStopsInOrder) {
    auto ring = std::make_shared<AudioRingBuffer>(2, 16384);
    std::vector<float> music(2 * 8000, 0.5f);
    ring->write(music.data(), 8000);
    AudioOutputRenderer renderer(platform, speakers, nullptr, ring, RouteDSPStage::capture);
    renderer.setPreferredIOBufferFrames(512);
    platform.setRenderSink({256, 4});
    renderer.start(44100);
    EXPECT_EQ(callsSinceClear(),
              (std::vector<std::string>{"hasOutputUnitComponent", "createOutputUnit", "enableOutputIO",
                                        "setOutputUnitDevice", "bufferFrameSizeRange", "setBufferFrameSize",
                                        "bufferFrameSize", "setMaximumFramesPerSlice", "setOutputUnitFormat",
                                        "setRenderCallback", "initializeOutputUnit", "startOutputUnit"}));
    EXPECT_EQ(platform.lastOutputUnitFormat(), (AudioStreamFormat{44100, 2}));
    EXPECT_EQ(platform.bufferFramesOf(speakers), 512u);
    ASSERT_TRUE(platform.waitForRenderCycles(4));
    auto out = platform.renderedSamples();
    ASSERT_GE(out.size(), 2u * 1024u);
    EXPECT_NEAR(out[0], 0.5 / 220.5, 1e-6) << "fade-in over 5 ms at 44.1 kHz";
    EXPECT_EQ(out[2 * 300], 0.5f);

    renderer.stop();
    EXPECT_EQ(callsSinceClear(),
              (std::vector<std::string>{"stopOutputUnit", "uninitializeOutputUnit", "disposeOutputUnit"}));
    EXPECT_TRUE(platform.isClean());
    EXPECT_FALSE(renderer.hasScratch());
    renderer.stop();
    EXPECT_TRUE(callsSinceClear().empty());
}

TEST_F(Engines, RendererFadesOutBeforeTheUnitStops) {
    auto ring = std::make_shared<AudioRingBuffer>(2, 1 << 20);
    std::vector<float> music(2 * 400000, 0.5f);
    ring->write(music.data(), 400000);
    AudioOutputRenderer renderer(platform, speakers, nullptr, ring, RouteDSPStage::capture);
    // One cycle is longer than the fade, so one cycle inside the 30 ms wait completes it.
    platform.setRenderSink({512, 0});
    renderer.start(48000);
    ASSERT_TRUE(platform.waitForRenderCycles(4));
    renderer.stop();
    auto out = platform.renderedSamples();
    ASSERT_GE(out.size(), 2u * 512u);
    // The last frames before the unit stopped are silent, and the step down to them was a ramp.
    for (std::size_t i = out.size() - 2 * 256; i < out.size(); ++i) ASSERT_EQ(out[i], 0.0f);
    for (std::size_t i = 2; i < out.size(); i += 2)
        ASSERT_LE(std::fabs(out[i] - out[i - 2]), 0.5f / 240.0f + 1e-6f) << "no click at frame " << i / 2;
}

TEST_F(Engines, RendererWaitsForTheFadeWhenCyclesAreLongerThanTheWait) {
    auto ring = std::make_shared<AudioRingBuffer>(2, 1 << 16);
    std::vector<float> music(2 * 60000, 0.5f);
    ring->write(music.data(), 60000);
    AudioOutputRenderer renderer(platform, speakers, nullptr, ring, RouteDSPStage::capture);
    // A slow device: one 2048-frame cycle every 100 ms, far longer than the 30 ms wait.
    platform.setRenderSink({2048, 0, std::chrono::milliseconds(100)});
    renderer.start(48000);
    ASSERT_TRUE(platform.waitForRenderCycles(2));
    const auto before = std::chrono::steady_clock::now();
    renderer.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(400));
    const auto out = platform.renderedSamples();
    ASSERT_GE(out.size(), 3u * 2 * 2048) << "a cycle ran after the fade-out was asked for";
    for (std::size_t i = out.size() - 2 * 1024; i < out.size(); ++i) ASSERT_EQ(out[i], 0.0f) << "the unit stopped faded out";
    EXPECT_TRUE(platform.isClean());
}

struct RenderFailure {
    Step step;
    RenderCase expected;
    std::int32_t status;
};

class RenderFailures : public Engines, public ::testing::WithParamInterface<RenderFailure> {};

TEST_P(RenderFailures, EachStepFailsWithItsCaseAndUndoesItself) {
    const auto& p = GetParam();
    auto ring = std::make_shared<AudioRingBuffer>(2, 16384);
    AudioOutputRenderer renderer(platform, speakers, nullptr, ring, RouteDSPStage::render);
    platform.fail(p.step, p.status);
    try {
        renderer.start(48000);
        FAIL() << "start should fail";
    } catch (const AudioOutputRenderer::StartError& error) {
        EXPECT_EQ(error.errorCase(), p.expected);
        if (p.expected != RenderCase::auComponentNotFound) {
            EXPECT_EQ(error.description(), std::string(AudioOutputRenderer::StartError::name(p.expected)) + "(" +
                                               std::to_string(p.status) + ")");
        }
    }
    EXPECT_FALSE(renderer.isRunning());
    EXPECT_FALSE(renderer.hasOutputUnit());
    EXPECT_FALSE(renderer.hasScratch());
    EXPECT_TRUE(platform.isClean());
    platform.clearFailures();
    renderer.start(48000);
    EXPECT_TRUE(renderer.isRunning());
    renderer.stop();
    EXPECT_TRUE(platform.isClean());
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, RenderFailures,
    ::testing::Values(RenderFailure{Step::outputUnitComponent, RenderCase::auComponentNotFound, -1},
                      RenderFailure{Step::createOutputUnit, RenderCase::auInstantiationFailed, -12},
                      RenderFailure{Step::enableOutputIO, RenderCase::enableIOFailed, -5},
                      RenderFailure{Step::setOutputUnitDevice, RenderCase::setDeviceFailed, -19},
                      RenderFailure{Step::setOutputUnitFormat, RenderCase::setStreamFormatFailed, -22},
                      RenderFailure{Step::setRenderCallback, RenderCase::setRenderCallbackFailed, -1},
                      RenderFailure{Step::initializeOutputUnit, RenderCase::initFailed, -32},
                      RenderFailure{Step::startOutputUnit, RenderCase::startFailed, -16}));

TEST_F(Engines, RendererIgnoresBufferSizeAndSliceFailures) {
    auto ring = std::make_shared<AudioRingBuffer>(2, 16384);
    AudioOutputRenderer renderer(platform, speakers, nullptr, ring, RouteDSPStage::capture);
    renderer.setPreferredIOBufferFrames(512);
    platform.fail(Step::setBufferFrameSize, -1);
    platform.fail(Step::setMaximumFramesPerSlice, -1);
    EXPECT_NO_THROW(renderer.start(48000));
    renderer.stop();
    EXPECT_TRUE(platform.isClean());
}

// ---- route engine ------------------------------------------------------------------------------

TEST_F(Engines, RouteRunsCaptureThroughTheChainToTheDevice) {
    auto chain = std::make_shared<RouteDSPChain>(2, 44100);
    chain->setSafetyCeilingEnabled(false);
    chain->setOutputTrim(0.0); // 0 dB trim: only the fixed make-up gain
    RouteAudioEngine engine(platform, "com.spotify.Client", app, stereo, chain, 16384, 2048);
    // A steady 0.1 on both channels; the chain adds its fixed make-up gain.
    SimulatedAudioPlatform::CaptureSource source;
    source.sample = [](std::uint64_t, std::uint32_t) { return 0.1f; };
    platform.setCaptureSource(source);
    platform.setRenderSink({512, 0});

    EXPECT_EQ(engine.start(), 48000.0);
    EXPECT_EQ(engine.captureSampleRate(), 48000.0);
    EXPECT_EQ(engine.captureChannelCount(), 2);
    EXPECT_EQ(platform.lastOutputUnitFormat(), (AudioStreamFormat{48000, 2})) << "the renderer runs at the tap's rate";
    EXPECT_EQ(platform.lastOutputUnitDevice(), speakers);
    auto calls = platform.calls();
    EXPECT_EQ(calls.front(), "createProcessTap") << "capture starts first";
    EXPECT_EQ(calls.back(), "startOutputUnit");
    for (const auto& [device, frames] : platform.bufferRequests()) EXPECT_EQ(frames, 2048u);
    EXPECT_EQ(platform.bufferRequests().size(), 2u) << "both ends get the same buffer size";

    ASSERT_TRUE(platform.waitForRenderCycles(40));
    platform.clearCalls();
    engine.stop();
    auto stopCalls = platform.calls();
    EXPECT_EQ(stopCalls.front(), "stopOutputUnit") << "the renderer stops first";
    EXPECT_EQ(stopCalls.back(), "destroyProcessTap");
    EXPECT_TRUE(platform.isClean());
    EXPECT_EQ(engine.ringBuffer().availableFramesToRead(), 0) << "stop empties the ring";

    auto out = platform.renderedSamples();
    float peak = 0;
    for (float s : out) peak = std::max(peak, std::fabs(s));
    EXPECT_NEAR(peak, 0.1f * RouteDSPChain::outputMakeupLinearFloat, 2e-3) << "processed audio reached the device";
}

TEST_F(Engines, RouteWhoseRendererFailsLeavesCaptureStopped) {
    RouteAudioEngine engine(platform, "x", app, stereo, std::make_shared<RouteDSPChain>(2, 48000), 16384, std::nullopt);
    platform.fail(Step::setOutputUnitDevice, -19);
    try {
        engine.start();
        FAIL();
    } catch (const RouteAudioEngine::StartError& error) {
        EXPECT_EQ(std::string(error.what()).rfind("render(setDeviceFailed(", 0), 0u) << error.what();
        ASSERT_NE(error.renderError(), nullptr);
        EXPECT_EQ(error.renderError()->errorCase(), RenderCase::setDeviceFailed);
    }
    EXPECT_FALSE(engine.capture().isRunning());
    EXPECT_TRUE(platform.isClean());
}

TEST_F(Engines, RouteWhoseCaptureFailsHalfWayLeavesNothing) {
    RouteAudioEngine engine(platform, "x", app, stereo, std::make_shared<RouteDSPChain>(2, 48000), 16384, std::nullopt);
    platform.fail(Step::tapFormat, -5);
    try {
        engine.start();
        FAIL();
    } catch (const RouteAudioEngine::StartError& error) {
        EXPECT_STREQ(error.what(), "capture(tapFormatQueryFailed(-5 '?\?\?\?'))");
    }
    EXPECT_TRUE(platform.isClean()) << "even the tap that the format query left behind";
    EXPECT_EQ(platform.liveOutputUnits(), 0u);
}

TEST_F(Engines, RouteRestartsWithAFreshFadeIn) {
    auto chain = std::make_shared<RouteDSPChain>(2, 48000);
    chain->setOutputTrim(-4.0); // unity overall
    RouteAudioEngine engine(platform, "x", app, stereo, chain, 16384, std::nullopt);
    SimulatedAudioPlatform::CaptureSource source;
    source.sample = [](std::uint64_t, std::uint32_t) { return 0.5f; };
    platform.setCaptureSource(source);
    platform.setRenderSink({128, 0});
    engine.start();
    ASSERT_TRUE(platform.waitForRenderCycles(20));
    engine.stop();
    const auto first = platform.renderedSamples();
    ASSERT_GE(first.size(), 4u);
    EXPECT_EQ(first[first.size() - 2], 0.0f) << "the first run ended faded out";
    EXPECT_EQ(engine.renderer().kernel().fadeGain, 0.0f);

    const auto cycles = platform.renderCycles();
    engine.start();
    ASSERT_TRUE(platform.waitForRenderCycles(cycles + 40));
    engine.stop();
    const auto all = platform.renderedSamples();
    ASSERT_GE(all.size(), first.size() + 2 * 240);
    // Every frame of the second run stays under a fade-in envelope that starts from 0.
    for (std::size_t i = first.size(), f = 0; i < all.size() && f < 240; i += 2, ++f) {
        ASSERT_LE(std::fabs(all[i]), 0.5 * (f + 1) / 240.0 + 1e-5) << "frame " << f << " of the second run";
    }
    EXPECT_TRUE(platform.isClean());
}

TEST_F(Engines, RouteReportsWhichSideThePlatformStopped) {
    RouteAudioEngine engine(platform, "x", app, stereo, std::make_shared<RouteDSPChain>(2, 48000), 16384, std::nullopt);
    EXPECT_EQ(engine.interruption(), std::nullopt) << "not running";
    engine.start();
    EXPECT_EQ(engine.interruption(), std::nullopt);
    platform.interruptOutputUnits("Test Speakers went away");
    EXPECT_EQ(engine.interruption(), "output stopped: Test Speakers went away");
    platform.interruptIOProcs("the sound server went away");
    EXPECT_EQ(engine.interruption(), "capture stopped: the sound server went away") << "capture is reported first";
    engine.stop();
    EXPECT_EQ(engine.interruption(), std::nullopt);
    EXPECT_TRUE(platform.isClean());
}

TEST_F(Engines, DestroyingARunningRouteStopsItCleanly) {
    {
        RouteAudioEngine engine(platform, "x", app, stereo, std::make_shared<RouteDSPChain>(2, 48000), 16384, std::nullopt);
        engine.start();
        ASSERT_TRUE(platform.waitForRenderCycles(platform.renderCycles() + 3));
    }
    EXPECT_TRUE(platform.isClean());
    const auto calls = platform.calls();
    const auto renderStop = std::find(calls.begin(), calls.end(), "stopOutputUnit");
    const auto captureStop = std::find(calls.begin(), calls.end(), "stopDevice");
    EXPECT_LT(renderStop - calls.begin(), captureStop - calls.begin()) << "the renderer stops first";
}

} // namespace
} // namespace tarn

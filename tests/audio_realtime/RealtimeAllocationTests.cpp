// The capture and render callbacks must never allocate, free or lock. This binary audits every
// call made on a simulated platform's callback thread while the engines' callbacks run.

#include <gtest/gtest.h>

#include <memory>

#include "core/audio/AudioOutputRenderer.hpp"
#include "core/audio/AudioRingBuffer.hpp"
#include "core/audio/RouteAudioEngine.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "core/recommendation/AnalysisTap.hpp"
#include "support/RealtimeAudit.hpp"
#include "support/SimulatedAudioPlatform.hpp"

namespace tarn {
namespace {

using test::SimulatedAudioPlatform;

struct RealtimePaths : ::testing::Test {
    SimulatedAudioPlatform platform;
    void SetUp() override {
        // The hooks' counting itself is checked in the realtime folder; here they must be live.
        ASSERT_TRUE(test::auditHooksResolved());
        test::auditWhile(&SimulatedAudioPlatform::isInsideCallback);
        platform.addProcess({10, 4242, "com.spotify.Client", true, std::nullopt});
        platform.addDevice({41, "speakers", "Test Speakers", {2}});
        platform.addDevice({42, "surround", "Test Surround", {6}});
    }
    // Every stage active, so nothing takes the pass-through shortcut.
    static std::shared_ptr<RouteDSPChain> busyChain(int channels) {
        auto chain = std::make_shared<RouteDSPChain>(channels, 48000);
        for (int band = 0; band < 10; ++band) chain->customEQ().setGain(band % 2 ? 6.0 : -4.0, band);
        chain->setGain(3.0);
        return chain;
    }
};

TEST_F(RealtimePaths, RouteCallbacksAllocateNothing) {
    struct Case {
        RouteAudioFormat format;
        SimulatedAudioPlatform::CaptureSource source;
        SimulatedAudioPlatform::RenderSink sink;
    };
    SimulatedAudioPlatform::CaptureSource interleavedLong;
    interleavedLong.framesPerCycle = 10000; // chunked through the scratch
    SimulatedAudioPlatform::CaptureSource planar;
    planar.interleaved = false;
    planar.framesPerCycle = 256;
    planar.bufferCount = 2;
    const Case cases[]{
        {{41, "speakers", 0u, 2, "Stereo", RouteCaptureMode::multichannelStream}, interleavedLong, {512, 0}},
        {{42, "surround", 0u, 6, "5.1", RouteCaptureMode::multichannelStream}, planar, {1024, 0}},
    };
    for (const auto& c : cases) {
        const long allocationsBefore = test::auditedAllocations(), locksBefore = test::auditedLocks();
        platform.setCaptureSource(c.source);
        platform.setRenderSink(c.sink);
        auto tap = std::make_shared<AnalysisTap>();
        tap->setEnabled(true);
        RouteAudioEngine engine(platform, "com.spotify.Client", 10, c.format, busyChain(int(c.format.channelCount)),
                                16384, 512);
        engine.setAnalysisTap(tap);
        const auto captureBefore = platform.captureCycles(), renderBefore = platform.renderCycles();
        engine.start();
        ASSERT_TRUE(platform.waitForCaptureCycles(captureBefore + 50));
        ASSERT_TRUE(platform.waitForRenderCycles(renderBefore + 50)); // with underruns and overruns on the way
        engine.stop();
        EXPECT_GT(tap->framesObserved(), 0);
        EXPECT_EQ(test::auditedAllocations() - allocationsBefore, 0) << c.format.layoutDescription;
        EXPECT_EQ(test::auditedLocks() - locksBefore, 0) << c.format.layoutDescription;
    }
}

TEST_F(RealtimePaths, RenderStageCallbackAllocatesNothing) {
    const long allocationsBefore = test::auditedAllocations(), locksBefore = test::auditedLocks();
    auto ring = std::make_shared<AudioRingBuffer>(2, 1 << 18);
    std::vector<float> music(2 * 100000, 0.25f);
    ring->write(music.data(), 100000);
    AudioOutputRenderer renderer(platform, 41, busyChain(2), ring, RouteDSPStage::render);
    platform.setRenderSink({480, 0});
    renderer.start(48000);
    ASSERT_TRUE(platform.waitForRenderCycles(platform.renderCycles() + 300)); // runs the ring dry too
    renderer.stop();
    EXPECT_EQ(test::auditedAllocations() - allocationsBefore, 0);
    EXPECT_EQ(test::auditedLocks() - locksBefore, 0);
}

} // namespace
} // namespace tarn

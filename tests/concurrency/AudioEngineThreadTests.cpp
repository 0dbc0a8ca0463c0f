#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <memory>
#include <thread>

#include "core/audio/ProcessDiscoveryService.hpp"
#include "core/audio/RouteAudioEngine.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "core/recommendation/AnalysisTap.hpp"
#include "support/ManualMainQueue.hpp"
#include "support/SimulatedAudioPlatform.hpp"

namespace tarn {
namespace {

using test::SimulatedAudioPlatform;

// Routes started and stopped again and again while their callbacks run on two real threads and
// the control thread keeps changing the chain: every run ends with nothing left on the platform
// and only finite, bounded samples reach the device.
TEST(AudioEngineThreads, RepeatedStartStopWithLiveSettingChanges) {
    SimulatedAudioPlatform platform;
    platform.addProcess({10, 4242, "com.spotify.Client", true, std::nullopt});
    platform.addDevice({41, "speakers", "Test Speakers", {2}});
    SimulatedAudioPlatform::CaptureSource source;
    source.framesPerCycle = 300;
    source.sample = [](std::uint64_t frame, std::uint32_t channel) { return 0.5f * float(std::sin(0.05 * double(frame) + channel)); };
    platform.setCaptureSource(source);
    platform.setRenderSink({256, 0});

    auto chain = std::make_shared<RouteDSPChain>(2, 48000);
    RouteAudioEngine engine(platform, "com.spotify.Client", 10,
                            {41, "speakers", 0u, 2, "Stereo", RouteCaptureMode::multichannelStream}, chain, 16384, 512);
    auto tap = std::make_shared<AnalysisTap>();
    tap->setEnabled(true);
    engine.setAnalysisTap(tap);
    for (int run = 0; run < 8; ++run) {
        const auto cycles = platform.renderCycles();
        ASSERT_EQ(engine.start(), 48000.0);
        for (int i = 0; i < 10; ++i) {
            chain->setGain(double(i % 7) - 3.0);
            chain->customEQ().setGain(double(i % 5), i % 10);
            chain->setMuted(i == 5);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ASSERT_TRUE(platform.waitForRenderCycles(cycles + 10));
        engine.stop();
        ASSERT_TRUE(platform.isClean()) << "run " << run;
        ASSERT_EQ(engine.ringBuffer().availableFramesToRead(), 0);
    }
    const auto out = platform.renderedSamples();
    ASSERT_FALSE(out.empty());
    for (float s : out) ASSERT_TRUE(std::isfinite(s) && std::fabs(s) <= 1.0f);
    EXPECT_GT(tap->framesObserved(), 0);
}

// Notifications from the platform's threads race with refreshes on the main queue.
TEST(AudioEngineThreads, DiscoveryNotificationsFromAnotherThread) {
    SimulatedAudioPlatform platform;
    test::ManualMainQueue queue;
    for (AudioPlatform::ObjectID id = 1; id <= 5; ++id) platform.addProcess({id, std::int32_t(id), "app", false, std::nullopt});
    ProcessDiscoveryService service(platform, queue, queue.clock());
    service.start();
    std::atomic<bool> done{false};
    std::thread notifier([&] {
        for (int i = 0; i < 200; ++i) {
            platform.notifyProcessListChanged();
            platform.notifyRunningOutputChanged(AudioPlatform::ObjectID(1 + i % 5));
        }
        done.store(true);
    });
    while (!done.load()) queue.advance(0.01);
    notifier.join();
    platform.setRunningOutput(3, true);
    platform.notifyRunningOutputChanged(3);
    queue.advance(1.0);
    ASSERT_EQ(service.entries().size(), 5u);
    EXPECT_TRUE(service.entries()[2].isRunningOutput) << "the last change is never lost";
}

} // namespace
} // namespace tarn

#include <gtest/gtest.h>

#include "core/audio/ProcessDiscoveryService.hpp"
#include "support/ManualMainQueue.hpp"
#include "support/SimulatedAudioPlatform.hpp"

namespace tarn {
namespace {

using test::ManualMainQueue;
using test::SimulatedAudioPlatform;

struct Discovery : ::testing::Test {
    SimulatedAudioPlatform platform;
    ManualMainQueue queue;
    int changes = 0;

    std::unique_ptr<ProcessDiscoveryService> makeService() {
        auto service = std::make_unique<ProcessDiscoveryService>(platform, queue, queue.clock());
        service->onChange = [this] { ++changes; };
        return service;
    }
    int processListReads() const {
        int n = 0;
        for (const auto& c : platform.calls()) n += c == "processObjectList";
        return n;
    }
};

TEST_F(Discovery, EntriesCarryIdentityNameAndRunningFlagInServerOrder) {
    platform.addProcess({10, 4242, "com.spotify.Client", true, AudioPlatform::RunningApplication{"Spotify", "com.spotify.Client"}});
    platform.addProcess({11, 123, "", false, std::nullopt});
    platform.addProcess({13, 78, "", false, AudioPlatform::RunningApplication{std::nullopt, "org.gnome.Totem"}});
    platform.addProcess({14, 79, "gone", true, std::nullopt, /*pidStatus*/ -2});
    platform.addProcess({15, 80, "x", true, std::nullopt, 0, /*bundleIDStatus*/ -5, /*runningStatus*/ -5});
    platform.addProcess({16, 81, "firefox", true, AudioPlatform::RunningApplication{"", std::nullopt}});
    auto service = makeService();
    service->start();

    using E = ProcessDiscoveryService::Entry;
    const std::vector<E> expected{
        {10, 4242, "com.spotify.Client", "Spotify", true},
        {11, 123, "", "PID 123", false},
        {13, 78, "", "org.gnome.Totem", false},
        {15, 80, "", "PID 80", false},
        {16, 81, "firefox", "firefox", true},
    };
    EXPECT_EQ(service->entries(), expected);
    EXPECT_EQ(service->runningOutputListenerCount(), 6u) << "every listed object gets a running-output listener";
}

TEST_F(Discovery, BurstIsServedAtOnceAndAgainAtItsTrailingEdgeButNotAfterTheServiceIsGone) {
    platform.addProcess({10, 1, "a", false, std::nullopt});
    auto service = makeService();
    service->start();
    queue.advance(5.0); // a quiet period
    const int before = processListReads();

    // Ten notifications within 50 ms.
    for (int i = 0; i < 10; ++i) {
        platform.notifyProcessListChanged();
        queue.runUntilIdle();
        if (i == 0) {
            EXPECT_EQ(processListReads(), before + 1) << "the first one is served at once";
        }
        queue.advance(0.005);
    }
    EXPECT_EQ(processListReads(), before + 1);
    EXPECT_EQ(queue.pendingDelayedCount(), 1u) << "the rest share one scheduled refresh";
    queue.advance(0.3 - 0.05 - 0.001);
    EXPECT_EQ(processListReads(), before + 1) << "not before 0.3 s have passed";
    queue.advance(0.002);
    EXPECT_EQ(processListReads(), before + 2) << "the trailing edge is served";
    queue.advance(10.0);
    EXPECT_EQ(processListReads(), before + 2) << "and nothing more";

    platform.notifyProcessListChanged();
    platform.notifyProcessListChanged();
    queue.runUntilIdle();
    ASSERT_EQ(queue.pendingDelayedCount(), 1u);
    service.reset();
    queue.advance(1.0); // a work item still holding the service would refresh through freed memory
    EXPECT_EQ(processListReads(), before + 3);
}

// Listeners that could not be installed are retried on the next start; after that, changes are
// reported only when the list differs, and destruction removes every listener.
TEST_F(Discovery, ListenersAreRetriedAndChangesReportedOnlyWhenTheListDiffers) {
    platform.addProcess({10, 1, "a", false, std::nullopt});
    platform.addProcess({11, 2, "b", false, std::nullopt});
    platform.fail(SimulatedAudioPlatform::Step::addProcessListListener, -13);
    platform.fail(SimulatedAudioPlatform::Step::addRunningOutputListener, -13);
    auto service = makeService();
    service->start();
    EXPECT_FALSE(service->isListenerInstalled());
    EXPECT_EQ(service->runningOutputListenerCount(), 0u);
    EXPECT_EQ(service->entries().size(), 2u) << "the list is still read";

    platform.clearFailures();
    service->start();
    service->start();
    EXPECT_EQ(platform.liveListeners(), 3u) << "installed once, however often started";
    const int before = changes;
    service->refresh();
    EXPECT_EQ(changes, before) << "same list, no change";
    queue.advance(1.0);
    platform.setRunningOutput(11, true);
    platform.notifyRunningOutputChanged(11);
    queue.runUntilIdle();
    EXPECT_EQ(changes, before + 1) << "one running flag flipped";
    EXPECT_TRUE(service->entries()[1].isRunningOutput);
    platform.removeProcess(10);
    service->refresh();
    EXPECT_EQ(changes, before + 2);
    EXPECT_EQ(service->runningOutputListenerCount(), 1u) << "a vanished process loses its listener";
    service.reset();
    EXPECT_EQ(platform.liveListeners(), 0u);
}

} // namespace
} // namespace tarn

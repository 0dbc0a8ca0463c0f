#include <gtest/gtest.h>

#include <algorithm>

#include "core/audio/AudioOutputDeviceService.hpp"
#include "support/ManualMainQueue.hpp"
#include "support/SimulatedAudioPlatform.hpp"

namespace tarn {
namespace {

using test::ManualMainQueue;
using test::SimulatedAudioPlatform;

TEST(AudioOutputDeviceService, FollowsDevicesAndTheDefault) {
    SimulatedAudioPlatform platform;
    ManualMainQueue queue;
    platform.addDevice({41, "speakers", "Test Speakers", {2}});
    platform.addDevice({42, "headphones", "Test Headphones", {2}});
    platform.setDefaultOutputDevice(41);
    int changes = 0;
    auto service = std::make_unique<AudioOutputDeviceService>(platform, queue);
    service->onChange = [&] { ++changes; };
    service->start();
    ASSERT_EQ(service->entries().size(), 2u);
    EXPECT_EQ(service->defaultDevice()->uid, "speakers");

    platform.setDefaultOutputDevice(42);
    platform.addDevice({43, "surround", "Test Surround", {6}});
    platform.notifyDeviceListChanged();
    platform.notifyDeviceListChanged();
    EXPECT_EQ(service->entries().size(), 2u) << "nothing changes off the main queue";
    auto deviceListReads = [&] {
        const auto calls = platform.calls();
        return std::count(calls.begin(), calls.end(), "outputDeviceList");
    };
    const auto readsBefore = deviceListReads();
    queue.runUntilIdle();
    EXPECT_EQ(deviceListReads() - readsBefore, 1) << "a burst costs one read";
    EXPECT_EQ(service->entries().size(), 3u);
    EXPECT_EQ(service->defaultDevice()->uid, "headphones");
    EXPECT_EQ(changes, 2);

    platform.notifyDeviceListChanged();
    queue.runUntilIdle();
    EXPECT_EQ(changes, 2) << "an unchanged list is not a change";

    platform.notifyDeviceListChanged(); // posted, then the service goes away
    service.reset();
    EXPECT_EQ(platform.liveListeners(), 0u);
    queue.runUntilIdle();
}

} // namespace
} // namespace tarn

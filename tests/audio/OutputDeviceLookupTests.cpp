#include <gtest/gtest.h>

#include "core/audio/IOBufferPolicy.hpp"
#include "core/audio/OutputDeviceLookup.hpp"
#include "support/SimulatedAudioPlatform.hpp"

namespace tarn {
namespace {

using test::SimulatedAudioPlatform;
using Step = SimulatedAudioPlatform::Step;

TEST(OutputDeviceLookup, LayoutsWithoutANameShowTheirChannelCount) {
    EXPECT_EQ(OutputDeviceLookup::layoutDescription(12), "7.1.4");
    EXPECT_EQ(OutputDeviceLookup::layoutDescription(4), "4 ch");
}

TEST(OutputDeviceLookup, StreamSelection) {
    std::vector<OutputDeviceStreamInfo> streams{{0, 2, "Stereo"}, {2, 6, "5.1"}, {3, 6, "5.1"}, {4, 2, "Stereo"}};
    EXPECT_EQ(OutputDeviceLookup::selectStream(streams, 3u, true)->streamIndex, 3u) << "a request wins";
    EXPECT_FALSE(OutputDeviceLookup::selectStream(streams, 1u, false)) << "index 1 was skipped";
    EXPECT_EQ(OutputDeviceLookup::selectStream(streams, std::nullopt, true)->streamIndex, 0u);
    EXPECT_EQ(OutputDeviceLookup::selectStream(streams, std::nullopt, false)->streamIndex, 2u) << "most channels, lowest index";
    std::vector<OutputDeviceStreamInfo> surroundOnly{{0, 6, "5.1"}};
    EXPECT_FALSE(OutputDeviceLookup::selectStream(surroundOnly, std::nullopt, true));
}

struct Lookup : ::testing::Test {
    SimulatedAudioPlatform platform;
    OutputDeviceLookup lookup{platform};
    void SetUp() override {
        platform.addDevice({41, "speakers", "Test Speakers", {2}});
        platform.addDevice({42, "surround", "Test Surround", {0, 6}});
        platform.addDevice({43, "silent", "No Streams", {}});
        platform.setDefaultOutputDevice(41);
    }
};

TEST_F(Lookup, ResolvesRouteFormats) {
    EXPECT_EQ(lookup.resolveRouteFormat(std::nullopt, std::nullopt, false),
              (RouteAudioFormat{41, "speakers", 0u, 2, "Stereo", RouteCaptureMode::multichannelStream}));
    EXPECT_EQ(lookup.resolveRouteFormat("surround", std::nullopt, false),
              (RouteAudioFormat{42, "surround", 1u, 6, "5.1", RouteCaptureMode::multichannelStream}))
        << "the unreadable stream 0 is skipped but keeps its position";
    EXPECT_EQ(lookup.resolveRouteFormat("surround", std::nullopt, true),
              (RouteAudioFormat{42, "surround", std::nullopt, 2, "Stereo Fallback", RouteCaptureMode::stereoFallback}));
    EXPECT_EQ(lookup.resolveRouteFormat("silent", std::nullopt, false)->captureMode, RouteCaptureMode::stereoFallback);
    EXPECT_FALSE(lookup.resolveRouteFormat("surround", 0u, false)) << "a saved stream that no longer exists";
    EXPECT_FALSE(lookup.resolveRouteFormat("unplugged", std::nullopt, false));

    auto devices = lookup.outputDevices();
    ASSERT_EQ(devices.size(), 3u);
    EXPECT_EQ(devices[0], (OutputDeviceInfo{41, "speakers", "Test Speakers", true, {{0, 2, "Stereo"}}}));
    EXPECT_FALSE(devices[1].isDefault);
    EXPECT_EQ(lookup.name("surround"), "Test Surround");
}

TEST_F(Lookup, FailedReadsMeanNotThere) {
    platform.fail(Step::defaultOutputDevice, -5);
    EXPECT_FALSE(lookup.resolveRouteFormat(std::nullopt, std::nullopt, false));
    EXPECT_TRUE(lookup.resolveRouteFormat("speakers", std::nullopt, false));
    platform.fail(Step::deviceUID, -5);
    EXPECT_FALSE(lookup.resolveRouteFormat("speakers", std::nullopt, false));
    EXPECT_TRUE(lookup.outputDevices().empty());
}

TEST_F(Lookup, BufferPolicyApplyClampsAndReadsBack) {
    EXPECT_EQ(IOBufferPolicy::apply(512, 0, platform), std::nullopt);
    EXPECT_TRUE(platform.calls().empty()) << "no device, nothing touched";
    EXPECT_EQ(IOBufferPolicy::apply(8000, 41, platform), 4096u);
    EXPECT_EQ(platform.bufferFramesOf(41), 4096u);

    platform.forceGrantedBufferFrames(1024);
    EXPECT_EQ(IOBufferPolicy::apply(512, 41, platform), 1024u) << "the size in force, not the size asked";
    platform.forceGrantedBufferFrames(std::nullopt);

    platform.fail(Step::bufferFrameSizeRange, -5);
    EXPECT_EQ(IOBufferPolicy::apply(8000, 41, platform), 8000u) << "no range: asked unchanged";
    platform.clearFailures();
    platform.fail(Step::bufferFrameSize, -5);
    EXPECT_EQ(IOBufferPolicy::apply(256, 41, platform), 256u) << "read-back failed: what was set";
    platform.clearFailures();
    platform.fail(Step::setBufferFrameSize, -16);
    EXPECT_EQ(IOBufferPolicy::apply(256, 41, platform), std::nullopt);
}

} // namespace
} // namespace tarn

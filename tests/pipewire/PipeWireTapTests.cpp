// What a tap records on PipeWire, decided from a registry snapshot: whether capture is permitted
// at all, and the format and channel layout a route captures in.

#include <gtest/gtest.h>

#include <cerrno>

#include "platform/pipewire/PipeWireTap.hpp"

namespace tarn {
namespace {

PipeWireNodeRecord sink(uint32_t id, PipeWireProperties props) {
    PipeWireNodeRecord n;
    n.id = id, n.serial = id + 100, n.props = std::move(props), n.state = "idle", n.hasInfo = true;
    n.props["media.class"] = "Audio/Sink";
    return n;
}

struct Tap : ::testing::Test {
    PipeWireGraph graph;
    PipeWireApplication mpv{40, 500, "mpv", "mpv", true, {40}};

    void SetUp() override {
        graph.clockRate = 44100;
        graph.hasDefaultMetadata = true;
        graph.defaultMetadataPermissions = 0700; // read, write, execute
        graph.factories = {"client-node", "adapter", "link-factory"};
        graph.nodes = {sink(5, {{"node.name", "speakers"}, {"audio.position", "FL,FR"}}),
                       sink(6, {{"node.name", "surround"}, {"audio.position", "[ FL FR FC LFE RL RR ]"}}),
                       sink(7, {{"node.name", "odd"}, {"audio.channels", "3"}})};
    }
    AudioPlatform::Status make(const AudioPlatform::TapDescription& description, const PipeWireApplication* app,
                               PipeWireTap& tap) {
        return PipeWireTap::make(graph, description, app, tap);
    }
    static AudioPlatform::TapDescription onDevice(const std::string& uid, uint32_t stream = 0) {
        AudioPlatform::TapDescription d;
        d.isStereoMixdown = false;
        d.deviceUID = uid;
        d.streamIndex = stream;
        return d;
    }
};

TEST_F(Tap, ProbeIsGrantedOnlyWhenStreamsCanBeMovedAndSinksMade) {
    PipeWireTap tap;
    ASSERT_EQ(make({}, nullptr, tap), AudioPlatform::noError);
    EXPECT_TRUE(tap.isProbe);

    graph.defaultMetadataPermissions = 0500; // read and execute: entries cannot be written
    EXPECT_EQ(make({}, nullptr, tap), -EACCES);
    graph.defaultMetadataPermissions = 0700;
    graph.hasDefaultMetadata = false; // no session manager
    EXPECT_EQ(make({}, nullptr, tap), -EACCES);
    graph.hasDefaultMetadata = true;
    graph.factories = {"client-node"};
    EXPECT_EQ(make({}, nullptr, tap), -EACCES) << "no adapter factory to make a capture sink with";
    graph.factories = {"adapter"};
    graph.nodes.clear();
    EXPECT_EQ(make({}, nullptr, tap), -EACCES) << "no output device in sight";
}

TEST_F(Tap, CapturesAtTheGraphRateInTheRoutesLayout) {
    PipeWireTap stereo;
    ASSERT_EQ(make({}, &mpv, stereo), AudioPlatform::noError);
    EXPECT_FALSE(stereo.isProbe);
    EXPECT_EQ(stereo.pid, 500);
    EXPECT_EQ(stereo.identity, "mpv");
    EXPECT_EQ(stereo.format, (AudioStreamFormat{44100, 2}));
    EXPECT_EQ(stereo.positions, (std::vector<std::string>{"FL", "FR"}));

    PipeWireTap surround;
    ASSERT_EQ(make(onDevice("surround"), &mpv, surround), AudioPlatform::noError);
    EXPECT_EQ(surround.format.channelCount, 6u);
    EXPECT_EQ(surround.positions, (std::vector<std::string>{"FL", "FR", "FC", "LFE", "RL", "RR"}));

    PipeWireTap odd;
    ASSERT_EQ(make(onDevice("odd"), &mpv, odd), AudioPlatform::noError);
    EXPECT_EQ(odd.positions, (std::vector<std::string>{"AUX0", "AUX1", "AUX2"})) << "a sink that names no positions";

    PipeWireTap none;
    EXPECT_EQ(make(onDevice("nowhere"), &mpv, none), -ENODEV);
    EXPECT_EQ(make(onDevice("surround", 1), &mpv, none), -EINVAL) << "a sink has one stream";
    EXPECT_NE(PipeWireTap::uid(1), PipeWireTap::uid(2));
}

} // namespace
} // namespace tarn

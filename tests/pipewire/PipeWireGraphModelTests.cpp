// What discovery and the device list make of a graph: pure functions over a registry snapshot.

#include <gtest/gtest.h>

#include "platform/pipewire/PipeWireApplication.hpp"
#include "platform/pipewire/PipeWireDevice.hpp"

namespace tarn {
namespace {

PipeWireNodeRecord node(uint32_t id, uint32_t client, PipeWireProperties props, std::string state = "running") {
    PipeWireNodeRecord n;
    n.id = id;
    n.serial = id + 100;
    n.clientID = client;
    n.props = std::move(props);
    n.state = std::move(state);
    n.hasInfo = true;
    return n;
}

PipeWireClientRecord client(uint32_t id, PipeWireProperties props) {
    PipeWireClientRecord c;
    c.id = id;
    c.props = std::move(props);
    c.hasInfo = true;
    return c;
}

TEST(PipeWireApplications, StreamsOfOneProcessFormOneEntryAndOwnNodesAreNeverListed) {
    PipeWireGraph g;
    g.clients[10] = client(10, {{"application.process.id", "500"}, {"application.process.binary", "mpv"}});
    g.clients[11] = client(11, {{"application.process.id", "500"}, {"application.process.binary", "mpv"}});
    g.clients[12] = client(12, {{"application.process.id", "600"}, {"application.process.binary", "firefox"},
                                {"pipewire.access.portal.app_id", "org.mozilla.firefox"}});
    g.clients[13] = client(13, {{"application.process.id", "700"}, {"tarn.role", "control"}});
    g.nodes = {
        node(40, 10, {{"media.class", "Stream/Output/Audio"}, {"application.name", "mpv"}}, "idle"),
        node(41, 12, {{"media.class", "Stream/Output/Audio"}, {"application.name", "Firefox"}}),
        node(42, 11, {{"media.class", "Stream/Output/Audio"}, {"application.name", "mpv"}}, "running"),
        node(43, 10, {{"media.class", "Stream/Input/Audio"}, {"application.name", "mpv"}}),
        node(44, 13, {{"media.class", "Stream/Output/Audio"}, {"application.name", "Tarn"}}),
        node(45, 0, {{"media.class", "Stream/Output/Audio"}, {"tarn.role", "render"}}),
        node(46, 0, {{"media.class", "Audio/Sink"}, {"node.name", "speakers"}}),
    };
    auto apps = PipeWireApplication::list(g);
    ASSERT_EQ(apps.size(), 2u);
    EXPECT_EQ(apps[0].pid, 500);
    EXPECT_EQ(apps[0].objectID, 40u);
    EXPECT_EQ(apps[0].streamNodeIDs, (std::vector<uint32_t>{40, 42}));
    EXPECT_TRUE(apps[0].isRunningOutput) << "one running stream makes the application play";
    EXPECT_EQ(apps[0].identity, "mpv");
    EXPECT_EQ(apps[1].identity, "org.mozilla.firefox") << "the Flatpak id wins over the binary";
    EXPECT_EQ(apps[1].name, "Firefox");
}

TEST(PipeWireApplications, IdentityPrefersFlatpakThenApplicationIdThenBinary) {
    auto stream = node(1, 2, {{"media.class", "Stream/Output/Audio"}});
    auto c = client(2, {{"application.process.binary", "spotify"}});
    EXPECT_EQ(PipeWireApplication::identityOf(stream, &c), "spotify");
    c.props["application.id"] = "com.spotify.Client";
    EXPECT_EQ(PipeWireApplication::identityOf(stream, &c), "com.spotify.Client");
    stream.props["application.id"] = "spotify.desktop";
    EXPECT_EQ(PipeWireApplication::identityOf(stream, &c), "spotify.desktop");
    c.props["pipewire.access.portal.app_id"] = "com.spotify.Client";
    EXPECT_EQ(PipeWireApplication::identityOf(stream, &c), "com.spotify.Client");
    EXPECT_EQ(PipeWireApplication::identityOf(stream, nullptr), "spotify.desktop");
}

TEST(PipeWireApplications, StreamsFollowByPidOrElseByIdentity) {
    auto c = client(2, {{"application.process.id", "77"}, {"application.process.binary", "vlc"}});
    auto stream = node(1, 2, {{"media.class", "Stream/Output/Audio"}});
    EXPECT_TRUE(PipeWireApplication::streamBelongsTo(stream, &c, 77, "anything"));
    EXPECT_FALSE(PipeWireApplication::streamBelongsTo(stream, &c, 78, "vlc"));
    EXPECT_TRUE(PipeWireApplication::streamBelongsTo(stream, &c, 0, "vlc"));
    auto capture = node(3, 2, {{"media.class", "Stream/Input/Audio"}});
    EXPECT_FALSE(PipeWireApplication::streamBelongsTo(capture, &c, 77, "vlc"));
}

TEST(PipeWireDevices, SinksWithLayoutsAndTheDefaultMarked) {
    PipeWireGraph g;
    g.defaultSinkName = "hdmi";
    auto surround = node(5, 0, {{"media.class", "Audio/Sink"}, {"node.name", "hdmi"}, {"node.description", "HDMI"},
                                {"audio.position", "[ FL FR FC LFE RL RR ]"}});
    auto usb = node(6, 0, {{"media.class", "Audio/Sink"}, {"node.name", "usb"}, {"node.nick", "USB DAC"}});
    usb.inputPortChannels = {"FL", "FR"};
    usb.inputPortCount = 2;
    auto counted = node(7, 0, {{"media.class", "Audio/Sink"}, {"node.name", "odd"}, {"audio.channels", "4"}});
    auto ours = node(8, 1, {{"media.class", "Audio/Sink"}, {"node.name", "tarn_capture.x"}, {"tarn.role", "capture-sink"}});
    auto source = node(9, 0, {{"media.class", "Audio/Source"}, {"node.name", "mic"}});
    g.nodes = {surround, usb, counted, ours, source};

    auto devices = PipeWireDevice::list(g);
    ASSERT_EQ(devices.size(), 3u);
    EXPECT_EQ(devices[0].uid, "hdmi");
    EXPECT_TRUE(devices[0].isDefault);
    EXPECT_EQ(devices[0].channelCount, 6);
    EXPECT_EQ(devices[0].positions, (std::vector<std::string>{"FL", "FR", "FC", "LFE", "RL", "RR"}));
    EXPECT_EQ(devices[1].name, "USB DAC");
    EXPECT_FALSE(devices[1].isDefault);
    EXPECT_EQ(devices[1].channelCount, 2) << "ports tell the layout when the properties do not";
    EXPECT_EQ(devices[2].channelCount, 4);
    EXPECT_EQ(devices[2].name, "odd");
}

} // namespace
} // namespace tarn

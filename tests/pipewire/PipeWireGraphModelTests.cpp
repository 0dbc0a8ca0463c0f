// What discovery and the device list make of a graph: pure functions over a registry snapshot.

#include <gtest/gtest.h>

#include "GraphRecords.hpp"

#include "platform/pipewire/PipeWireApplication.hpp"
#include "platform/pipewire/PipeWireDevice.hpp"

namespace tarn {
namespace {

using test::node;

PipeWireClientRecord client(uint32_t id, PipeWireProperties props) {
    PipeWireClientRecord c;
    c.id = id, c.props = std::move(props), c.hasInfo = true;
    return c;
}

const PipeWireProperties output{{"media.class", "Stream/Output/Audio"}};

TEST(PipeWireApplications, StreamsOfOneProcessFormOneEntryAndOwnNodesAreNeverListed) {
    PipeWireGraph g;
    g.clients[10] = client(10, {{"application.process.id", "500"}, {"application.process.binary", "mpv"}});
    g.clients[11] = g.clients[10];
    g.clients[12] = client(12, {{"application.process.id", "600"}, {"application.process.binary", "firefox"},
                                {"pipewire.access.portal.app_id", "org.mozilla.firefox"}});
    g.clients[13] = client(13, {{"application.process.id", "700"}, {"tarn.role", "control"}});
    g.nodes = {node(40, 10, output, "idle"), node(41, 12, output), node(42, 11, output),
               node(43, 10, {{"media.class", "Stream/Input/Audio"}}), node(44, 13, output),
               node(45, 0, {{"media.class", "Stream/Output/Audio"}, {"tarn.role", "render"}})};
    const auto apps = PipeWireApplication::list(g);
    ASSERT_EQ(apps.size(), 2u);
    EXPECT_EQ(apps[0].pid, 500);
    EXPECT_EQ(apps[0].streamNodeIDs, (std::vector<uint32_t>{40, 42}));
    EXPECT_TRUE(apps[0].isRunningOutput) << "one running stream makes the application play";
    EXPECT_EQ(apps[1].identity, "org.mozilla.firefox") << "the Flatpak id wins over the binary";

    // Without a portal id, the stream's own application id beats the client's and the binary.
    auto stream = node(1, 2, output);
    auto c = client(2, {{"application.process.id", "77"}, {"application.process.binary", "vlc"},
                        {"application.id", "org.videolan.VLC"}});
    EXPECT_EQ(PipeWireApplication::identityOf(stream, &c), "org.videolan.VLC");
    stream.props["application.id"] = "vlc.desktop";
    EXPECT_EQ(PipeWireApplication::identityOf(stream, &c), "vlc.desktop");

    // A route follows streams by pid when it has one, else by identity.
    EXPECT_FALSE(PipeWireApplication::streamBelongsTo(stream, &c, 78, "vlc.desktop"));
    EXPECT_TRUE(PipeWireApplication::streamBelongsTo(stream, &c, 0, "vlc.desktop"));
}

// Sandboxed applications report pids from inside their sandbox; the kernel's pid of a native
// connection is the host's, and PulseAudio clients arrive through pipewire-pulse's connection.
TEST(PipeWireApplications, PidsComeFromWhereTheyCanBeTrusted) {
    PipeWireGraph g;
    // Two Flatpaks playing natively: each reports pid 2, the kernel knows better.
    g.clients[20] = client(20, {{"application.process.id", "2"}, {"pipewire.sec.pid", "4100"},
                                {"pipewire.access", "flatpak"}, {"pipewire.access.portal.app_id", "org.example.Game"}});
    g.clients[21] = client(21, {{"application.process.id", "2"}, {"pipewire.sec.pid", "4200"},
                                {"pipewire.access", "flatpak"}, {"pipewire.access.portal.app_id", "org.example.Radio"}});
    // Two Flatpaks through pipewire-pulse, whose own pid the kernel reports: only pid 2 each.
    const PipeWireProperties pulse{{"client.api", "pipewire-pulse"}, {"pipewire.sec.pid", "900"},
                                   {"application.process.id", "2"}, {"pipewire.access", "flatpak"}};
    g.clients[22] = client(22, pulse);
    g.clients[22].props["pipewire.access.portal.app_id"] = "com.example.Music";
    g.clients[23] = client(23, pulse);
    g.clients[23].props["pipewire.access.portal.app_id"] = "com.example.Chat";
    g.clients[24] = g.clients[22];   // a second connection of the same application
    // An ordinary PulseAudio client.
    g.clients[25] = client(25, {{"client.api", "pipewire-pulse"}, {"pipewire.sec.pid", "900"},
                                {"application.process.id", "5150"}, {"application.process.binary", "paplay"}});
    g.nodes = {node(50, 20, output), node(51, 21, output), node(52, 22, output), node(53, 23, output),
               node(54, 24, output), node(55, 25, output)};
    const auto apps = PipeWireApplication::list(g);
    ASSERT_EQ(apps.size(), 5u);
    EXPECT_EQ(apps[0].pid, 4100);
    EXPECT_EQ(apps[1].pid, 4200);
    EXPECT_EQ(apps[2].identity, "com.example.Music");
    EXPECT_EQ(apps[2].streamNodeIDs, (std::vector<uint32_t>{52, 54})) << "one application over two connections";
    EXPECT_EQ(apps[3].identity, "com.example.Chat") << "a shared sandbox pid must not merge two applications";
    EXPECT_EQ(apps[4].pid, 5150) << "not pipewire-pulse's own pid";

    // A route of the music application follows its new streams and no other sandbox's.
    EXPECT_TRUE(PipeWireApplication::streamBelongsTo(g.nodes[4], g.client(24), 2, "com.example.Music"));
    EXPECT_FALSE(PipeWireApplication::streamBelongsTo(g.nodes[3], g.client(23), 2, "com.example.Music"));
}

TEST(PipeWireDevices, SinksWithLayoutsAndTheDefaultMarked) {
    PipeWireGraph g;
    g.defaultSinkName = "hdmi";
    auto usb = node(6, 0, {{"media.class", "Audio/Sink"}, {"node.name", "usb"}, {"node.nick", "USB DAC"}});
    usb.inputPortChannels = {"FL", "FR"};
    usb.inputPortCount = 2;
    g.nodes = {node(5, 0, {{"media.class", "Audio/Sink"}, {"node.name", "hdmi"}, {"audio.position", "[ FL FR FC LFE RL RR ]"}}),
               usb, node(7, 0, {{"media.class", "Audio/Sink"}, {"node.name", "odd"}, {"audio.channels", "4"}}),
               node(8, 1, {{"media.class", "Audio/Sink"}, {"node.name", "tarn_capture.x"}, {"tarn.role", "capture-sink"}}),
               node(9, 0, {{"media.class", "Audio/Source"}, {"node.name", "mic"}})};
    const auto devices = PipeWireDevice::list(g);
    ASSERT_EQ(devices.size(), 3u);
    EXPECT_TRUE(devices[0].isDefault);
    EXPECT_EQ(devices[0].positions, (std::vector<std::string>{"FL", "FR", "FC", "LFE", "RL", "RR"}));
    EXPECT_EQ(devices[1].name, "USB DAC");
    EXPECT_FALSE(devices[1].isDefault);
    EXPECT_EQ(devices[1].channelCount, 2) << "ports tell the layout when the properties do not";
    EXPECT_EQ(devices[2].channelCount, 4);
}

} // namespace
} // namespace tarn

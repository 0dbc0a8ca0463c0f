// What the platform makes of graph changes, on registry snapshots: which listeners hear of
// which change, and the applications it remembers after their streams close.

#include <gtest/gtest.h>

#include "GraphRecords.hpp"

#include <map>
#include <string>

#include "platform/pipewire/PipeWireGraphWatcher.hpp"

namespace tarn {
namespace {

using test::node;

PipeWireClientRecord client(uint32_t id, int pid, const std::string& binary) {
    PipeWireClientRecord c;
    c.id = id, c.hasInfo = true;
    c.props = {{"application.process.id", std::to_string(pid)}, {"application.process.binary", binary}};
    return c;
}

const PipeWireProperties output{{"media.class", "Stream/Output/Audio"}};

PipeWireNodeRecord sink(uint32_t id, const std::string& name) {
    return node(id, 0, {{"media.class", "Audio/Sink"}, {"node.name", name}, {"audio.position", "FL,FR"}});
}

struct Watcher : ::testing::Test {
    PipeWireGraph graph;
    std::map<std::string, int> heard;

    void SetUp() override {
        graph.clients[10] = client(10, 500, "mpv");
        graph.clients[11] = client(11, 600, "firefox");
        graph.nodes = {sink(5, "speakers"), sink(6, "headphones"), node(40, 10, output), node(41, 11, output, "idle")};
        graph.defaultSinkName = "speakers";
    }
    void listen(PipeWireGraphWatcher& watcher) {
        AudioPlatform::ListenerToken token = 1;
        watcher.addListener(token++, PipeWireGraphWatcher::Kind::processes, 0, [this] { heard["processes"]++; });
        watcher.addListener(token++, PipeWireGraphWatcher::Kind::devices, 0, [this] { heard["devices"]++; });
        watcher.addListener(token++, PipeWireGraphWatcher::Kind::running, 40, [this] { heard["mpv"]++; });
        watcher.addListener(token++, PipeWireGraphWatcher::Kind::running, 41, [this] { heard["firefox"]++; });
    }
    std::map<std::string, int> update(PipeWireGraphWatcher& watcher) {
        heard.clear();
        watcher.update(graph);
        return heard;
    }
};

using Heard = std::map<std::string, int>;

TEST_F(Watcher, EachListenerHearsOnlyOfItsOwnChange) {
    PipeWireGraphWatcher watcher(graph);
    listen(watcher);
    EXPECT_EQ(update(watcher), Heard{}) << "an unchanged graph is no news";

    graph.nodes[3].state = "running";
    EXPECT_EQ(update(watcher), (Heard{{"firefox", 1}})) << "firefox started playing";

    graph.nodes.push_back(node(42, 10, output));
    EXPECT_EQ(update(watcher), (Heard{{"processes", 1}})) << "mpv opened a second stream";

    graph.defaultSinkName = "headphones";
    EXPECT_EQ(update(watcher), (Heard{{"devices", 1}}));
    graph.nodes.erase(graph.nodes.begin() + 1);
    EXPECT_EQ(update(watcher), (Heard{{"devices", 1}})) << "a device went away";

    // Another application appears: its own running listener does not exist yet, and the others'
    // playing state has not changed.
    graph.clients[12] = client(12, 700, "paplay");
    graph.nodes.push_back(node(43, 12, output));
    EXPECT_EQ(update(watcher), (Heard{{"processes", 1}}));

    EXPECT_TRUE(watcher.removeListener(1));
    EXPECT_FALSE(watcher.removeListener(1));
    graph.nodes.pop_back();
    EXPECT_EQ(update(watcher), Heard{}) << "a removed listener is never called";
}

TEST_F(Watcher, ApplicationsAreFoundByAnyStreamAndRememberedAfterTheyClose) {
    graph.nodes.push_back(node(42, 10, output));
    PipeWireGraphWatcher watcher(graph);
    ASSERT_EQ(watcher.applications().size(), 2u);
    ASSERT_NE(watcher.application(42), nullptr);
    EXPECT_EQ(watcher.application(42)->pid, 500) << "a second stream names the same application";
    EXPECT_EQ(watcher.application(5), nullptr) << "a device is no application";
    EXPECT_EQ(watcher.device(6)->uid, "headphones");
    EXPECT_EQ(watcher.deviceWithUID("speakers")->nodeID, 5u);
    EXPECT_EQ(watcher.defaultDevice()->nodeID, 5u);

    // mpv pauses and closes its streams.
    std::erase_if(graph.nodes, [](auto& n) { return n.clientID == 10; });
    watcher.update(graph);
    EXPECT_EQ(watcher.application(40), nullptr);
    ASSERT_NE(watcher.seenApplication(42), nullptr);
    EXPECT_EQ(watcher.seenApplication(42)->identity, "mpv") << "a paused route can still hold its application";
    EXPECT_EQ(watcher.seenApplication(99), nullptr);

    graph.defaultSinkName.clear();
    watcher.update(graph);
    EXPECT_EQ(watcher.defaultDevice(), nullptr);
}

} // namespace
} // namespace tarn

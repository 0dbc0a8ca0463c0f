// The PipeWire platform on a real private sound server: capture sinks, metadata moves, capture and
// playback nodes, discovery and devices. The route engines on top are tested in RouteTests.

#include <cerrno>
#include <chrono>
#include <cmath>
#include <thread>

#include <gtest/gtest.h>

#include "SoundSession.hpp"
#include "core/audio/AudioRingBuffer.hpp"
#include "platform/pipewire/PipeWireApplication.hpp"
#include "platform/pipewire/PipeWirePlatform.hpp"
#include "support/ProcessRunner.hpp"
#include "support/Signals.hpp"
#include "support/SoundFiles.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

// A pass-through route made of platform steps only: capture into a ring, play the ring.
struct PassThrough {
    AudioRingBuffer ring{2, 16384};
    std::vector<float> interleaved = std::vector<float>(2 * 8192);
    // Takes one interleaved buffer or one buffer per channel, as platforms deliver either.
    static void capture(void* context, const AudioBufferList& input) {
        auto* self = static_cast<PassThrough*>(context);
        const auto& b = input.buffers[0];
        const uint32_t frames = std::min<uint32_t>(b.byteSize / (b.channelCount * sizeof(float)), 8192);
        if (input.bufferCount == 1) {
            self->ring.write(static_cast<const float*>(b.data), frames);
            return;
        }
        for (uint32_t c = 0; c < 2; ++c) {
            const auto* channel = static_cast<const float*>(input.buffers[std::min(c, input.bufferCount - 1)].data);
            for (uint32_t f = 0; f < frames; ++f) self->interleaved[2 * f + c] = channel ? channel[f] : 0.0f;
        }
        self->ring.write(self->interleaved.data(), frames);
    }
    static void render(void* context, uint32_t frames, AudioBufferList& output) {
        auto* self = static_cast<PassThrough*>(context);
        self->ring.read(static_cast<float*>(output.buffers[0].data), frames);
    }
};

double level(const SoundData& data, int channel) {
    // Skip the recorder's own start.
    size_t first = std::min<size_t>(data.frameCount(), 9600);
    size_t count = data.frameCount() - first;
    return count < 4800 ? -1.0 : toneAmplitude(data, channel, 1000.0, first, count);
}

class PipeWirePlatformTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(session.isRunning()) << session.failure();
        writeSoundFile(folder / "tone.wav", sineWave(1000.0, 0.25, 48000, 2, 48000 * 30));
        platform = std::make_unique<PipeWirePlatform>();
    }

    // Starts a player of the tone and returns its process object once the platform lists it. The
    // players speak each client interface desktop applications use: pw-play the native one, paplay
    // PulseAudio's (most desktop applications), aplay ALSA's through PipeWire's ALSA plugin, ffplay
    // SDL's (games and media players).
    AudioPlatform::ObjectID startPlayer(const std::vector<std::string>& command = {"pw-play"}) {
        return startPlayer(player, command);
    }
    AudioPlatform::ObjectID startPlayer(std::unique_ptr<BackgroundProcess>& player,
                                        const std::vector<std::string>& command) {
        std::vector<std::string> argv = command;
        argv.push_back((folder / "tone.wav").string());
        player = std::make_unique<BackgroundProcess>(argv);
        AudioPlatform::ObjectID found = 0;
        eventually(
            [&] {
                std::vector<AudioPlatform::ObjectID> list;
                platform->processObjectList(list);
                for (auto id : list) {
                    int32_t pid = 0;
                    // Its name arrives with the client's info, a moment after the node on a busy machine.
                    if (platform->processPID(id, pid) == 0 && pid == player->pid() && platform->runningApplication(pid))
                        found = id;
                }
                return found != 0;
            },
            // An SDL player (ffplay) can take several seconds to open its audio on a loaded machine.
            10s);
        return found;
    }

    struct Route {
        AudioPlatform::ObjectID tap = 0, aggregate = 0, device = 0;
        AudioPlatform::IOProcHandle io = 0;
        AudioPlatform::OutputUnitHandle unit = 0;
    };

    // Every step the capture and render engines take, in their order, passing the audio through.
    void startRoute(AudioPlatform::ObjectID process, const std::string& deviceUID, PassThrough& route, Route& r) {
        ASSERT_NO_FATAL_FAILURE(startCapture(process, route, r));
        ASSERT_NO_FATAL_FAILURE(startOutput(deviceUID, route, r));
    }

    // The capture sink alone, as a paused route's stream hold makes it.
    void makeCaptureSink(AudioPlatform::ObjectID process, Route& r) {
        AudioPlatform::TapDescription tapDescription;
        tapDescription.processes = {process};
        tapDescription.name = "Tarn Tap pw-cat";
        ASSERT_EQ(platform->createProcessTap(tapDescription, r.tap), 0);
        std::string tapUID;
        ASSERT_EQ(platform->tapUID(r.tap, tapUID), 0);
        AudioStreamFormat format;
        ASSERT_EQ(platform->tapFormat(r.tap, format), 0);
        EXPECT_EQ(format, (AudioStreamFormat{48000.0, 2}));
        AudioPlatform::AggregateDeviceDescription aggregateDescription;
        aggregateDescription.uid = "com.tarn.aggregate." + tapUID;
        aggregateDescription.name = "Tarn Capture pw-cat";
        aggregateDescription.taps = {{tapUID, true}};
        ASSERT_EQ(platform->createAggregateDevice(aggregateDescription, r.aggregate), 0);
    }

    void startCapture(AudioPlatform::ObjectID process, PassThrough& route, Route& r) {
        ASSERT_NO_FATAL_FAILURE(makeCaptureSink(process, r));
        ASSERT_EQ(platform->createIOProc(r.aggregate, &PassThrough::capture, &route, r.io), 0);
        ASSERT_EQ(platform->startDevice(r.aggregate, r.io), 0);
    }

    void startOutput(const std::string& deviceUID, PassThrough& route, Route& r) {
        AudioStreamFormat format;
        ASSERT_EQ(platform->tapFormat(r.tap, format), 0);
        ASSERT_EQ(platform->deviceForUID(deviceUID, r.device), 0);
        ASSERT_EQ(platform->createOutputUnit(r.unit), 0);
        ASSERT_EQ(platform->enableOutputIO(r.unit), 0);
        ASSERT_EQ(platform->setOutputUnitDevice(r.unit, r.device), 0);
        ASSERT_EQ(platform->setOutputUnitFormat(r.unit, format), 0);
        ASSERT_EQ(platform->setRenderCallback(r.unit, &PassThrough::render, &route), 0);
        ASSERT_EQ(platform->setOutputUnitCapture(r.unit, r.aggregate), 0);
        ASSERT_EQ(platform->initializeOutputUnit(r.unit), 0);
        ASSERT_EQ(platform->startOutputUnit(r.unit), 0);
    }

    void stopRoute(const Route& r) {
        EXPECT_EQ(platform->stopOutputUnit(r.unit), 0);
        EXPECT_EQ(platform->stopDevice(r.aggregate, r.io), 0);
        EXPECT_EQ(platform->uninitializeOutputUnit(r.unit), 0);
        EXPECT_EQ(platform->disposeOutputUnit(r.unit), 0);
        EXPECT_EQ(platform->destroyIOProc(r.aggregate, r.io), 0);
        EXPECT_EQ(platform->destroyAggregateDevice(r.aggregate), 0);
        EXPECT_EQ(platform->destroyProcessTap(r.tap), 0);
    }

    void checkHeardOnlyThroughItsRouteAndReturnsAfterwards(const std::vector<std::string>& player) {
        auto process = startPlayer(player);
        ASSERT_NE(process, 0u);
        PassThrough route;
        Route r;
        ASSERT_NO_FATAL_FAILURE(startRoute(process, "test-headphones", route, r));

        // The capture sink is Tarn's own: it is neither an application nor an output device.
        std::vector<AudioPlatform::ObjectID> devices;
        platform->outputDeviceList(devices);
        EXPECT_EQ(devices.size(), 3u);
        uint32_t quantum = 0;
        EXPECT_TRUE(eventually([&] { return platform->bufferFrameSize(r.device, quantum) == 0; }, 2s));
        EXPECT_GT(quantum, 0u);

        std::this_thread::sleep_for(300ms);
        auto onHeadphones = recordSink("test-headphones", 2, 1.0);
        auto onSpeakers = recordSink("test-speakers", 2, 1.0);
        EXPECT_NEAR(toDb(level(onHeadphones, 0)), toDb(0.25), 0.5);
        EXPECT_NEAR(toDb(level(onHeadphones, 1)), toDb(0.25), 0.5);
        EXPECT_LT(level(onSpeakers, 0), 0.001) << "the unprocessed tone reached the speakers";

        stopRoute(r);
        // Destroying twice is harmless.
        EXPECT_LT(platform->destroyAggregateDevice(r.aggregate), 0);

        EXPECT_TRUE(eventually(
            [&] {
                PipeWireConnection::Lock lock(platform->connection());
                return !platform->connection().defaultMetadataValueLocked(process, "target.object").has_value();
            },
            2s))
            << "the target.object entry outlived the route";
        std::this_thread::sleep_for(300ms);
        auto back = recordSink("test-speakers", 2, 1.0);
        EXPECT_NEAR(toDb(level(back, 0)), toDb(0.25), 0.5) << "the application did not return to the speakers";
    }

    SoundSession session;
    TemporaryDirectory folder;
    std::unique_ptr<PipeWirePlatform> platform;
    std::unique_ptr<BackgroundProcess> player;
};


TEST_F(PipeWirePlatformTest, ListsThePlayerAndTheThreeTestSinks) {
    auto process = startPlayer();
    ASSERT_NE(process, 0u);
    std::string identity;
    ASSERT_EQ(platform->processBundleID(process, identity), 0);
    EXPECT_EQ(identity, "pw-cat");
    auto app = platform->runningApplication(player->pid());
    ASSERT_TRUE(app.has_value());
    EXPECT_EQ(app->localizedName, "pw-play");
    EXPECT_TRUE(eventually(
        [&] {
            bool running = false;
            return platform->processIsRunningOutput(process, running) == 0 && running;
        },
        3s));

    std::vector<AudioPlatform::ObjectID> devices;
    ASSERT_EQ(platform->outputDeviceList(devices), 0);
    std::vector<std::string> uids;
    for (auto d : devices) {
        std::string uid;
        platform->deviceUID(d, uid);
        uids.push_back(uid);
    }
    EXPECT_EQ(uids, (std::vector<std::string>{"test-speakers", "test-headphones", "test-surround"}));
    AudioPlatform::ObjectID def = 0, surround = 0;
    ASSERT_EQ(platform->defaultOutputDevice(def), 0);
    std::string defUID, name;
    platform->deviceUID(def, defUID);
    EXPECT_EQ(defUID, "test-speakers");
    ASSERT_EQ(platform->deviceForUID("test-surround", surround), 0);
    platform->deviceName(surround, name);
    EXPECT_EQ(name, "Test Surround");
    std::vector<uint32_t> counts;
    platform->outputStreamChannelCounts(surround, counts);
    EXPECT_EQ(counts, std::vector<uint32_t>{6});
    AudioPlatform::ObjectID none = 0;
    EXPECT_LT(platform->deviceForUID("no-such-sink", none), 0);
}

TEST_F(PipeWirePlatformTest, CapturedApplicationIsHeardOnlyThroughItsRouteAndReturnsAfterwards) {
    checkHeardOnlyThroughItsRouteAndReturnsAfterwards({"pw-play"});
}

TEST_F(PipeWirePlatformTest, PulseAudioClientIsRoutedTheSameWay) {
    checkHeardOnlyThroughItsRouteAndReturnsAfterwards({"paplay"});
}

TEST_F(PipeWirePlatformTest, AlsaClientIsRoutedTheSameWay) {
    checkHeardOnlyThroughItsRouteAndReturnsAfterwards({"aplay", "-q"});
}

TEST_F(PipeWirePlatformTest, SdlApplicationIsRoutedTheSameWay) {
    checkHeardOnlyThroughItsRouteAndReturnsAfterwards({"ffplay", "-nodisp", "-autoexit", "-loglevel", "error"});
}

// One process runs many routes and holds the applications of paused ones. An output unit is
// joined with the capture it is given, in one node of that route's group, whatever capture sinks
// were made around it.
TEST_F(PipeWirePlatformTest, OutputUnitJoinsTheCaptureItIsGiven) {
    auto process = startPlayer();
    std::unique_ptr<BackgroundProcess> heldPlayer;
    auto heldProcess = startPlayer(heldPlayer, {"pw-play"});
    ASSERT_NE(process, 0u);
    ASSERT_NE(heldProcess, 0u);
    PassThrough route;
    Route r, hold;
    ASSERT_NO_FATAL_FAILURE(startCapture(process, route, r));
    ASSERT_NO_FATAL_FAILURE(makeCaptureSink(heldProcess, hold));
    ASSERT_NO_FATAL_FAILURE(startOutput("test-headphones", route, r));

    auto property = [&](uint32_t node, const char* key) {
        PipeWireConnection::Lock lock(platform->connection());
        auto g = platform->connection().graph();
        auto* n = g.node(node);
        return n ? n->prop(key) : std::string();
    };
    auto routeNodes = [&] {
        PipeWireConnection::Lock lock(platform->connection());
        std::vector<PipeWireNodeRecord> out;
        for (const auto& n : platform->connection().graph().nodes)
            if (n.prop("tarn.role") == "route") out.push_back(n);
        return out;
    };
    const auto group = property(r.aggregate, "node.group");
    ASSERT_FALSE(group.empty());
    EXPECT_TRUE(eventually(
        [&] {
            auto nodes = routeNodes();
            return nodes.size() == 1 && nodes[0].prop("node.group") == group;
        },
        2s))
        << routeNodes().size() << " route nodes: capture and playback were not joined in the route's group";

    // The held application is heard nowhere; the routed one only through its route.
    std::this_thread::sleep_for(300ms);
    auto onHeadphones = recordSink("test-headphones", 2, 1.0);
    auto onSpeakers = recordSink("test-speakers", 2, 1.0);
    EXPECT_NEAR(toDb(level(onHeadphones, 0)), toDb(0.25), 0.5);
    EXPECT_LT(level(onSpeakers, 0), 0.001);

    // A capture plays through one unit only, and only a capture that exists can be named.
    AudioPlatform::OutputUnitHandle other = 0;
    ASSERT_EQ(platform->createOutputUnit(other), 0);
    EXPECT_EQ(platform->setOutputUnitCapture(other, r.aggregate), -EBUSY);
    EXPECT_EQ(platform->setOutputUnitCapture(other, 987654), -ENOENT);
    EXPECT_EQ(platform->setOutputUnitCapture(r.unit, hold.aggregate), -EBUSY) << "the unit is connected already";
    EXPECT_EQ(platform->disposeOutputUnit(other), 0);

    stopRoute(r);
    EXPECT_EQ(platform->destroyAggregateDevice(hold.aggregate), 0);
    EXPECT_EQ(platform->destroyProcessTap(hold.tap), 0);
    EXPECT_TRUE(eventually([&] { return routeNodes().empty(); }, 2s)) << "a route node outlived its route";
}

TEST_F(PipeWirePlatformTest, GraphRateChangeEndsTheRouteWithAClearError) {
    auto process = startPlayer();
    ASSERT_NE(process, 0u);
    PassThrough route;
    Route r;
    ASSERT_NO_FATAL_FAILURE(startRoute(process, "test-speakers", route, r));
    uint32_t quantum = 0;
    ASSERT_TRUE(eventually([&] { return platform->bufferFrameSize(r.device, quantum) == 0; }, 2s));
    EXPECT_EQ(platform->outputUnitFailure(r.unit), std::nullopt);

    // The route's chain was designed for 48 kHz; the graph must not carry on under it at another rate.
    ASSERT_EQ(runProcess({"pw-metadata", "-n", "settings", "0", "clock.force-rate", "44100"}).exitCode, 0);
    std::optional<std::string> failure;
    EXPECT_TRUE(eventually([&] { return (failure = platform->outputUnitFailure(r.unit)).has_value(); }, 3s));
    EXPECT_EQ(failure.value_or(""), "the sound server switched the graph from 48000 Hz to 44100 Hz");
    EXPECT_EQ(platform->ioProcFailure(r.io), failure);
    stopRoute(r);
}

TEST_F(PipeWirePlatformTest, PermissionProbeIsGrantedOnAnOrdinarySession) {
    AudioPlatform::TapDescription probe;
    probe.name = "Sorvi Permission Probe";
    AudioPlatform::ObjectID tap = 0;
    ASSERT_EQ(platform->createProcessTap(probe, tap), 0);
    EXPECT_EQ(platform->destroyProcessTap(tap), 0);
}

TEST_F(PipeWirePlatformTest, TappingAProcessThatIsGoneFails) {
    AudioPlatform::TapDescription description;
    description.processes = {987654};
    AudioPlatform::ObjectID tap = 0;
    EXPECT_LT(platform->createProcessTap(description, tap), 0);
}

} // namespace
} // namespace tarn::test

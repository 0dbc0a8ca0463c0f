#pragma once

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <set>

#include <gtest/gtest.h>

#include "app/ProcessTree.hpp"
#include "app/RouteStore.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "support/ManualMainQueue.hpp"
#include "support/SimulatedAudioPlatform.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn::test {

// Processes whose life the test decides.
class FakeProcessTree : public ProcessTree {
public:
    std::set<std::int32_t> alive;
    bool isAlive(std::int32_t pid) const override { return alive.count(pid) > 0; }
    std::optional<std::int32_t> parent(std::int32_t) const override { return std::nullopt; }
    std::optional<std::string> executable(std::int32_t) const override { return std::nullopt; }
};

// A route store on the simulated platform: two output devices (the default speakers and
// headphones) and two applications that play a 1 kHz sine of amplitude 0.1; time is the test's.
class StoreTest : public ::testing::Test {
public:
    static constexpr double toneHz = 1000.0, toneAmplitude = 0.1, rate = 48000.0;

protected:
    static constexpr AudioPlatform::ObjectID speakers = 10, headphones = 11;
    static constexpr AudioPlatform::ObjectID musicObject = 100, videoObject = 101;
    static constexpr std::int32_t musicPID = 501, videoPID = 502;
    static constexpr const char* music = "org.example.Music";
    static constexpr const char* video = "org.example.Video";

    void SetUp() override {
        platform.addDevice({speakers, "speakers", "Speakers", {2}, 512});
        platform.addDevice({headphones, "headphones", "Headphones", {2}, 512});
        platform.setDefaultOutputDevice(speakers);
        addProcess(musicObject, musicPID, music, "Music");
        addProcess(videoObject, videoPID, video, "Video");
        SimulatedAudioPlatform::CaptureSource source;
        source.sample = [](std::uint64_t frame, std::uint32_t) {
            return float(toneAmplitude * std::sin(2 * std::numbers::pi * toneHz * double(frame) / rate));
        };
        platform.setCaptureSource(source);
        makeStore();
    }

    void TearDown() override {
        store.reset();
        EXPECT_TRUE(platform.isClean()) << "the store left something behind on the platform";
    }

    void makeStore() {
        store.reset();
        store = std::make_unique<RouteStore>(platform, queue, PreferencesStore(folder.path()),
                                             RouteStore::Options{queue.clock(), &tree});
        store->start();
        settle();
        store->activateRestoredRoutes();
        settle();
    }

    void addProcess(AudioPlatform::ObjectID id, std::int32_t pid, const std::string& bundle, const std::string& name,
                    bool running = true) {
        SimulatedAudioPlatform::Process p;
        p.id = id;
        p.pid = pid;
        p.bundleID = bundle;
        p.isRunningOutput = running;
        p.application = AudioPlatform::RunningApplication{name, bundle};
        platform.addProcess(p);
        tree.alive.insert(pid);
    }

    // The sound server announces a change of its process list; the store sees it once the
    // discovery's coalescing has run.
    void processesChanged() {
        platform.notifyProcessListChanged();
        settle();
    }

    void settle() {
        queue.runUntilIdle();
        queue.advance(0.4);
    }

    const AppRoute& routeOf(const UUID& id) {
        const AppRoute* r = store->route(id);
        EXPECT_NE(r, nullptr);
        return *r;
    }

    bool isLive(const UUID& id) { return store->liveEngines().count(id) > 0; }

    std::string errorOf(const UUID& id) {
        auto it = store->lastStartError().find(id);
        return it == store->lastStartError().end() ? "" : it->second;
    }

    // The largest sample a device played over its last `frames` frames, after enough cycles for
    // the chain's changes to have reached it.
    double playedPeak(AudioPlatform::ObjectID device, std::size_t frames = 4800) {
        platform.clearRenderedSamples();
        const auto start = platform.renderCycles();
        EXPECT_TRUE(platform.waitForRenderCycles(start + 60));
        const auto samples = platform.renderedSamples(device);
        if (samples.size() < frames * 2) return 0.0;
        double peak = 0.0;
        for (auto it = samples.end() - std::ptrdiff_t(frames * 2); it != samples.end(); ++it)
            peak = std::max(peak, double(std::abs(*it)));
        return peak;
    }

    SimulatedAudioPlatform platform;
    ManualMainQueue queue;
    TemporaryDirectory folder;
    FakeProcessTree tree;
    std::unique_ptr<RouteStore> store;
};

} // namespace tarn::test

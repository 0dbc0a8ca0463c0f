// The desk service's life with its sound server, on simulated servers: connecting late, losing
// the server and getting every live route back when it returns.

#include <gtest/gtest.h>

#include "app/DeskService.hpp"
#include "support/ManualMainQueue.hpp"
#include "support/SimulatedAudioPlatform.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn::test {
namespace {

class DeskServiceTest : public ::testing::Test {
protected:
    // A fresh server each time the service connects, with one device and two playing applications.
    std::unique_ptr<AudioPlatform> makeServer() {
        if (!isServerUp) throw std::runtime_error("no sound server");
        auto server = std::make_unique<SimulatedAudioPlatform>();
        server->addDevice({10, "speakers", "Speakers", {2}, 512});
        server->setDefaultOutputDevice(10);
        for (auto [id, pid, bundle] : {std::tuple{100u, 501, "org.example.Music"}, {101u, 502, "org.example.Video"}}) {
            SimulatedAudioPlatform::Process p;
            p.id = id;
            p.pid = pid;
            p.bundleID = bundle;
            p.isRunningOutput = true;
            server->addProcess(p);
        }
        ++connections;
        return server;
    }

    void makeService() {
        service = std::make_unique<DeskService>(
            queue, [this] { return makeServer(); }, [this](AudioPlatform&) { return isServerUp; },
            PreferencesStore(folder.path()), nullptr);
    }

    void settle(double seconds) {
        queue.runUntilIdle();
        queue.advance(seconds);
    }

    bool isLive(const UUID& id) { return service->store() && service->store()->liveEngines().count(id) > 0; }

    ManualMainQueue queue;
    TemporaryDirectory folder;
    bool isServerUp = true;
    int connections = 0;
    std::unique_ptr<DeskService> service;
};

TEST_F(DeskServiceTest, ConnectsWhenTheServerComesAndGetsEveryLiveRouteBackAfterItRestarts) {
    isServerUp = false;
    makeService();
    service->start();
    EXPECT_FALSE(service->isConnected());
    ASSERT_TRUE(service->connectionProblem().has_value());
    EXPECT_EQ(*service->connectionProblem(), "no sound server");
    settle(3.0);
    EXPECT_FALSE(service->isConnected());

    isServerUp = true;
    settle(1.1);
    ASSERT_TRUE(service->isConnected()) << "no new try within a second of the server's return";
    EXPECT_FALSE(service->connectionProblem().has_value());

    RouteStore* store = service->store();
    const UUID onRoute = store->addRoute("org.example.Music", "Music");
    store->setActivationMode(RouteActivationMode::on, onRoute);
    const UUID byHand = store->addRoute("org.example.Video", "Video");
    store->startAudio(byHand, false);
    const UUID idle = store->addRoute("org.example.Other", "Other");
    ASSERT_TRUE(isLive(onRoute) && isLive(byHand));
    EXPECT_EQ(service->meters().size(), 2u);

    // The server goes: the routes are let go and the desk waits.
    isServerUp = false;
    service->checkConnection();
    EXPECT_FALSE(service->isConnected());
    EXPECT_EQ(service->meters().size(), 0u);
    settle(2.0);

    const int before = connections;
    isServerUp = true;
    settle(1.1);
    ASSERT_TRUE(service->isConnected());
    EXPECT_EQ(connections, before + 1);
    EXPECT_TRUE(isLive(onRoute));
    EXPECT_TRUE(isLive(byHand)) << "a route started by hand did not come back";
    EXPECT_FALSE(isLive(idle));
    EXPECT_EQ(service->store()->routes().size(), 3u) << "the saved routes did not come back";
}

} // namespace
} // namespace tarn::test

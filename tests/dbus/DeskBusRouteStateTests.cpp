// What the desk publishes about a route's chain beyond its settings: sections it leaves out at
// the rate it runs at, and input it had to clean up, both counted and said in words.

#include <cmath>
#include <memory>
#include <numbers>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QObject>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/DeskBus.hpp"
#include "app/QtMainQueue.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "dbus/PrivateBus.hpp"
#include "support/SimulatedAudioPlatform.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn::test {
namespace {

// A headset in call mode: the application plays at 16 kHz, now and then a NaN among its samples.
class DeskBusRouteState : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(bus.isRunning()) << bus.failure();
        service = std::make_unique<DeskService>(
            queue,
            [] {
                auto server = std::make_unique<SimulatedAudioPlatform>();
                server->addDevice({10, "headset", "Headset", {2}, 512});
                server->setDefaultOutputDevice(10);
                SimulatedAudioPlatform::Process p{100, 501, "org.example.Call", true,
                                                  AudioPlatform::RunningApplication{"Call", "org.example.Call"}};
                server->addProcess(p);
                SimulatedAudioPlatform::CaptureSource source;
                source.sampleRate = 16000;
                source.sample = [](std::uint64_t frame, std::uint32_t) {
                    if (frame % 4000 == 7) return std::numeric_limits<float>::quiet_NaN();
                    return float(0.1 * std::sin(2 * std::numbers::pi * 440.0 * double(frame) / 16000.0));
                };
                server->setCaptureSource(source);
                return server;
            },
            [](AudioPlatform&) { return true; }, PreferencesStore(folder.path()), nullptr);
        service->start();
        ASSERT_TRUE(service->isConnected());
        connection = std::make_unique<QDBusConnection>(bus.connect());
        desk = std::make_unique<DeskBus>(*service, *connection);
        id = service->store()->addRoute("org.example.Call", "Call");
    }

    void TearDown() override {
        desk.reset();
        service.reset();
    }

    nlohmann::json routeState() {
        for (const auto& r : nlohmann::json::parse(desk->routes().toStdString()))
            if (r["id"] == id.string()) return r;
        ADD_FAILURE() << "the route is not published";
        return {};
    }

    PrivateBus bus;
    TemporaryDirectory folder;
    QObject context;
    QtMainQueue queue{&context};
    std::unique_ptr<DeskService> service;
    std::unique_ptr<QDBusConnection> connection;
    std::unique_ptr<DeskBus> desk;
    UUID id;
};

TEST_F(DeskBusRouteState, ARouteSaysWhichFiltersItLeavesOutAtItsRateAndWhatInputItSilenced) {
    RouteStore& store = *service->store();
    store.setCorrectionProfile(id, std::optional<std::string>("oratory1990.over-ear.sennheiser-hd-650"));
    EXPECT_EQ(routeState()["leftOutSectionCount"], 0) << "not running: nothing is left out yet";
    EXPECT_TRUE(routeState()["chainNotice"].is_null());

    ASSERT_TRUE(store.startAudio(id, false));
    QDeadlineTimer deadline(10000);
    while (!deadline.hasExpired() && (!store.dspChain(id) || store.dspChain(id)->nonFiniteInputSampleCount() < 2))
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    ASSERT_NE(store.dspChain(id), nullptr);
    ASSERT_EQ(store.dspChain(id)->sampleRate(), 16000.0);

    const auto state = routeState();
    EXPECT_EQ(state["leftOutSectionCount"], 2) << "the filters at 8865 Hz and 10 kHz";
    EXPECT_GE(state["nonFiniteInputSamples"].get<std::uint64_t>(), 2u);
    const std::string notice = state["chainNotice"];
    EXPECT_NE(notice.find("2 filter settings cannot run at 16000 Hz and are left out"), std::string::npos) << notice;
    EXPECT_NE(notice.find("not a finite number, played as silence"), std::string::npos) << notice;
    EXPECT_GE(service->meters().at(0)["nonFiniteInputSamples"].get<std::uint64_t>(), 2u);

    store.setCorrectionProfile(id, std::optional<std::string>());
    EXPECT_EQ(routeState()["leftOutSectionCount"], 0);
}

} // namespace
} // namespace tarn::test

// Desk layouts on the simulated platform: a layout bound to headphones takes over when they are
// plugged in and gives the desk back when they go.

#include <filesystem>

#include "StoreFixture.hpp"

namespace tarn::test {
namespace {

constexpr AudioPlatform::ObjectID usbHeadphones = 12;

TEST_F(StoreTest, ALayoutBoundToADeviceFollowsItInAndOut) {
    const UUID a = store->addRoute(music, "Music");
    store->setActivationMode(RouteActivationMode::on, a);
    store->requestBandGain(3, -4.0, a, false);

    // The desk for the USB headphones: only the music, on them.
    store->setOutputDevice(a, std::string("usb-headphones"), std::nullopt);
    const UUID layout = store->saveLayout("Headphones", std::string("usb-headphones"));

    // The desk for now: the music back on the default output, and the video routed too.
    store->setOutputDevice(a, std::nullopt, std::nullopt);
    const UUID b = store->addRoute(video, "Video");
    store->setActivationMode(RouteActivationMode::on, b);
    ASSERT_EQ(store->liveRoute(a)->format().outputDeviceUID, "speakers");
    ASSERT_FALSE(store->activeLayoutID());

    platform.addDevice({usbHeadphones, "usb-headphones", "USB Headphones", {2}, 512});
    platform.notifyDeviceListChanged();
    settle();
    EXPECT_EQ(store->activeLayoutID(), layout);
    ASSERT_EQ(store->routes().size(), 1u);
    EXPECT_EQ(store->routes().front().id, a);
    EXPECT_EQ(store->liveRoute(a)->format().outputDeviceUID, "usb-headphones");
    EXPECT_GT(playedPeak(usbHeadphones), 0.05) << "the music does not play on the headphones";
    EXPECT_TRUE(platform.isHeardUnprocessed(videoPID)) << "a route the layout does not hold still captures";
    EXPECT_EQ(routeOf(a).customEQBands[3].gainDb, -4.0) << "the route lost its settings";

    // Unplugged: the desk as it was comes back, the video route with its settings.
    platform.removeDevice(usbHeadphones);
    platform.notifyDeviceListChanged();
    settle();
    EXPECT_FALSE(store->activeLayoutID());
    ASSERT_EQ(store->routes().size(), 2u);
    EXPECT_EQ(store->routes()[1].id, b);
    EXPECT_TRUE(isLive(b));
    EXPECT_FALSE(platform.isHeardUnprocessed(videoPID));
    EXPECT_EQ(store->liveRoute(a)->format().outputDeviceUID, "speakers");

    // Kept across restarts, binding included.
    store.reset();
    makeStore();
    ASSERT_EQ(store->layouts().size(), 1u);
    EXPECT_EQ(store->layouts().front().boundOutputDeviceUID, std::string("usb-headphones"));
    EXPECT_EQ(store->layouts().front().routes.size(), 1u);
    EXPECT_TRUE(std::filesystem::exists(folder / "Tarn.deskLayouts.v1.json"));
}

} // namespace
} // namespace tarn::test

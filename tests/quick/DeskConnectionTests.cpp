// The window's connection to the desk, without a window: what it reads, what it refuses before
// anything goes out, and how often it hands meters to the view.

#include <QDeadlineTimer>
#include <QGuiApplication>
#include <QMetaMethod>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>
#include <QUrl>

#include <gtest/gtest.h>

#include "app/DeskBus.hpp"
#include "dbus/PrivateBus.hpp"
#include "quick/DeskViewFixture.hpp"
#include "quick/FakeDesk.hpp"
#include "support/TemporaryDirectory.hpp"
#include "ui/DeskConnection.hpp"

namespace tarn::test {
namespace {

bool eventually(const std::function<bool()>& condition, int ms = 5000) { return pumpUntil(condition, ms); }

class Connection : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(bus.isRunning()) << bus.failure();
        fake = std::make_unique<FakeDesk>(bus.connect());
        fake->set("Routes", routesJSON({route}));
        ASSERT_TRUE(fake->publish());
        desk = std::make_unique<ui::DeskConnection>(bus.connect());
        desk->start();
        ASSERT_TRUE(eventually([&] { return desk->reachable() && desk->routes()->rowCount() == 1; }));
    }

    RouteFields route;
    PrivateBus bus;
    TemporaryDirectory folder;
    std::unique_ptr<FakeDesk> fake;
    std::unique_ptr<ui::DeskConnection> desk;
};

// The fake stands in for the desk only while it has the desk's methods, with the same arguments.
TEST(FakeDeskInterface, EveryMethodOfTheFakeIsTheDesksOwnWithTheSameSignature) {
    const QMetaObject& real = DeskBus::staticMetaObject;
    const QMetaObject& fake = FakeDesk::staticMetaObject;
    int compared = 0;
    for (int i = fake.methodOffset(); i < fake.methodCount(); ++i) {
        const QMetaMethod method = fake.method(i);
        if (method.access() != QMetaMethod::Public || method.methodType() == QMetaMethod::Constructor) continue;
        const int index = real.indexOfMethod(method.methodSignature().constData());
        ASSERT_GE(index, 0) << "the desk has no " << method.methodSignature().constData();
        EXPECT_EQ(real.method(index).returnType(), method.returnType()) << method.methodSignature().constData();
        ++compared;
    }
    EXPECT_GT(compared, 20);
    for (const char* property : {"Routes", "Processes", "Devices", "Presets", "Layouts", "SelectedRoute", "Connected"})
        EXPECT_GE(real.indexOfProperty(property), 0) << property;
}

TEST_F(Connection, AnEQFileIsReadHereAndRefusedBeforeAnythingGoesOutWhenItCannotBeOne) {
    auto import = [&](const std::filesystem::path& file) {
        return desk->importEQFile(route.id, QUrl::fromLocalFile(QString::fromStdString(file.string())));
    };
    EXPECT_FALSE(import(folder.path()));
    EXPECT_TRUE(desk->lastError().contains("is a folder")) << desk->lastError().toStdString();
    EXPECT_FALSE(import(folder / "missing.txt"));
    EXPECT_TRUE(desk->lastError().contains("missing.txt"));
    EXPECT_FALSE(import(writeText(folder / "big.txt", std::string(ui::DeskConnection::maxEQFileBytes + 1, 'a'))));
    EXPECT_TRUE(desk->lastError().contains("too large"));
    EXPECT_FALSE(import(writeText(folder / "binary.txt", std::string("Preamp: -6 dB\n\xff\xfe\x00\x01", 18))));
    EXPECT_TRUE(desk->lastError().contains("not UTF-8")) << desk->lastError().toStdString();
    QCoreApplication::processEvents();
    EXPECT_EQ(fake->count("ImportEQ"), 0);

    const std::string text = "Preamp: -6.2 dB\nFilter 1: ON PK Fc 105 Hz Gain 5.5 dB Q 0.70\n";
    EXPECT_TRUE(import(writeText(folder / "Sennheiser HD 600 ParametricEQ.txt", text)));
    ASSERT_TRUE(eventually([&] { return fake->count("ImportEQ") == 1; }));
    EXPECT_EQ(fake->last("ImportEQ")->arguments,
              (QVariantList{route.id, "Sennheiser HD 600 ParametricEQ", QString::fromStdString(text)}));
    ASSERT_TRUE(eventually([&] { return desk->lastError().isEmpty(); })) << "an edit that goes through clears the last refusal";
}

TEST_F(Connection, MetersReachTheViewAtMostAtTheChosenRateAndTheNewestAlwaysArrives) {
    desk->setMeterRateHz(5);
    QSignalSpy updates(desk->routes(), &QAbstractItemModel::dataChanged);
    auto meters = [&](double peak) {
        return QString(R"([{"id":"%1","inputPeak":%2,"outputPeak":%2}])").arg(route.id).arg(peak);
    };
    // A burst of twenty within a few milliseconds: the first at once, then only the newest.
    for (int i = 1; i <= 20; ++i) fake->sendMeters(meters(0.01 * i));
    ASSERT_TRUE(eventually([&] {
        return desk->routes()->data(desk->routes()->index(0), ui::RouteListModel::InputLevelRole).toDouble() ==
               ui::RouteListModel::meterPosition(0.2);
    }));
    QTest::qWait(400);
    EXPECT_LE(updates.size(), 3) << "a burst is shown once or twice, not twenty times";
    EXPECT_GE(updates.size(), 1);

    desk->setMeterRateHz(20);
    updates.clear();
    fake->sendMeters(meters(0.5));
    ASSERT_TRUE(eventually([&] { return updates.size() >= 1; }));
}

TEST_F(Connection, ARouteShownInThisWindowLeavesTheDesksSelectionAlone) {
    RouteFields other{"00000000-0000-4000-8000-000000000005", "Films", "org.example.Films"};
    fake->set("Routes", routesJSON({route, other}));
    ASSERT_TRUE(eventually([&] { return desk->routes()->rowCount() == 2; }));
    desk->showRoute("films");
    EXPECT_EQ(desk->selectedRoute(), other.id) << "found by its application's name, whatever the case";
    QCoreApplication::processEvents();
    EXPECT_EQ(fake->count("SelectRoute"), 0);

    desk->showRoute("no such route");
    EXPECT_FALSE(desk->isShowingRoute());
    desk->selectRoute(route.id);
    ASSERT_TRUE(eventually([&] { return fake->count("SelectRoute") == 1; }));
}

TEST(ConnectionReach, SaysWhyTheDeskCannotBeReachedAndConnectsWhenItAppears) {
    PrivateBus bus;
    ASSERT_TRUE(bus.isRunning()) << bus.failure();
    ui::DeskConnection desk(bus.connect());
    desk.start();
    EXPECT_FALSE(desk.reachable());
    EXPECT_FALSE(desk.problem().isEmpty());

    FakeDesk fake(bus.connect());
    fake.set("Routes", routesJSON({RouteFields{}}));
    ASSERT_TRUE(fake.publish());
    desk.reconnect();
    EXPECT_TRUE(eventually([&] { return desk.reachable() && desk.routes()->rowCount() == 1; }));
    EXPECT_TRUE(eventually([&] { return fake.count("WatchMeters") >= 1; })) << "the window asks for meters once connected";
}

} // namespace
} // namespace tarn::test

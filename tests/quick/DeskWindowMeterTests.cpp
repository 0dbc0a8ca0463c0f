// The desk window and the desk's meters on a private bus: a window nobody can see stops the desk
// from sending meters and stops hearing those others asked for; shown again, it gets them back.
// The desk is the real service and bus object, on a simulated sound server.

#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QMetaObject>
#include <QObject>
#include <QQuickWindow>
#include <QThread>

#include <gtest/gtest.h>

#include "app/DeskBus.hpp"
#include "app/DeskService.hpp"
#include "dbus/PrivateBus.hpp"
#include "support/ManualMainQueue.hpp"
#include "support/SimulatedAudioPlatform.hpp"
#include "support/TemporaryDirectory.hpp"
#include "ui/DeskWindow.hpp"
#include "ui/RouteListModel.hpp"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

// Runs the test thread's event loop for a while, or until `done` holds.
bool pump(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        if (done && done()) return true;
        std::this_thread::sleep_for(5ms);
    }
    return done ? done() : true;
}

// The desk service with one route, exported under the desk's name from a thread of its own: the
// window reads the desk with blocking calls, which a desk on the test's thread could not answer.
class DeskOnItsThread {
public:
    explicit DeskOnItsThread(QDBusConnection bus) : bus_(std::move(bus)) {
        context_.moveToThread(&thread_);
        thread_.start();
        run([this] {
            service_ = std::make_unique<DeskService>(
                queue_,
                [] {
                    auto server = std::make_unique<SimulatedAudioPlatform>();
                    server->addDevice({10, "speakers", "Speakers", {2}, 512});
                    server->setDefaultOutputDevice(10);
                    return server;
                },
                [](AudioPlatform&) { return true; }, PreferencesStore(folder_.path()), nullptr);
            service_->start();
            route_ = QString::fromStdString(service_->store()->addRoute("org.example.Music", "Music").string());
            deskBus_ = std::make_unique<DeskBus>(*service_, bus_);
            exported_ = bus_.registerService(DeskBus::serviceName) && deskBus_->registerObject();
        });
    }

    ~DeskOnItsThread() {
        run([this] {
            bus_.unregisterObject(DeskBus::objectPath);
            deskBus_.reset();
            service_.reset();
        });
        thread_.quit();
        thread_.wait();
        // Gone as a process goes: its connection, its unique name and its desk name with it.
        QDBusConnection::disconnectFromBus(bus_.name());
    }

    bool exported() const { return exported_; }
    // The desk's name lost for a while and taken back by the same instance.
    void releaseName() {
        run([this] { bus_.unregisterService(DeskBus::serviceName); });
    }
    bool takeName() {
        bool taken = false;
        run([&] { taken = bus_.registerService(DeskBus::serviceName); });
        return taken;
    }
    const QString& route() const { return route_; }

    // A Meters signal as the desk sends it while some client wants meters.
    void sendMeters(double peak) {
        const QString json = QStringLiteral(R"([{"id":"%1","inputPeak":%2,"outputPeak":%2}])").arg(route_).arg(peak);
        run([&] { emit deskBus_->Meters(json); });
    }

private:
    void run(std::function<void()> work) {
        QMetaObject::invokeMethod(&context_, std::move(work), Qt::BlockingQueuedConnection);
    }

    QDBusConnection bus_;
    QThread thread_;
    QObject context_;
    ManualMainQueue queue_;
    TemporaryDirectory folder_;
    std::unique_ptr<DeskService> service_;
    std::unique_ptr<DeskBus> deskBus_;
    QString route_;
    bool exported_ = false;
};

// Another client on the bus that hears the desk's Meters signal without asking for it.
class MeterCounter : public QObject {
    Q_OBJECT
public:
    int count = 0;
public slots:
    void meters(const QString&) { ++count; }
};

class DeskWindowMeterTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(bus.isRunning()) << bus.failure();
        desk = std::make_unique<DeskOnItsThread>(bus.connect());
        ASSERT_TRUE(desk->exported());
        observer = bus.connect();
        ASSERT_TRUE(observer.connect(DeskBus::serviceName, DeskBus::objectPath, DeskBus::interfaceName, "Meters",
                                     &counter, SLOT(meters(QString))));
        deskWindow = std::make_unique<ui::DeskWindow>(bus.connect(), PreferencesStore(config.path()),
                                                      QString::fromStdString((config / "autostart").string()));
        ASSERT_FALSE(deskWindow->load({}, QStringLiteral("none")).has_value());
        window = deskWindow->window();
        routes = deskWindow->desk().routes();
        ASSERT_TRUE(pump([this] { return routes->rowCount() == 1; }, 10s)) << "the window did not read the desk";
    }

    void TearDown() override {
        deskWindow.reset();
        desk.reset();
    }

    // Whether the desk sends meters: some arrive within a few of its intervals.
    bool meters(std::chrono::milliseconds within) {
        pump(nullptr, 300ms); // what was already on its way
        counter.count = 0;
        return pump([this] { return counter.count > 0; }, within);
    }

    double inputLevel() const { return routes->data(routes->index(0), ui::RouteListModel::InputLevelRole).toDouble(); }

    // Whether the window's meter takes up a peak sent again and again (the window shows only the
    // newest of the meters that arrive between two of its updates, and the desk sends its own).
    bool follows(double peak, std::chrono::milliseconds within) {
        return pump(
            [&] {
                desk->sendMeters(peak);
                return inputLevel() == ui::RouteListModel::meterPosition(peak);
            },
            within);
    }

    PrivateBus bus;
    TemporaryDirectory config;
    std::unique_ptr<DeskOnItsThread> desk;
    QDBusConnection observer{QString()};
    MeterCounter counter;
    std::unique_ptr<ui::DeskWindow> deskWindow;
    QQuickWindow* window = nullptr;
    ui::RouteListModel* routes = nullptr;
};

TEST_F(DeskWindowMeterTest, TheDeskSendsMetersOnlyWhileTheWindowCanBeSeen) {
    ASSERT_TRUE(pump([this] { return counter.count > 0; }, 5s)) << "a shown window did not ask for meters";

    window->hide();
    EXPECT_FALSE(meters(600ms)) << "meters still come while the window is hidden";
    window->show();
    EXPECT_TRUE(meters(5s)) << "meters did not come back when the window was shown";

    window->showMinimized();
    ASSERT_EQ(window->visibility(), QWindow::Minimized);
    EXPECT_FALSE(meters(600ms)) << "meters still come while the window is minimised";
    window->showNormal();
    EXPECT_TRUE(meters(5s)) << "meters did not come back when the window was restored";

    // The desk counts every request of a client: asks and refusals must have paired up.
    window->hide();
    EXPECT_FALSE(meters(600ms)) << "after being hidden and shown again, hiding no longer stops the meters";
}

TEST_F(DeskWindowMeterTest, AHiddenWindowDoesNotFollowMetersAnotherClientAskedFor) {
    ASSERT_TRUE(follows(0.5, 5s)) << "the shown window does not follow the meters";

    window->hide();
    pump(nullptr, 200ms);
    EXPECT_FALSE(follows(0.01, 600ms)) << "the hidden window still follows the meters";

    window->show();
    EXPECT_TRUE(follows(0.01, 5s)) << "the window shown again does not follow the meters";
}

TEST_F(DeskWindowMeterTest, ADeskThatRestartedWhileTheWindowWasHiddenSendsMetersOnceItIsShown) {
    window->hide();
    pump(nullptr, 200ms);
    desk.reset();
    desk = std::make_unique<DeskOnItsThread>(bus.connect());
    ASSERT_TRUE(desk->exported());
    EXPECT_FALSE(meters(600ms)) << "a new desk sends meters before anyone asked";

    window->show();
    EXPECT_TRUE(meters(10s)) << "the window did not ask the new desk for meters";
    window->hide();
    EXPECT_FALSE(meters(600ms)) << "the new desk's meters go on while the window is hidden";
}

TEST_F(DeskWindowMeterTest, ReadingTheSameDeskAgainDoesNotAskItTwice) {
    ASSERT_TRUE(meters(5s));
    // An edit that finds no desk makes the window read the desk again a little later.
    desk->releaseName();
    deskWindow->desk().setGain(desk->route(), -3.0);
    ASSERT_TRUE(pump([this] { return !deskWindow->desk().reachable(); }, 5s));
    ASSERT_TRUE(desk->takeName());
    ASSERT_TRUE(pump([this] { return deskWindow->desk().reachable(); }, 10s)) << "the window did not read the desk again";

    window->hide();
    EXPECT_FALSE(meters(600ms)) << "the window asked the same desk twice: one refusal no longer stops its meters";
}

} // namespace
} // namespace tarn::test

#include "DeskWindowMeterTests.moc"

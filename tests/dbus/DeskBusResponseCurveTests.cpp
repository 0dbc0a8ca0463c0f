// The desk's ResponseCurve method on a private bus, as the window calls it: checked arguments,
// and a curve of the route as it was last edited over the bus.

#include <cmath>
#include <functional>
#include <memory>

#include <QCoreApplication>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDeadlineTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QObject>

#include <gtest/gtest.h>

#include "app/DeskBus.hpp"
#include "app/QtMainQueue.hpp"
#include "core/dsp/RouteResponse.hpp"
#include "dbus/PrivateBus.hpp"
#include "support/SimulatedAudioPlatform.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn::test {
namespace {

constexpr int waitMs = 10000;

class DeskBusResponseCurve : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(bus.isRunning()) << bus.failure();
        service = std::make_unique<DeskService>(
            queue,
            [] {
                auto server = std::make_unique<SimulatedAudioPlatform>();
                server->addDevice({10, "speakers", "Speakers", {2}, 512});
                server->setDefaultOutputDevice(10);
                return server;
            },
            [](AudioPlatform&) { return true; }, PreferencesStore(folder.path()), nullptr);
        service->start();
        ASSERT_TRUE(service->isConnected());
        serverConnection = std::make_unique<QDBusConnection>(bus.connect());
        desk = std::make_unique<DeskBus>(*service, *serverConnection);
        ASSERT_TRUE(desk->registerObject());
        client = std::make_unique<QDBusConnection>(bus.connect());
        route = QString::fromStdString(service->store()->addRoute("org.example.Music", "Music").string());
    }

    void TearDown() override {
        desk.reset();
        service.reset();
    }

    // Calls the desk as another process would and runs the loop (the desk answers on it).
    QDBusMessage callDesk(const char* method, const QVariantList& arguments) {
        auto message = QDBusMessage::createMethodCall(serverConnection->baseService(), DeskBus::objectPath,
                                                      DeskBus::interfaceName, method);
        message.setArguments(arguments);
        QDBusPendingCall pending = client->asyncCall(message, waitMs);
        QDeadlineTimer deadline(waitMs);
        while (!pending.isFinished() && !deadline.hasExpired())
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        EXPECT_TRUE(pending.isFinished()) << method << " got no answer";
        return pending.reply();
    }

    QJsonObject curve(const QString& routeID, int channel) {
        const QDBusMessage reply = callDesk("ResponseCurve", {routeID, channel});
        EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
        return QJsonDocument::fromJson(reply.arguments().value(0).toString().toUtf8()).object();
    }

    PrivateBus bus;
    TemporaryDirectory folder;
    QObject context;
    QtMainQueue queue{&context};
    std::unique_ptr<DeskService> service;
    std::unique_ptr<QDBusConnection> serverConnection;
    std::unique_ptr<DeskBus> desk;
    std::unique_ptr<QDBusConnection> client;
    QString route;
};

TEST_F(DeskBusResponseCurve, AnUnknownRouteOrAChannelItDoesNotHaveIsAnErrorThatSaysSo) {
    for (const QString& bad : {QStringLiteral("not a route"), QString::fromStdString(UUID::random().string())}) {
        const QDBusMessage reply = callDesk("ResponseCurve", {bad, 0});
        ASSERT_EQ(reply.type(), QDBusMessage::ErrorMessage) << bad.toStdString();
        EXPECT_EQ(reply.errorName(), DeskBus::noSuchRouteError);
    }
    for (int channel : {-1, 2, 1 << 30}) {
        const QDBusMessage reply = callDesk("ResponseCurve", {route, channel});
        ASSERT_EQ(reply.type(), QDBusMessage::ErrorMessage) << channel;
        EXPECT_EQ(reply.errorName(), QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs"));
        EXPECT_TRUE(reply.errorMessage().contains(QStringLiteral("channel must be 0..1"))) << reply.errorMessage().toStdString();
    }
}

TEST_F(DeskBusResponseCurve, ACurveHasEveryTraceOnOneGridAndFollowsAnEditMadeOverTheBus) {
    const QDBusMessage edit = callDesk("SetBand", {route, 5, 6.0});
    ASSERT_EQ(edit.type(), QDBusMessage::ReplyMessage) << edit.errorMessage().toStdString();

    const QJsonObject answer = curve(route, 1);
    const QJsonArray hz = answer["frequenciesHz"].toArray();
    ASSERT_EQ(hz.size(), RouteResponse::displayPointCount);
    EXPECT_DOUBLE_EQ(hz.first().toDouble(), 20.0);
    EXPECT_NEAR(hz.last().toDouble(), 20000.0, 1e-9);
    for (const char* key : {"userDb", "aiDb", "correctionDb", "parametricDb", "totalDb"})
        ASSERT_EQ(answer[key].toArray().size(), hz.size()) << key;

    // The 6 dB band peaks at 1 kHz in the user's trace, and the traces add up to the total.
    const QJsonArray user = answer["userDb"].toArray();
    qsizetype loudest = 0;
    for (qsizetype i = 0; i < user.size(); ++i)
        if (user[i].toDouble() > user[loudest].toDouble()) loudest = i;
    EXPECT_NEAR(hz[loudest].toDouble(), 1000.0, 1000.0 * 0.07);
    EXPECT_NEAR(user[loudest].toDouble(), 6.0, 0.05);
    for (qsizetype i = 0; i < hz.size(); ++i) {
        double sum = 0.0;
        for (const char* key : {"userDb", "aiDb", "correctionDb", "parametricDb"}) sum += answer[key].toArray()[i].toDouble();
        EXPECT_NEAR(sum, answer["totalDb"].toArray()[i].toDouble(), 1e-9) << hz[i].toDouble() << " Hz";
    }
}

} // namespace
} // namespace tarn::test

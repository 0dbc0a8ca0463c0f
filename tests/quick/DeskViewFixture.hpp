#pragma once

#include <functional>
#include <memory>

#include <QQuickItem>
#include <QStringList>

#include <gtest/gtest.h>

#include "dbus/PrivateBus.hpp"
#include "quick/FakeDesk.hpp"
#include "support/TemporaryDirectory.hpp"
#include "ui/DeskWindow.hpp"

namespace tarn::test {

// One route as the desk publishes it, with the fields the window reads.
struct RouteFields {
    QString id = "00000000-0000-4000-8000-000000000001";
    QString name = "Music";
    QString bundleID = "org.example.Music";
    QString health = "verified";
    QString message;
    bool muted = false;
};
QString routeJSON(const RouteFields& route);
// Runs the event loop until the condition holds; false when it never does.
bool pumpUntil(const std::function<bool()>& condition, int ms = 5000);
QString routesJSON(const std::vector<RouteFields>& routes);

// The desk window, offscreen, talking to a fake desk on a private bus.
class DeskView : public ::testing::Test {
public:
    // What Qt and the QML engine warned about while the window lived.
    static QStringList warnings;

protected:
    void SetUp() override;
    void TearDown() override;

    static bool eventually(const std::function<bool()>& condition, int ms = 5000) { return pumpUntil(condition, ms); }
    // The first visible item of that object name in the window (popups included).
    QQuickItem* item(const QString& objectName) const;
    QList<QQuickItem*> items(const QString& objectName) const;
    QObject* object(const QString& objectName) const;
    // The newest call of a method once it has arrived, or null after a wait.
    std::optional<FakeDesk::Call> awaitCall(const QString& method, int count = 1);
    void click(QQuickItem* item);
    void type(const QString& text);

    RouteFields first;
    RouteFields second{"00000000-0000-4000-8000-000000000002", "Podcasts", "org.example.Podcasts"};
    PrivateBus bus;
    TemporaryDirectory config;
    std::unique_ptr<FakeDesk> fake;
    std::unique_ptr<ui::DeskWindow> desk;
    QQuickWindow* window = nullptr;
};

} // namespace tarn::test

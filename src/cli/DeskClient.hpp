#pragma once

#include <string>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QList>
#include <QVariant>

#include <nlohmann/json.hpp>

namespace tarn::cli {

// The command line's side of the desk's D-Bus interface: calls the running daemon (the session
// bus starts it through D-Bus activation when it is installed), reads its properties, and turns
// what a user types for a route (an id, a unique id prefix, an application's name or identity)
// into the route's id. Every failure is a CommandError with one line saying why.
class DeskClient {
public:
    static constexpr int callTimeoutMs = 25000;

    DeskClient();

    QList<QVariant> call(const char* method, const QList<QVariant>& arguments = {});
    // A method that answers one string.
    std::string callText(const char* method, const QList<QVariant>& arguments = {});
    // A property that holds JSON text.
    nlohmann::json property(const char* name);
    // Whether the desk is connected to the sound server right now.
    bool isConnected();

    // The id of the route R names; exits 1 when it names none or several.
    std::string resolveRoute(const std::string& route);

    QDBusConnection& bus() { return bus_; }

private:
    [[noreturn]] static void fail(const QDBusMessage& reply);
    QVariant rawProperty(const char* name);

    QDBusConnection bus_;
};

} // namespace tarn::cli

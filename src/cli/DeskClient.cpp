#include "cli/DeskClient.hpp"

#include <algorithm>
#include <cctype>

#include <QDBusMessage>
#include <QDBusVariant>

#include <fmt/format.h>

#include "app/DeskBus.hpp"
#include "cli/Command.hpp"

namespace tarn::cli {

namespace {

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return s;
}

} // namespace

DeskClient::DeskClient() : bus_(QDBusConnection::sessionBus()) {
    if (!bus_.isConnected())
        throw CommandError(exitFailure, fmt::format("no session bus to reach the desk on ({})",
                                                    bus_.lastError().message().toStdString()));
}

QList<QVariant> DeskClient::call(const char* method, const QList<QVariant>& arguments) {
    auto message =
        QDBusMessage::createMethodCall(DeskBus::serviceName, DeskBus::objectPath, DeskBus::interfaceName, method);
    message.setArguments(arguments);
    const QDBusMessage reply = bus_.call(message, QDBus::Block, callTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage) fail(reply);
    return reply.arguments();
}

// One line for what went wrong: the desk's own message, or why it could not be reached.
[[noreturn]] void DeskClient::fail(const QDBusMessage& reply) {
    const std::string name = reply.errorName().toStdString();
    if (name == "org.freedesktop.DBus.Error.ServiceUnknown" || name == "org.freedesktop.DBus.Error.Spawn.ExecFailed" ||
        name == "org.freedesktop.DBus.Error.NameHasNoOwner")
        throw CommandError(exitFailure, "the desk is not running and the session bus could not start it (start it "
                                        "with `tarn daemon`, or install Tarn for D-Bus activation)");
    if (name == "org.freedesktop.DBus.Error.NoReply" || name == "org.freedesktop.DBus.Error.Timeout")
        throw CommandError(exitFailure, "the desk did not answer in time");
    throw CommandError(exitFailure, reply.errorMessage().toStdString());
}

std::string DeskClient::callText(const char* method, const QList<QVariant>& arguments) {
    const auto values = call(method, arguments);
    return values.isEmpty() ? std::string() : values.front().toString().toStdString();
}

QVariant DeskClient::rawProperty(const char* name) {
    auto message = QDBusMessage::createMethodCall(DeskBus::serviceName, DeskBus::objectPath,
                                                  "org.freedesktop.DBus.Properties", "Get");
    message << QString(DeskBus::interfaceName) << QString(name);
    const QDBusMessage reply = bus_.call(message, QDBus::Block, callTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage) fail(reply);
    return reply.arguments().value(0).value<QDBusVariant>().variant();
}

bool DeskClient::isConnected() { return rawProperty("Connected").toBool(); }

nlohmann::json DeskClient::property(const char* name) {
    const QVariant value = rawProperty(name);
    const auto parsed = nlohmann::json::parse(value.toString().toStdString(), nullptr, false);
    if (parsed.is_discarded()) throw CommandError(exitFailure, fmt::format("the desk's {} did not read as JSON", name));
    return parsed;
}

std::string DeskClient::resolveRoute(const std::string& route) {
    if (route.empty()) throw CommandError(exitUsage, "a route must be named");
    const auto routes = property("Routes");
    const std::string wanted = lower(route);
    std::vector<const nlohmann::json*> exact, prefix, named;
    for (const auto& r : routes) {
        const std::string id = lower(r.value("id", ""));
        if (id == wanted) exact.push_back(&r);
        else if (id.rfind(wanted, 0) == 0) prefix.push_back(&r);
        if (lower(r.value("bundleID", "")) == wanted || lower(r.value("displayName", "")) == wanted) named.push_back(&r);
    }
    for (const auto* matches : {&exact, &named, &prefix}) {
        if (matches->size() == 1) return matches->front()->value("id", "");
        if (matches->size() > 1) {
            std::string ids;
            for (const auto* r : *matches) ids += (ids.empty() ? "" : ", ") + r->value("id", "").substr(0, 8);
            throw CommandError(exitFailure, fmt::format("\"{}\" names {} routes ({}); give more of the id", route,
                                                        matches->size(), ids));
        }
    }
    throw CommandError(exitFailure, fmt::format("no route \"{}\" (see `tarn route list`)", route));
}

} // namespace tarn::cli

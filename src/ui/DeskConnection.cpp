#include "ui/DeskConnection.hpp"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "app/DeskBus.hpp"

namespace tarn::ui {

namespace {

constexpr int callTimeoutMs = 5000;

QJsonArray parseArray(const QString& json) { return QJsonDocument::fromJson(json.toUtf8()).array(); }

} // namespace

DeskConnection::DeskConnection(QDBusConnection bus, QObject* parent) : QObject(parent), bus_(std::move(bus)) {
    retry_.setInterval(retryMs);
    retry_.setSingleShot(true);
    connect(&retry_, &QTimer::timeout, this, &DeskConnection::readAll);
}

void DeskConnection::start() {
    bus_.connect(DeskBus::serviceName, DeskBus::objectPath, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                 this, SLOT(propertiesChanged(QString, QVariantMap, QStringList)));
    if (metersWanted_) listenToMeters(true);
    readAll();
}

void DeskConnection::setReachable(bool reachable, const QString& problem) {
    if (reachable == reachable_ && problem == problem_) return;
    reachable_ = reachable;
    problem_ = problem;
    emit reachableChanged();
}

void DeskConnection::readAll() {
    auto message = QDBusMessage::createMethodCall(DeskBus::serviceName, DeskBus::objectPath,
                                                  "org.freedesktop.DBus.Properties", "GetAll");
    message << QString(DeskBus::interfaceName);
    const QDBusMessage reply = bus_.call(message, QDBus::Block, callTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage) {
        setReachable(false, reply.errorMessage().isEmpty() ? QStringLiteral("the desk does not answer")
                                                           : reply.errorMessage());
        retry_.start();
        return;
    }
    const QVariantMap all = qdbus_cast<QVariantMap>(reply.arguments().value(0));
    for (auto it = all.begin(); it != all.end(); ++it) apply(it.key(), it.value());
    // Meters come only while someone asks; the window asks once it is connected.
    deskInstance_ = reply.service();
    if (metersWanted_ && meterInstance_ != deskInstance_) {
        meterInstance_ = deskInstance_;
        watchMeters(true);
    }
    setReachable(all.value("Connected").toBool(),
                 all.value("Connected").toBool() ? QString() : QStringLiteral("the desk is waiting for the sound server"));
}

void DeskConnection::apply(const QString& name, const QVariant& value) {
    if (name == "Routes") routes_.setRoutes(parseArray(value.toString()));
    else if (name == "Devices") {
        devices_ = parseArray(value.toString()).toVariantList();
        emit devicesChanged();
    } else if (name == "Processes") {
        processes_ = parseArray(value.toString()).toVariantList();
        emit processesChanged();
    } else if (name == "SelectedRoute") {
        selectedRoute_ = value.toString();
        emit selectionChanged();
    } else if (name == "Connected") {
        setReachable(value.toBool(), value.toBool() ? QString() : QStringLiteral("the desk is waiting for the sound server"));
    }
}

void DeskConnection::propertiesChanged(const QString& interface, const QVariantMap& changed, const QStringList&) {
    if (interface != DeskBus::interfaceName) return;
    for (auto it = changed.begin(); it != changed.end(); ++it) apply(it.key(), it.value());
}

void DeskConnection::meters(const QString& json) { routes_.setMeters(parseArray(json)); }

void DeskConnection::setMetersWanted(bool wanted) {
    if (wanted == metersWanted_) return;
    metersWanted_ = wanted;
    listenToMeters(wanted);
    if (!wanted && !meterInstance_.isEmpty()) {
        watchMeters(false);
        meterInstance_.clear();
    } else if (wanted && !deskInstance_.isEmpty()) {
        meterInstance_ = deskInstance_;
        watchMeters(true);
    }
}

// Addressed to the desk instance itself, never to whichever runs under the desk's name now, so
// that the requests the desk counts always pair up.
void DeskConnection::watchMeters(bool on) {
    auto message = QDBusMessage::createMethodCall(meterInstance_, DeskBus::objectPath, DeskBus::interfaceName,
                                                  QStringLiteral("WatchMeters"));
    message << on;
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(message, callTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, on, instance = meterInstance_](QDBusPendingCallWatcher* w) {
        w->deleteLater();
        // A "no" that did not arrive costs this window nothing: it no longer listens, and an
        // instance that has gone sends nothing more.
        if (!w->isError() || !on) return;
        if (w->error().type() == QDBusError::ServiceUnknown) {
            // The desk restarted since it last answered: reading it again asks the new one.
            if (meterInstance_ == instance) meterInstance_.clear();
            retry_.start();
            return;
        }
        lastError_ = w->error().message();
        emit lastErrorChanged();
    });
}

// The signal is sent to everyone on the bus while any client wants it; a window that does not
// want it drops its match so that the bus does not wake it twenty times a second.
void DeskConnection::listenToMeters(bool on) {
    if (on == listeningToMeters_) return;
    listeningToMeters_ = on;
    if (on)
        bus_.connect(DeskBus::serviceName, DeskBus::objectPath, DeskBus::interfaceName, "Meters", this,
                     SLOT(meters(QString)));
    else
        bus_.disconnect(DeskBus::serviceName, DeskBus::objectPath, DeskBus::interfaceName, "Meters", this,
                        SLOT(meters(QString)));
}

bool DeskConnection::call(const char* method, const QVariantList& arguments) {
    auto message =
        QDBusMessage::createMethodCall(DeskBus::serviceName, DeskBus::objectPath, DeskBus::interfaceName, method);
    message.setArguments(arguments);
    // Edits must not freeze the window: they go out without waiting; a refusal comes back later.
    QDBusPendingCall pending = bus_.asyncCall(message, callTimeoutMs);
    auto* watcher = new QDBusPendingCallWatcher(pending, this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* w) {
        if (w->isError()) {
            lastError_ = w->error().message();
            emit lastErrorChanged();
            if (w->error().type() == QDBusError::ServiceUnknown || w->error().type() == QDBusError::NoReply) {
                setReachable(false, w->error().message());
                retry_.start();
            }
        }
        w->deleteLater();
    });
    return true;
}

void DeskConnection::selectRoute(const QString& route) { call("SelectRoute", {route}); }
void DeskConnection::setBand(const QString& route, int band, double gainDb) { call("SetBand", {route, band, gainDb}); }
void DeskConnection::setGain(const QString& route, double gainDb) { call("SetGain", {route, gainDb}); }
void DeskConnection::setTrim(const QString& route, double trimDb) { call("SetTrim", {route, trimDb}); }
void DeskConnection::setMuted(const QString& route, bool muted) { call("SetMuted", {route, muted}); }
void DeskConnection::setMode(const QString& route, const QString& mode) { call("SetMode", {route, mode}); }
void DeskConnection::setDevice(const QString& route, const QString& uid) { call("SetDevice", {route, uid}); }
void DeskConnection::setGenre(const QString& route, const QString& genre) { call("SetGenre", {route, genre}); }
void DeskConnection::setAITune(const QString& route, const QString& scope) { call("SetAITune", {route, scope}); }
void DeskConnection::setProfile(const QString& route, const QString& id) { call("SetProfile", {route, id}); }
void DeskConnection::setEQBypassed(const QString& route, bool bypassed) { call("SetEQBypassed", {route, bypassed}); }
void DeskConnection::setCorrectionBypassed(const QString& route, bool bypassed) {
    call("SetCorrectionBypassed", {route, bypassed});
}
QVariantMap DeskConnection::aiTuneState(const QString& route) {
    auto message = QDBusMessage::createMethodCall(DeskBus::serviceName, DeskBus::objectPath, DeskBus::interfaceName,
                                                  "AITuneState");
    message << route;
    const QDBusMessage reply = bus_.call(message, QDBus::Block, callTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage) return {};
    return QJsonDocument::fromJson(reply.arguments().value(0).toString().toUtf8()).object().toVariantMap();
}

void DeskConnection::setBandAILocked(const QString& route, int band, bool locked) {
    call("SetBandAILocked", {route, band, locked});
}

void DeskConnection::addRoute(const QString& bundleID, const QString& name) {
    call("AddRoute", {bundleID, name, QString(), QStringLiteral("on")});
}
void DeskConnection::removeRoute(const QString& route) { call("RemoveRoute", {route}); }

} // namespace tarn::ui

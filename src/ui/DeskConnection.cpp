#include "ui/DeskConnection.hpp"

#include <algorithm>

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QFile>
#include <QFileInfo>
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
    meterPace_.setSingleShot(true);
    meterPace_.setInterval(1000 / meterRateHz_);
    connect(&meterPace_, &QTimer::timeout, this, &DeskConnection::showMeters);
}

void DeskConnection::setMeterRateHz(int hz) {
    hz = std::clamp(hz, 1, 20);
    if (hz == meterRateHz_) return;
    meterRateHz_ = hz;
    meterPace_.setInterval(1000 / hz);
    emit meterRateChanged();
}

void DeskConnection::setLastError(const QString& error) {
    if (error == lastError_) return;
    lastError_ = error;
    emit lastErrorChanged();
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
    if (name == "Routes") {
        routes_.setRoutes(parseArray(value.toString()));
        findRouteToShow();
    }
    else if (name == "Devices") {
        devices_ = parseArray(value.toString()).toVariantList();
        emit devicesChanged();
    } else if (name == "Processes") {
        processes_ = parseArray(value.toString()).toVariantList();
        emit processesChanged();
    } else if (name == "SelectedRoute") {
        selectedRoute_ = value.toString();
        emit selectionChanged();
    } else if (name == "Presets") {
        presets_ = parseArray(value.toString()).toVariantList();
        emit presetsChanged();
    } else if (name == "Layouts") {
        layouts_ = parseArray(value.toString()).toVariantList();
        emit layoutsChanged();
    } else if (name == "ActiveLayout") {
        activeLayout_ = value.toString();
        emit layoutsChanged();
    } else if (name == "Deck") {
        deck_ = QJsonDocument::fromJson(value.toString().toUtf8()).object().toVariantMap();
        emit deckChanged();
    } else if (name == "Connected") {
        setReachable(value.toBool(), value.toBool() ? QString() : QStringLiteral("the desk is waiting for the sound server"));
    }
}

void DeskConnection::propertiesChanged(const QString& interface, const QVariantMap& changed, const QStringList&) {
    if (interface != DeskBus::interfaceName) return;
    for (auto it = changed.begin(); it != changed.end(); ++it) apply(it.key(), it.value());
}

// The view is given the newest meters at once, then no more often than the meter rate; a burst
// in between leaves only its last update, so meters never lag behind the sound.
void DeskConnection::meters(const QString& json) {
    pendingMeters_ = json;
    if (!meterPace_.isActive()) showMeters();
}

void DeskConnection::showMeters() {
    if (pendingMeters_.isEmpty()) return;
    routes_.setMeters(parseArray(pendingMeters_));
    pendingMeters_.clear();
    meterPace_.start();
}

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
        setLastError(w->error().message());
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
        // The newest answer stands: a refusal shows until a later edit goes through.
        setLastError(w->isError() ? w->error().message() : QString());
        if (w->isError()) {
            if (w->error().type() == QDBusError::ServiceUnknown || w->error().type() == QDBusError::NoReply) {
                setReachable(false, w->error().message());
                retry_.start();
            }
        }
        w->deleteLater();
    });
    return true;
}

void DeskConnection::showRoute(const QString& route) {
    routeToShow_ = route;
    shownRoute_.clear();
    findRouteToShow();
    emit selectionChanged();
}

void DeskConnection::findRouteToShow() {
    if (routeToShow_.isEmpty() || isShowingRoute()) return;
    for (int row = 0; row < routes_.rowCount(); ++row) {
        const QModelIndex i = routes_.index(row);
        if (routeToShow_ == routes_.data(i, RouteListModel::IdRole).toString() ||
            routeToShow_.compare(routes_.data(i, RouteListModel::DisplayNameRole).toString(), Qt::CaseInsensitive) == 0 ||
            routeToShow_ == routes_.data(i, RouteListModel::BundleIDRole).toString()) {
            shownRoute_ = routes_.data(i, RouteListModel::IdRole).toString();
            emit selectionChanged();
            return;
        }
    }
}

void DeskConnection::selectRoute(const QString& route) {
    routeToShow_.clear();
    shownRoute_.clear();
    call("SelectRoute", {route});
    emit selectionChanged();
}
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
QVariantMap DeskConnection::query(const char* method, const QVariantList& arguments) {
    auto message =
        QDBusMessage::createMethodCall(DeskBus::serviceName, DeskBus::objectPath, DeskBus::interfaceName, method);
    message.setArguments(arguments);
    const QDBusMessage reply = bus_.call(message, QDBus::Block, callTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage) return {};
    return QJsonDocument::fromJson(reply.arguments().value(0).toString().toUtf8()).object().toVariantMap();
}

void DeskConnection::deckOpen(const QList<QUrl>& files, bool append) {
    QStringList paths;
    for (const QUrl& url : files) {
        if (!url.isLocalFile()) return setLastError(url.toString().left(200) + ": the deck plays local files only");
        paths << url.toLocalFile();
    }
    if (paths.isEmpty()) return;
    call("DeckOpen", {paths, append});
    if (!append) call("DeckPlay", {-1});
}
void DeskConnection::deckPlay(int index) { call("DeckPlay", {index}); }
void DeskConnection::deckPause() { call("DeckPause", {}); }
void DeskConnection::deckNext() { call("DeckNext", {}); }
void DeskConnection::deckPrevious() { call("DeckPrevious", {}); }
void DeskConnection::deckSeek(double seconds) { call("DeckSeek", {seconds}); }
void DeskConnection::deckMove(int from, int to) { call("DeckMove", {from, to}); }
QVariantMap DeskConnection::deckLyrics() { return query("DeckLyrics", {}); }

double DeskConnection::deckPosition() {
    auto message = QDBusMessage::createMethodCall(DeskBus::serviceName, DeskBus::objectPath,
                                                  "org.freedesktop.DBus.Properties", "Get");
    message << QString(DeskBus::interfaceName) << QStringLiteral("Deck");
    const QDBusMessage reply = bus_.call(message, QDBus::Block, callTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage) return 0;
    const QString json = qdbus_cast<QDBusVariant>(reply.arguments().value(0)).variant().toString();
    return QJsonDocument::fromJson(json.toUtf8()).object().value("positionSeconds").toDouble();
}

QVariantMap DeskConnection::aiTuneState(const QString& route) { return query("AITuneState", {route}); }

QVariantMap DeskConnection::responseCurve(const QString& route, int channel) {
    return query("ResponseCurve", {route, channel});
}

void DeskConnection::setBandAILocked(const QString& route, int band, bool locked) {
    call("SetBandAILocked", {route, band, locked});
}

void DeskConnection::addRoute(const QString& bundleID, const QString& name, const QString& mode) {
    call("AddRoute", {bundleID, name, QString(), mode});
}
void DeskConnection::removeRoute(const QString& route) { call("RemoveRoute", {route}); }
void DeskConnection::moveRoute(const QString& route, int index) { call("MoveRoute", {route, index}); }
void DeskConnection::setChannelDelta(const QString& route, int channel, int band, double deltaDb) {
    call("SetChannelDelta", {route, channel, band, deltaDb});
}
void DeskConnection::applyPreset(const QString& route, const QString& preset) { call("ApplyPreset", {route, preset}); }
void DeskConnection::savePreset(const QString& route, const QString& name) { call("SavePreset", {route, name}); }
void DeskConnection::deletePreset(const QString& preset) { call("DeletePreset", {preset}); }
void DeskConnection::saveLayout(const QString& name, const QString& uid) { call("SaveLayout", {name, uid}); }
void DeskConnection::applyLayout(const QString& layout) { call("ApplyLayout", {layout}); }
void DeskConnection::deleteLayout(const QString& layout) { call("DeleteLayout", {layout}); }

bool DeskConnection::importEQFile(const QString& route, const QUrl& url) {
    const QString path = url.isLocalFile() ? url.toLocalFile() : url.toString();
    QFile file(path);
    if (QFileInfo(path).isDir()) return setLastError(path + ": is a folder, not a file"), false;
    if (!file.open(QIODevice::ReadOnly)) return setLastError(path + ": " + file.errorString()), false;
    if (file.size() > maxEQFileBytes)
        return setLastError(QString("%1: %2 bytes is too large for a parametric EQ file").arg(path).arg(file.size())), false;
    const QByteArray bytes = file.read(maxEQFileBytes + 1);
    const QString text = QString::fromUtf8(bytes);
    if (text.contains(QChar::ReplacementCharacter))
        return setLastError(path + ": is not a text file (it is not UTF-8)"), false;
    call("ImportEQ", {route, QFileInfo(path).completeBaseName(), text});
    return true;
}

} // namespace tarn::ui

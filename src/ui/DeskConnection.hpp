#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QVariantList>
#include <QVariantMap>

#include "ui/RouteListModel.hpp"

namespace tarn::ui {

// The window's side of the desk service: reads what it publishes (routes, devices, processes,
// the selection), follows its PropertiesChanged and meters, and passes every edit on as one call.
// The window holds no route state of its own. The first call starts the desk through D-Bus
// activation; while it cannot be reached, `reachable` is false and `problem` says why.
class DeskConnection : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool reachable READ reachable NOTIFY reachableChanged)
    Q_PROPERTY(QString problem READ problem NOTIFY reachableChanged)
    Q_PROPERTY(QObject* routes READ routes CONSTANT)
    Q_PROPERTY(QVariantList devices READ devices NOTIFY devicesChanged)
    Q_PROPERTY(QVariantList processes READ processes NOTIFY processesChanged)
    Q_PROPERTY(QString selectedRoute READ selectedRoute NOTIFY selectionChanged)
    Q_PROPERTY(QString lastError READ lastError NOTIFY lastErrorChanged)

public:
    static constexpr int retryMs = 2000;

    explicit DeskConnection(QDBusConnection bus, QObject* parent = nullptr);

    // Reads everything and subscribes; retries every few seconds while the desk is unreachable.
    void start();

    bool reachable() const { return reachable_; }
    const QString& problem() const { return problem_; }
    RouteListModel* routes() { return &routes_; }
    const QVariantList& devices() const { return devices_; }
    const QVariantList& processes() const { return processes_; }
    const QString& selectedRoute() const { return selectedRoute_; }
    const QString& lastError() const { return lastError_; }

    Q_INVOKABLE void selectRoute(const QString& route);
    Q_INVOKABLE void setBand(const QString& route, int band, double gainDb);
    Q_INVOKABLE void setGain(const QString& route, double gainDb);
    Q_INVOKABLE void setTrim(const QString& route, double trimDb);
    Q_INVOKABLE void setMuted(const QString& route, bool muted);
    Q_INVOKABLE void setMode(const QString& route, const QString& mode);
    Q_INVOKABLE void setDevice(const QString& route, const QString& deviceUID);
    Q_INVOKABLE void setGenre(const QString& route, const QString& genre);
    Q_INVOKABLE void setAITune(const QString& route, const QString& scope);
    // A catalogue id, or "" for no correction.
    Q_INVOKABLE void setProfile(const QString& route, const QString& profileID);
    Q_INVOKABLE void setEQBypassed(const QString& route, bool bypassed);
    Q_INVOKABLE void setCorrectionBypassed(const QString& route, bool bypassed);
    // What AI Tune hears and proposes on a route (asked when the editor shows it).
    Q_INVOKABLE QVariantMap aiTuneState(const QString& route);
    Q_INVOKABLE void setBandAILocked(const QString& route, int band, bool locked);
    Q_INVOKABLE void addRoute(const QString& bundleID, const QString& displayName);
    Q_INVOKABLE void removeRoute(const QString& route);

    // Whether meters are wanted (the default). A window nobody can see does not want them: the
    // desk then stops sending them unless another client looks, and what others asked for is
    // not delivered here.
    void setMetersWanted(bool wanted);
    bool metersWanted() const { return metersWanted_; }

signals:
    void reachableChanged();
    void devicesChanged();
    void processesChanged();
    void selectionChanged();
    void lastErrorChanged();

private slots:
    void propertiesChanged(const QString& interface, const QVariantMap& changed, const QStringList& invalidated);
    void meters(const QString& json);

private:
    bool call(const char* method, const QVariantList& arguments);
    void watchMeters(bool on);
    void listenToMeters(bool on);
    void readAll();
    void apply(const QString& name, const QVariant& value);
    void setReachable(bool reachable, const QString& problem);

    QDBusConnection bus_;
    RouteListModel routes_;
    QVariantList devices_;
    QVariantList processes_;
    QString selectedRoute_;
    QString lastError_;
    bool reachable_ = false;
    QString problem_;
    QTimer retry_;
    bool metersWanted_ = true;
    bool listeningToMeters_ = false;
    // The desk instance (its unique bus name) that last answered, and the one asked for meters.
    // The desk counts every request of a client, so a second request to the same instance would
    // take two refusals to stop its meters; one that restarted has forgotten the first.
    QString deskInstance_;
    QString meterInstance_;
};

} // namespace tarn::ui

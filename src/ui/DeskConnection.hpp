#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QUrl>
#include <QVariantList>
#include <QVariantMap>

#include "core/io/AutoEqParser.hpp"
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
    Q_PROPERTY(QVariantList presets READ presets NOTIFY presetsChanged)
    Q_PROPERTY(QVariantList layouts READ layouts NOTIFY layoutsChanged)
    Q_PROPERTY(QString activeLayout READ activeLayout NOTIFY layoutsChanged)
    // The player deck: state, trackIndex, title, artist, album, artUrl, durationSeconds, repeat,
    // shuffle, queue [{path, name}]. The position moves without notice: ask deckPosition().
    Q_PROPERTY(QVariantMap deck READ deck NOTIFY deckChanged)
    // At most this many meter updates a second reach the view (the desk sends up to 20).
    Q_PROPERTY(int meterRateHz READ meterRateHz WRITE setMeterRateHz NOTIFY meterRateChanged)

public:
    static constexpr int retryMs = 2000;
    // An EQ file larger than this is not a parametric EQ; the desk's parser refuses it too.
    static constexpr qint64 maxEQFileBytes = qint64(AutoEqParser::maxTextBytes);

    explicit DeskConnection(QDBusConnection bus, QObject* parent = nullptr);

    // Reads everything and subscribes; retries every few seconds while the desk is unreachable.
    void start();

    bool reachable() const { return reachable_; }
    const QString& problem() const { return problem_; }
    RouteListModel* routes() { return &routes_; }
    const QVariantList& devices() const { return devices_; }
    const QVariantList& processes() const { return processes_; }
    const QString& selectedRoute() const { return isShowingRoute() ? shownRoute_ : selectedRoute_; }
    const QString& lastError() const { return lastError_; }
    const QVariantList& presets() const { return presets_; }
    const QVariantList& layouts() const { return layouts_; }
    const QString& activeLayout() const { return activeLayout_; }
    const QVariantMap& deck() const { return deck_; }
    int meterRateHz() const { return meterRateHz_; }
    void setMeterRateHz(int hz);

    // Selects a route in this window only (by id, application name or identity), leaving the
    // desk's own selection alone; a later selectRoute() takes over again.
    void showRoute(const QString& route);
    // True once the route asked for by showRoute() is on the desk.
    bool isShowingRoute() const { return !shownRoute_.isEmpty() && routes_.indexOf(shownRoute_) >= 0; }
    // Asks again at once (a person pressed "Start the desk"); D-Bus activation starts it.
    Q_INVOKABLE void reconnect() { readAll(); }
    Q_INVOKABLE void clearLastError() { setLastError({}); }
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
    // How the route's equalisers shape one channel: frequenciesHz, userDb, aiDb, correctionDb,
    // parametricDb and totalDb (lists of equal length); empty when the desk refuses or is away.
    Q_INVOKABLE QVariantMap responseCurve(const QString& route, int channel);
    // `mode`: "off", "auto" or "on".
    Q_INVOKABLE void addRoute(const QString& bundleID, const QString& displayName, const QString& mode);
    Q_INVOKABLE void removeRoute(const QString& route);
    Q_INVOKABLE void moveRoute(const QString& route, int index);
    Q_INVOKABLE void setChannelDelta(const QString& route, int channel, int band, double deltaDb);
    // A preset's id.
    Q_INVOKABLE void applyPreset(const QString& route, const QString& preset);
    Q_INVOKABLE void savePreset(const QString& route, const QString& name);
    Q_INVOKABLE void deletePreset(const QString& preset);
    // Reads a parametric EQ file (a local file URL from the file dialog) and imports it onto the
    // route as a preset named after the file. False, with `lastError` saying why, when the file
    // cannot be read.
    Q_INVOKABLE bool importEQFile(const QString& route, const QUrl& file);
    // A device UID, or "" for a layout bound to no device.
    Q_INVOKABLE void saveLayout(const QString& name, const QString& deviceUID);
    Q_INVOKABLE void applyLayout(const QString& layout);
    Q_INVOKABLE void deleteLayout(const QString& layout);
    // The deck. Dropped or chosen files arrive as local file URLs; `append` keeps the queue.
    Q_INVOKABLE void deckOpen(const QList<QUrl>& files, bool append);
    Q_INVOKABLE void deckPlay(int index);
    Q_INVOKABLE void deckPause();
    Q_INVOKABLE void deckNext();
    Q_INVOKABLE void deckPrevious();
    Q_INVOKABLE void deckSeek(double seconds);
    Q_INVOKABLE void deckMove(int from, int to);
    // Seconds into the playing track, read now (0 when the desk does not answer).
    Q_INVOKABLE double deckPosition();
    // The playing track's lyrics: synchronised, lines [{seconds, text}], current.
    Q_INVOKABLE QVariantMap deckLyrics();

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
    void presetsChanged();
    void layoutsChanged();
    void deckChanged();
    void meterRateChanged();

private slots:
    void propertiesChanged(const QString& interface, const QVariantMap& changed, const QStringList& invalidated);
    void meters(const QString& json);

private:
    bool call(const char* method, const QVariantList& arguments);
    // A method that answers with a JSON object, waited for (reads only).
    QVariantMap query(const char* method, const QVariantList& arguments);
    void watchMeters(bool on);
    void listenToMeters(bool on);
    void readAll();
    void apply(const QString& name, const QVariant& value);
    void setReachable(bool reachable, const QString& problem);
    void setLastError(const QString& error);
    void showMeters();
    void findRouteToShow();

    QDBusConnection bus_;
    RouteListModel routes_;
    QVariantList devices_;
    QVariantList processes_;
    QString selectedRoute_;
    QString routeToShow_;
    QString shownRoute_;
    QString lastError_;
    QVariantList presets_;
    QVariantList layouts_;
    QString activeLayout_;
    QVariantMap deck_;
    int meterRateHz_ = 20;
    // The newest meters not yet shown, and the pacing of what the view is given.
    QString pendingMeters_;
    QTimer meterPace_;
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

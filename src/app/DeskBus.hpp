#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

#include <QDBusConnection>
#include <QDBusContext>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>

#include "app/DeskService.hpp"

namespace tarn {

// The desk's control on the session bus: interface com.tarn.Desk1 at /com/tarn/Desk, owned by
// the daemon under com.tarn.Desk. Every store operation is a method; routes, processes, devices,
// presets and layouts are properties (JSON text) whose changes are announced with
// PropertiesChanged; meters come as one signal for every live route, at most 20 times a second
// and only while some client has asked for them.
//
// Everything a caller sends is checked before it reaches the store: an unknown route answers
// com.tarn.Desk1.Error.NoSuchRoute "That route doesn't exist anymore.", a bad value
// org.freedesktop.DBus.Error.InvalidArgs with a message naming the argument.
class DeskBus : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.tarn.Desk1")
    Q_PROPERTY(QString Routes READ routes)
    Q_PROPERTY(QString Processes READ processes)
    Q_PROPERTY(QString Devices READ devices)
    Q_PROPERTY(QString Presets READ presets)
    Q_PROPERTY(QString Layouts READ layouts)
    Q_PROPERTY(QString SelectedRoute READ selectedRoute)
    Q_PROPERTY(QString ActiveLayout READ activeLayout)
    Q_PROPERTY(bool Connected READ connected)
    // The player deck as JSON: state, track, position, duration, repeat, shuffle and the queue.
    Q_PROPERTY(QString Deck READ deck)

public:
    static constexpr const char* serviceName = "com.tarn.Desk";
    static constexpr const char* objectPath = "/com/tarn/Desk";
    static constexpr const char* interfaceName = "com.tarn.Desk1";
    static constexpr const char* noSuchRouteError = "com.tarn.Desk1.Error.NoSuchRoute";
    static constexpr const char* failedError = "com.tarn.Desk1.Error.Failed";
    static constexpr int meterIntervalMs = 50; // 20 a second at most
    static constexpr int maxTextLength = 4096;

    enum class Transport { play, pause, next, previous };
    // Play, pause and skip reach the routed application's own player, when it has one.
    std::function<bool(const std::string& bundleID, Transport)> forwardTransport;

    DeskBus(DeskService& service, QDBusConnection bus, QObject* parent = nullptr);
    // Exports the object (the bus name is the daemon's business).
    bool registerObject();

    QString routes() const;
    QString processes() const;
    QString devices() const;
    QString presets() const;
    QString layouts() const;
    QString selectedRoute() const;
    QString activeLayout() const;
    bool connected() const { return service_.isConnected(); }
    QString deck() const;

public slots:
    QString AddRoute(const QString& bundleID, const QString& displayName, const QString& deviceUID,
                     const QString& mode);
    void RemoveRoute(const QString& route);
    void MoveRoute(const QString& route, int index);
    void SelectRoute(const QString& route);
    void StartRoute(const QString& route);
    void StopRoute(const QString& route);
    void SetMode(const QString& route, const QString& mode);
    void SetGain(const QString& route, double gainDb);
    void SetTrim(const QString& route, double trimDb);
    void SetMuted(const QString& route, bool muted);
    void SetBand(const QString& route, int band, double gainDb);
    void SetChannelDelta(const QString& route, int channel, int band, double deltaDb);
    void SetEQBypassed(const QString& route, bool bypassed);
    void SetCorrectionBypassed(const QString& route, bool bypassed);
    void SetGenre(const QString& route, const QString& genre);
    // A catalogue id, or "" for none.
    void SetProfile(const QString& route, const QString& catalogueID);
    // A headphone profile record as JSON (a file the caller read).
    void SetProfileJSON(const QString& route, const QString& profileJSON);
    // Parametric EQ text ("Preamp: …", "Filter N: ON PK Fc …"): saved as a preset named `name`
    // and applied to the route. Returns the preset's id.
    QString ImportEQ(const QString& route, const QString& name, const QString& text);
    // A preset's id or name.
    void ApplyPreset(const QString& route, const QString& preset);
    QString SavePreset(const QString& route, const QString& name);
    void DeletePreset(const QString& preset);
    // A device UID, or "" for the default output.
    void SetDevice(const QString& route, const QString& deviceUID);
    // "song", "taste" or "off".
    void SetAITune(const QString& route, const QString& scope);
    void SetBandAILocked(const QString& route, int band, bool locked);
    // "I=+DB,I=-DB,…": band index and requested change. Returns the answer for the user.
    QString Shape(const QString& route, const QString& description);
    QString Louder(const QString& route);
    QString Quieter(const QString& route);
    void Play(const QString& route);
    void Pause(const QString& route);
    void Next(const QString& route);
    void Previous(const QString& route);
    // What AI Tune hears and proposes on a route, as JSON: prominenceDb, isConfident,
    // analyzedSeconds, tweaksDb, lockedBands, reasons (ten lists).
    QString AITuneState(const QString& route);
    // How the route's equalisers shape one channel (0 = first), as JSON over the audible range
    // (log-spaced): frequenciesHz, userDb, aiDb, correctionDb, parametricDb, totalDb, arrays of
    // equal length.
    QString ResponseCurve(const QString& route, int channel);
    QString SaveLayout(const QString& name, const QString& deviceUID);
    // A layout's id or name.
    void ApplyLayout(const QString& layout);
    void DeleteLayout(const QString& layout);
    // The player deck. Paths must be absolute (the desk does not share the caller's folder).
    // Returns how many files were queued.
    int DeckOpen(const QStringList& paths, bool append);
    // A queue index, or -1 to resume or start the queue.
    void DeckPlay(int index);
    void DeckPause();
    void DeckStop();
    void DeckNext();
    void DeckPrevious();
    void DeckSeek(double seconds);
    void DeckMove(int from, int to);
    // "off", "all" or "one".
    void DeckSetRepeat(const QString& repeat);
    void DeckSetShuffle(bool on);
    // The playing track's lyrics as JSON: synchronised, lines [{seconds, text}], current (the
    // line being sung, or null).
    QString DeckLyrics();
    // Meters are sent while at least one client wants them; a client that leaves the bus stops
    // wanting them.
    void WatchMeters(bool on);

signals:
    void Meters(const QString& json);

private:
    RouteStore* storeOrFail();
    std::optional<UUID> routeOrFail(const QString& route);
    bool invalid(const QString& message);
    bool fail(const QString& message);
    bool checkRange(const char* name, double value, double low, double high, const char* unit);
    bool checkBand(int band);
    bool checkText(const char* name, const QString& text);
    void transport(const QString& route, Transport what);
    void deckTransport(Transport what);
    // Runs a deck operation, turning what the store throws into the caller's error.
    template <typename Operation>
    void onDeck(Operation&& operation);
    void announce(RouteStore::Change change);
    void announceAll();
    void flushAnnouncements();
    void sendMeters();
    void watcherGone(const QString& name);

    DeskService& service_;
    QDBusConnection bus_;
    QTimer meterTimer_;
    QTimer announceTimer_;
    QSet<QString> pending_; // properties whose change is still to be announced
    std::map<QString, int> meterWatchers_; // unique bus name → how many times it asked
};

} // namespace tarn

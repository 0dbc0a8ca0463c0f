#pragma once

#include <optional>

#include <QDBusConnection>
#include <QMutex>
#include <QObject>
#include <QThread>
#include <QString>
#include <QVariantList>
#include <vector>

namespace tarn::test {

// The desk service as the window sees it on the bus, with no store behind it: it publishes what
// the test gives it and keeps every call made to it. Its methods carry the desk's own names and
// signatures (a test checks them against the real interface), so what the window sends here is
// what the desk would receive. It answers from a thread of its own, so the window's blocking
// calls from the test's main thread are served.
class FakeDesk : public QObject {
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
    Q_PROPERTY(QString Deck READ deck)

public:
    struct Call {
        QString method;
        QVariantList arguments;
    };

    explicit FakeDesk(QDBusConnection bus);
    ~FakeDesk() override;
    // Owns the desk's name and object path; false when the bus refuses either.
    bool publish();

    // Sets a property and announces it the way the desk does (PropertiesChanged).
    void set(const char* property, const QString& json);
    void sendMeters(const QString& json);

    QString routes() const { return locked(routes_); }
    QString processes() const { return locked(processes_); }
    QString devices() const { return locked(devices_); }
    QString presets() const { return locked(presets_); }
    QString layouts() const { return locked(layouts_); }
    QString selectedRoute() const { return locked(selectedRoute_); }
    QString activeLayout() const { return QString(); }
    QString deck() const { return locked(deck_); }
    bool connected() const { return true; }

    std::vector<Call> calls() const;
    // The newest call of a method, or none.
    std::optional<Call> last(const QString& method) const;
    int count(const QString& method) const;
    void clearCalls();

public slots:
    QString AddRoute(const QString& bundleID, const QString& displayName, const QString& deviceUID, const QString& mode);
    void RemoveRoute(const QString& route);
    void MoveRoute(const QString& route, int index);
    void SelectRoute(const QString& route);
    void SetMode(const QString& route, const QString& mode);
    void SetGain(const QString& route, double gainDb);
    void SetTrim(const QString& route, double trimDb);
    void SetMuted(const QString& route, bool muted);
    void SetBand(const QString& route, int band, double gainDb);
    void SetChannelDelta(const QString& route, int channel, int band, double deltaDb);
    void SetEQBypassed(const QString& route, bool bypassed);
    void SetCorrectionBypassed(const QString& route, bool bypassed);
    void SetGenre(const QString& route, const QString& genre);
    void SetProfile(const QString& route, const QString& catalogueID);
    QString ImportEQ(const QString& route, const QString& name, const QString& text);
    void ApplyPreset(const QString& route, const QString& preset);
    QString SavePreset(const QString& route, const QString& name);
    void DeletePreset(const QString& preset);
    void SetDevice(const QString& route, const QString& deviceUID);
    void SetAITune(const QString& route, const QString& scope);
    void SetBandAILocked(const QString& route, int band, bool locked);
    QString AITuneState(const QString& route);
    // A flat curve but for +6 dB at 1 kHz in the user's trace.
    QString ResponseCurve(const QString& route, int channel);
    QString SaveLayout(const QString& name, const QString& deviceUID);
    void ApplyLayout(const QString& layout);
    void DeleteLayout(const QString& layout);
    void WatchMeters(bool on);
    int DeckOpen(const QStringList& paths, bool append);
    void DeckPlay(int index);
    void DeckPause();
    void DeckNext();
    void DeckPrevious();
    void DeckSeek(double seconds);
    void DeckMove(int from, int to);
    QString DeckLyrics();

signals:
    void Meters(const QString& json);

private:
    QString locked(const QString& value) const {
        QMutexLocker lock(&mutex_);
        return value;
    }
    void record(const char* method, QVariantList arguments);
    bool publishHere();

    QDBusConnection bus_;
    QString routes_ = "[]", processes_ = "[]", devices_ = "[]", presets_ = "[]", layouts_ = "[]";
    QString selectedRoute_;
    QString deck_ = R"({"state":"stopped","queue":[]})";
    mutable QMutex mutex_; // the calls and the published values, shared with the test's thread
    std::vector<Call> calls_;
    QThread thread_;
};

} // namespace tarn::test

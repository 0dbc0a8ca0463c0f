#pragma once

#include <QDBusConnection>
#include <QDBusVirtualObject>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>

namespace tarn::test {

// A music player as the session bus sees it, driven by the test: it answers for its MPRIS
// properties with whatever values it was given, wrong types included, follows Play, Pause,
// PlayPause and Stop in its PlaybackStatus, and tells of every change through PropertiesChanged
// the way a real player does. It makes no sound of its own.
//
// Lives on the thread that made it; that thread must run its event loop for calls to be answered.
class MprisTestPlayer : public QDBusVirtualObject {
public:
    static inline const QString rootInterface = QStringLiteral("org.mpris.MediaPlayer2");
    static inline const QString playerInterface = QStringLiteral("org.mpris.MediaPlayer2.Player");
    static inline const QString objectPath = QStringLiteral("/org/mpris/MediaPlayer2");

    MprisTestPlayer(QDBusConnection bus, QString busName);
    ~MprisTestPlayer() override; // leaves the bus

    // Registers the player object and takes the bus name; false when either fails.
    bool publish();
    void unpublish();
    const QString& busName() const { return busName_; }

    // Sets one property; `announce` also sends PropertiesChanged with the new value.
    void set(const QString& interfaceName, const QString& property, const QVariant& value, bool announce = true);
    // Sends PropertiesChanged that names the property as changed without giving its value.
    void invalidate(const QString& interfaceName, const QString& property);
    // Sends PropertiesChanged with exactly these arguments, however wrong.
    void sendPropertiesChanged(const QVariantList& arguments);

    // The transport methods called on it, in order ("Play", "Next", ...).
    const QStringList& calls() const { return calls_; }
    // Makes every transport method fail, as a player that cannot be controlled.
    void setRefusing(bool isRefusing) { isRefusing_ = isRefusing; }

    // Metadata as players send it: mpris:length in microseconds, artists and genres as lists.
    static QVariantMap track(const QString& title, const QStringList& artists, const QString& album,
                             const QStringList& genres, qlonglong lengthMicroseconds, const QString& trackID);

    QString introspect(const QString& path) const override;
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;

private:
    bool handleTransport(const QString& method);

    QDBusConnection bus_;
    QString busName_;
    QMap<QString, QVariantMap> properties_; // by interface
    QStringList calls_;
    bool isRefusing_ = false;
    bool isPublished_ = false;
};

} // namespace tarn::test

#pragma once

#include <memory>

#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusObjectPath>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include "app/DeskService.hpp"

namespace tarn {

// The player deck as a media player of the session (org.mpris.MediaPlayer2.tarn at
// /org/mpris/MediaPlayer2), so that media keys, the desktop's sound menu and lock-screen widgets
// show and control it like any other player. The two interfaces are adaptors on this object;
// their changes are announced with PropertiesChanged (playback status, track, loop, shuffle and
// what can be done), the position is read live and Seeked follows a seek made here.
//
// Everything a caller sends is checked: a URI that is not a local file or folder, a seek beyond
// a day either way or a negative position answers org.freedesktop.DBus.Error.InvalidArgs with a
// message saying why; an operation the deck cannot do now (nothing queued, the desk not connected
// to the sound server) answers org.freedesktop.DBus.Error.Failed. A property write is answered by
// Qt itself, so an unknown LoopStatus cannot be refused: it is logged, changes nothing, and the
// real value is announced again.
//
// Volume is read-only (always 1.0): the deck's level is its route's gain, set in the desk, and a
// widget's slider must not move it behind the user's back. Rate is 1.0 and read-only too.
// Raise only emits `raiseRequested` (CanRaise is false: the daemon has no window); Quit is
// refused (CanQuit is false: the deck lives as long as the desk service).
class DeckMprisPlayer : public QObject, protected QDBusContext {
    Q_OBJECT

public:
    static constexpr const char* serviceName = "org.mpris.MediaPlayer2.tarn";
    static constexpr const char* objectPath = "/org/mpris/MediaPlayer2";
    static constexpr const char* rootInterface = "org.mpris.MediaPlayer2";
    static constexpr const char* playerInterface = "org.mpris.MediaPlayer2.Player";
    // Tracks are named by their place in the queue.
    static constexpr const char* trackPathPrefix = "/org/tarn/deck/track/";
    static constexpr const char* noTrackPath = "/org/mpris/MediaPlayer2/TrackList/NoTrack";
    // A seek or position further than this is a caller's mistake, not a place in a track.
    static constexpr qlonglong maxOffsetMicroseconds = 24LL * 3600 * 1'000'000;
    static constexpr int maxUriLength = 4096;

    // True for the deck's own bus name (and the instance names a second desk would take): the
    // observer of the session's players must not take the deck for an application.
    static bool isOwnBusName(const QString& name);

    DeckMprisPlayer(DeskService& service, QDBusConnection bus, QObject* parent = nullptr);
    ~DeckMprisPlayer() override;
    DeckMprisPlayer(const DeckMprisPlayer&) = delete;
    DeckMprisPlayer& operator=(const DeckMprisPlayer&) = delete;

    // Exports the object and takes the bus name; false when either is refused (the bus's
    // lastError says why). Gives the name back when destroyed.
    bool publish();

    // What the adaptors show.
    QString playbackStatus() const;
    QString loopStatus() const;
    bool shuffle() const;
    QVariantMap metadata() const;
    qlonglong position() const;
    bool canGoNext() const;
    bool canGoPrevious() const;
    bool canPlay() const;
    bool canPause() const;
    bool canSeek() const;

    // What the adaptors do; errors go back to the caller of the current D-Bus call.
    void play();
    void pause();
    void playPause();
    void stop();
    void next();
    void previous();
    void seek(qlonglong offsetMicroseconds);
    void setPosition(const QDBusObjectPath& trackID, qlonglong positionMicroseconds);
    void openUri(const QString& uri);
    void setLoopStatus(const QString& status);
    void setShuffle(bool on);
    void quit();
    void raise();

signals:
    // Someone asked to see the player (a window showing the deck could come forward).
    void raiseRequested();
    // Also sent on the bus as the player interface's Seeked.
    void seeked(qlonglong positionMicroseconds);

private:
    RouteStore* storeOrFail();
    void invalid(const QString& message);
    void fail(const QString& message);
    void reply(const char* errorName, const QString& message);
    // Announces what changed since the last announcement.
    void announce();
    // One property's value, changed or not.
    void announceNow(const QString& name, const QVariant& value);
    QVariantMap announcedProperties() const;

    DeskService& service_;
    QDBusConnection bus_;
    bool ownsName_ = false;
    QVariantMap announced_;
    // Cleared when this goes: the service's listeners outlive it.
    std::shared_ptr<DeckMprisPlayer*> self_;
};

} // namespace tarn

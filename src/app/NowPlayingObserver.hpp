#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include "app/ProcessTree.hpp"
#include "app/RouteAITune.hpp"

class QDBusMessage;

namespace tarn {

// What the music players of the session say they play, read from their MPRIS names
// (org.mpris.MediaPlayer2.*): their playback status and track, and the pid of the connection
// that owns each name, so the desk can tell which running application a player belongs to. A
// player that says "paused" while its stream keeps running is what auto mode treats as silent.
//
// Everything a player sends is checked: a value of the wrong type, a missing title or an absurd
// length is left out rather than guessed at. Every call to a player or to the bus is
// asynchronous, so a player that hangs never stalls the thread the observer runs on.
//
// Lives on the thread of its QObject (the daemon's main thread); callbacks run there and may call
// anything here, but must not destroy the observer (deleteLater does).
class NowPlayingObserver : public QObject {
    Q_OBJECT

public:
    struct Player {
        std::string busName;       // "org.mpris.MediaPlayer2.vlc"
        std::int32_t pid = 0;      // of the connection that owns the name; 0 when unknown
        std::string identity;      // the player's Identity, when it gives one
        std::string desktopEntry;  // its DesktopEntry, when it gives one
        bool isPlaying = false;    // PlaybackStatus "Playing"
        bool isPaused = false;     // "Paused" (a stopped player is neither)
        std::optional<RouteAITune::NowPlaying> track; // none without a title
        std::string trackID;       // mpris:trackid, when it gives one: tells a replay of the same song
        bool operator==(const Player&) const = default;
    };

    // A player is announced once it answered (or failed to answer) what the observer asks a
    // new player, so that onChange never reports a half-known player.
    std::function<void(const Player&)> onChange;                            // appeared, or its state or track changed
    std::function<void(const std::string& busName, std::int32_t pid)> onGone; // an announced player left the bus

    explicit NowPlayingObserver(QDBusConnection bus, QObject* parent = nullptr);
    ~NowPlayingObserver() override;
    NowPlayingObserver(const NowPlayingObserver&) = delete;
    NowPlayingObserver& operator=(const NowPlayingObserver&) = delete;

    // Begins watching: the players already on the bus and every one that comes or goes later.
    // False when the bus is not connected or refuses the subscriptions. Calling it again does nothing.
    bool start();

    // The announced players, in the order they were seen.
    const std::vector<Player>& players() const { return players_; }
    const Player* player(const std::string& busName) const;
    // The player of the application that `pid` belongs to: the player that process owns, else one
    // owned by a parent of it (a browser's main process while a helper plays), else one of the same
    // application (same root in `tree`), else one owned by a child of it. Among equals a playing
    // player comes first, then a paused one. Null when none is related.
    const Player* playerFor(std::int32_t pid, const ProcessTree& tree = ProcessTree::system()) const;

    // Transport, forwarded to the player without waiting for its answer. False when no such player
    // is known (and `done` is not called); otherwise `done`, when given, later learns whether the
    // player accepted (false when it refused, left or did not answer in time). `done` is not
    // called once the observer is destroyed.
    using Completion = std::function<void(bool accepted)>;
    bool play(const std::string& busName, Completion done = {});
    bool pause(const std::string& busName, Completion done = {});
    bool playPause(const std::string& busName, Completion done = {});
    bool stop(const std::string& busName, Completion done = {});
    bool next(const std::string& busName, Completion done = {});
    bool previous(const std::string& busName, Completion done = {});

private Q_SLOTS:
    void handleNameOwnerChanged(const QString& name, const QString& oldOwner, const QString& newOwner);
    void handlePropertiesChanged(const QString& interfaceName, const QVariantMap& changed,
                                 const QStringList& invalidated, const QDBusMessage& message);

private:
    struct Entry;
    Entry* find(const std::string& busName, const QString& owner);
    void nameAppeared(const QString& name, const QString& owner);
    void nameVanished(const QString& name);
    void queryOwner(const QString& name);
    void queryPlayer(const QString& name, const QString& owner);
    void queryProperties(const QString& name, const QString& owner, const QString& interfaceName, bool isFirstQuery);
    void queryPid(const QString& name, const QString& owner);
    void answered(Entry& entry);
    // Publishes the entry's new state; reports it when it is announced and something changed.
    void settle(Entry& entry, const Player& before);
    void republish();
    bool transport(const std::string& busName, const char* method, Completion done);

    QDBusConnection bus_;
    bool isStarted_ = false;
    std::vector<Entry> entries_;
    std::vector<Player> players_;
};

} // namespace tarn

#include "app/NowPlayingObserver.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QMetaType>

#include <spdlog/spdlog.h>

#include "app/DeckMprisPlayer.hpp"

namespace tarn {

namespace {

const QString mprisPrefix = QStringLiteral("org.mpris.MediaPlayer2.");
const QString mprisPath = QStringLiteral("/org/mpris/MediaPlayer2");
const QString rootInterface = QStringLiteral("org.mpris.MediaPlayer2");
const QString playerInterface = QStringLiteral("org.mpris.MediaPlayer2.Player");
const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
const QString busService = QStringLiteral("org.freedesktop.DBus");
const QString busPath = QStringLiteral("/org/freedesktop/DBus");

// The calls never block; this only bounds how long a player that hangs stays unannounced, or a
// transport request stays unanswered.
constexpr int replyTimeoutMs = 3000;
// A whole title tag fits easily; anything longer is not a title but a player writing garbage.
constexpr qsizetype maxTextLength = 1024;
constexpr double microsecondsPerSecond = 1e6;
// Longer than the longest audiobook: a length beyond it is a player's placeholder, not a track's.
constexpr double maxTrackSeconds = 7 * 24 * 3600.0;

// What the observer asks a new player before announcing it: its two interfaces' properties and
// the pid of its connection.
constexpr int firstQueryCount = 3;

// The desk's own player deck is one of its routes, not an application to route.
bool isMprisName(const QString& name) {
    return name.startsWith(mprisPrefix) && name.size() > mprisPrefix.size() && !DeckMprisPlayer::isOwnBusName(name);
}

template <typename Handler>
void whenAnswered(QObject* context, const QDBusPendingCall& call, Handler handler) {
    // Parented to the context: once it is destroyed, the answer is never delivered.
    auto* watcher = new QDBusPendingCallWatcher(call, context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context,
                     [watcher, handler = std::move(handler)]() mutable {
                         watcher->deleteLater();
                         handler(*watcher);
                     });
}

// A dictionary arrives as a QVariantMap when Qt knew the type to expect and as a still-marshalled
// argument when it sat in a variant; anything else is not a dictionary.
std::optional<QVariantMap> asDictionary(const QVariant& value) {
    if (value.metaType() == QMetaType::fromType<QVariantMap>()) return value.toMap();
    if (value.metaType() != QMetaType::fromType<QDBusArgument>()) return std::nullopt;
    const auto argument = value.value<QDBusArgument>();
    if (argument.currentSignature() != QLatin1String("a{sv}")) return std::nullopt;
    QVariantMap map;
    argument >> map;
    return map;
}

std::optional<std::string> text(const QVariant& value) {
    if (value.metaType() != QMetaType::fromType<QString>()) return std::nullopt;
    const auto trimmed = value.toString().trimmed();
    if (trimmed.isEmpty() || trimmed.size() > maxTextLength) return std::nullopt;
    return trimmed.toStdString();
}

// xesam:artist and xesam:genre are lists; a player that sends one plain string means the same.
std::optional<std::string> firstText(const QVariant& value) {
    if (value.metaType() == QMetaType::fromType<QString>()) return text(value);
    if (value.metaType() != QMetaType::fromType<QStringList>()) return std::nullopt;
    for (const auto& item : value.toStringList())
        if (auto found = text(item)) return found;
    return std::nullopt;
}

// mpris:length is a 64-bit count of microseconds; players also send other integer widths or a
// double, which mean the same when they hold a sane value.
std::optional<double> lengthSeconds(const QVariant& value) {
    double microseconds = 0.0;
    switch (value.metaType().id()) {
    case QMetaType::LongLong: microseconds = double(value.toLongLong()); break;
    case QMetaType::ULongLong: microseconds = double(value.toULongLong()); break;
    case QMetaType::Int: microseconds = double(value.toInt()); break;
    case QMetaType::UInt: microseconds = double(value.toUInt()); break;
    case QMetaType::Double: microseconds = value.toDouble(); break;
    default: return std::nullopt;
    }
    if (!std::isfinite(microseconds) || microseconds <= 0.0) return std::nullopt;
    const double seconds = microseconds / microsecondsPerSecond;
    if (seconds > maxTrackSeconds) return std::nullopt;
    return seconds;
}

std::string trackID(const QVariant& value) {
    if (value.metaType() == QMetaType::fromType<QDBusObjectPath>()) return value.value<QDBusObjectPath>().path().toStdString();
    return text(value).value_or("");
}

void readMetadata(NowPlayingObserver::Player& player, const QVariant& value, const QString& busName) {
    player.track.reset();
    player.trackID.clear();
    const auto metadata = asDictionary(value);
    if (!metadata) {
        spdlog::debug("the player {} sent Metadata that is not a dictionary", busName.toStdString());
        return;
    }
    player.trackID = trackID(metadata->value(QStringLiteral("mpris:trackid")));
    const auto title = text(metadata->value(QStringLiteral("xesam:title")));
    if (!title) return;
    RouteAITune::NowPlaying track;
    track.title = *title;
    track.artist = firstText(metadata->value(QStringLiteral("xesam:artist"))).value_or("");
    track.genre = firstText(metadata->value(QStringLiteral("xesam:genre"))).value_or("");
    track.album = text(metadata->value(QStringLiteral("xesam:album"))).value_or("");
    track.durationSeconds = lengthSeconds(metadata->value(QStringLiteral("mpris:length")));
    player.track = std::move(track);
}

// `isComplete`: the map holds every property of the interface (GetAll), so a missing or broken
// one means "none"; in a change, a broken value is ignored and the last good one stays.
void readPlayerProperties(NowPlayingObserver::Player& player, const QVariantMap& properties, bool isComplete,
                          const QString& busName) {
    if (auto it = properties.find(QStringLiteral("PlaybackStatus")); it != properties.end()) {
        const auto status = it->metaType() == QMetaType::fromType<QString>() ? it->toString() : QString();
        if (status == QLatin1String("Playing") || status == QLatin1String("Paused") ||
            status == QLatin1String("Stopped")) {
            player.isPlaying = status == QLatin1String("Playing");
            player.isPaused = status == QLatin1String("Paused");
        } else {
            spdlog::debug("the player {} sent a PlaybackStatus that is none of Playing, Paused, Stopped",
                          busName.toStdString());
            if (isComplete) player.isPlaying = player.isPaused = false;
        }
    } else if (isComplete) {
        player.isPlaying = player.isPaused = false;
    }
    if (auto it = properties.find(QStringLiteral("Metadata")); it != properties.end()) readMetadata(player, *it, busName);
    else if (isComplete) {
        player.track.reset();
        player.trackID.clear();
    }
}

void readRootProperties(NowPlayingObserver::Player& player, const QVariantMap& properties, bool isComplete) {
    if (auto it = properties.find(QStringLiteral("Identity")); it != properties.end())
        player.identity = text(*it).value_or("");
    else if (isComplete) player.identity.clear();
    if (auto it = properties.find(QStringLiteral("DesktopEntry")); it != properties.end())
        player.desktopEntry = text(*it).value_or("");
    else if (isComplete) player.desktopEntry.clear();
}

} // namespace

struct NowPlayingObserver::Entry {
    Player player;
    // The unique name of the connection that owns the bus name: players' signals come from it,
    // and an answer from an earlier owner is recognised by it. Empty until known.
    QString owner;
    int awaitedReplies = 0;
    bool isAnnounced = false;
};

NowPlayingObserver::NowPlayingObserver(QDBusConnection bus, QObject* parent) : QObject(parent), bus_(std::move(bus)) {}

// The bus drops the subscriptions of a destroyed receiver by itself; pending answers die with
// their watchers, which are children of this object.
NowPlayingObserver::~NowPlayingObserver() = default;

bool NowPlayingObserver::start() {
    if (isStarted_) return true;
    if (!bus_.isConnected()) {
        spdlog::warn("now playing is unavailable: the session bus is not connected");
        return false;
    }
    const char* ownerSlot = SLOT(handleNameOwnerChanged(QString, QString, QString));
    const char* propertiesSlot = SLOT(handlePropertiesChanged(QString, QVariantMap, QStringList, QDBusMessage));
    // Subscribed before listing, so that no player can come or go unseen in between.
    const bool watchesNames = bus_.connect(busService, busPath, busService, QStringLiteral("NameOwnerChanged"), this, ownerSlot);
    const bool watchesPlayers = bus_.connect(QString(), mprisPath, propertiesInterface, QStringLiteral("PropertiesChanged"),
                                             this, propertiesSlot);
    if (!watchesNames || !watchesPlayers) {
        bus_.disconnect(busService, busPath, busService, QStringLiteral("NameOwnerChanged"), this, ownerSlot);
        bus_.disconnect(QString(), mprisPath, propertiesInterface, QStringLiteral("PropertiesChanged"), this, propertiesSlot);
        spdlog::warn("now playing is unavailable: the session bus refused the subscriptions");
        return false;
    }
    isStarted_ = true;
    auto list = QDBusMessage::createMethodCall(busService, busPath, busService, QStringLiteral("ListNames"));
    whenAnswered(this, bus_.asyncCall(list, replyTimeoutMs), [this](const QDBusPendingCall& call) {
        QDBusPendingReply<QStringList> reply = call;
        if (reply.isError()) {
            spdlog::warn("the players already running are not known: {}", reply.error().message().toStdString());
            return;
        }
        for (const auto& name : reply.value()) {
            if (!isMprisName(name) || std::any_of(entries_.begin(), entries_.end(), [&](const Entry& e) {
                    return e.player.busName == name.toStdString();
                }))
                continue;
            Entry entry;
            entry.player.busName = name.toStdString();
            entries_.push_back(std::move(entry));
            queryOwner(name);
        }
    });
    return true;
}

NowPlayingObserver::Entry* NowPlayingObserver::find(const std::string& busName, const QString& owner) {
    auto it = std::find_if(entries_.begin(), entries_.end(),
                           [&](const Entry& e) { return e.player.busName == busName && e.owner == owner; });
    return it == entries_.end() ? nullptr : &*it;
}

const NowPlayingObserver::Player* NowPlayingObserver::player(const std::string& busName) const {
    auto it = std::find_if(players_.begin(), players_.end(), [&](const Player& p) { return p.busName == busName; });
    return it == players_.end() ? nullptr : &*it;
}

void NowPlayingObserver::queryOwner(const QString& name) {
    auto call = QDBusMessage::createMethodCall(busService, busPath, busService, QStringLiteral("GetNameOwner"));
    call << name;
    whenAnswered(this, bus_.asyncCall(call, replyTimeoutMs), [this, name](const QDBusPendingCall& pending) {
        // Only an entry still waiting for its owner takes the answer: the owner signals of the bus
        // are newer than this reply whenever they disagree.
        Entry* entry = find(name.toStdString(), QString());
        if (!entry) return;
        QDBusPendingReply<QString> reply = pending;
        if (reply.isError() || reply.value().isEmpty()) {
            entries_.erase(entries_.begin() + (entry - entries_.data()));
            return;
        }
        nameAppeared(name, reply.value());
    });
}

void NowPlayingObserver::handleNameOwnerChanged(const QString& name, const QString& oldOwner, const QString& newOwner) {
    if (!isStarted_ || !isMprisName(name)) return;
    if (!oldOwner.isEmpty()) nameVanished(name);
    if (!newOwner.isEmpty()) nameAppeared(name, newOwner);
}

void NowPlayingObserver::nameAppeared(const QString& name, const QString& owner) {
    const auto busName = name.toStdString();
    auto it = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.player.busName == busName; });
    if (it != entries_.end() && it->owner == owner) return;
    if (it != entries_.end() && !it->owner.isEmpty()) {
        // Another connection took the name over: to the desk that is another player.
        nameVanished(name);
        it = entries_.end();
    }
    if (it == entries_.end()) {
        Entry entry;
        entry.player.busName = busName;
        entries_.push_back(std::move(entry));
        it = entries_.end() - 1;
    }
    it->owner = owner;
    queryPlayer(name, owner);
}

void NowPlayingObserver::nameVanished(const QString& name) {
    const auto busName = name.toStdString();
    auto it = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.player.busName == busName; });
    if (it == entries_.end()) return;
    const bool wasAnnounced = it->isAnnounced;
    const auto pid = it->player.pid;
    entries_.erase(it);
    if (!wasAnnounced) return;
    republish();
    if (onGone) onGone(busName, pid);
}

void NowPlayingObserver::queryPlayer(const QString& name, const QString& owner) {
    Entry* entry = find(name.toStdString(), owner);
    entry->awaitedReplies = firstQueryCount;
    queryProperties(name, owner, rootInterface, true);
    queryProperties(name, owner, playerInterface, true);
    queryPid(name, owner);
}

void NowPlayingObserver::queryProperties(const QString& name, const QString& owner, const QString& interfaceName,
                                         bool isFirstQuery) {
    // Asked of the owner itself, not the name: the answer is then surely that connection's.
    auto call = QDBusMessage::createMethodCall(owner, mprisPath, propertiesInterface, QStringLiteral("GetAll"));
    call << interfaceName;
    whenAnswered(this, bus_.asyncCall(call, replyTimeoutMs), [=, this](const QDBusPendingCall& pending) {
        Entry* entry = find(name.toStdString(), owner);
        if (!entry) return;
        const Player before = entry->player;
        QDBusPendingReply<QVariantMap> reply = pending;
        if (!reply.isError()) {
            if (interfaceName == playerInterface) readPlayerProperties(entry->player, reply.value(), true, name);
            else readRootProperties(entry->player, reply.value(), true);
        } else if (reply.error().type() != QDBusError::UnknownInterface) {
            spdlog::debug("the player {} did not give its {} properties: {}", name.toStdString(),
                          interfaceName.toStdString(), reply.error().message().toStdString());
        }
        if (isFirstQuery) answered(*entry);
        else settle(*entry, before);
    });
}

void NowPlayingObserver::queryPid(const QString& name, const QString& owner) {
    auto call = QDBusMessage::createMethodCall(busService, busPath, busService, QStringLiteral("GetConnectionUnixProcessID"));
    call << owner;
    whenAnswered(this, bus_.asyncCall(call, replyTimeoutMs), [=, this](const QDBusPendingCall& pending) {
        Entry* entry = find(name.toStdString(), owner);
        if (!entry) return;
        QDBusPendingReply<uint> reply = pending;
        if (!reply.isError() && reply.value() > 0 && reply.value() <= uint(std::numeric_limits<std::int32_t>::max()))
            entry->player.pid = std::int32_t(reply.value());
        answered(*entry);
    });
}

void NowPlayingObserver::answered(Entry& entry) {
    if (--entry.awaitedReplies > 0 || entry.isAnnounced) return;
    entry.isAnnounced = true;
    republish();
    if (onChange) onChange(Player(entry.player));
}

void NowPlayingObserver::settle(Entry& entry, const Player& before) {
    if (!entry.isAnnounced || entry.player == before) return;
    republish();
    if (onChange) onChange(Player(entry.player));
}

void NowPlayingObserver::republish() {
    players_.clear();
    for (const auto& entry : entries_)
        if (entry.isAnnounced) players_.push_back(entry.player);
}

void NowPlayingObserver::handlePropertiesChanged(const QString& interfaceName, const QVariantMap& changed,
                                                 const QStringList& invalidated, const QDBusMessage& message) {
    const bool isPlayer = interfaceName == playerInterface;
    if (!isPlayer && interfaceName != rootInterface) return;
    const QString owner = message.service();
    if (owner.isEmpty()) return;
    // One connection may own several player names; every one of them changed. Names first: a
    // callback may ask for another player's state, which must not shift what is iterated.
    std::vector<std::string> names;
    for (const auto& entry : entries_)
        if (entry.owner == owner) names.push_back(entry.player.busName);
    for (const auto& busName : names) {
        Entry* entry = find(busName, owner);
        if (!entry) continue;
        const Player before = entry->player;
        const QString name = QString::fromStdString(busName);
        if (isPlayer) readPlayerProperties(entry->player, changed, false, name);
        else readRootProperties(entry->player, changed, false);
        // A player may only say that a value changed; it is then asked for the new one.
        const bool mustAsk = isPlayer ? invalidated.contains(QStringLiteral("PlaybackStatus")) ||
                                            invalidated.contains(QStringLiteral("Metadata"))
                                      : invalidated.contains(QStringLiteral("Identity")) ||
                                            invalidated.contains(QStringLiteral("DesktopEntry"));
        if (mustAsk) queryProperties(name, owner, interfaceName, false);
        settle(*entry, before);
    }
}

const NowPlayingObserver::Player* NowPlayingObserver::playerFor(std::int32_t pid, const ProcessTree& tree) const {
    if (pid <= 0) return nullptr;
    // The closer the kinship, the surer the match: the owner itself, then a parent of it, then
    // the same application, then a child of it.
    auto kinship = [&](const Player& p) {
        if (p.pid <= 0) return 0;
        if (p.pid == pid) return 4;
        if (tree.isWithin(pid, p.pid)) return 3;
        if (tree.applicationRoot(pid) == tree.applicationRoot(p.pid)) return 2;
        if (tree.isWithin(p.pid, pid)) return 1;
        return 0;
    };
    auto rank = [](const Player& p) { return p.isPlaying ? 2 : p.isPaused ? 1 : 0; };
    const Player* best = nullptr;
    int bestKinship = 0;
    for (const auto& p : players_) {
        const int k = kinship(p);
        if (k == 0) continue;
        if (!best || k > bestKinship || (k == bestKinship && rank(p) > rank(*best))) {
            best = &p;
            bestKinship = k;
        }
    }
    return best;
}

bool NowPlayingObserver::transport(const std::string& busName, const char* method, Completion done) {
    auto it = std::find_if(entries_.begin(), entries_.end(),
                           [&](const Entry& e) { return e.isAnnounced && e.player.busName == busName; });
    if (it == entries_.end()) return false;
    // Sent to the owner the observer knows: a name taken over meanwhile is another player.
    auto call = QDBusMessage::createMethodCall(it->owner, mprisPath, playerInterface, QString::fromLatin1(method));
    auto pending = bus_.asyncCall(call, replyTimeoutMs);
    if (done) {
        whenAnswered(this, pending, [done = std::move(done)](const QDBusPendingCall& answer) {
            done(!answer.isError());
        });
    }
    return true;
}

bool NowPlayingObserver::play(const std::string& busName, Completion done) { return transport(busName, "Play", std::move(done)); }
bool NowPlayingObserver::pause(const std::string& busName, Completion done) { return transport(busName, "Pause", std::move(done)); }
bool NowPlayingObserver::playPause(const std::string& busName, Completion done) {
    return transport(busName, "PlayPause", std::move(done));
}
bool NowPlayingObserver::stop(const std::string& busName, Completion done) { return transport(busName, "Stop", std::move(done)); }
bool NowPlayingObserver::next(const std::string& busName, Completion done) { return transport(busName, "Next", std::move(done)); }
bool NowPlayingObserver::previous(const std::string& busName, Completion done) {
    return transport(busName, "Previous", std::move(done));
}

} // namespace tarn

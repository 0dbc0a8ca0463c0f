#include "app/DeckMprisPlayer.hpp"

#include <cmath>
#include <filesystem>
#include <stdexcept>

#include <QDBusAbstractAdaptor>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QUrl>

#include <spdlog/spdlog.h>

namespace tarn {

namespace {

constexpr double microsecondsPerSecond = 1e6;
const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");

// The properties whose changes are announced (the position is read when wanted; the rest never
// change).
const QStringList announcedNames = {QStringLiteral("PlaybackStatus"), QStringLiteral("LoopStatus"),
                                    QStringLiteral("Shuffle"),        QStringLiteral("Metadata"),
                                    QStringLiteral("CanGoNext"),      QStringLiteral("CanGoPrevious"),
                                    QStringLiteral("CanPlay"),        QStringLiteral("CanPause"),
                                    QStringLiteral("CanSeek")};

QString fileUri(const std::filesystem::path& path) {
    return QUrl::fromLocalFile(QString::fromStdString(path.string())).toString(QUrl::FullyEncoded);
}

QStringList nonEmptyList(const std::string& text) {
    return text.empty() ? QStringList{} : QStringList{QString::fromStdString(text)};
}

} // namespace

// ---- the adaptors: the bus's view of the object; everything is done by the player ---------------

class DeckMprisRootAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.mpris.MediaPlayer2")
    Q_PROPERTY(bool CanQuit READ canQuit)
    Q_PROPERTY(bool CanRaise READ canRaise)
    Q_PROPERTY(bool HasTrackList READ hasTrackList)
    Q_PROPERTY(QString Identity READ identity)
    Q_PROPERTY(QString DesktopEntry READ desktopEntry)
    Q_PROPERTY(QStringList SupportedUriSchemes READ supportedUriSchemes)
    Q_PROPERTY(QStringList SupportedMimeTypes READ supportedMimeTypes)

public:
    explicit DeckMprisRootAdaptor(DeckMprisPlayer* player) : QDBusAbstractAdaptor(player), player_(player) {}

    bool canQuit() const { return false; }
    bool canRaise() const { return false; }
    bool hasTrackList() const { return false; }
    QString identity() const { return QStringLiteral("Tarn player deck"); }
    QString desktopEntry() const { return QStringLiteral("tarn-desk"); }
    QStringList supportedUriSchemes() const { return {QStringLiteral("file")}; }
    QStringList supportedMimeTypes() const {
        return {QStringLiteral("audio/flac"),   QStringLiteral("audio/x-flac"), QStringLiteral("audio/wav"),
                QStringLiteral("audio/x-wav"),  QStringLiteral("audio/aiff"),   QStringLiteral("audio/x-aiff"),
                QStringLiteral("audio/mpeg"),   QStringLiteral("audio/aac"),    QStringLiteral("audio/mp4"),
                QStringLiteral("audio/x-m4a"),  QStringLiteral("audio/x-alac")};
    }

public slots:
    void Raise() { player_->raise(); }
    void Quit() { player_->quit(); }

private:
    DeckMprisPlayer* player_;
};

class DeckMprisPlayerAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.mpris.MediaPlayer2.Player")
    Q_PROPERTY(QString PlaybackStatus READ playbackStatus)
    Q_PROPERTY(QString LoopStatus READ loopStatus WRITE setLoopStatus)
    Q_PROPERTY(double Rate READ rate)
    Q_PROPERTY(bool Shuffle READ shuffle WRITE setShuffle)
    Q_PROPERTY(QVariantMap Metadata READ metadata)
    Q_PROPERTY(double Volume READ volume)
    Q_PROPERTY(qlonglong Position READ position)
    Q_PROPERTY(double MinimumRate READ rate)
    Q_PROPERTY(double MaximumRate READ rate)
    Q_PROPERTY(bool CanGoNext READ canGoNext)
    Q_PROPERTY(bool CanGoPrevious READ canGoPrevious)
    Q_PROPERTY(bool CanPlay READ canPlay)
    Q_PROPERTY(bool CanPause READ canPause)
    Q_PROPERTY(bool CanSeek READ canSeek)
    Q_PROPERTY(bool CanControl READ canControl)

public:
    explicit DeckMprisPlayerAdaptor(DeckMprisPlayer* player) : QDBusAbstractAdaptor(player), player_(player) {
        connect(player, &DeckMprisPlayer::seeked, this, &DeckMprisPlayerAdaptor::Seeked);
    }

    QString playbackStatus() const { return player_->playbackStatus(); }
    QString loopStatus() const { return player_->loopStatus(); }
    void setLoopStatus(const QString& status) { player_->setLoopStatus(status); }
    double rate() const { return 1.0; }
    bool shuffle() const { return player_->shuffle(); }
    void setShuffle(bool on) { player_->setShuffle(on); }
    QVariantMap metadata() const { return player_->metadata(); }
    double volume() const { return 1.0; }
    qlonglong position() const { return player_->position(); }
    bool canGoNext() const { return player_->canGoNext(); }
    bool canGoPrevious() const { return player_->canGoPrevious(); }
    bool canPlay() const { return player_->canPlay(); }
    bool canPause() const { return player_->canPause(); }
    bool canSeek() const { return player_->canSeek(); }
    bool canControl() const { return true; }

public slots:
    void Next() { player_->next(); }
    void Previous() { player_->previous(); }
    void Pause() { player_->pause(); }
    void PlayPause() { player_->playPause(); }
    void Stop() { player_->stop(); }
    void Play() { player_->play(); }
    void Seek(qlonglong offset) { player_->seek(offset); }
    void SetPosition(const QDBusObjectPath& trackID, qlonglong position) { player_->setPosition(trackID, position); }
    void OpenUri(const QString& uri) { player_->openUri(uri); }

signals:
    void Seeked(qlonglong position);

private:
    DeckMprisPlayer* player_;
};

// ---- the player ---------------------------------------------------------------------------------

bool DeckMprisPlayer::isOwnBusName(const QString& name) {
    const QString own = QString::fromLatin1(serviceName);
    return name == own || name.startsWith(own + QLatin1Char('.'));
}

DeckMprisPlayer::DeckMprisPlayer(DeskService& service, QDBusConnection bus, QObject* parent)
    : QObject(parent), service_(service), bus_(std::move(bus)), self_(std::make_shared<DeckMprisPlayer*>(this)) {
    new DeckMprisRootAdaptor(this);
    new DeckMprisPlayerAdaptor(this);
    std::weak_ptr<DeckMprisPlayer*> self = self_;
    service_.addChangeListener([self](RouteStore::Change change) {
        if (change != RouteStore::Change::deck) return;
        if (auto alive = self.lock(); alive && *alive) (*alive)->announce();
    });
    service_.addConnectionListener([self] {
        if (auto alive = self.lock(); alive && *alive) (*alive)->announce();
    });
    announced_ = announcedProperties();
}

DeckMprisPlayer::~DeckMprisPlayer() {
    *self_ = nullptr;
    if (ownsName_) bus_.unregisterService(QString::fromLatin1(serviceName));
    bus_.unregisterObject(QString::fromLatin1(objectPath));
}

bool DeckMprisPlayer::publish() {
    if (!bus_.registerObject(QString::fromLatin1(objectPath), this, QDBusConnection::ExportAdaptors)) return false;
    // A desk that replaces this one takes the deck's name with it.
    auto reply = bus_.interface()->registerService(QString::fromLatin1(serviceName),
                                                   QDBusConnectionInterface::ReplaceExistingService,
                                                   QDBusConnectionInterface::AllowReplacement);
    ownsName_ = reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered;
    return ownsName_;
}

// ---- what is shown ------------------------------------------------------------------------------

QString DeckMprisPlayer::playbackStatus() const {
    const RouteStore* store = service_.store();
    const DeckPlayback* deck = store ? store->deck() : nullptr;
    switch (deck ? deck->status().state : DeckPlayback::State::stopped) {
    case DeckPlayback::State::playing: return QStringLiteral("Playing");
    case DeckPlayback::State::paused: return QStringLiteral("Paused");
    case DeckPlayback::State::stopped: return QStringLiteral("Stopped");
    }
    return QStringLiteral("Stopped");
}

QString DeckMprisPlayer::loopStatus() const {
    const RouteStore* store = service_.store();
    const DeckPlayback* deck = store ? store->deck() : nullptr;
    switch (deck ? deck->repeat() : DeckPlayback::Repeat::off) {
    case DeckPlayback::Repeat::one: return QStringLiteral("Track");
    case DeckPlayback::Repeat::all: return QStringLiteral("Playlist");
    case DeckPlayback::Repeat::off: return QStringLiteral("None");
    }
    return QStringLiteral("None");
}

bool DeckMprisPlayer::shuffle() const {
    const RouteStore* store = service_.store();
    return store && store->deck() && store->deck()->shuffle();
}

QVariantMap DeckMprisPlayer::metadata() const {
    QVariantMap map;
    RouteStore* store = service_.store();
    const DeckPlayback* deck = store ? store->deck() : nullptr;
    const auto status = deck ? deck->status() : DeckPlayback::Status{};
    const RouteStore::DeckTrack* track = store ? store->deckTrack() : nullptr;
    if (!track || status.trackIndex < 0) {
        map.insert(QStringLiteral("mpris:trackid"), QVariant::fromValue(QDBusObjectPath(QString::fromLatin1(noTrackPath))));
        return map;
    }
    map.insert(QStringLiteral("mpris:trackid"),
               QVariant::fromValue(QDBusObjectPath(QString::fromLatin1(trackPathPrefix) + QString::number(status.trackIndex))));
    const double seconds = track->tags.durationSeconds.value_or(status.durationSeconds);
    if (seconds > 0 && std::isfinite(seconds))
        map.insert(QStringLiteral("mpris:length"), qlonglong(std::llround(seconds * microsecondsPerSecond)));
    // Widgets show nothing for a track without a title: an untagged file is known by its name.
    const std::string title = track->tags.title.empty() ? track->path.stem().string() : track->tags.title;
    map.insert(QStringLiteral("xesam:title"), QString::fromStdString(title));
    if (!track->tags.artist.empty()) map.insert(QStringLiteral("xesam:artist"), nonEmptyList(track->tags.artist));
    if (!track->tags.album.empty()) map.insert(QStringLiteral("xesam:album"), QString::fromStdString(track->tags.album));
    if (!track->tags.genre.empty()) map.insert(QStringLiteral("xesam:genre"), nonEmptyList(track->tags.genre));
    if (track->tags.trackNumber) map.insert(QStringLiteral("xesam:trackNumber"), int(*track->tags.trackNumber));
    map.insert(QStringLiteral("xesam:url"), fileUri(track->path));
    if (track->artFile) map.insert(QStringLiteral("mpris:artUrl"), fileUri(*track->artFile));
    return map;
}

qlonglong DeckMprisPlayer::position() const {
    const RouteStore* store = service_.store();
    const DeckPlayback* deck = store ? store->deck() : nullptr;
    if (!deck) return 0;
    return qlonglong(std::llround(std::max(0.0, deck->status().positionSeconds) * microsecondsPerSecond));
}

bool DeckMprisPlayer::canGoNext() const {
    const RouteStore* store = service_.store();
    const DeckPlayback* deck = store ? store->deck() : nullptr;
    if (!deck || deck->queue().empty()) return false;
    const int size = int(deck->queue().size());
    const int index = deck->status().trackIndex;
    return deck->repeat() != DeckPlayback::Repeat::off || (deck->shuffle() && size > 1) || index < size - 1;
}

bool DeckMprisPlayer::canGoPrevious() const {
    const RouteStore* store = service_.store();
    const DeckPlayback* deck = store ? store->deck() : nullptr;
    // Previous goes back to the track's start when there is no track before it.
    return deck && deck->status().trackIndex >= 0;
}

bool DeckMprisPlayer::canPlay() const {
    const RouteStore* store = service_.store();
    return store && store->deck() && !store->deck()->queue().empty();
}

bool DeckMprisPlayer::canPause() const { return canPlay(); }

bool DeckMprisPlayer::canSeek() const {
    const RouteStore* store = service_.store();
    const DeckPlayback* deck = store ? store->deck() : nullptr;
    return deck && deck->status().trackIndex >= 0;
}

// ---- what is done -------------------------------------------------------------------------------

void DeckMprisPlayer::reply(const char* errorName, const QString& message) {
    // Called from C++ (no D-Bus call to answer), the caller has its own way to see the state.
    if (calledFromDBus()) sendErrorReply(QString::fromLatin1(errorName), message);
}

void DeckMprisPlayer::invalid(const QString& message) { reply("org.freedesktop.DBus.Error.InvalidArgs", message); }
void DeckMprisPlayer::fail(const QString& message) { reply("org.freedesktop.DBus.Error.Failed", message); }

RouteStore* DeckMprisPlayer::storeOrFail() {
    RouteStore* store = service_.store();
    if (!store) fail(QStringLiteral("the desk is not connected to the sound server"));
    return store;
}

void DeckMprisPlayer::play() {
    RouteStore* store = storeOrFail();
    if (!store) return;
    if (!canPlay()) return fail(QStringLiteral("the deck's queue is empty: open a file or folder first"));
    try {
        if (!store->deckPlay()) fail(QStringLiteral("nothing in the deck's queue can be played"));
    } catch (const std::exception& e) {
        fail(QString::fromStdString(e.what()));
    }
}

void DeckMprisPlayer::pause() {
    if (RouteStore* store = storeOrFail()) store->deckPause();
}

void DeckMprisPlayer::playPause() {
    RouteStore* store = storeOrFail();
    if (!store) return;
    if (store->deck() && store->deck()->status().state == DeckPlayback::State::playing) store->deckPause();
    else play();
}

void DeckMprisPlayer::stop() {
    if (RouteStore* store = storeOrFail()) store->deckStop();
}

void DeckMprisPlayer::next() {
    RouteStore* store = storeOrFail();
    if (!store) return;
    // With no next track the player stops, as media players do at the end of their list.
    if (!store->deckNext()) store->deckStop();
}

void DeckMprisPlayer::previous() {
    RouteStore* store = storeOrFail();
    if (!store) return;
    if (!store->deckPrevious()) fail(QStringLiteral("nothing is playing"));
}

void DeckMprisPlayer::seek(qlonglong offsetMicroseconds) {
    if (offsetMicroseconds > maxOffsetMicroseconds || offsetMicroseconds < -maxOffsetMicroseconds)
        return invalid(QStringLiteral("a seek of %1 s is beyond a day either way").arg(double(offsetMicroseconds) / microsecondsPerSecond));
    RouteStore* store = storeOrFail();
    if (!store) return;
    const DeckPlayback* deck = store->deck();
    if (!deck || deck->status().trackIndex < 0) return fail(QStringLiteral("nothing is playing"));
    const auto status = deck->status();
    const double target = std::max(0.0, status.positionSeconds + double(offsetMicroseconds) / microsecondsPerSecond);
    // Past the track's end is the next track.
    if (status.durationSeconds > 0 && target >= status.durationSeconds) return next();
    store->deckSeek(target);
    emit seeked(position());
}

void DeckMprisPlayer::setPosition(const QDBusObjectPath& trackID, qlonglong positionMicroseconds) {
    if (positionMicroseconds < 0 || positionMicroseconds > maxOffsetMicroseconds)
        return invalid(QStringLiteral("position must be 0..%1 µs, got %2").arg(maxOffsetMicroseconds).arg(positionMicroseconds));
    RouteStore* store = storeOrFail();
    if (!store) return;
    const DeckPlayback* deck = store->deck();
    if (!deck) return;
    const auto status = deck->status();
    // A position meant for a track that has since ended is stale: it is ignored.
    if (status.trackIndex < 0 || trackID.path() != QString::fromLatin1(trackPathPrefix) + QString::number(status.trackIndex)) return;
    const double seconds = double(positionMicroseconds) / microsecondsPerSecond;
    if (status.durationSeconds > 0 && seconds > status.durationSeconds) return;
    store->deckSeek(seconds);
    emit seeked(position());
}

void DeckMprisPlayer::openUri(const QString& uri) {
    if (uri.size() > maxUriLength) return invalid(QStringLiteral("the URI is longer than %1 characters").arg(maxUriLength));
    const QUrl url(uri, QUrl::StrictMode);
    if (!url.isValid() || !url.isLocalFile())
        return invalid(QStringLiteral("only file:// URIs of local files or folders can be opened, got \"%1\"").arg(uri.left(200)));
    const std::filesystem::path path(url.toLocalFile().toStdString());
    if (!path.is_absolute()) return invalid(QStringLiteral("\"%1\" is not an absolute path").arg(uri.left(200)));
    RouteStore* store = storeOrFail();
    if (!store) return;
    try {
        store->deckOpen({path}, false);
    } catch (const std::invalid_argument& e) {
        return invalid(QString::fromStdString(e.what()));
    }
    play();
}

void DeckMprisPlayer::setLoopStatus(const QString& status) {
    std::optional<DeckPlayback::Repeat> repeat;
    if (status == QLatin1String("None")) repeat = DeckPlayback::Repeat::off;
    else if (status == QLatin1String("Track")) repeat = DeckPlayback::Repeat::one;
    else if (status == QLatin1String("Playlist")) repeat = DeckPlayback::Repeat::all;
    if (!repeat) {
        // Qt answers a property write before the adaptor could refuse it, so the caller cannot be
        // told. The value stays, the log says why, and the unchanged value is announced so that a
        // widget that showed the bad value shows the real one again.
        spdlog::warn("the player deck's LoopStatus must be None, Track or Playlist, got \"{}\"",
                     status.left(32).toStdString());
        announceNow(QStringLiteral("LoopStatus"), loopStatus());
        return;
    }
    if (RouteStore* store = storeOrFail()) store->deckSetRepeat(*repeat);
}

void DeckMprisPlayer::setShuffle(bool on) {
    if (RouteStore* store = storeOrFail()) store->deckSetShuffle(on);
}

void DeckMprisPlayer::quit() {
    reply("org.freedesktop.DBus.Error.NotSupported", QStringLiteral("the player deck lives as long as the desk service"));
}

void DeckMprisPlayer::raise() { emit raiseRequested(); }

// ---- announcements ------------------------------------------------------------------------------

QVariantMap DeckMprisPlayer::announcedProperties() const {
    return {{announcedNames[0], playbackStatus()}, {announcedNames[1], loopStatus()}, {announcedNames[2], shuffle()},
            {announcedNames[3], metadata()},       {announcedNames[4], canGoNext()},  {announcedNames[5], canGoPrevious()},
            {announcedNames[6], canPlay()},        {announcedNames[7], canPause()},   {announcedNames[8], canSeek()}};
}

void DeckMprisPlayer::announceNow(const QString& name, const QVariant& value) {
    QDBusMessage signal = QDBusMessage::createSignal(QString::fromLatin1(objectPath), propertiesInterface,
                                                     QStringLiteral("PropertiesChanged"));
    signal.setArguments({QString::fromLatin1(playerInterface), QVariantMap{{name, value}}, QStringList{}});
    bus_.send(signal);
}

void DeckMprisPlayer::announce() {
    const QVariantMap now = announcedProperties();
    QVariantMap changed;
    for (auto it = now.begin(); it != now.end(); ++it)
        if (announced_.value(it.key()) != it.value()) changed.insert(it.key(), it.value());
    announced_ = now;
    if (changed.isEmpty()) return;
    QDBusMessage signal = QDBusMessage::createSignal(QString::fromLatin1(objectPath), propertiesInterface,
                                                     QStringLiteral("PropertiesChanged"));
    signal.setArguments({QString::fromLatin1(playerInterface), changed, QStringList{}});
    bus_.send(signal);
}

} // namespace tarn

#include "DeckMprisPlayer.moc"

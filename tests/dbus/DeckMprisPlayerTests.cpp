// The player deck as a media player on a private bus, seen by a client that knows only the media
// player interfaces (as the desktop's sound menu or a media key daemon does): plain messages,
// properties read with Get and changes heard as signals.

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusPendingCall>
#include <QDBusVariant>
#include <QDeadlineTimer>
#include <QObject>
#include <QTimer>
#include <QUrl>

#include <gtest/gtest.h>

#include "app/DeckMprisPlayer.hpp"
#include "app/QtMainQueue.hpp"
#include "dbus/PrivateBus.hpp"
#include "support/SimulatedAudioPlatform.hpp"
#include "support/SoundFiles.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn::test {

// What a client hears from the player: every PropertiesChanged and Seeked, in order.
class MprisSignalRecorder : public QObject {
    Q_OBJECT
public:
    struct Heard {
        QString interfaceName;
        QVariantMap changed;
    };
    std::vector<Heard> propertiesChanged;
    std::vector<qlonglong> seeked;

public slots:
    void onPropertiesChanged(const QString& interfaceName, const QVariantMap& changed, const QStringList&) {
        propertiesChanged.push_back({interfaceName, changed});
    }
    void onSeeked(qlonglong position) { seeked.push_back(position); }
};

namespace {

constexpr int waitMs = 10000;
constexpr std::uint32_t speakers = 10;
constexpr int rate = 48000;
constexpr double trackSeconds = 4.0;
const QString service = QString::fromLatin1(DeckMprisPlayer::serviceName);
const QString path = QString::fromLatin1(DeckMprisPlayer::objectPath);
const QString root = QString::fromLatin1(DeckMprisPlayer::rootInterface);
const QString player = QString::fromLatin1(DeckMprisPlayer::playerInterface);
const QString invalidArgs = QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs");

QString uriOf(const std::filesystem::path& p) {
    return QUrl::fromLocalFile(QString::fromStdString(p.string())).toString(QUrl::FullyEncoded);
}

class DeckMprisPlayerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(bus.isRunning()) << bus.failure();
        service_ = std::make_unique<DeskService>(
            queue,
            [this] {
                auto server = std::make_unique<SimulatedAudioPlatform>();
                server->addDevice({speakers, "speakers", "Speakers", {2}, 512});
                server->setDefaultOutputDevice(speakers);
                // About as fast as a real device, so that tracks last while the test looks at them.
                server->setRenderSink({512, 0, std::chrono::microseconds(10'000)});
                platform = server.get();
                return server;
            },
            [](AudioPlatform&) { return true; }, PreferencesStore(settings.path()), nullptr);
        service_->start();
        ASSERT_TRUE(service_->isConnected());
        serverConnection = std::make_unique<QDBusConnection>(bus.connect());
        deck = std::make_unique<DeckMprisPlayer>(*service_, *serverConnection);
        ASSERT_TRUE(deck->publish()) << serverConnection->lastError().message().toStdString();
        client = std::make_unique<QDBusConnection>(bus.connect());
        ASSERT_TRUE(client->connect(service, path, QStringLiteral("org.freedesktop.DBus.Properties"),
                                    QStringLiteral("PropertiesChanged"), &heard,
                                    SLOT(onPropertiesChanged(QString, QVariantMap, QStringList))));
        ASSERT_TRUE(client->connect(service, path, player, QStringLiteral("Seeked"), &heard, SLOT(onSeeked(qlonglong))));

        // Untagged, so each is known by its name; the folder plays them by name.
        writeSoundFile(music.path() / "01 first.wav", sineWave(440, 0.25, rate, 2, std::size_t(trackSeconds * rate)));
        writeSoundFile(music.path() / "02 second.wav", sineWave(660, 0.25, rate, 2, std::size_t(trackSeconds * rate)));
    }

    void TearDown() override {
        deck.reset();
        service_.reset();
    }

    QDBusMessage call(const QString& interfaceName, const char* method, const QVariantList& arguments = {}) {
        auto message = QDBusMessage::createMethodCall(service, path, interfaceName, QString::fromLatin1(method));
        message.setArguments(arguments);
        QDBusPendingCall pending = client->asyncCall(message, waitMs);
        QDeadlineTimer deadline(waitMs);
        while (!pending.isFinished() && !deadline.hasExpired())
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        EXPECT_TRUE(pending.isFinished()) << method << " got no answer";
        return pending.reply();
    }

    // Fails the test when the call is refused.
    void ok(const QString& interfaceName, const char* method, const QVariantList& arguments = {}) {
        const QDBusMessage reply = call(interfaceName, method, arguments);
        EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage) << method << ": " << reply.errorMessage().toStdString();
    }

    QVariant get(const QString& interfaceName, const char* property) {
        const QDBusMessage reply = call(QStringLiteral("org.freedesktop.DBus.Properties"), "Get",
                                        {interfaceName, QString::fromLatin1(property)});
        EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage) << property << ": " << reply.errorMessage().toStdString();
        return reply.arguments().value(0).value<QDBusVariant>().variant();
    }

    QDBusMessage set(const QString& interfaceName, const char* property, const QVariant& value) {
        return call(QStringLiteral("org.freedesktop.DBus.Properties"), "Set",
                    {interfaceName, QString::fromLatin1(property), QVariant::fromValue(QDBusVariant(value))});
    }

    static QVariantMap asMap(const QVariant& value) {
        if (value.metaType() == QMetaType::fromType<QDBusArgument>()) return qdbus_cast<QVariantMap>(value);
        return value.toMap();
    }

    QVariantMap metadata() { return asMap(get(player, "Metadata")); }
    QString status() { return get(player, "PlaybackStatus").toString(); }
    double positionSeconds() { return double(get(player, "Position").toLongLong()) / 1e6; }

    bool eventually(const std::function<bool()>& condition) {
        QTimer tick;
        tick.start(10);
        QDeadlineTimer deadline(waitMs);
        while (!condition()) {
            if (deadline.hasExpired()) return false;
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        }
        return true;
    }

    // The last PlaybackStatus a PropertiesChanged of the player interface carried.
    QString announcedStatus() const {
        for (auto it = heard.propertiesChanged.rbegin(); it != heard.propertiesChanged.rend(); ++it)
            if (it->interfaceName == player && it->changed.contains(QStringLiteral("PlaybackStatus")))
                return it->changed.value(QStringLiteral("PlaybackStatus")).toString();
        return {};
    }

    void openAndPlay() {
        ok(player, "OpenUri", {uriOf(music.path())});
        ASSERT_EQ(status(), "Playing");
    }

    PrivateBus bus;
    TemporaryDirectory settings;
    TemporaryDirectory music;
    QObject context;
    QtMainQueue queue{&context};
    SimulatedAudioPlatform* platform = nullptr;
    std::unique_ptr<DeskService> service_;
    std::unique_ptr<QDBusConnection> serverConnection;
    std::unique_ptr<DeckMprisPlayer> deck;
    std::unique_ptr<QDBusConnection> client;
    MprisSignalRecorder heard;
};

TEST_F(DeckMprisPlayerTest, SaysWhatItIsAndWhatItCannotDo) {
    EXPECT_EQ(get(root, "Identity").toString(), "Tarn player deck");
    EXPECT_EQ(get(root, "DesktopEntry").toString(), "tarn-desk");
    EXPECT_FALSE(get(root, "CanQuit").toBool());
    EXPECT_FALSE(get(root, "CanRaise").toBool());
    EXPECT_FALSE(get(root, "HasTrackList").toBool());
    EXPECT_EQ(get(root, "SupportedUriSchemes").toStringList(), QStringList{"file"});
    EXPECT_TRUE(get(root, "SupportedMimeTypes").toStringList().contains("audio/flac"));

    const QDBusMessage quit = call(root, "Quit");
    EXPECT_EQ(quit.type(), QDBusMessage::ErrorMessage);
    int raised = 0;
    QObject::connect(deck.get(), &DeckMprisPlayer::raiseRequested, [&] { ++raised; });
    ok(root, "Raise");
    EXPECT_EQ(raised, 1);

    // Nothing queued yet: stopped, no track, nothing to play.
    EXPECT_EQ(status(), "Stopped");
    EXPECT_EQ(metadata().value("mpris:trackid").value<QDBusObjectPath>().path(), DeckMprisPlayer::noTrackPath);
    EXPECT_FALSE(get(player, "CanPlay").toBool());
    EXPECT_TRUE(get(player, "CanControl").toBool());
    EXPECT_EQ(get(player, "Rate").toDouble(), 1.0);
    EXPECT_EQ(get(player, "MaximumRate").toDouble(), 1.0);
    EXPECT_EQ(get(player, "Volume").toDouble(), 1.0);
    EXPECT_EQ(set(player, "Volume", 0.5).type(), QDBusMessage::ErrorMessage) << "the deck's level is its route's gain";
    EXPECT_EQ(get(player, "Volume").toDouble(), 1.0);
    EXPECT_EQ(call(player, "Play").type(), QDBusMessage::ErrorMessage) << "an empty deck cannot play";

    // Widgets read everything at once: each property marshals, with its type.
    const QDBusMessage all = call(QStringLiteral("org.freedesktop.DBus.Properties"), "GetAll", {player});
    ASSERT_EQ(all.type(), QDBusMessage::ReplyMessage) << all.errorMessage().toStdString();
    const QVariantMap properties = asMap(all.arguments().value(0));
    EXPECT_EQ(properties.size(), 15);
    EXPECT_EQ(properties.value("Position").metaType(), QMetaType::fromType<qlonglong>());
    EXPECT_EQ(properties.value("MinimumRate").toDouble(), 1.0);
}

TEST_F(DeckMprisPlayerTest, OpenUriPlaysAFolderAndTheTransportMovesThroughIt) {
    openAndPlay();
    QVariantMap track = metadata();
    EXPECT_EQ(track.value("xesam:title").toString(), "01 first");
    EXPECT_EQ(track.value("xesam:url").toString(), uriOf(music.path() / "01 first.wav"));
    EXPECT_EQ(track.value("mpris:trackid").value<QDBusObjectPath>().path(), "/org/tarn/deck/track/0");
    EXPECT_NEAR(double(track.value("mpris:length").toLongLong()) / 1e6, trackSeconds, 0.01);
    EXPECT_TRUE(get(player, "CanGoNext").toBool());
    EXPECT_TRUE(get(player, "CanSeek").toBool());
    ASSERT_TRUE(eventually([&] { return announcedStatus() == "Playing"; }));

    ok(player, "Next");
    track = metadata();
    EXPECT_EQ(track.value("xesam:title").toString(), "02 second");
    EXPECT_EQ(track.value("mpris:trackid").value<QDBusObjectPath>().path(), "/org/tarn/deck/track/1");
    EXPECT_FALSE(get(player, "CanGoNext").toBool()) << "the last track, repeat off";
    ASSERT_TRUE(eventually([&] {
        for (const auto& h : heard.propertiesChanged)
            if (asMap(h.changed.value("Metadata")).value("xesam:title").toString() == "02 second") return true;
        return false;
    })) << "the new track is announced";

    ok(player, "Pause");
    EXPECT_EQ(status(), "Paused");
    ASSERT_TRUE(eventually([&] { return announcedStatus() == "Paused"; }));

    // Paused, the position stands still: a seek lands where it says.
    const double before = positionSeconds();
    ok(player, "Seek", {qlonglong(1'500'000)});
    EXPECT_NEAR(positionSeconds(), before + 1.5, 0.1);
    ASSERT_TRUE(eventually([&] { return !heard.seeked.empty(); }));
    EXPECT_NEAR(double(heard.seeked.back()) / 1e6, before + 1.5, 0.1);
    ok(player, "Seek", {qlonglong(-60'000'000)});
    EXPECT_NEAR(positionSeconds(), 0.0, 0.1) << "back past the start is the start";
    EXPECT_EQ(status(), "Paused");

    // SetPosition for the track that plays moves it; for another (stale) track does nothing.
    ok(player, "SetPosition", {QVariant::fromValue(QDBusObjectPath("/org/tarn/deck/track/1")), qlonglong(2'000'000)});
    EXPECT_NEAR(positionSeconds(), 2.0, 0.1);
    ok(player, "SetPosition", {QVariant::fromValue(QDBusObjectPath("/org/tarn/deck/track/0")), qlonglong(500'000)});
    EXPECT_NEAR(positionSeconds(), 2.0, 0.1);

    ok(player, "PlayPause");
    EXPECT_EQ(status(), "Playing");
    ASSERT_TRUE(eventually([&] { return announcedStatus() == "Playing"; }));
    ok(player, "Stop");
    EXPECT_EQ(status(), "Stopped");
}

TEST_F(DeckMprisPlayerTest, LoopStatusAndShuffleAreTheDecksRepeatAndShuffle) {
    openAndPlay();
    EXPECT_EQ(get(player, "LoopStatus").toString(), "None");
    for (const auto& [loop, repeat] : {std::pair{"Track", DeckPlayback::Repeat::one},
                                       std::pair{"Playlist", DeckPlayback::Repeat::all},
                                       std::pair{"None", DeckPlayback::Repeat::off}}) {
        const QDBusMessage reply = set(player, "LoopStatus", QString::fromLatin1(loop));
        ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << loop << ": " << reply.errorMessage().toStdString();
        EXPECT_EQ(service_->store()->deck()->repeat(), repeat) << loop;
        EXPECT_EQ(get(player, "LoopStatus").toString(), loop);
    }
    auto loopsHeard = [&](const char* loop) {
        return std::count_if(heard.propertiesChanged.begin(), heard.propertiesChanged.end(), [&](const auto& h) {
            return h.changed.value("LoopStatus").toString() == loop;
        });
    };
    ASSERT_TRUE(eventually([&] { return loopsHeard("Playlist") == 1 && loopsHeard("None") == 1; }));

    // An unknown word changes nothing, and the real value is announced again for whoever showed it.
    set(player, "LoopStatus", QStringLiteral("Sometimes"));
    EXPECT_EQ(get(player, "LoopStatus").toString(), "None");
    EXPECT_EQ(service_->store()->deck()->repeat(), DeckPlayback::Repeat::off);
    ASSERT_TRUE(eventually([&] { return loopsHeard("None") == 2; }));
    EXPECT_EQ(loopsHeard("Sometimes"), 0);

    ASSERT_EQ(set(player, "Shuffle", true).type(), QDBusMessage::ReplyMessage);
    EXPECT_TRUE(service_->store()->deck()->shuffle());
    EXPECT_TRUE(get(player, "Shuffle").toBool());
}

TEST_F(DeckMprisPlayerTest, BadInputIsAnErrorThatSaysWhyAndChangesNothing) {
    // Nothing loaded: there is nothing to seek in.
    EXPECT_EQ(call(player, "Seek", {qlonglong(1'000'000)}).type(), QDBusMessage::ErrorMessage);

    openAndPlay();
    const QVariantMap before = metadata();

    QDBusMessage reply = call(player, "OpenUri", {QStringLiteral("http://x")});
    ASSERT_EQ(reply.type(), QDBusMessage::ErrorMessage);
    EXPECT_EQ(reply.errorName(), invalidArgs);
    EXPECT_TRUE(reply.errorMessage().contains("file://")) << reply.errorMessage().toStdString();

    reply = call(player, "OpenUri", {uriOf(music.path() / "missing.flac")});
    ASSERT_EQ(reply.type(), QDBusMessage::ErrorMessage);
    EXPECT_EQ(reply.errorName(), invalidArgs);
    EXPECT_TRUE(reply.errorMessage().contains("missing.flac")) << reply.errorMessage().toStdString();

    reply = call(player, "OpenUri", {QStringLiteral("file:relative/song.flac")});
    EXPECT_EQ(reply.type(), QDBusMessage::ErrorMessage);

    for (qlonglong absurd : {qlonglong(1) << 60, -(qlonglong(1) << 60)}) {
        reply = call(player, "Seek", {absurd});
        ASSERT_EQ(reply.type(), QDBusMessage::ErrorMessage) << absurd;
        EXPECT_EQ(reply.errorName(), invalidArgs);
    }
    reply = call(player, "SetPosition", {QVariant::fromValue(QDBusObjectPath("/org/tarn/deck/track/0")), qlonglong(-1)});
    EXPECT_EQ(reply.type(), QDBusMessage::ErrorMessage);

    EXPECT_EQ(status(), "Playing");
    EXPECT_EQ(metadata(), before) << "the queue and its track are as they were";
    EXPECT_EQ(service_->store()->deck()->queue().size(), 2u);
}

} // namespace
} // namespace tarn::test

#include "DeckMprisPlayerTests.moc"

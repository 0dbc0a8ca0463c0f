// What the observer learns of MPRIS players on a private bus: players in this process (scripted
// by the test) and one in a process of its own (for its pid, and for dying).

#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QTimer>

#include <gtest/gtest.h>
#include <unistd.h>

#include "app/DeckMprisPlayer.hpp"
#include "app/NowPlayingObserver.hpp"
#include "dbus/ChildPlayer.hpp"
#include "dbus/MprisTestPlayer.hpp"
#include "dbus/PrivateBus.hpp"

namespace tarn::test {
namespace {

using Player = NowPlayingObserver::Player;
using NowPlaying = RouteAITune::NowPlaying;

const QString status = QStringLiteral("PlaybackStatus");
const QString metadata = QStringLiteral("Metadata");
const QString playerInterface = MprisTestPlayer::playerInterface;

QString nameOf(const char* suffix) { return QStringLiteral("org.mpris.MediaPlayer2.tarntest.") + QLatin1String(suffix); }

QVariantMap song() {
    return MprisTestPlayer::track(QStringLiteral("Song"), {QStringLiteral("First"), QStringLiteral("Second")},
                                  QStringLiteral("Album"), {QStringLiteral("Jazz"), QStringLiteral("Blues")},
                                  215'500'000, QStringLiteral("/track/1"));
}

class NowPlayingTest : public ::testing::Test {
protected:
    // Generous: a loaded machine may be slow, and a failing wait only costs the failing test.
    static constexpr int waitMs = 10000;

    void SetUp() override {
        ASSERT_TRUE(bus.isRunning()) << bus.failure();
        observer = std::make_unique<NowPlayingObserver>(bus.connect());
        observer->onChange = [this](const Player& p) { reports.push_back(p); };
        observer->onGone = [this](const std::string& name, std::int32_t pid) { gone.emplace_back(name, pid); };
    }

    MprisTestPlayer& addPlayer(const char* suffix, const QString& playbackStatus, const QVariant& track) {
        auto player = std::make_unique<MprisTestPlayer>(bus.connect(), nameOf(suffix));
        player->set(playerInterface, status, playbackStatus, false);
        player->set(playerInterface, metadata, track, false);
        EXPECT_TRUE(player->publish()) << suffix;
        players.push_back(std::move(player));
        return *players.back();
    }

    // Runs the event loop until the condition holds; false when it never does.
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

    bool announced(const QString& name) {
        return eventually([&] { return observer->player(name.toStdString()) != nullptr; });
    }

    std::vector<Player> reportsFor(const QString& name) const {
        std::vector<Player> found;
        for (const auto& r : reports)
            if (r.busName == name.toStdString()) found.push_back(r);
        return found;
    }

    // Changes the player's status and waits for the report of it. Everything the player sent
    // before has been taken in by then: its signals arrive in order.
    bool toggleAndWait(MprisTestPlayer& player) {
        const auto* known = observer->player(player.busName().toStdString());
        const bool wasPlaying = known && known->isPlaying;
        player.set(playerInterface, status, wasPlaying ? QStringLiteral("Paused") : QStringLiteral("Playing"));
        return eventually([&] {
            const auto* p = observer->player(player.busName().toStdString());
            return p && p->isPlaying != wasPlaying;
        });
    }

    PrivateBus bus; // first: it outlives every connection made to it
    std::vector<std::unique_ptr<MprisTestPlayer>> players;
    std::unique_ptr<NowPlayingObserver> observer;
    std::vector<Player> reports;
    std::vector<std::pair<std::string, std::int32_t>> gone;
};

TEST_F(NowPlayingTest, SeesPlayersThereBeforeAndAfterItStartsWithTheirPidsAndTheirLeaving) {
    auto other = bus.connect();
    ASSERT_TRUE(other.registerService(QStringLiteral("org.example.NotAPlayer")));
    auto& early = addPlayer("early", QStringLiteral("Playing"), song());
    ASSERT_TRUE(observer->start());
    ASSERT_TRUE(announced(early.busName()));

    const QString childName = nameOf("child.instance1");
    ChildPlayer child(bus.address(), childName);
    ASSERT_TRUE(child.isRunning());
    ASSERT_TRUE(announced(childName));

    ASSERT_EQ(observer->players().size(), 2u) << "only MPRIS names are players";
    const auto* first = observer->player(early.busName().toStdString());
    const auto* late = observer->player(childName.toStdString());
    EXPECT_EQ(first->pid, getpid());
    EXPECT_EQ(late->pid, child.pid());
    EXPECT_NE(late->pid, getpid());
    EXPECT_EQ(late->identity, "Child Player");
    ASSERT_TRUE(late->track.has_value());
    EXPECT_EQ(late->track->title, "Child Song");
    EXPECT_TRUE(late->isPlaying);
    // Announced once each, complete.
    EXPECT_EQ(reportsFor(early.busName()).size(), 1u);
    ASSERT_EQ(reportsFor(childName).size(), 1u);
    EXPECT_EQ(reportsFor(childName).front(), *late);

    // The child runs this same executable, so the real process tree makes it part of the test's
    // application: each process still finds the player it owns itself.
    EXPECT_EQ(observer->playerFor(child.pid()), late);
    EXPECT_EQ(observer->playerFor(getpid()), first);

    const std::int32_t childPID = child.pid();
    child.kill();
    ASSERT_TRUE(eventually([&] { return !gone.empty(); }));
    EXPECT_EQ(gone.front(), std::make_pair(childName.toStdString(), childPID));
    EXPECT_EQ(observer->player(childName.toStdString()), nullptr);
    EXPECT_EQ(observer->players().size(), 1u);

    early.unpublish();
    ASSERT_TRUE(eventually([&] { return gone.size() == 2; }));
    EXPECT_EQ(gone.back(), std::make_pair(early.busName().toStdString(), std::int32_t(getpid())));
    EXPECT_TRUE(observer->players().empty());
}

TEST_F(NowPlayingTest, TheDesksOwnPlayerDeckIsNotAnApplicationsPlayer) {
    // The same process owns every player here, so only the name can tell the deck apart.
    auto addNamed = [&](const QString& name) -> MprisTestPlayer& {
        auto p = std::make_unique<MprisTestPlayer>(bus.connect(), name);
        p->set(playerInterface, status, QStringLiteral("Playing"), false);
        p->set(playerInterface, metadata, song(), false);
        EXPECT_TRUE(p->publish()) << name.toStdString();
        players.push_back(std::move(p));
        return *players.back();
    };
    const QString deck = QString::fromLatin1(DeckMprisPlayer::serviceName);
    addNamed(deck);
    auto& before = addPlayer("before", QStringLiteral("Playing"), song());
    ASSERT_TRUE(observer->start());
    ASSERT_TRUE(announced(before.busName()));
    // A deck that comes later (a second desk's instance name) is left out too; the player after
    // it is announced only once the bus has told of the deck's name.
    addNamed(deck + QStringLiteral(".instance2"));
    auto& after = addPlayer("after", QStringLiteral("Playing"), song());
    ASSERT_TRUE(announced(after.busName()));

    EXPECT_EQ(observer->players().size(), 2u);
    EXPECT_EQ(observer->player(deck.toStdString()), nullptr);
    EXPECT_EQ(observer->player((deck + QStringLiteral(".instance2")).toStdString()), nullptr);
    for (const auto& r : reports) EXPECT_FALSE(DeckMprisPlayer::isOwnBusName(QString::fromStdString(r.busName))) << r.busName;
    EXPECT_FALSE(DeckMprisPlayer::isOwnBusName(nameOf("x"))) << "a player whose name only begins like the deck's";
}

TEST_F(NowPlayingTest, FollowsPlaybackStatusAndIgnoresStatusesThatAreNone) {
    auto& player = addPlayer("status", QStringLiteral("Playing"), song());
    ASSERT_TRUE(observer->start());
    ASSERT_TRUE(announced(player.busName()));

    for (const char* next : {"Paused", "Stopped", "Playing"}) {
        player.set(playerInterface, status, QString::fromLatin1(next));
        ASSERT_TRUE(eventually([&] { return reports.size() >= 2 && reports.back().isPlaying == (next == std::string("Playing")) &&
                                            reports.back().isPaused == (next == std::string("Paused")); }))
            << next;
    }
    // A status of the wrong type or an unknown word is no news: the player stays playing, and the
    // next real change is the only report.
    const auto before = reports.size();
    player.set(playerInterface, status, 42);
    player.set(playerInterface, status, QStringLiteral("Buffering"));
    player.set(playerInterface, status, QStringLiteral("Paused"));
    ASSERT_TRUE(eventually([&] { return reports.size() > before; }));
    ASSERT_EQ(reports.size(), before + 1);
    EXPECT_TRUE(reports.back().isPaused);

    std::vector<std::pair<bool, bool>> flags;
    for (const auto& r : reports) flags.emplace_back(r.isPlaying, r.isPaused);
    const std::vector<std::pair<bool, bool>> expected = {
        {true, false}, {false, true}, {false, false}, {true, false}, {false, true}};
    EXPECT_EQ(flags, expected);
    // The track is not touched by status changes.
    ASSERT_TRUE(reports.back().track.has_value());
    EXPECT_EQ(reports.back().track->title, "Song");
}

TEST_F(NowPlayingTest, ReadsTheTrackAndItsIdentityAndFollowsNewTracks) {
    auto& player = addPlayer("track", QStringLiteral("Playing"), song());
    player.set(MprisTestPlayer::rootInterface, QStringLiteral("DesktopEntry"), QStringLiteral("tarn-test"), false);
    ASSERT_TRUE(observer->start());
    ASSERT_TRUE(announced(player.busName()));

    const auto* seen = observer->player(player.busName().toStdString());
    EXPECT_EQ(seen->track, (NowPlaying{"Song", "First", "Jazz", 215.5, "Album"}));
    EXPECT_EQ(seen->trackID, "/track/1");
    EXPECT_EQ(seen->identity, "Test Player");
    EXPECT_EQ(seen->desktopEntry, "tarn-test");

    // A stream: no album, no genre, no length (0 means the player does not know it).
    player.set(playerInterface, metadata,
               MprisTestPlayer::track(QStringLiteral("Radio"), {QStringLiteral("Host")}, QString(), {}, 0,
                                      QStringLiteral("/track/2")));
    ASSERT_TRUE(eventually([&] { return reports.back().trackID == "/track/2"; }));
    EXPECT_EQ(reports.back().track, (NowPlaying{"Radio", "Host", "", std::nullopt, ""}));
    EXPECT_TRUE(reports.back().isPlaying);

    player.set(MprisTestPlayer::rootInterface, QStringLiteral("Identity"), QStringLiteral("Renamed"));
    ASSERT_TRUE(eventually([&] { return reports.back().identity == "Renamed"; }));
}

TEST_F(NowPlayingTest, MalformedMetadataGivesNoTrackOrLeavesOutTheBadFields) {
    // A player that answers nothing sensible at all is still a player, with nothing known.
    auto& broken = addPlayer("broken", QStringLiteral("Playing"), QStringLiteral("not a dictionary"));
    broken.set(playerInterface, status, 7, false);
    broken.set(MprisTestPlayer::rootInterface, QStringLiteral("Identity"), QStringList{QStringLiteral("a list")}, false);
    auto& player = addPlayer("malformed", QStringLiteral("Playing"), song());
    ASSERT_TRUE(observer->start());
    ASSERT_TRUE(announced(broken.busName()));
    ASSERT_TRUE(announced(player.busName()));
    const auto* nothing = observer->player(broken.busName().toStdString());
    EXPECT_FALSE(nothing->track.has_value());
    EXPECT_FALSE(nothing->isPlaying);
    EXPECT_FALSE(nothing->isPaused);
    EXPECT_EQ(nothing->identity, "");

    auto withTitle = [](QVariantMap fields) {
        fields.insert(QStringLiteral("xesam:title"), QStringLiteral("T"));
        return fields;
    };
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double infinity = std::numeric_limits<double>::infinity();
    struct Case {
        const char* what;
        QVariant metadata;
        std::optional<NowPlaying> expected;
    };
    const std::vector<Case> cases = {
        {"title of the wrong type", QVariantMap{{"xesam:title", 12}, {"xesam:artist", QStringList{"A"}}}, std::nullopt},
        {"no title", QVariantMap{{"xesam:artist", QStringList{"A"}}, {"mpris:length", 1'000'000LL}}, std::nullopt},
        {"blank title", QVariantMap{{"xesam:title", "   "}}, std::nullopt},
        {"absurdly long title", QVariantMap{{"xesam:title", QString(5000, QLatin1Char('x'))}}, std::nullopt},
        {"not a dictionary", QStringLiteral("Song"), std::nullopt},
        {"a list", QVariantList{QStringLiteral("Song")}, std::nullopt},
        {"every other field of the wrong type",
         withTitle({{"xesam:artist", 5}, {"xesam:genre", QVariantList{1, 2}}, {"xesam:album", QStringList{"B"}},
                    {"mpris:length", QStringLiteral("215000000")}}),
         NowPlaying{"T", "", "", std::nullopt, ""}},
        {"negative length", withTitle({{"mpris:length", -5'000'000LL}}), NowPlaying{"T", "", "", std::nullopt, ""}},
        {"length not a number", withTitle({{"mpris:length", nan}}), NowPlaying{"T", "", "", std::nullopt, ""}},
        {"infinite length", withTitle({{"mpris:length", infinity}}), NowPlaying{"T", "", "", std::nullopt, ""}},
        {"length of decades", withTitle({{"mpris:length", 1'000'000'000'000'000LL}}), NowPlaying{"T", "", "", std::nullopt, ""}},
        {"lists with a blank first entry and an unsigned length",
         withTitle({{"xesam:artist", QStringList{"", "Second"}}, {"xesam:genre", QStringList{" ", "Rock"}},
                    {"mpris:length", QVariant::fromValue(quint64(180'000'000))}}),
         NowPlaying{"T", "Second", "Rock", 180.0, ""}},
        {"a plain string where a list belongs", withTitle({{"xesam:artist", QStringLiteral("Solo")}}),
         NowPlaying{"T", "Solo", "", std::nullopt, ""}},
    };
    for (const auto& c : cases) {
        // A good track first, so that a change the observer ignored would show.
        player.set(playerInterface, metadata, song());
        player.set(playerInterface, metadata, c.metadata);
        ASSERT_TRUE(toggleAndWait(player)) << c.what;
        EXPECT_EQ(observer->player(player.busName().toStdString())->track, c.expected) << c.what;
    }

    // Signals of the wrong shape are not property changes at all.
    player.sendPropertiesChanged({42});
    player.sendPropertiesChanged({playerInterface, QStringLiteral("not a map"), QStringList()});
    player.sendPropertiesChanged({playerInterface, QVariantMap{{metadata, QStringLiteral("x")}}});
    ASSERT_TRUE(toggleAndWait(player));
    EXPECT_EQ(observer->player(player.busName().toStdString())->track, cases.back().expected)
        << "the last case's track stays";
    EXPECT_EQ(observer->players().size(), 2u);
}

TEST_F(NowPlayingTest, AsksAgainForAValueThePlayerOnlySaidHadChanged) {
    auto& player = addPlayer("invalidating", QStringLiteral("Playing"), song());
    ASSERT_TRUE(observer->start());
    ASSERT_TRUE(announced(player.busName()));
    player.set(playerInterface, status, QStringLiteral("Paused"), false);
    player.set(playerInterface, metadata, QVariantMap{{"xesam:title", "Quiet"}}, false);
    player.invalidate(playerInterface, status);
    player.invalidate(playerInterface, metadata);
    ASSERT_TRUE(eventually([&] {
        const auto* p = observer->player(player.busName().toStdString());
        return p->isPaused && p->track && p->track->title == "Quiet";
    }));
}

TEST_F(NowPlayingTest, TransportReachesThePlayerAndRefusalsAndUnknownPlayersSayFalse) {
    auto& player = addPlayer("transport", QStringLiteral("Playing"), song());
    ASSERT_TRUE(observer->start());
    ASSERT_TRUE(announced(player.busName()));
    const std::string name = player.busName().toStdString();

    std::vector<bool> answers;
    auto record = [&](bool accepted) { answers.push_back(accepted); };
    ASSERT_TRUE(observer->pause(name, record));
    ASSERT_TRUE(eventually([&] { return observer->player(name)->isPaused; }));
    EXPECT_TRUE(observer->play(name, record));
    EXPECT_TRUE(observer->next(name, record));
    EXPECT_TRUE(observer->previous(name, record));
    EXPECT_TRUE(observer->playPause(name, record));
    EXPECT_TRUE(observer->stop(name)); // no one waits for this answer
    ASSERT_TRUE(eventually([&] { return player.calls().size() == 6 && answers.size() == 5; }));
    EXPECT_EQ(player.calls(), (QStringList{"Pause", "Play", "Next", "Previous", "PlayPause", "Stop"}));
    EXPECT_EQ(answers, std::vector<bool>(5, true));
    ASSERT_TRUE(eventually([&] {
        const auto* p = observer->player(name);
        return !p->isPlaying && !p->isPaused;
    }));

    bool unknownAnswered = false;
    EXPECT_FALSE(observer->play("org.mpris.MediaPlayer2.nobody", [&](bool) { unknownAnswered = true; }));

    player.setRefusing(true);
    answers.clear();
    ASSERT_TRUE(observer->next(name, record));
    ASSERT_TRUE(eventually([&] { return answers.size() == 1; }));
    EXPECT_FALSE(answers.front());
    EXPECT_FALSE(unknownAnswered);

    player.unpublish();
    ASSERT_TRUE(eventually([&] { return !gone.empty(); }));
    EXPECT_FALSE(observer->play(name, record));
}

// Processes whose kinship the test decides; the pids of the real players included.
class FakeProcessTree : public ProcessTree {
public:
    struct Process {
        std::int32_t parent;
        std::string executable;
    };
    std::map<std::int32_t, Process> processes;

    bool isAlive(std::int32_t pid) const override { return processes.count(pid) > 0; }
    std::optional<std::int32_t> parent(std::int32_t pid) const override {
        auto it = processes.find(pid);
        return it == processes.end() ? std::nullopt : std::optional(it->second.parent);
    }
    std::optional<std::string> executable(std::int32_t pid) const override {
        auto it = processes.find(pid);
        return it == processes.end() ? std::nullopt : std::optional(it->second.executable);
    }
};

TEST_F(NowPlayingTest, PlayerForPrefersTheClosestKinThenAPlayingPlayer) {
    auto& music = addPlayer("music", QStringLiteral("Paused"), song());
    auto& second = addPlayer("second", QStringLiteral("Playing"), song());
    const QString browserName = nameOf("browser.instance2");
    ChildPlayer browser(bus.address(), browserName);
    ASSERT_TRUE(browser.isRunning());
    ASSERT_TRUE(observer->start());
    ASSERT_TRUE(announced(music.busName()));
    ASSERT_TRUE(announced(second.busName()));
    ASSERT_TRUE(announced(browserName));

    const std::int32_t self = getpid(), b = browser.pid();
    constexpr std::int32_t musicLauncher = 9005, browserLauncher = 9006, browserHelper = 9001, musicSibling = 9004,
                           stranger = 9999;
    FakeProcessTree tree;
    tree.processes = {{self, {musicLauncher, "/usr/bin/music"}},         {musicLauncher, {1, "/usr/bin/music"}},
                      {musicSibling, {musicLauncher, "/usr/bin/music"}}, {b, {browserLauncher, "/usr/bin/browser"}},
                      {browserLauncher, {1, "/usr/bin/launcher"}},       {browserHelper, {b, "/usr/bin/browser"}},
                      {stranger, {1, "/usr/bin/other"}}};

    auto found = [&](std::int32_t pid) {
        const auto* p = observer->playerFor(pid, tree);
        return p ? QString::fromStdString(p->busName) : QString();
    };
    EXPECT_EQ(found(b), browserName) << "its own player";
    EXPECT_EQ(found(browserHelper), browserName) << "a helper of the player's process";
    EXPECT_EQ(found(browserLauncher), browserName) << "the process that started the player";
    EXPECT_EQ(found(musicSibling), second.busName()) << "the same application; the playing one of two";
    EXPECT_EQ(found(self), second.busName()) << "two players of one process: the playing one";
    EXPECT_EQ(found(stranger), QString());
    EXPECT_EQ(found(0), QString());

    second.set(playerInterface, status, QStringLiteral("Stopped"));
    ASSERT_TRUE(eventually([&] { return !observer->player(second.busName().toStdString())->isPlaying; }));
    EXPECT_EQ(found(self), music.busName()) << "paused comes before stopped";
}

} // namespace
} // namespace tarn::test

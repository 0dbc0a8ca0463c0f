#include "dbus/ChildPlayer.hpp"

#include <cstdio>
#include <string_view>

#include <QCoreApplication>
#include <QDBusConnection>

#include "dbus/MprisTestPlayer.hpp"

namespace tarn::test {

namespace {

constexpr int readyTimeoutMs = 10000;
constexpr std::string_view readyLine = "ready";

} // namespace

ChildPlayer::ChildPlayer(const QString& busAddress, const QString& busName) {
    process_.setProgram(QCoreApplication::applicationFilePath());
    process_.setArguments({QString::fromLatin1(option), busAddress, busName});
    process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process_.start();
    if (!process_.waitForStarted(readyTimeoutMs)) return;
    while (!process_.canReadLine() && process_.state() == QProcess::Running) process_.waitForReadyRead(readyTimeoutMs);
    isReady_ = process_.readLine().trimmed().toStdString() == readyLine;
}

ChildPlayer::~ChildPlayer() { kill(); }

void ChildPlayer::kill() {
    if (process_.state() == QProcess::NotRunning) return;
    process_.kill();
    process_.waitForFinished(readyTimeoutMs);
}

bool ChildPlayer::isInvocation(int argc, char** argv) { return argc >= 2 && std::string_view(argv[1]) == option; }

int ChildPlayer::run(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s %s BUS_ADDRESS BUS_NAME\n", argv[0], option);
        return 2;
    }
    QCoreApplication app(argc, argv);
    const QString address = QString::fromLocal8Bit(argv[2]);
    auto bus = QDBusConnection::connectToBus(address, QStringLiteral("child-player"));
    MprisTestPlayer player(bus, QString::fromLocal8Bit(argv[3]));
    player.set(MprisTestPlayer::rootInterface, QStringLiteral("Identity"), QStringLiteral("Child Player"), false);
    player.set(MprisTestPlayer::playerInterface, QStringLiteral("PlaybackStatus"), QStringLiteral("Playing"), false);
    player.set(MprisTestPlayer::playerInterface, QStringLiteral("Metadata"),
               MprisTestPlayer::track(QStringLiteral("Child Song"), {QStringLiteral("Child Artist")}, QString(), {},
                                      60'000'000, QStringLiteral("/child/track/1")),
               false);
    if (!bus.isConnected() || !player.publish()) {
        std::fprintf(stderr, "the child player cannot take its name on %s\n", argv[2]);
        return 1;
    }
    std::printf("%s\n", readyLine.data());
    std::fflush(stdout);
    // Runs until killed: the test ends it the way a crashing player ends.
    return app.exec();
}

} // namespace tarn::test

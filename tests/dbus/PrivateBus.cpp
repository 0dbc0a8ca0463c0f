#include "dbus/PrivateBus.hpp"

#include <atomic>

namespace tarn::test {

namespace {

constexpr int daemonStartMs = 10000;
constexpr int daemonStopMs = 5000;

// A session bus that lets everyone own any name and talk to anyone, listening in the test's folder.
std::string configuration(const std::filesystem::path& folder) {
    return R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir=)" + folder.string() + R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";
}

} // namespace

PrivateBus::PrivateBus() {
    const auto config = writeText(folder_ / "bus.conf", configuration(folder_.path()));
    daemon_.setProgram(QStringLiteral("dbus-daemon"));
    daemon_.setArguments({QStringLiteral("--config-file=") + QString::fromStdString(config.string()),
                          QStringLiteral("--nofork"), QStringLiteral("--print-address=1")});
    // Its complaints (it cannot raise its file limit in a container, say) are kept for a failure.
    const auto log = folder_ / "bus.log";
    daemon_.setStandardErrorFile(QString::fromStdString(log.string()));
    daemon_.start();
    if (!daemon_.waitForStarted(daemonStartMs)) {
        failure_ = "dbus-daemon does not start: " + daemon_.errorString().toStdString();
        return;
    }
    while (!daemon_.canReadLine() && daemon_.state() == QProcess::Running) daemon_.waitForReadyRead(daemonStartMs);
    address_ = QString::fromUtf8(daemon_.readLine()).trimmed();
    if (address_.isEmpty()) failure_ = "dbus-daemon gave no address: " + readText(log);
}

PrivateBus::~PrivateBus() {
    for (const auto& name : connectionNames_) QDBusConnection::disconnectFromBus(name);
    if (daemon_.state() == QProcess::NotRunning) return;
    daemon_.terminate();
    if (!daemon_.waitForFinished(daemonStopMs)) {
        daemon_.kill();
        daemon_.waitForFinished(daemonStopMs);
    }
}

QDBusConnection PrivateBus::connect() {
    // Names are per process, and a disconnected name must never be reused by a later bus.
    static std::atomic<int> counter = 0;
    const QString name = QStringLiteral("tarn-test-connection-%1").arg(++counter);
    connectionNames_.push_back(name);
    return QDBusConnection::connectToBus(address_, name);
}

} // namespace tarn::test

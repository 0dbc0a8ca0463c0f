// tarn daemon: the desk service. The route store on the Qt event loop, no window, owning
// com.tarn.Desk on the session bus; started by D-Bus activation, its systemd user unit, or by
// hand. Logs go to stderr (the journal, under systemd).

#include <chrono>
#include <memory>
#include <thread>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QMetaObject>
#include <QTimer>

#include <fmt/format.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include "app/DeckMprisPlayer.hpp"
#include "app/DeskBus.hpp"
#include "app/DeskService.hpp"
#include "app/ProcessTree.hpp"
#include "app/NowPlayingBridge.hpp"
#include "app/QtMainQueue.hpp"
#include "cli/Command.hpp"
#include "cli/StopSignals.hpp"
#include "core/recommendation/SongMemoryStore.hpp"
#include "platform/pipewire/PipeWirePlatform.hpp"

namespace tarn::cli {
namespace {

// How long a replaced desk gets to give its routes back: 10 s in 50 ms steps.
constexpr int replacedWaitSteps = 200;

struct DaemonOptions {
    bool replace = false;
    bool verbose = false;
};

int runDaemon(const DaemonOptions& options) {
    auto logger = spdlog::stderr_color_mt("tarn");
    spdlog::set_default_logger(logger);
    spdlog::set_level(options.verbose ? spdlog::level::debug : spdlog::level::info);

    static int argc = 1;
    static char name[] = "tarn";
    static char* argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    // Before any other thread starts (the bus and the sound server start some), so that they all
    // leave SIGTERM and SIGINT to the watcher.
    StopSignals stopSignals([&app](int) { QMetaObject::invokeMethod(&app, &QCoreApplication::quit, Qt::QueuedConnection); });

    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        throw CommandError(exitFailure, fmt::format("no session bus to offer the desk on: {}",
                                                    bus.lastError().message().toStdString()));

    QtMainQueue queue(&app);
    SongMemoryStore songMemory(SongMemoryStore::defaultFileURL());
    DeskService service(
        queue, [] { return std::make_unique<PipeWirePlatform>(); },
        [](AudioPlatform& platform) {
            return static_cast<PipeWirePlatform&>(platform).connection().connectionError() == 0;
        },
        PreferencesStore::standard(), &songMemory);
    DeskBus deskBus(service, bus);
    NowPlayingBridge nowPlaying(service, deskBus, bus);
    DeckMprisPlayer deckPlayer(service, bus);
    if (!deskBus.registerObject())
        throw CommandError(exitFailure, fmt::format("cannot offer {} on the session bus: {}", DeskBus::objectPath,
                                                    bus.lastError().message().toStdString()));

    // The desk this one replaces, if any: it gives its routes back when it loses the name, and this
    // one starts only once it has gone, or the two would fight over the same applications' streams.
    std::int32_t replaced = 0;
    if (options.replace) {
        auto owner = bus.interface()->servicePid(DeskBus::serviceName);
        if (owner.isValid()) replaced = std::int32_t(owner.value());
    }
    auto flags = options.replace ? QDBusConnectionInterface::ReplaceExistingService
                                 : QDBusConnectionInterface::DontQueueService;
    auto reply = bus.interface()->registerService(DeskBus::serviceName, flags, QDBusConnectionInterface::AllowReplacement);
    if (!reply.isValid() || reply.value() != QDBusConnectionInterface::ServiceRegistered) {
        fmt::print("The desk is already running ({} on the session bus); `tarn daemon --replace` takes over.\n",
                   DeskBus::serviceName);
        return exitOk;
    }
    // Another `tarn daemon --replace` took the name: this one steps down cleanly.
    QObject::connect(bus.interface(), &QDBusConnectionInterface::serviceUnregistered, &app,
                     [&app](const QString& lost) {
                         if (lost == DeskBus::serviceName) app.quit();
                     });
    bus.connect("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameLost", &app,
                SLOT(quit()));

    for (int i = 0; replaced > 0 && ProcessTree::system().isAlive(replaced) && i < replacedWaitSteps; ++i) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    service.start();
    nowPlaying.start();
    // Media keys and the desktop's sound menu reach the deck through it; the desk works without.
    if (!deckPlayer.publish())
        spdlog::warn("the player deck is not offered to media keys ({} on the session bus): {}",
                     DeckMprisPlayer::serviceName, bus.lastError().message().toStdString());
    // The session ended (its bus went away): so does the desk, giving every route back.
    bus.connect(QString(), "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local", "Disconnected", &app,
                SLOT(quit()));
    spdlog::info("the desk is running as {} on the session bus", DeskBus::serviceName);
    const int code = app.exec();
    spdlog::info("stopping every route; the applications go back to their normal output");
    bus.interface()->unregisterService(DeskBus::serviceName);
    return code;
}

Command makeDaemonCommand(CLI::App& root) {
    auto options = std::make_shared<DaemonOptions>();
    auto* app = root.add_subcommand("daemon", "Run the desk service: every route, on the session bus as com.tarn.Desk "
                                              "(usually started by D-Bus activation or its systemd user unit)");
    app->add_flag("--replace", options->replace, "Take over from a desk that is already running");
    app->add_flag("--verbose", options->verbose, "Log more (debug level)");
    return {app, [options] { return runDaemon(*options); }};
}

const CommandRegistration registration{"daemon", 70, &makeDaemonCommand};

} // namespace
} // namespace tarn::cli

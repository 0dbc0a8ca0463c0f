// tarn desk: the desk window. A client of the desk service (started through D-Bus activation
// when it does not run); closing the window leaves every route playing.

#include <cstdlib>
#include <memory>
#include <regex>

#include <QDBusError>
#include <QApplication>
#include <QImage>
#include <QQuickWindow>
#include <QTimer>

#include <fmt/format.h>

#include "cli/Command.hpp"
#include "cli/NumberOption.hpp"
#include "ui/DeskTray.hpp"
#include "ui/DesktopPalette.hpp"
#include "ui/DeskWindow.hpp"

namespace tarn::cli {
namespace {

struct DeskOptions {
    std::string screenshot;
    std::string route;
    std::string show;
    std::string colorScheme;
    std::string size = "1280x800";
    double after = 2.0;
};

// A screenshot is of the desk itself unless a dialog is asked for; the window a person opens shows
// the introduction on the first run.
QString openAtStart(const DeskOptions& options) {
    if (!options.show.empty()) return QString::fromStdString(options.show);
    return options.screenshot.empty() ? QString() : QStringLiteral("none");
}

int runDesk(const DeskOptions& options) {
    int width = 0, height = 0;
    std::smatch m;
    static const std::regex sizePattern("^([0-9]{3,4})x([0-9]{3,4})$");
    if (!std::regex_match(options.size, m, sizePattern))
        throw CommandError(exitUsage, fmt::format("--size: \"{}\" is not WIDTHxHEIGHT (for example 1280x800)", options.size));
    width = std::stoi(m[1]);
    height = std::stoi(m[2]);
    // Without a display the window still renders (for screenshots and tests).
    if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY") && !std::getenv("QT_QPA_PLATFORM"))
        ::setenv("QT_QPA_PLATFORM", "offscreen", 1);

    static int argc = 1;
    static char name[] = "tarn";
    static char* argv[] = {name, nullptr};
    QApplication app(argc, argv);
    app.setApplicationName("Tarn");
    app.setDesktopFileName("tarn-desk");

    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        throw CommandError(exitFailure, fmt::format("no session bus to reach the desk on ({})",
                                                    bus.lastError().message().toStdString()));
    if (options.colorScheme == "dark") ui::applyColorScheme(ui::ColorScheme::dark);
    else if (options.colorScheme == "light") ui::applyColorScheme(ui::ColorScheme::light);
    else if (auto scheme = ui::desktopColorScheme(bus)) ui::applyColorScheme(*scheme);
    ui::DeskWindow::chooseStyle();
    ui::DeskWindow desk(bus, PreferencesStore::standard(), DeskSettings::standardAutostartDirectory());
    if (auto problem = desk.load(QString::fromStdString(options.route), openAtStart(options))) throw CommandError(exitFailure, problem->toStdString());
    QQuickWindow* window = desk.window();
    window->resize(width, height);

    if (!options.screenshot.empty()) {
        int code = exitOk;
        QTimer::singleShot(int(options.after * 1000), &app, [&] {
            if (!options.route.empty() && !desk.desk().isShowingRoute()) {
                fmt::print(stderr, "tarn desk: the desk has no route \"{}\" (tarn route list shows them)\n", options.route);
                code = exitFailure;
                app.quit();
                return;
            }
            const QImage image = window->grabWindow();
            if (image.isNull() || !image.save(QString::fromStdString(options.screenshot), "PNG")) {
                fmt::print(stderr, "tarn desk: cannot write {}\n", options.screenshot);
                code = exitFailure;
            } else {
                fmt::print("{}\n", options.screenshot);
            }
            app.quit();
        });
        app.exec();
        return code;
    }
    ui::DeskTray tray(*window);
    return app.exec();
}

Command makeDeskCommand(CLI::App& root) {
    auto options = std::make_shared<DeskOptions>();
    auto* app = root.add_subcommand("desk", "Open the desk window (closing it leaves every route playing)");
    app->add_option("--screenshot", options->screenshot, "Render the window, save it as this PNG file and exit")
        ->type_name("FILE.png");
    app->add_option("--size", options->size, "Window size for the screenshot (default 1280x800)")->type_name("WxH");
    app->add_option("--route", options->route, "Show this route in the editor (id or application name; this window only)")
        ->type_name("ROUTE");
    app->add_option("--show", options->show, "Open a dialog at once: intro, settings or add (none: not even the first-run introduction)")
        ->check(CLI::IsMember({"intro", "settings", "add", "none"}))
        ->type_name("DIALOG");
    app->add_option("--color-scheme", options->colorScheme, "light or dark (default: as the desktop prefers)")
        ->check(CLI::IsMember({"light", "dark"}))
        ->type_name("SCHEME");
    app->add_option("--after", options->after, "Seconds of live data before the screenshot (default 2)")
        ->check(numberWithin(0.0, 600.0, " s"));
    return {app, [options] { return runDesk(*options); }};
}

const CommandRegistration registration{"desk", 72, &makeDeskCommand};

} // namespace
} // namespace tarn::cli

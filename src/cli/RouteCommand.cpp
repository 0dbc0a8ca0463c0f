// tarn route: the desk's command line. Every subcommand is one call to the running desk
// (`tarn daemon`, started through D-Bus activation when installed).

#include <cmath>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>

#include <QCoreApplication>
#include <QDateTime>
#include <QTimer>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/DeskBus.hpp"
#include "cli/Applications.hpp"
#include "cli/ChainOptions.hpp"
#include "cli/Command.hpp"
#include "cli/DeskClient.hpp"
#include "cli/MeterListener.hpp"
#include "cli/NumberOption.hpp"
#include "cli/ParametricEQFile.hpp"
#include "cli/StopSignals.hpp"
#include "core/io/JsonCodecs.hpp"

namespace tarn::cli {
namespace {

struct RouteOptions {
    std::string route;
    std::string app;
    std::string device;
    std::string mode;
    std::string value;
    std::string name;
    std::string file;
    int band = 0;
    double db = 0.0;
    double seconds = 0.0;
    bool json = false;
};

QString q(const std::string& s) { return QString::fromStdString(s); }

std::string decibels(double linear) {
    if (!(linear > 1e-6)) return "-inf";
    return fmt::format("{:.1f}", 20.0 * std::log10(linear));
}

int list(const RouteOptions& o) {
    DeskClient desk;
    const auto routes = desk.property("Routes");
    if (o.json) {
        fmt::print("{}\n", routes.dump(2));
        return exitOk;
    }
    if (!desk.isConnected()) {
        fmt::print("The desk is waiting for the sound server; its routes come back with it.\n");
        return exitOk;
    }
    if (routes.empty()) {
        fmt::print("No routes yet: `tarn route add APP` makes one (see `tarn apps`).\n");
        return exitOk;
    }
    fmt::print("{:<9} {:<20} {:<5} {:<10} {:<22} {:>6} {:>6}\n", "ROUTE", "APPLICATION", "MODE", "HEALTH", "DEVICE",
               "IN", "OUT");
    for (const auto& r : routes) {
        const std::string device = r.contains("targetOutputDeviceID") ? r["targetOutputDeviceID"].get<std::string>()
                                                                     : std::string("default");
        fmt::print("{:<9} {:<20} {:<5} {:<10} {:<22} {:>6} {:>6}\n", r.value("id", "").substr(0, 8),
                   r.value("displayName", "").substr(0, 20), r.value("activationMode", "off"), r.value("health", "idle"),
                   device.substr(0, 22), decibels(r.value("inputPeak", 0.0)), decibels(r.value("outputPeak", 0.0)));
        if (r["lastStartError"].is_string()) fmt::print("          {}\n", r["lastStartError"].get<std::string>());
    }
    return exitOk;
}

int add(const RouteOptions& o) {
    DeskClient desk;
    // Named the way `tarn apps` lists applications; one that does not play yet is named by its identity.
    std::vector<ProcessDiscoveryService::Entry> entries;
    for (const auto& p : desk.property("Processes"))
        entries.push_back({p.value("objectID", 0u), p.value("pid", 0), p.value("bundleID", ""),
                           p.value("displayName", ""), p.value("isRunningOutput", false)});
    auto matches = Applications::matching(entries, o.app);
    std::string bundle = o.app, name = o.app;
    if (!matches.empty()) {
        for (const auto& m : matches)
            if (m.bundleID != matches.front().bundleID)
                throw CommandError(exitFailure, fmt::format("\"{}\" matches several applications; name one by its "
                                                            "identity (see `tarn apps`)",
                                                            o.app));
        bundle = matches.front().bundleID;
        name = matches.front().displayName;
        if (bundle.empty()) throw CommandError(exitFailure, fmt::format("\"{}\" has no identity to route by", o.app));
    } else if (o.app.find_first_not_of("0123456789") == std::string::npos) {
        throw CommandError(exitFailure, fmt::format("no application with pid {} plays audio (see `tarn apps`)", o.app));
    }
    fmt::print("{}\n", desk.callText("AddRoute", {q(bundle), q(name), q(o.device), q(o.mode)}));
    return exitOk;
}

// A subcommand that names a route and passes it, with its values, to one method.
int simple(const char* method, const RouteOptions& o, QList<QVariant> values = {}, bool printsAnswer = false) {
    DeskClient desk;
    values.prepend(q(desk.resolveRoute(o.route)));
    const auto reply = desk.call(method, values);
    if (printsAnswer && !reply.isEmpty()) fmt::print("{}\n", reply.front().toString().toStdString());
    return exitOk;
}

int profile(const RouteOptions& o) {
    DeskClient desk;
    const QString id = q(desk.resolveRoute(o.route));
    if (o.value == "none") desk.call("SetProfile", {id, QString()});
    else if (std::filesystem::exists(o.value))
        desk.call("SetProfileJSON", {id, q(nlohmann::json(ChainOptions::loadProfileFile(o.value)).dump())});
    else desk.call("SetProfile", {id, q(o.value)});
    return exitOk;
}

int import(const RouteOptions& o) {
    DeskClient desk;
    const QString id = q(desk.resolveRoute(o.route));
    // Read and checked here, so that a bad file is named and skipped lines are shown here.
    const ParametricEQFile file = readParametricEQFile(o.file);
    fmt::print("{}\n", desk.callText("ImportEQ", {id, q(file.parsed.eq.modelName), q(file.text)}));
    return exitOk;
}

int meters(const RouteOptions& o) {
    static int argc = 1;
    static char name[] = "tarn";
    static char* argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    StopSignals stopSignals([&app](int) { QMetaObject::invokeMethod(&app, &QCoreApplication::quit, Qt::QueuedConnection); });
    DeskClient desk;
    std::string only;
    if (!o.route.empty()) only = desk.resolveRoute(o.route);
    std::map<std::string, std::string> names;
    for (const auto& r : desk.property("Routes")) names[r.value("id", "")] = r.value("displayName", "");

    MeterListener listener;
    QDateTime lastPrint;
    listener.onMeters = [&](const QString& text) {
        const auto all = nlohmann::json::parse(text.toStdString(), nullptr, false);
        if (!all.is_array()) return;
        nlohmann::json shown = nlohmann::json::array();
        for (const auto& m : all)
            if (only.empty() || m.value("id", "") == only) shown.push_back(m);
        if (o.json) {
            fmt::print("{}\n", shown.dump());
        } else {
            // A terminal line twice a second is enough to read.
            const auto now = QDateTime::currentDateTime();
            if (lastPrint.isValid() && lastPrint.msecsTo(now) < 500) return;
            lastPrint = now;
            for (const auto& m : shown) {
                const std::string id = m.value("id", "");
                fmt::print("{:<9} {:<20} in {:>6} dBFS  out {:>6} dBFS\n", id.substr(0, 8), names[id].substr(0, 20),
                           decibels(m.value("inputPeak", 0.0)), decibels(m.value("outputPeak", 0.0)));
            }
        }
        std::fflush(stdout);
    };
    if (!desk.bus().connect(DeskBus::serviceName, DeskBus::objectPath, DeskBus::interfaceName, "Meters", &listener,
                            SLOT(meters(QString))))
        throw CommandError(exitFailure, "cannot listen to the desk's meters");
    desk.call("WatchMeters", {true});
    if (o.seconds > 0) QTimer::singleShot(int(o.seconds * 1000), &app, &QCoreApplication::quit);
    app.exec();
    return exitOk;
}

CLI::App* sub(CLI::App& parent, const std::string& name, const std::string& what) {
    return parent.add_subcommand(name, what);
}

void routeArgument(CLI::App* app, RouteOptions& o) {
    app->add_option("R", o.route, "Route: its id, a unique id prefix, or its application's name or identity")
        ->required();
}

CLI::Validator decibelsCheck() {
    return CLI::Validator(
        [](std::string& text) -> std::string {
            return ChainOptions::parseNumber(text) ? "" : fmt::format("\"{}\" is not a number of dB", text);
        },
        "DB");
}

Command makeRouteCommand(CLI::App& root) {
    auto o = std::make_shared<RouteOptions>();
    auto* route = root.add_subcommand("route", "Control the desk's routes (talks to the running desk, `tarn daemon`)");
    route->require_subcommand(1);
    auto run = std::make_shared<std::function<int()>>();
    auto on = [run](CLI::App* app, std::function<int()> f) { app->callback([run, f] { *run = f; }); };

    auto* c = sub(*route, "list", "List the routes with their mode, health, device and meters");
    c->add_flag("--json", o->json, "Print the routes as JSON (their saved form plus isLive, lastStartError, peaks)");
    on(c, [o] { return list(*o); });

    c = sub(*route, "add", "Add a route for an application and print its id");
    c->add_option("APP", o->app, "Application: pid, identity or name (see `tarn apps`)")->required();
    c->add_option("--device", o->device, "Output device UID (see `tarn devices`); default: the default output");
    c->add_option("--mode", o->mode, "Activation mode: off, auto or on (default off)")
        ->check(CLI::IsMember({"off", "auto", "on"}));
    on(c, [o] { return add(*o); });

    struct Plain {
        const char* name;
        const char* what;
        const char* method;
    };
    for (const Plain& p : {Plain{"remove", "Remove a route (its application goes back to its normal output)", "RemoveRoute"},
                           Plain{"start", "Start a route now", "StartRoute"},
                           Plain{"stop", "Stop a route (its application goes back to its normal output)", "StopRoute"},
                           Plain{"play", "Tell the route's application to play (through its media player)", "Play"},
                           Plain{"pause", "Tell the route's application to pause (through its media player)", "Pause"},
                           Plain{"next", "Skip to the next track (through the application's media player)", "Next"},
                           Plain{"previous", "Go back a track (through the application's media player)", "Previous"}}) {
        c = sub(*route, p.name, p.what);
        routeArgument(c, *o);
        on(c, [o, method = p.method] { return simple(method, *o); });
    }

    c = sub(*route, "mode", "Set a route's activation mode: off, auto (while its application sounds) or on");
    routeArgument(c, *o);
    c->add_option("MODE", o->value, "off, auto or on")->required()->check(CLI::IsMember({"off", "auto", "on"}));
    on(c, [o] { return simple("SetMode", *o, {q(o->value)}); });

    for (const Plain& p : {Plain{"gain", "Set a route's gain in dB (-60..12)", "SetGain"},
                           Plain{"trim", "Set a route's output trim in dB (-12..6)", "SetTrim"}}) {
        c = sub(*route, p.name, p.what);
        routeArgument(c, *o);
        c->add_option("DB", o->value, "Decibels")->required()->check(decibelsCheck());
        on(c, [o, method = p.method] { return simple(method, *o, {*ChainOptions::parseNumber(o->value)}); });
    }

    c = sub(*route, "mute", "Mute or unmute a route");
    routeArgument(c, *o);
    c->add_option("STATE", o->value, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
    on(c, [o] { return simple("SetMuted", *o, {o->value == "on"}); });

    c = sub(*route, "band", "Set one band of a route's equaliser (glides there while it plays)");
    routeArgument(c, *o);
    c->add_option("I", o->band, "Band 0..9 (31 Hz .. 16 kHz)")->required()->check(CLI::Range(0, 9));
    c->add_option("DB", o->value, "Gain in dB (-12..12)")->required()->check(decibelsCheck());
    on(c, [o] { return simple("SetBand", *o, {o->band, *ChainOptions::parseNumber(o->value)}); });

    c = sub(*route, "genre", "Set a route's genre preset: " + ChainOptions::genreNames());
    routeArgument(c, *o);
    c->add_option("NAME", o->value, "Genre preset")->required();
    on(c, [o] { return simple("SetGenre", *o, {q(o->value)}); });

    c = sub(*route, "profile", "Set a route's headphone correction: a catalogue id, a profile JSON file, or none");
    routeArgument(c, *o);
    c->add_option("PROFILE", o->value, "Catalogue id (see `tarn profiles search`), FILE or none")->required();
    on(c, [o] { return profile(*o); });

    c = sub(*route, "import", "Import a parametric EQ file as a preset and apply it to a route; prints the preset's id");
    routeArgument(c, *o);
    c->add_option("FILE", o->file, "\"Preamp: … dB\", \"Filter N: ON PK Fc … Hz Gain … dB Q …\"")->required();
    on(c, [o] { return import(*o); });

    c = sub(*route, "preset", "Apply a saved preset to a route");
    routeArgument(c, *o);
    c->add_option("PRESET", o->value, "Preset name or id (see `tarn presets list`)")->required();
    on(c, [o] { return simple("ApplyPreset", *o, {q(o->value)}); });

    c = sub(*route, "save-preset", "Save a route's settings as a preset; prints its id");
    routeArgument(c, *o);
    c->add_option("NAME", o->value, "Preset name")->required();
    on(c, [o] { return simple("SavePreset", *o, {q(o->value)}, true); });

    c = sub(*route, "device", "Set a route's output device: a device UID, or default");
    routeArgument(c, *o);
    c->add_option("UID", o->value, "Device UID (see `tarn devices`) or default")->required();
    on(c, [o] { return simple("SetDevice", *o, {q(o->value == "default" ? std::string() : o->value)}); });

    c = sub(*route, "ai", "Engage AI Tune on a route for the song, for your taste, or switch it off");
    routeArgument(c, *o);
    c->add_option("SCOPE", o->value, "song, taste or off")->required()->check(CLI::IsMember({"song", "taste", "off"}));
    on(c, [o] { return simple("SetAITune", *o, {q(o->value)}); });

    c = sub(*route, "shape", "Shape a route's bands by request, with level compensation; prints the answer");
    routeArgument(c, *o);
    c->add_option("CHANGES", o->value, "Band and change pairs, e.g. \"1=+3,4=-2\"")->required();
    on(c, [o] { return simple("Shape", *o, {q(o->value)}, true); });

    for (const Plain& p : {Plain{"louder", "Raise a route's level a step; prints the answer", "Louder"},
                           Plain{"quieter", "Lower a route's level a step; prints the answer", "Quieter"}}) {
        c = sub(*route, p.name, p.what);
        routeArgument(c, *o);
        on(c, [o, method = p.method] { return simple(method, *o, {}, true); });
    }

    auto* layout = sub(*route, "layout", "Save or apply a desk layout");
    layout->require_subcommand(1);
    c = sub(*layout, "save", "Save the routes and their devices as a layout; prints its id");
    c->add_option("NAME", o->name, "Layout name")->required();
    c->add_option("--device", o->device, "Apply the layout whenever this output device appears");
    on(c, [o] {
        DeskClient desk;
        fmt::print("{}\n", desk.callText("SaveLayout", {q(o->name), q(o->device)}));
        return exitOk;
    });
    c = sub(*layout, "apply", "Apply a saved layout");
    c->add_option("NAME", o->name, "Layout name or id")->required();
    on(c, [o] {
        DeskClient desk;
        desk.call("ApplyLayout", {q(o->name)});
        return exitOk;
    });

    c = sub(*route, "meters", "Print the live routes' input and output levels until Ctrl-C");
    c->add_option("R", o->route, "Only this route");
    c->add_option("--seconds", o->seconds, "Stop after this many seconds")->check(positiveNumber(" s"));
    c->add_flag("--json", o->json, "One JSON array per update (up to 20 a second)");
    on(c, [o] { return meters(*o); });

    return {route, [run] { return (*run)(); }};
}

const CommandRegistration registration{"route", 75, &makeRouteCommand};

} // namespace
} // namespace tarn::cli

#include "app/DeskBus.hpp"

#include <cmath>
#include <stdexcept>

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusServiceWatcher>

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include "app/RouteEdits.hpp"
#include "core/audio/ProcessCategory.hpp"
#include "core/dsp/RouteDSPChain.hpp"
#include "core/dsp/RouteResponse.hpp"
#include "core/dsp/TenBandLayout.hpp"
#include "core/io/AutoEqParser.hpp"
#include "core/io/JsonCodecs.hpp"
#include "core/recommendation/RecommendationScope.hpp"

namespace tarn {

namespace {

constexpr const char* invalidArgsError = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";
constexpr int maxBand = TenBandLayout::bandCount - 1;
// What a voice request may ask of one band: more than a full swing of the band range is a typo.
constexpr double maxShapeRequestDb = 24.0;
// Routes change in bursts (an edit, its glide, its health): one announcement per burst.
constexpr int announceCoalesceMs = 30;

QString toQ(const std::string& s) { return QString::fromStdString(s); }
QString text(const nlohmann::json& j) { return toQ(j.dump()); }

// What the route's chain leaves out or cleans up, in words for the route's row; null when nothing.
nlohmann::json chainNotice(const RouteDSPChain& chain) {
    std::string notice;
    if (const int n = chain.leftOutSectionCount())
        notice = fmt::format("{} filter setting{} cannot run at {:g} Hz and {} left out", n, n == 1 ? "" : "s",
                             chain.sampleRate(), n == 1 ? "is" : "are");
    if (const std::uint64_t n = chain.nonFiniteInputSampleCount())
        notice += fmt::format("{}{} input sample{} not a finite number, played as silence",
                              notice.empty() ? "" : "; ", n, n == 1 ? " was" : "s were");
    return notice.empty() ? nlohmann::json(nullptr) : nlohmann::json(notice);
}

// What kind of application it is, for people choosing what to route ("browser", "video", …).
std::string categoryOf(const std::string& bundleID, const std::string& displayName) {
    return std::string(ProcessCategory::label(ProcessCategory::kindOf(bundleID, displayName)));
}

} // namespace

DeskBus::DeskBus(DeskService& service, QDBusConnection bus, QObject* parent)
    : QObject(parent), service_(service), bus_(std::move(bus)) {
    meterTimer_.setInterval(meterIntervalMs);
    connect(&meterTimer_, &QTimer::timeout, this, &DeskBus::sendMeters);
    announceTimer_.setSingleShot(true);
    announceTimer_.setInterval(announceCoalesceMs);
    connect(&announceTimer_, &QTimer::timeout, this, &DeskBus::flushAnnouncements);
    service_.addChangeListener([this](RouteStore::Change change) { announce(change); });
    service_.addConnectionListener([this] { announceAll(); });
}

bool DeskBus::registerObject() {
    return bus_.registerObject(objectPath, this,
                               QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals |
                                   QDBusConnection::ExportAllProperties);
}

// ---- properties ------------------------------------------------------------------------------------

QString DeskBus::routes() const {
    auto list = nlohmann::json::array();
    RouteStore* store = const_cast<DeskService&>(service_).store();
    if (!store) return text(list);
    for (const auto& r : store->routes()) {
        nlohmann::json j = r;
        j["isLive"] = store->liveEngines().count(r.id) > 0;
        j["category"] = categoryOf(r.bundleID, r.displayName);
        // The deck knows what it plays: the listener's usual genre is offered as its preset.
        if (r.kind == RouteKind::localPlayer)
            if (auto genre = store->suggestedGenre()) j["suggestedGenre"] = std::string(toString(*genre));
        auto error = store->lastStartError().find(r.id);
        j["lastStartError"] =
            error == store->lastStartError().end() ? nlohmann::json(nullptr) : nlohmann::json(error->second);
        RouteDSPChain* chain = store->dspChain(r.id);
        j["inputPeak"] = chain ? chain->inputMeter().currentPeak() : 0.0;
        j["outputPeak"] = chain ? chain->outputMeter().currentPeak() : 0.0;
        j["leftOutSectionCount"] = chain ? chain->leftOutSectionCount() : 0;
        j["nonFiniteInputSamples"] = chain ? chain->nonFiniteInputSampleCount() : 0;
        j["chainNotice"] = chain ? chainNotice(*chain) : nlohmann::json(nullptr);
        list.push_back(std::move(j));
    }
    return text(list);
}

QString DeskBus::processes() const {
    auto list = nlohmann::json::array();
    if (const RouteStore* store = service_.store())
        for (const auto& e : store->availableProcesses())
            list.push_back({{"objectID", e.objectID},
                            {"pid", e.pid},
                            {"bundleID", e.bundleID},
                            {"displayName", e.displayName},
                            {"category", categoryOf(e.bundleID, e.displayName)},
                            {"isRunningOutput", e.isRunningOutput}});
    return text(list);
}

QString DeskBus::devices() const {
    auto list = nlohmann::json::array();
    if (const RouteStore* store = service_.store())
        for (const auto& d : store->outputDevices()) {
            auto streams = nlohmann::json::array();
            for (const auto& s : d.streams)
                streams.push_back({{"streamIndex", s.streamIndex},
                                   {"channelCount", s.channelCount},
                                   {"layoutDescription", s.layoutDescription}});
            list.push_back({{"uid", d.uid}, {"name", d.name}, {"isDefault", d.isDefault}, {"streams", streams}});
        }
    return text(list);
}

QString DeskBus::presets() const {
    nlohmann::json list = nlohmann::json::array();
    if (const RouteStore* store = service_.store()) list = store->presets();
    return text(list);
}

QString DeskBus::layouts() const {
    auto list = nlohmann::json::array();
    if (const RouteStore* store = service_.store())
        for (const auto& l : store->layouts()) {
            auto routes = nlohmann::json::array();
            for (const auto& r : l.routes)
                routes.push_back({{"id", r.id.string()},
                                  {"bundleID", r.bundleID},
                                  {"displayName", r.displayName},
                                  {"targetOutputDeviceID", r.targetOutputDeviceID ? nlohmann::json(*r.targetOutputDeviceID)
                                                                                   : nlohmann::json(nullptr)}});
            list.push_back({{"id", l.id.string()},
                            {"name", l.name},
                            {"boundOutputDeviceUID",
                             l.boundOutputDeviceUID ? nlohmann::json(*l.boundOutputDeviceUID) : nlohmann::json(nullptr)},
                            {"routes", routes}});
        }
    return text(list);
}

QString DeskBus::selectedRoute() const {
    const RouteStore* store = service_.store();
    return store && store->selectedRouteID() ? toQ(store->selectedRouteID()->string()) : QString();
}

QString DeskBus::activeLayout() const {
    const RouteStore* store = service_.store();
    return store && store->activeLayoutID() ? toQ(store->activeLayoutID()->string()) : QString();
}

void DeskBus::announce(RouteStore::Change change) {
    switch (change) {
    case RouteStore::Change::routes:
    case RouteStore::Change::liveEngines:
    case RouteStore::Change::errors:
    case RouteStore::Change::broadcastPaused: pending_.insert("Routes"); break;
    case RouteStore::Change::selection: pending_.insert("SelectedRoute"); break;
    case RouteStore::Change::processes: pending_.insert("Processes"); break;
    case RouteStore::Change::devices: pending_.insert("Devices"); break;
    case RouteStore::Change::presets: pending_.insert("Presets"); break;
    case RouteStore::Change::deck: pending_.insert("Deck"); break;
    case RouteStore::Change::layouts:
        pending_.insert("Layouts");
        pending_.insert("ActiveLayout");
        break;
    }
    if (!announceTimer_.isActive()) announceTimer_.start();
}

void DeskBus::announceAll() {
    for (const char* name : {"Routes", "Processes", "Devices", "Presets", "Layouts", "SelectedRoute", "ActiveLayout",
                             "Connected", "Deck"})
        pending_.insert(name);
    if (!announceTimer_.isActive()) announceTimer_.start();
}

void DeskBus::flushAnnouncements() {
    QVariantMap changed;
    for (const QString& name : pending_) changed.insert(name, property(name.toUtf8().constData()));
    pending_.clear();
    if (changed.isEmpty()) return;
    auto signal = QDBusMessage::createSignal(objectPath, propertiesInterface, "PropertiesChanged");
    signal << QString(interfaceName) << changed << QStringList();
    bus_.send(signal);
}

// ---- checks ------------------------------------------------------------------------------------------

bool DeskBus::invalid(const QString& message) {
    sendErrorReply(invalidArgsError, message);
    return false;
}

bool DeskBus::fail(const QString& message) {
    sendErrorReply(failedError, message);
    return false;
}

RouteStore* DeskBus::storeOrFail() {
    RouteStore* store = service_.store();
    if (!store) fail("the sound server cannot be reached; the desk reconnects as soon as it is back");
    return store;
}

std::optional<UUID> DeskBus::routeOrFail(const QString& route) {
    RouteStore* store = storeOrFail();
    if (!store) return std::nullopt;
    const auto id = UUID::fromString(route.toStdString());
    if (!id || !store->route(*id)) {
        sendErrorReply(noSuchRouteError, toQ(std::string(RouteStore::routeMissingText)));
        return std::nullopt;
    }
    return id;
}

bool DeskBus::checkRange(const char* name, double value, double low, double high, const char* unit) {
    if (std::isfinite(value) && value >= low && value <= high) return true;
    return invalid(QString("%1 must be within %2..%3%4, got %5")
                       .arg(name)
                       .arg(low)
                       .arg(high)
                       .arg(unit)
                       .arg(value));
}

bool DeskBus::checkBand(int band) {
    if (band >= 0 && band <= maxBand) return true;
    return invalid(QString("band must be 0..%1, got %2").arg(maxBand).arg(band));
}

bool DeskBus::checkText(const char* name, const QString& value) {
    if (value.size() <= maxTextLength) return true;
    return invalid(QString("%1 is longer than %2 characters").arg(name).arg(maxTextLength));
}

// ---- the route list ------------------------------------------------------------------------------------

QString DeskBus::AddRoute(const QString& bundleID, const QString& displayName, const QString& deviceUID,
                          const QString& mode) {
    RouteStore* store = storeOrFail();
    if (!store || !checkText("bundleID", bundleID) || !checkText("displayName", displayName) ||
        !checkText("deviceUID", deviceUID))
        return {};
    if (bundleID.isEmpty()) return invalid("bundleID is empty"), QString();
    const auto activation = routeActivationModeFromString(mode.toStdString());
    if (!mode.isEmpty() && !activation) return invalid("mode must be off, auto or on, got \"" + mode + "\""), QString();
    try {
        std::optional<std::string> device;
        if (!deviceUID.isEmpty()) device = deviceUID.toStdString();
        const UUID id = store->addRoute(bundleID.toStdString(), displayName.toStdString(), device);
        if (activation) store->setActivationMode(*activation, id);
        return toQ(id.string());
    } catch (const std::invalid_argument& e) {
        fail(e.what());
        return {};
    }
}

void DeskBus::RemoveRoute(const QString& route) {
    if (auto id = routeOrFail(route)) service_.store()->removeRoute(*id);
}

void DeskBus::MoveRoute(const QString& route, int index) {
    auto id = routeOrFail(route);
    if (!id) return;
    if (index < 0) return void(invalid(QString("index must not be negative, got %1").arg(index)));
    service_.store()->moveRoute(*id, std::size_t(index));
}

void DeskBus::SelectRoute(const QString& route) {
    if (route.isEmpty()) {
        if (RouteStore* store = storeOrFail()) store->selectRoute(std::nullopt);
        return;
    }
    if (auto id = routeOrFail(route)) service_.store()->selectRoute(*id);
}

void DeskBus::StartRoute(const QString& route) {
    if (auto id = routeOrFail(route)) service_.store()->startAudio(*id, false);
}

void DeskBus::StopRoute(const QString& route) {
    if (auto id = routeOrFail(route)) service_.store()->stopAudio(*id);
}

void DeskBus::SetMode(const QString& route, const QString& mode) {
    auto id = routeOrFail(route);
    if (!id) return;
    const auto activation = routeActivationModeFromString(mode.toStdString());
    if (!activation) return void(invalid("mode must be off, auto or on, got \"" + mode.left(64) + "\""));
    if (!service_.store()->setActivationMode(*activation, *id))
        fail("the player deck's route has no activation mode");
}

// ---- edits ------------------------------------------------------------------------------------------------

void DeskBus::SetGain(const QString& route, double gainDb) {
    auto id = routeOrFail(route);
    if (id && checkRange("gain", gainDb, RouteEdits::minGainDb, RouteEdits::maxGainDb, " dB"))
        service_.store()->setGain(*id, gainDb);
}

void DeskBus::SetTrim(const QString& route, double trimDb) {
    auto id = routeOrFail(route);
    if (id && checkRange("trim", trimDb, RouteEdits::minTrimDb, RouteEdits::maxTrimDb, " dB"))
        service_.store()->requestTrim(*id, trimDb);
}

void DeskBus::SetMuted(const QString& route, bool muted) {
    if (auto id = routeOrFail(route)) service_.store()->setMuted(*id, muted);
}

void DeskBus::SetBand(const QString& route, int band, double gainDb) {
    auto id = routeOrFail(route);
    if (id && checkBand(band) &&
        checkRange("gain", gainDb, TenBandLayout::minGainDb, TenBandLayout::maxGainDb, " dB"))
        service_.store()->requestBandGain(band, gainDb, *id, true);
}

void DeskBus::SetChannelDelta(const QString& route, int channel, int band, double deltaDb) {
    auto id = routeOrFail(route);
    if (!id || !checkBand(band) ||
        !checkRange("delta", deltaDb, -RouteEdits::maxChannelDeltaDb, RouteEdits::maxChannelDeltaDb, " dB"))
        return;
    if (channel < 0 || channel >= RouteEdits::maxChannels)
        return void(invalid(QString("channel must be 0..%1, got %2").arg(RouteEdits::maxChannels - 1).arg(channel)));
    service_.store()->setChannelDelta(*id, channel, band, deltaDb);
}

void DeskBus::SetEQBypassed(const QString& route, bool bypassed) {
    if (auto id = routeOrFail(route)) service_.store()->setEQBypassed(*id, bypassed);
}

void DeskBus::SetCorrectionBypassed(const QString& route, bool bypassed) {
    if (auto id = routeOrFail(route)) service_.store()->setCorrectionBypassed(*id, bypassed);
}

void DeskBus::SetGenre(const QString& route, const QString& genre) {
    auto id = routeOrFail(route);
    if (!id) return;
    const auto preset = genrePresetFromString(genre.toStdString());
    if (!preset) return void(invalid("genre \"" + genre.left(64) + "\" is not one of the genre presets"));
    service_.store()->setGenre(*preset, *id);
}

void DeskBus::SetProfile(const QString& route, const QString& catalogueID) {
    auto id = routeOrFail(route);
    if (!id || !checkText("profile", catalogueID)) return;
    try {
        std::optional<std::string> profile;
        if (!catalogueID.isEmpty()) profile = catalogueID.toStdString();
        service_.store()->setCorrectionProfile(*id, profile);
    } catch (const std::exception& e) {
        invalid(e.what());
    }
}

void DeskBus::SetProfileJSON(const QString& route, const QString& profileJSON) {
    auto id = routeOrFail(route);
    if (!id) return;
    try {
        const auto profile = nlohmann::json::parse(profileJSON.toStdString()).get<HeadphoneProfile>();
        service_.store()->setCorrectionProfile(*id, profile);
    } catch (const std::exception& e) {
        invalid(QString("profile is not a headphone profile record: ") + e.what());
    }
}

QString DeskBus::ImportEQ(const QString& route, const QString& name, const QString& eqText) {
    auto id = routeOrFail(route);
    if (!id || !checkText("name", name)) return {};
    // The parser bounds the text and its lines itself (a line past its limit is skipped, as a
    // file's would be); checking the size first only spares converting a huge text.
    if (std::size_t(eqText.size()) > AutoEqParser::maxTextBytes)
        return invalid("text is too long for a parametric EQ"), QString();
    try {
        const AutoEqParser::Result result = AutoEqParser::read(eqText.toStdString(), name.toStdString());
        if (result.skippedLineCount > 0)
            spdlog::warn("EQ import \"{}\": skipped {}", result.eq.modelName, AutoEqParser::skippedLinesText(result));
        const EQPreset preset = service_.store()->importEQ(result.eq);
        service_.store()->applyPreset(preset.id, *id);
        return toQ(preset.id.string());
    } catch (const std::exception& e) {
        invalid(QString("text: ") + e.what());
        return {};
    }
}

void DeskBus::ApplyPreset(const QString& route, const QString& preset) {
    auto id = routeOrFail(route);
    if (!id) return;
    for (const auto& p : service_.store()->presets())
        if (toQ(p.id.string()) == preset || toQ(p.name) == preset) {
            service_.store()->applyPreset(p.id, *id);
            return;
        }
    invalid("no preset \"" + preset.left(64) + "\"");
}

QString DeskBus::SavePreset(const QString& route, const QString& name) {
    auto id = routeOrFail(route);
    if (!id || !checkText("name", name)) return {};
    if (name.trimmed().isEmpty()) return invalid("name is empty"), QString();
    try {
        auto preset = service_.store()->saveCurrentAsPreset(name.toStdString(), *id);
        return preset ? toQ(preset->id.string()) : QString();
    } catch (const std::exception& e) {
        fail(e.what());
        return {};
    }
}

void DeskBus::DeletePreset(const QString& preset) {
    RouteStore* store = storeOrFail();
    if (!store) return;
    const auto id = UUID::fromString(preset.toStdString());
    if (!id || !store->deletePreset(*id)) invalid("no preset \"" + preset.left(64) + "\"");
}

void DeskBus::SetDevice(const QString& route, const QString& deviceUID) {
    auto id = routeOrFail(route);
    if (!id || !checkText("deviceUID", deviceUID)) return;
    std::optional<std::string> device;
    if (!deviceUID.isEmpty()) device = deviceUID.toStdString();
    service_.store()->setOutputDevice(*id, device, std::nullopt);
}

void DeskBus::SetAITune(const QString& route, const QString& scope) {
    auto id = routeOrFail(route);
    if (!id) return;
    if (scope == "off") return void(service_.store()->setAITuneScope(*id, std::nullopt));
    const auto parsed = recommendationScopeFromString(scope.toStdString());
    if (!parsed) return void(invalid("scope must be song, taste or off, got \"" + scope.left(64) + "\""));
    service_.store()->setAITuneScope(*id, parsed);
}

void DeskBus::SetBandAILocked(const QString& route, int band, bool locked) {
    auto id = routeOrFail(route);
    if (id && checkBand(band)) service_.store()->setBandAILocked(*id, band, locked);
}

QString DeskBus::Shape(const QString& route, const QString& description) {
    auto id = routeOrFail(route);
    if (!id || !checkText("description", description)) return {};
    std::map<int, double> changes;
    for (const QString& part : description.split(',', Qt::SkipEmptyParts)) {
        const auto pieces = part.trimmed().split('=');
        bool bandOK = false, dbOK = false;
        const int band = pieces.size() == 2 ? pieces[0].trimmed().toInt(&bandOK) : -1;
        const double db = pieces.size() == 2 ? pieces[1].trimmed().toDouble(&dbOK) : 0.0;
        if (!bandOK || !dbOK)
            return invalid("description must be I=DB pairs such as \"1=+3,4=-2\", got \"" + part.left(64) + "\""), QString();
        if (!checkBand(band) || !checkRange("change", db, -maxShapeRequestDb, maxShapeRequestDb, " dB")) return {};
        changes[band] = db;
    }
    return toQ(service_.store()->siriShapeBands(changes, *id));
}

QString DeskBus::Louder(const QString& route) {
    auto id = routeOrFail(route);
    return id ? toQ(service_.store()->siriAdjustLoudness(true, *id)) : QString();
}

QString DeskBus::Quieter(const QString& route) {
    auto id = routeOrFail(route);
    return id ? toQ(service_.store()->siriAdjustLoudness(false, *id)) : QString();
}

QString DeskBus::AITuneState(const QString& route) {
    auto id = routeOrFail(route);
    if (!id) return {};
    RouteStore* store = service_.store();
    const AppRoute* r = store->route(*id);
    const ProminenceSnapshot snap = store->aiTune().snapshot(*id);
    nlohmann::json reasons = nlohmann::json::array();
    for (const auto& band : store->aiTuneReasons(*id)) reasons.push_back(band);
    nlohmann::json locked = nlohmann::json::array();
    for (bool b : r->aiLockedBands) locked.push_back(b);
    // The song AI Tune hears, as its player or the deck names it (song memory keys on it).
    std::string song;
    if (const auto& playing = store->aiTune().nowPlaying(*id))
        song = playing->artist.empty() ? playing->title : playing->title + " — " + playing->artist;
    return text({{"song", song},
                 {"prominenceDb", snap.prominenceDb},
                 {"isConfident", snap.isConfident},
                 {"analyzedSeconds", snap.analyzedSeconds},
                 {"tweaksDb", r->aiTuneTweaksDb},
                 {"lockedBands", locked},
                 {"reasons", reasons}});
}

QString DeskBus::ResponseCurve(const QString& route, int channel) {
    auto id = routeOrFail(route);
    if (!id) return {};
    try {
        const auto curve = service_.store()->responseCurve(*id, channel, RouteResponse::displayFrequencies());
        return text({{"frequenciesHz", curve->frequenciesHz},
                     {"userDb", curve->userDb},
                     {"aiDb", curve->aiDb},
                     {"correctionDb", curve->correctionDb},
                     {"parametricDb", curve->parametricDb},
                     {"totalDb", curve->totalDb}});
    } catch (const std::out_of_range& e) {
        invalid(e.what());
        return {};
    }
}

void DeskBus::transport(const QString& route, Transport what) {
    auto id = routeOrFail(route);
    if (!id) return;
    const AppRoute* r = service_.store()->route(*id);
    if (r->kind == RouteKind::localPlayer) return deckTransport(what);
    const std::string bundle = r->bundleID;
    if (!forwardTransport || !forwardTransport(bundle, what))
        fail(toQ(bundle) + " has no media player on the session bus to take that");
}

void DeskBus::Play(const QString& route) { transport(route, Transport::play); }
void DeskBus::Pause(const QString& route) { transport(route, Transport::pause); }
void DeskBus::Next(const QString& route) { transport(route, Transport::next); }
void DeskBus::Previous(const QString& route) { transport(route, Transport::previous); }

// ---- layouts ------------------------------------------------------------------------------------------------

QString DeskBus::SaveLayout(const QString& name, const QString& deviceUID) {
    RouteStore* store = storeOrFail();
    if (!store || !checkText("name", name) || !checkText("deviceUID", deviceUID)) return {};
    if (name.trimmed().isEmpty()) return invalid("name is empty"), QString();
    std::optional<std::string> device;
    if (!deviceUID.isEmpty()) device = deviceUID.toStdString();
    return toQ(store->saveLayout(name.toStdString(), device).string());
}

void DeskBus::ApplyLayout(const QString& layout) {
    RouteStore* store = storeOrFail();
    if (!store) return;
    for (const auto& l : store->layouts())
        if (toQ(l.id.string()) == layout || toQ(l.name) == layout) {
            store->applyLayout(l.id);
            return;
        }
    invalid("no layout \"" + layout.left(64) + "\"");
}

void DeskBus::DeleteLayout(const QString& layout) {
    RouteStore* store = storeOrFail();
    if (!store) return;
    for (const auto& l : store->layouts())
        if (toQ(l.id.string()) == layout || toQ(l.name) == layout) {
            store->deleteLayout(l.id);
            return;
        }
    invalid("no layout \"" + layout.left(64) + "\"");
}

// ---- meters ---------------------------------------------------------------------------------------------------

void DeskBus::WatchMeters(bool on) {
    const QString client = message().service();
    if (on) {
        if (meterWatchers_[client]++ == 0) {
            auto* watcher = new QDBusServiceWatcher(client, bus_, QDBusServiceWatcher::WatchForUnregistration, this);
            connect(watcher, &QDBusServiceWatcher::serviceUnregistered, this, [this, watcher](const QString& name) {
                watcherGone(name);
                watcher->deleteLater();
            });
        }
    } else if (auto it = meterWatchers_.find(client); it != meterWatchers_.end() && --it->second <= 0) {
        meterWatchers_.erase(it);
    }
    if (meterWatchers_.empty()) meterTimer_.stop();
    else if (!meterTimer_.isActive()) meterTimer_.start();
}

void DeskBus::watcherGone(const QString& name) {
    meterWatchers_.erase(name);
    if (meterWatchers_.empty()) meterTimer_.stop();
}

void DeskBus::sendMeters() { emit Meters(text(service_.meters())); }

} // namespace tarn

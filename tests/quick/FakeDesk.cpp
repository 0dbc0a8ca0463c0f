#include "quick/FakeDesk.hpp"

#include <QDBusMessage>

#include "app/DeskBus.hpp"

namespace tarn::test {

FakeDesk::FakeDesk(QDBusConnection bus) : bus_(std::move(bus)) {
    thread_.start();
    moveToThread(&thread_);
}

FakeDesk::~FakeDesk() {
    // Undone where it was done, and the object handed back before its thread ends.
    QThread* owner = QThread::currentThread();
    QMetaObject::invokeMethod(this, [&] {
        bus_.unregisterService(DeskBus::serviceName);
        bus_.unregisterObject(DeskBus::objectPath);
        moveToThread(owner);
    }, Qt::BlockingQueuedConnection);
    thread_.quit();
    thread_.wait();
}

bool FakeDesk::publish() {
    // Registered from its own thread, where QtDBus makes the helpers it parents to the object.
    bool published = false;
    QMetaObject::invokeMethod(this, [&] { published = publishHere(); }, Qt::BlockingQueuedConnection);
    return published;
}

bool FakeDesk::publishHere() {
    return bus_.registerObject(DeskBus::objectPath, this,
                               QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals |
                                   QDBusConnection::ExportAllProperties) &&
           bus_.registerService(DeskBus::serviceName);
}

void FakeDesk::set(const char* property, const QString& json) {
    const QString name = QString::fromLatin1(property);
    QMutexLocker lock(&mutex_);
    if (name == "Routes") routes_ = json;
    else if (name == "Processes") processes_ = json;
    else if (name == "Devices") devices_ = json;
    else if (name == "Presets") presets_ = json;
    else if (name == "Layouts") layouts_ = json;
    else if (name == "SelectedRoute") selectedRoute_ = json;
    else if (name == "Deck") deck_ = json;
    auto signal = QDBusMessage::createSignal(DeskBus::objectPath, QStringLiteral("org.freedesktop.DBus.Properties"),
                                             QStringLiteral("PropertiesChanged"));
    signal << QString(DeskBus::interfaceName) << QVariantMap{{name, json}} << QStringList();
    bus_.send(signal);
}

// QtDBus relays a signal only from the object's own thread; queued calls keep their order.
void FakeDesk::sendMeters(const QString& json) {
    QMetaObject::invokeMethod(this, [this, json] { emit Meters(json); }, Qt::QueuedConnection);
}

std::vector<FakeDesk::Call> FakeDesk::calls() const {
    QMutexLocker lock(&mutex_);
    return calls_;
}

void FakeDesk::clearCalls() {
    QMutexLocker lock(&mutex_);
    calls_.clear();
}

std::optional<FakeDesk::Call> FakeDesk::last(const QString& method) const {
    QMutexLocker lock(&mutex_);
    for (auto it = calls_.rbegin(); it != calls_.rend(); ++it)
        if (it->method == method) return *it;
    return std::nullopt;
}

int FakeDesk::count(const QString& method) const {
    QMutexLocker lock(&mutex_);
    int n = 0;
    for (const auto& c : calls_) n += c.method == method;
    return n;
}

void FakeDesk::record(const char* method, QVariantList arguments) {
    QMutexLocker lock(&mutex_);
    calls_.push_back({QString::fromLatin1(method), std::move(arguments)});
}

QString FakeDesk::AddRoute(const QString& b, const QString& n, const QString& d, const QString& m) {
    record("AddRoute", {b, n, d, m});
    return QStringLiteral("00000000-0000-4000-8000-000000000099");
}
void FakeDesk::RemoveRoute(const QString& r) { record("RemoveRoute", {r}); }
void FakeDesk::MoveRoute(const QString& r, int i) { record("MoveRoute", {r, i}); }
void FakeDesk::SelectRoute(const QString& r) { record("SelectRoute", {r}); }
void FakeDesk::SetMode(const QString& r, const QString& m) { record("SetMode", {r, m}); }
void FakeDesk::SetGain(const QString& r, double g) { record("SetGain", {r, g}); }
void FakeDesk::SetTrim(const QString& r, double t) { record("SetTrim", {r, t}); }
void FakeDesk::SetMuted(const QString& r, bool m) { record("SetMuted", {r, m}); }
void FakeDesk::SetBand(const QString& r, int b, double g) { record("SetBand", {r, b, g}); }
void FakeDesk::SetChannelDelta(const QString& r, int c, int b, double d) { record("SetChannelDelta", {r, c, b, d}); }
void FakeDesk::SetEQBypassed(const QString& r, bool b) { record("SetEQBypassed", {r, b}); }
void FakeDesk::SetCorrectionBypassed(const QString& r, bool b) { record("SetCorrectionBypassed", {r, b}); }
void FakeDesk::SetGenre(const QString& r, const QString& g) { record("SetGenre", {r, g}); }
void FakeDesk::SetProfile(const QString& r, const QString& p) { record("SetProfile", {r, p}); }
QString FakeDesk::ImportEQ(const QString& r, const QString& n, const QString& t) {
    record("ImportEQ", {r, n, t});
    return QStringLiteral("00000000-0000-4000-8000-000000000098");
}
void FakeDesk::ApplyPreset(const QString& r, const QString& p) { record("ApplyPreset", {r, p}); }
QString FakeDesk::SavePreset(const QString& r, const QString& n) {
    record("SavePreset", {r, n});
    return QStringLiteral("00000000-0000-4000-8000-000000000097");
}
void FakeDesk::DeletePreset(const QString& p) { record("DeletePreset", {p}); }
void FakeDesk::SetDevice(const QString& r, const QString& d) { record("SetDevice", {r, d}); }
void FakeDesk::SetAITune(const QString& r, const QString& s) { record("SetAITune", {r, s}); }
void FakeDesk::SetBandAILocked(const QString& r, int b, bool l) { record("SetBandAILocked", {r, b, l}); }
QString FakeDesk::AITuneState(const QString& r) {
    record("AITuneState", {r});
    return QStringLiteral("{}");
}
QString FakeDesk::ResponseCurve(const QString& r, int channel) {
    record("ResponseCurve", {r, channel});
    return QStringLiteral(R"({"frequenciesHz":[20,1000,20000],"userDb":[0,6,0],"aiDb":[0,0,0],)"
                          R"("correctionDb":[0,0,0],"parametricDb":[0,0,0],"totalDb":[0,6,0]})");
}

QString FakeDesk::SaveLayout(const QString& n, const QString& d) {
    record("SaveLayout", {n, d});
    return QStringLiteral("00000000-0000-4000-8000-000000000096");
}
void FakeDesk::ApplyLayout(const QString& l) { record("ApplyLayout", {l}); }
void FakeDesk::DeleteLayout(const QString& l) { record("DeleteLayout", {l}); }
void FakeDesk::WatchMeters(bool on) { record("WatchMeters", {on}); }
int FakeDesk::DeckOpen(const QStringList& paths, bool append) {
    record("DeckOpen", {paths, append});
    return int(paths.size());
}
void FakeDesk::DeckPlay(int index) { record("DeckPlay", {index}); }
void FakeDesk::DeckPause() { record("DeckPause", {}); }
void FakeDesk::DeckNext() { record("DeckNext", {}); }
void FakeDesk::DeckPrevious() { record("DeckPrevious", {}); }
void FakeDesk::DeckSeek(double seconds) { record("DeckSeek", {seconds}); }
void FakeDesk::DeckMove(int from, int to) { record("DeckMove", {from, to}); }
QString FakeDesk::DeckLyrics() {
    record("DeckLyrics", {});
    return QStringLiteral(R"({"synchronised":true,"lines":[{"seconds":0.5,"text":"Out on the water"}],"current":0})");
}

} // namespace tarn::test

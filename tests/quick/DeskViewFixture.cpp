#include "quick/DeskViewFixture.hpp"

#include <cstdio>

#include <QDeadlineTimer>
#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>
#include <QTimer>

namespace tarn::test {

QStringList DeskView::warnings;

namespace {

void keepWarnings(QtMsgType type, const QMessageLogContext&, const QString& message) {
    if (type == QtWarningMsg || type == QtCriticalMsg) DeskView::warnings << message;
    std::fprintf(stderr, "%s\n", qPrintable(message));
}

QJsonObject routeObject(const RouteFields& r) {
    QJsonArray bands;
    for (double hz : {31.25, 62.5, 125.0, 250.0, 500.0, 1000.0, 2000.0, 4000.0, 8000.0, 16000.0})
        bands.append(QJsonObject{{"frequencyHz", hz}, {"gainDb", 0.0}, {"q", 1.41}});
    return {{"id", r.id},
            {"displayName", r.name},
            {"bundleID", r.bundleID},
            {"category", "other"},
            {"activationMode", "on"},
            {"health", r.health},
            {"lastStartError", r.message.isEmpty() ? QJsonValue() : QJsonValue(r.message)},
            {"gainDb", 0.0},
            {"outputTrimDb", 0.0},
            {"isMuted", r.muted},
            {"isLive", true},
            {"customEQBands", bands},
            {"selectedGenre", "flat"},
            {"aiTuneScope", "off"},
            {"effectiveOutputChannelCount", 2}};
}

void collect(QQuickItem* item, const QString& name, QList<QQuickItem*>& out) {
    if (!item) return;
    if (item->objectName() == name && item->isVisible()) out << item;
    for (QQuickItem* child : item->childItems()) collect(child, name, out);
}

} // namespace

QString routeJSON(const RouteFields& route) { return QJsonDocument(routeObject(route)).toJson(QJsonDocument::Compact); }

QString routesJSON(const std::vector<RouteFields>& routes) {
    QJsonArray list;
    for (const auto& r : routes) list.append(routeObject(r));
    return QJsonDocument(list).toJson(QJsonDocument::Compact);
}

void DeskView::SetUp() {
    ASSERT_TRUE(bus.isRunning()) << bus.failure();
    warnings.clear();
    qInstallMessageHandler(keepWarnings);
    fake = std::make_unique<FakeDesk>(bus.connect());
    fake->set("Routes", routesJSON({first, second}));
    fake->set("SelectedRoute", first.id);
    ASSERT_TRUE(fake->publish());
    desk = std::make_unique<ui::DeskWindow>(bus.connect(), PreferencesStore(config.path()),
                                            QString::fromStdString((config / "autostart").string()));
    ASSERT_FALSE(desk->load({}, QStringLiteral("none")).has_value());
    window = desk->window();
    window->resize(1280, 800);
    window->show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(window));
    ASSERT_TRUE(eventually([&] { return desk->desk().routes()->rowCount() == 2 && item("band0"); }));
}

void DeskView::TearDown() {
    desk.reset();
    qInstallMessageHandler(nullptr);
}

bool pumpUntil(const std::function<bool()>& condition, int ms) {
    QDeadlineTimer deadline(ms);
    QTimer tick;
    tick.start(10);
    while (!condition()) {
        if (deadline.hasExpired()) return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
    }
    return true;
}

QList<QQuickItem*> DeskView::items(const QString& objectName) const {
    QList<QQuickItem*> found;
    collect(window->contentItem()->parentItem() ? window->contentItem()->parentItem() : window->contentItem(), objectName, found);
    return found;
}

QQuickItem* DeskView::item(const QString& objectName) const {
    const auto found = items(objectName);
    return found.isEmpty() ? nullptr : found.front();
}

QObject* DeskView::object(const QString& objectName) const { return window->findChild<QObject*>(objectName); }

std::optional<FakeDesk::Call> DeskView::awaitCall(const QString& method, int count) {
    eventually([&] { return fake->count(method) >= count; });
    return fake->last(method);
}

void DeskView::click(QQuickItem* target) {
    ASSERT_TRUE(target);
    const QPointF centre = target->mapToScene(QPointF(target->width() / 2, target->height() / 2));
    QTest::mouseClick(window, Qt::LeftButton, {}, centre.toPoint());
}

void DeskView::type(const QString& text) {
    for (QChar c : text) QTest::keyClick(window, c.toLatin1());
}

} // namespace tarn::test

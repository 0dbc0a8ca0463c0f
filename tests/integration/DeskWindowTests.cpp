// The desk window end to end on a real private sound server: the daemon routes two applications,
// the window runs offscreen in this process, a band is changed through the window (from the
// keyboard, as a person without a mouse would), and the change is measured at that route's
// device only. A screenshot is kept as the test's artefact.

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include <QDBusConnection>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QQuickItem>
#include <QQuickWindow>

#include <gtest/gtest.h>

#include "SoundSession.hpp"
#include "core/dsp/TenBandLayout.hpp"
#include "support/ProcessRunner.hpp"
#include "support/ScopedEnvironment.hpp"
#include "support/Signals.hpp"
#include "support/SoundFiles.hpp"
#include "support/TemporaryDirectory.hpp"
#include "ui/DeskWindow.hpp"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

constexpr double toneIn = 0.25;

// The item of that objectName in the window's visual tree (Repeater delegates are not QObject
// children of the window, only visual ones).
QQuickItem* findItem(QQuickItem* item, const QString& name) {
    if (!item) return nullptr;
    if (item->objectName() == name) return item;
    for (QQuickItem* child : item->childItems())
        if (QQuickItem* found = findItem(child, name)) return found;
    return nullptr;
}

// Runs the window's event loop for a while, or until `done` holds.
bool pump(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        if (done && done()) return true;
        std::this_thread::sleep_for(10ms);
    }
    return done ? done() : true;
}

TEST(DeskWindow, ABandChangedThroughTheWindowIsHeardAtThatRoutesDeviceOnly) {
    SoundSession session;
    ASSERT_TRUE(session.isRunning()) << session.failure();
    TemporaryDirectory home;
    ScopedEnvironment config("TARN_CONFIG_DIR", (home / "config").string());
    ScopedEnvironment platform("QT_QPA_PLATFORM", std::string("offscreen"));

    BackgroundProcess daemon({TARN_CLI_PATH, "daemon"});
    BackgroundProcess one({TARN_REOPENING_PLAYER_PATH, "org.tarn.ToneOne", "1000", "0.25"});
    BackgroundProcess two({TARN_REOPENING_PLAYER_PATH, "org.tarn.ToneTwo", "2000", "0.25"});
    ASSERT_TRUE(eventually([] { return runProcess({TARN_CLI_PATH, "route", "list"}).exitCode == 0; }, 10s));
    ASSERT_TRUE(eventually(
        [] { return runProcess({TARN_CLI_PATH, "apps"}).standardOutput.find("org.tarn.ToneTwo") != std::string::npos; },
        5s));
    auto add = [](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {TARN_CLI_PATH, "route", "add"});
        auto out = runProcess(arguments).standardOutput;
        return out.substr(0, out.find('\n'));
    };
    add({"org.tarn.ToneOne", "--device", "test-speakers", "--mode", "on"});
    const std::string b = add({"org.tarn.ToneTwo", "--device", "test-headphones", "--mode", "on"});
    ASSERT_EQ(b.size(), 36u);

    static int argc = 1;
    static char name[] = "tarn";
    static char* argv[] = {name, nullptr};
    ui::DeskWindow::chooseStyle();
    QGuiApplication app(argc, argv);
    ui::DeskWindow deskWindow(QDBusConnection::sessionBus(), PreferencesStore(home / "config"),
                              QString::fromStdString((home / "autostart").string()));
    ASSERT_FALSE(deskWindow.load({}, QStringLiteral("none")).has_value());
    ui::DeskConnection& desk = deskWindow.desk();
    QQuickWindow* window = deskWindow.window();
    ASSERT_TRUE(pump([&] { return desk.routes()->rowCount() == 2; }, 5s));

    desk.selectRoute(QString::fromStdString(b));
    ASSERT_TRUE(pump([&] { return desk.selectedRoute() == QString::fromStdString(b); }, 5s));
    pump(nullptr, 300ms);
    auto* band = findItem(window->contentItem(), "band6"); // 2 kHz
    ASSERT_NE(band, nullptr);
    band->forceActiveFocus();
    // Eighteen half-dB steps down from the keyboard: −9 dB.
    for (int i = 0; i < 18; ++i) {
        QKeyEvent press(QEvent::KeyPress, Qt::Key_Down, Qt::NoModifier);
        QKeyEvent release(QEvent::KeyRelease, Qt::Key_Down, Qt::NoModifier);
        QCoreApplication::sendEvent(window, &press);
        QCoreApplication::sendEvent(window, &release);
        pump(nullptr, 20ms);
    }
    EXPECT_DOUBLE_EQ(band->property("value").toDouble(), -9.0) << "the slider did not take every key press";
    const int row = desk.routes()->indexOf(QString::fromStdString(b));
    ASSERT_TRUE(pump(
        [&] {
            const auto bands = desk.routes()->data(desk.routes()->index(row), ui::RouteListModel::BandsRole).toList();
            return bands.size() == 10 && bands[6].toDouble() == -9.0;
        },
        5s))
        << "the window's band change did not reach the desk";
    pump(nullptr, 800ms);

    auto headphones = recordSink("test-headphones", 2, 1.5);
    auto speakers = recordSink("test-speakers", 2, 1.5);
    EXPECT_NEAR(toneLevelDb(headphones, 2000),
                toDb(toneIn) + peakingResponseDb(2000, -9, TenBandLayout::defaultQ, 2000, 48000), 0.5);
    EXPECT_NEAR(toneLevelDb(speakers, 1000), toDb(toneIn), 0.5) << "the other route changed";

    pump(nullptr, 300ms);
    const auto artefacts = std::filesystem::path(TARN_BINARY_DIR) / "test-artefacts";
    std::filesystem::create_directories(artefacts);
    EXPECT_TRUE(window->grabWindow().save(QString::fromStdString((artefacts / "desk-window.png").string())));

    daemon.signal(SIGTERM);
    daemon.waitFor(10s);
}

} // namespace
} // namespace tarn::test

// The tests need a Qt event loop on the main thread (a GUI one: the desk window is tested here,
// offscreen unless told otherwise), and the same binary doubles as a player in a process of its own.
#include <QGuiApplication>

#include <gtest/gtest.h>

#include "dbus/ChildPlayer.hpp"

int main(int argc, char** argv) {
    if (tarn::test::ChildPlayer::isInvocation(argc, argv)) return tarn::test::ChildPlayer::run(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    return RUN_ALL_TESTS();
}

// The tests need a Qt event loop on the main thread, and the same binary doubles as a player in
// a process of its own.
#include <QCoreApplication>

#include <gtest/gtest.h>

#include "dbus/ChildPlayer.hpp"

int main(int argc, char** argv) {
    if (tarn::test::ChildPlayer::isInvocation(argc, argv)) return tarn::test::ChildPlayer::run(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    QCoreApplication app(argc, argv);
    return RUN_ALL_TESTS();
}

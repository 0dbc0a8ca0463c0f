// The window is built offscreen: no display is needed.
#include <QGuiApplication>

#include <gtest/gtest.h>

#include "ui/DeskWindow.hpp"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    tarn::ui::DeskWindow::chooseStyle();
    QGuiApplication app(argc, argv);
    return RUN_ALL_TESTS();
}

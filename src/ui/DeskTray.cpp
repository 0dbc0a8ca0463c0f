#include "ui/DeskTray.hpp"

#include <QApplication>
#include <QIcon>
#include <QQuickWindow>

namespace tarn::ui {

DeskTray::DeskTray(QQuickWindow& window, QObject* parent) : QObject(parent), window_(window) {
    if (!QSystemTrayIcon::isSystemTrayAvailable()) return;
    icon_ = std::make_unique<QSystemTrayIcon>(QIcon::fromTheme(QStringLiteral("tarn-desk"),
                                                               QIcon::fromTheme(QStringLiteral("audio-card"))));
    icon_->setToolTip(QStringLiteral("Tarn — sound desk"));
    menu_.addAction(QStringLiteral("Open the desk"), this, &DeskTray::reopen);
    menu_.addSeparator();
    menu_.addAction(QStringLiteral("Quit (routes keep playing)"), qApp, &QCoreApplication::quit);
    icon_->setContextMenu(&menu_);
    connect(icon_.get(), &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick) reopen();
    });
    icon_->show();
    QApplication::setQuitOnLastWindowClosed(false);
}

void DeskTray::reopen() {
    window_.show();
    window_.raise();
    window_.requestActivate();
}

} // namespace tarn::ui

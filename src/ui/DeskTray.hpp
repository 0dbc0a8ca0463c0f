#pragma once

#include <memory>

#include <QMenu>
#include <QObject>
#include <QSystemTrayIcon>

class QQuickWindow;

namespace tarn::ui {

// The desk's icon in the panel's tray, where the desktop has one: it reopens the window and
// offers quit. Closing the window then only hides it, since the routes keep playing in the desk
// service and the tray is how a person gets back to them. Without a tray, closing the window
// ends the window's process (the routes still play).
class DeskTray : public QObject {
    Q_OBJECT

public:
    explicit DeskTray(QQuickWindow& window, QObject* parent = nullptr);

    // False where the desktop shows no tray; nothing is installed then.
    bool isShown() const { return icon_ != nullptr; }

private:
    void reopen();

    QQuickWindow& window_;
    QMenu menu_;
    std::unique_ptr<QSystemTrayIcon> icon_;
};

} // namespace tarn::ui

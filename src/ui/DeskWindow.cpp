#include "ui/DeskWindow.hpp"

#include <QQmlContext>

#include "core/profiles/BundledProfileCatalog.hpp"

namespace tarn::ui {

DeskWindow::DeskWindow(QDBusConnection bus) : desk_(std::move(bus)), catalogue_(BundledProfileCatalog::shared()) {
    engine_.rootContext()->setContextProperty("desk", &desk_);
    engine_.rootContext()->setContextProperty("catalogue", &catalogue_);
}

std::optional<QString> DeskWindow::load() {
    desk_.start();
    engine_.load(QUrl(QStringLiteral("qrc:/ui/Main.qml")));
    if (engine_.rootObjects().isEmpty()) return QStringLiteral("the desk window could not be built");
    window_ = qobject_cast<QQuickWindow*>(engine_.rootObjects().front());
    if (!window_) return QStringLiteral("the desk window's top item is not a window");
    // Nobody sees the meters of a hidden or minimised window: the desk need not send them.
    const auto follow = [this](QWindow::Visibility v) {
        desk_.setMetersWanted(v != QWindow::Hidden && v != QWindow::Minimized);
    };
    QObject::connect(window_, &QWindow::visibilityChanged, &desk_, follow);
    follow(window_->visibility());
    return std::nullopt;
}

} // namespace tarn::ui

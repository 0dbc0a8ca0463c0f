#include "ui/DeskWindow.hpp"

#include <QCoreApplication>
#include <QQmlContext>
#include <QQuickStyle>

#include "core/profiles/BundledProfileCatalog.hpp"
#include "ui/AppIconProvider.hpp"

namespace tarn::ui {

void DeskWindow::chooseStyle() {
    // Fusion draws with the application's palette, so the desk is light or dark with the desktop;
    // a style the user chose (QT_QUICK_CONTROLS_STYLE) stands.
    if (qEnvironmentVariableIsEmpty("QT_QUICK_CONTROLS_STYLE")) QQuickStyle::setStyle(QStringLiteral("Fusion"));
}

DeskWindow::DeskWindow(QDBusConnection bus, PreferencesStore preferences, QString autostartDirectory)
    : desk_(std::move(bus)),
      settings_(std::move(preferences), std::move(autostartDirectory), QCoreApplication::applicationFilePath()),
      catalogue_(BundledProfileCatalog::shared()) {
    desk_.setMeterRateHz(settings_.meterRateHz());
    QObject::connect(&settings_, &DeskSettings::changed, &desk_, [this] { desk_.setMeterRateHz(settings_.meterRateHz()); });
    engine_.rootContext()->setContextProperty("desk", &desk_);
    engine_.rootContext()->setContextProperty("settings", &settings_);
    engine_.rootContext()->setContextProperty("catalogue", &catalogue_);
    engine_.rootContext()->setContextProperty("appIcons", new AppIcons(&engine_));
    engine_.addImageProvider(QStringLiteral("appicon"), new AppIconProvider);
}

std::optional<QString> DeskWindow::load(const QString& routeToShow, const QString& openAtStart) {
    engine_.rootContext()->setContextProperty("openAtStart", openAtStart);
    desk_.start();
    if (!routeToShow.isEmpty()) desk_.showRoute(routeToShow);
    engine_.load(QUrl(QStringLiteral("qrc:/ui/Main.qml")));
    if (engine_.rootObjects().isEmpty()) return QStringLiteral("the desk window could not be built");
    window_ = qobject_cast<QQuickWindow*>(engine_.rootObjects().front());
    if (!window_) return QStringLiteral("the desk window's top item is not a window");
    return std::nullopt;
}

} // namespace tarn::ui

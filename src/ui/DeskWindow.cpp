#include "ui/DeskWindow.hpp"

#include <QCoreApplication>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QQmlContext>
#include <QQuickStyle>
#include <QSGRendererInterface>

#include "core/profiles/BundledProfileCatalog.hpp"
#include "ui/AppIconProvider.hpp"

namespace tarn::ui {

namespace {

// OpenGL drawn by the processor (llvmpipe and its kin: virtual machines, remote desktops, X
// servers without a graphics card) redraws the whole window for every meter update, a quarter of
// a core at twenty updates a second. Qt Quick's own software renderer repaints only what moved.
bool openGLRunsOnTheProcessor() {
    QOpenGLContext context;
    if (!context.create()) return false;
    QOffscreenSurface surface;
    surface.setFormat(context.format());
    surface.create();
    if (!context.makeCurrent(&surface)) return false;
    const auto* name = reinterpret_cast<const char*>(context.functions()->glGetString(GL_RENDERER));
    const QByteArray renderer = QByteArray(name ? name : "").toLower();
    context.doneCurrent();
    return renderer.contains("llvmpipe") || renderer.contains("softpipe") || renderer.contains("swrast") ||
           renderer.contains("software rasterizer");
}

} // namespace

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
    // A renderer the user chose is kept.
    if (qEnvironmentVariableIsEmpty("QT_QUICK_BACKEND") && qEnvironmentVariableIsEmpty("QSG_RHI_BACKEND") &&
        openGLRunsOnTheProcessor())
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
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

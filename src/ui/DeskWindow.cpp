#include "ui/DeskWindow.hpp"

#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QQmlContext>
#include <QSGRendererInterface>

#include "core/profiles/BundledProfileCatalog.hpp"

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

DeskWindow::DeskWindow(QDBusConnection bus) : desk_(std::move(bus)), catalogue_(BundledProfileCatalog::shared()) {
    engine_.rootContext()->setContextProperty("desk", &desk_);
    engine_.rootContext()->setContextProperty("catalogue", &catalogue_);
}

std::optional<QString> DeskWindow::load() {
    desk_.start();
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

#include "ui/DesktopPalette.hpp"

#include <QDBusMessage>
#include <QDBusVariant>
#include <QGuiApplication>
#include <QPalette>

namespace tarn::ui {

namespace {

// The portal answers at once or not at all; the window must not wait on it.
constexpr int portalTimeoutMs = 300;
// org.freedesktop.appearance color-scheme: 0 no preference, 1 prefer dark, 2 prefer light.
constexpr uint preferDark = 1;
constexpr uint preferLight = 2;

QPalette darkPalette() {
    QPalette p;
    const QColor window(0x2b, 0x2d, 0x30), base(0x1f, 0x20, 0x23), text(0xe8, 0xe8, 0xe8);
    const QColor button(0x36, 0x38, 0x3c), highlight(0x2f, 0x9e, 0x6e), muted(0x8f, 0x93, 0x99);
    p.setColor(QPalette::Window, window);
    p.setColor(QPalette::WindowText, text);
    p.setColor(QPalette::Base, base);
    p.setColor(QPalette::AlternateBase, window);
    p.setColor(QPalette::Text, text);
    p.setColor(QPalette::Button, button);
    p.setColor(QPalette::ButtonText, text);
    p.setColor(QPalette::BrightText, Qt::white);
    p.setColor(QPalette::Highlight, highlight);
    p.setColor(QPalette::HighlightedText, Qt::white);
    p.setColor(QPalette::ToolTipBase, base);
    p.setColor(QPalette::ToolTipText, text);
    p.setColor(QPalette::PlaceholderText, muted);
    p.setColor(QPalette::Light, button.lighter(130));
    p.setColor(QPalette::Midlight, button.lighter(115));
    p.setColor(QPalette::Mid, QColor(0x4a, 0x4d, 0x52));
    p.setColor(QPalette::Dark, base.darker(120));
    p.setColor(QPalette::Shadow, Qt::black);
    p.setColor(QPalette::Link, highlight.lighter(120));
    for (auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        p.setColor(QPalette::Disabled, role, muted.darker(130));
    return p;
}

} // namespace

std::optional<ColorScheme> desktopColorScheme(const QDBusConnection& sessionBus) {
    auto message = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.portal.Desktop"),
                                                  QStringLiteral("/org/freedesktop/portal/desktop"),
                                                  QStringLiteral("org.freedesktop.portal.Settings"), QStringLiteral("Read"));
    message << QStringLiteral("org.freedesktop.appearance") << QStringLiteral("color-scheme");
    const QDBusMessage reply = sessionBus.call(message, QDBus::Block, portalTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) return std::nullopt;
    // The value comes wrapped once or twice in a variant, depending on the portal's version.
    QVariant value = reply.arguments().front();
    while (value.canConvert<QDBusVariant>()) value = value.value<QDBusVariant>().variant();
    bool ok = false;
    const uint scheme = value.toUInt(&ok);
    if (!ok) return std::nullopt;
    if (scheme == preferDark) return ColorScheme::dark;
    if (scheme == preferLight) return ColorScheme::light;
    return std::nullopt;
}

void applyColorScheme(ColorScheme scheme) {
    QGuiApplication::setPalette(scheme == ColorScheme::dark ? darkPalette() : QPalette());
}

} // namespace tarn::ui

#pragma once

#include <optional>

#include <QDBusConnection>

namespace tarn::ui {

// Light or dark, as the desktop prefers. Qt 6.4 does not follow the freedesktop preference by
// itself on every desktop, so the window asks the settings portal and sets its palette from it.
enum class ColorScheme { light, dark };

// The desktop's preference from the settings portal; none when it states none or has no portal.
std::optional<ColorScheme> desktopColorScheme(const QDBusConnection& sessionBus);

// Gives the application a palette for the scheme (Fusion's light palette, or a dark one built on
// the same roles). Needs a QGuiApplication.
void applyColorScheme(ColorScheme scheme);

} // namespace tarn::ui

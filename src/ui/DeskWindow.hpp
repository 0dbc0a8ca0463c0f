#pragma once

#include <optional>

#include <QDBusConnection>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QString>

#include "app/DeskSettings.hpp"
#include "ui/CatalogueSearchModel.hpp"
#include "ui/DeskConnection.hpp"

namespace tarn::ui {

// The desk window as a whole: its connection to the desk service, its settings, the catalogue
// search, and the QML view built on them. Needs a QGuiApplication.
class DeskWindow {
public:
    DeskWindow(QDBusConnection bus, PreferencesStore preferences, QString autostartDirectory);

    // The controls' style; before the first DeskWindow is made.
    static void chooseStyle();

    // Builds the view; the problem in words when it cannot be built. `routeToShow`, when given,
    // is selected for the editor once the desk has it. `openAtStart` opens one of the window's
    // dialogs ("intro", "settings", "add") at once; "none" opens none, not even the first-run
    // introduction; empty opens the introduction on the first run only.
    std::optional<QString> load(const QString& routeToShow = {}, const QString& openAtStart = {});

    DeskConnection& desk() { return desk_; }
    DeskSettings& settings() { return settings_; }
    // Null before a successful load().
    QQuickWindow* window() const { return window_; }

private:
    DeskConnection desk_;
    DeskSettings settings_;
    CatalogueSearchModel catalogue_;
    QQmlApplicationEngine engine_;
    QQuickWindow* window_ = nullptr;
};

} // namespace tarn::ui

#pragma once

#include <QDBusConnection>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QString>

#include "ui/CatalogueSearchModel.hpp"
#include "ui/DeskConnection.hpp"

namespace tarn::ui {

// The desk window as a whole: its connection to the desk service, the catalogue search, and the
// QML view built on them. Needs a QGuiApplication.
class DeskWindow {
public:
    explicit DeskWindow(QDBusConnection bus);

    // Builds the view; the problem in words when it cannot be built.
    std::optional<QString> load();

    DeskConnection& desk() { return desk_; }
    // Null before a successful load().
    QQuickWindow* window() const { return window_; }

private:
    DeskConnection desk_;
    CatalogueSearchModel catalogue_;
    QQmlApplicationEngine engine_;
    QQuickWindow* window_ = nullptr;
};

} // namespace tarn::ui

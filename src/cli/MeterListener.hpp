#pragma once

#include <functional>

#include <QObject>
#include <QString>

namespace tarn::cli {

// Receives the desk's Meters signal (QtDBus delivers signals to slots only).
class MeterListener : public QObject {
    Q_OBJECT
public:
    std::function<void(const QString& json)> onMeters;

public slots:
    void meters(const QString& json) {
        if (onMeters) onMeters(json);
    }
};

} // namespace tarn::cli

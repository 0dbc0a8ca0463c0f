#pragma once

#include <string_view>

#include <QObject>
#include <QString>

#include "app/PreferenceDocument.hpp"

namespace tarn {

// The desk window's own settings: how often its meters move, the mode a route added from the
// window starts in, whether the first-run introduction has been seen, and whether the desk
// service starts at login (an XDG autostart entry, so it works on every desktop). Each change
// is saved at once.
class DeskSettings : public QObject {
    Q_OBJECT
    Q_PROPERTY(int meterRateHz READ meterRateHz WRITE setMeterRateHz NOTIFY changed)
    Q_PROPERTY(QString defaultMode READ defaultMode WRITE setDefaultMode NOTIFY changed)
    Q_PROPERTY(bool onboarded READ onboarded WRITE setOnboarded NOTIFY changed)
    Q_PROPERTY(bool startAtLogin READ startAtLogin WRITE setStartAtLogin NOTIFY changed)
    Q_PROPERTY(QString problem READ problem NOTIFY changed)

public:
    static constexpr std::string_view key = "Tarn.deskWindow.v1";
    // The desk sends meters at most this often; slower rates cost the window less.
    static constexpr int maxMeterRateHz = 20;
    static constexpr int minMeterRateHz = 1;
    static constexpr std::string_view autostartFileName = "com.tarn.Desk.desktop";

    struct Values {
        int meterRateHz = maxMeterRateHz;
        std::string defaultMode = "on";
        bool onboarded = false;
        bool operator==(const Values&) const = default;
    };

    // `autostartDirectory` is $XDG_CONFIG_HOME/autostart in the product; `program` is what the
    // entry starts (this executable's path).
    DeskSettings(PreferencesStore preferences, QString autostartDirectory, QString program, QObject* parent = nullptr);
    static QString standardAutostartDirectory();

    int meterRateHz() const { return document_.value().meterRateHz; }
    QString defaultMode() const { return QString::fromStdString(document_.value().defaultMode); }
    bool onboarded() const { return document_.value().onboarded; }
    bool startAtLogin() const;
    // Why the last change could not be kept, in words; empty when it was.
    const QString& problem() const { return problem_; }

    // Out-of-range or unknown values are refused (the setting stays, `problem` says why).
    void setMeterRateHz(int hz);
    void setDefaultMode(const QString& mode);
    void setOnboarded(bool onboarded);
    void setStartAtLogin(bool on);

signals:
    void changed();

private:
    void save();
    QString autostartPath() const;

    PreferenceDocument<Values> document_;
    QString autostartDirectory_;
    QString program_;
    QString problem_;
};

void to_json(nlohmann::json& j, const DeskSettings::Values& v);
void from_json(const nlohmann::json& j, DeskSettings::Values& v);

} // namespace tarn

#include "app/DeskSettings.hpp"

#include <QDir>
#include <QFile>
#include <QSaveFile>
#include <QStandardPaths>

#include "core/models/RouteActivationMode.hpp"

namespace tarn {

void to_json(nlohmann::json& j, const DeskSettings::Values& v) {
    j = {{"meterRateHz", v.meterRateHz}, {"defaultMode", v.defaultMode}, {"onboarded", v.onboarded}};
}

// A document from an older or hand-edited file keeps every value it holds that still makes sense.
void from_json(const nlohmann::json& j, DeskSettings::Values& v) {
    v = {};
    const int hz = j.value("meterRateHz", v.meterRateHz);
    if (hz >= DeskSettings::minMeterRateHz && hz <= DeskSettings::maxMeterRateHz) v.meterRateHz = hz;
    const std::string mode = j.value("defaultMode", v.defaultMode);
    if (routeActivationModeFromString(mode)) v.defaultMode = mode;
    v.onboarded = j.value("onboarded", false);
}

DeskSettings::DeskSettings(PreferencesStore preferences, QString autostartDirectory, QString program, QObject* parent)
    : QObject(parent), document_(std::move(preferences), std::string(key)),
      autostartDirectory_(std::move(autostartDirectory)), program_(std::move(program)) {
    if (document_.lastProblem()) problem_ = QString::fromStdString(*document_.lastProblem());
}

QString DeskSettings::standardAutostartDirectory() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + "/autostart";
}

QString DeskSettings::autostartPath() const {
    return autostartDirectory_ + "/" + QString::fromUtf8(autostartFileName.data(), autostartFileName.size());
}

void DeskSettings::save() {
    document_.save();
    problem_ = document_.lastProblem() ? QString::fromStdString(*document_.lastProblem()) : QString();
    emit changed();
}

void DeskSettings::setMeterRateHz(int hz) {
    if (hz < minMeterRateHz || hz > maxMeterRateHz) {
        problem_ = QString("a meter rate of %1 per second is outside %2 … %3").arg(hz).arg(minMeterRateHz).arg(maxMeterRateHz);
        emit changed();
        return;
    }
    if (hz == meterRateHz()) return;
    document_.edit().meterRateHz = hz;
    save();
}

void DeskSettings::setDefaultMode(const QString& mode) {
    if (!routeActivationModeFromString(mode.toStdString())) {
        problem_ = QString("\"%1\" is not a route mode (off, auto or on)").arg(mode.left(32));
        emit changed();
        return;
    }
    if (mode == defaultMode()) return;
    document_.edit().defaultMode = mode.toStdString();
    save();
}

void DeskSettings::setOnboarded(bool onboarded) {
    if (onboarded == this->onboarded()) return;
    document_.edit().onboarded = onboarded;
    save();
}

// The entry is the setting: what a person sees in their desktop's startup list is what holds.
// An entry they turned off there (Hidden=true) counts as off.
bool DeskSettings::startAtLogin() const {
    QFile file(autostartPath());
    if (!file.open(QIODevice::ReadOnly)) return false;
    const QByteArray text = file.readAll();
    return !text.contains("\nHidden=true");
}

void DeskSettings::setStartAtLogin(bool on) {
    if (on == startAtLogin()) return;
    problem_.clear();
    if (!on) {
        if (!QFile::remove(autostartPath()) && QFile::exists(autostartPath()))
            problem_ = QString("%1 cannot be removed").arg(autostartPath());
        emit changed();
        return;
    }
    if (!QDir().mkpath(autostartDirectory_)) {
        problem_ = QString("%1 cannot be created").arg(autostartDirectory_);
        emit changed();
        return;
    }
    // An Exec line escapes these characters twice over; a program path holding one is refused
    // rather than written in a form the session might run differently.
    for (QChar c : program_)
        if (c == '"' || c == '`' || c == '$' || c == '\\' || c == '\n') {
            problem_ = QString("the desk cannot start at login from %1 (its path holds a '%2')").arg(program_, c);
            emit changed();
            return;
        }
    // Written whole or not at all, so a crash never leaves a half entry the session would run.
    QSaveFile file(autostartPath());
    const QString entry = QStringLiteral("[Desktop Entry]\nType=Application\nName=Tarn desk service\n"
                                         "Comment=Keeps every Tarn route playing from login\n"
                                         "Exec=\"%1\" daemon\nIcon=tarn-desk\nNoDisplay=true\n"
                                         "X-GNOME-Autostart-enabled=true\n")
                              .arg(program_);
    if (!file.open(QIODevice::WriteOnly) || file.write(entry.toUtf8()) < 0 || !file.commit())
        problem_ = QString("%1 cannot be written: %2").arg(autostartPath(), file.errorString());
    emit changed();
}

} // namespace tarn

#include "ui/RouteListModel.hpp"

#include <algorithm>
#include <cmath>

namespace tarn::ui {

RouteListModel::RouteListModel(QObject* parent) : QAbstractListModel(parent) {}

int RouteListModel::rowCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : int(rows_.size()); }

double RouteListModel::meterPosition(double linearPeak) {
    if (!(linearPeak > 0.0) || !std::isfinite(linearPeak)) return 0.0;
    const double db = 20.0 * std::log10(linearPeak);
    return std::clamp((db - meterFloorDb) / -meterFloorDb, 0.0, 1.0);
}

QVariant RouteListModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() < 0 || index.row() >= rows_.size()) return {};
    const Row& row = rows_[index.row()];
    const QJsonObject& r = row.route;
    switch (role) {
    case IdRole: return r.value("id").toString();
    case DisplayNameRole: return r.value("displayName").toString();
    case BundleIDRole: return r.value("bundleID").toString();
    case ModeRole: return r.value("activationMode").toString("off");
    case HealthRole: return r.value("health").toString("idle");
    case MessageRole: {
        // A failure to start matters most; otherwise what the chain left out or silenced.
        const QString error = r.value("lastStartError").toString();
        return error.isEmpty() ? r.value("chainNotice").toString() : error;
    }
    case DeviceRole: return r.value("targetOutputDeviceID").toString();
    case GainRole: return r.value("gainDb").toDouble();
    case TrimRole: return r.value("outputTrimDb").toDouble();
    case MutedRole: return r.value("isMuted").toBool();
    case LiveRole: return r.value("isLive").toBool();
    case BandsRole: {
        QVariantList gains;
        for (const auto& band : r.value("customEQBands").toArray()) gains.append(band.toObject().value("gainDb").toDouble());
        return gains;
    }
    case GenreRole: return r.value("selectedGenre").toString("flat");
    case AITuneRole: return r.value("aiTuneScope").toString("off");
    case EQBypassedRole: return r.value("customEQBypassed").toBool();
    case CorrectionBypassedRole: return r.value("correctionBypassed").toBool();
    case CorrectionRole: return r.value("correctionProfileSnapshot").toObject().value("modelName").toString();
    case CorrectionSourceRole: {
        const QJsonObject profile = r.value("correctionProfileSnapshot").toObject();
        return profile.value("measurementProvider").toString(profile.value("sourceProject").toString());
    }
    case SuggestedGenreRole: return r.value("suggestedGenre").toString();
    case CategoryRole: return r.value("category").toString("other");
    // A route that has not played yet has no output format: stereo is what it will most likely get.
    case ChannelCountRole: {
        const int count = r.value("effectiveOutputChannelCount").toInt(0);
        return count > 0 ? count : 2;
    }
    case ChannelDeltasRole: return r.value("channelEQDeltasDb").toArray().toVariantList();
    case InputLevelRole: return row.inputLevel;
    case OutputLevelRole: return row.outputLevel;
    }
    return {};
}

QHash<int, QByteArray> RouteListModel::roleNames() const {
    return {{IdRole, "routeId"},       {DisplayNameRole, "displayName"}, {BundleIDRole, "bundleID"},
            {ModeRole, "mode"},        {HealthRole, "health"},           {MessageRole, "message"},
            {DeviceRole, "device"},    {GainRole, "gainDb"},             {TrimRole, "trimDb"},
            {MutedRole, "muted"},      {LiveRole, "live"},               {BandsRole, "bands"},
            {GenreRole, "genre"},      {AITuneRole, "aiTune"},           {InputLevelRole, "inputLevel"},
            {OutputLevelRole, "outputLevel"}, {EQBypassedRole, "eqBypassed"},
            {CorrectionBypassedRole, "correctionBypassed"}, {CorrectionRole, "correction"},
            {CategoryRole, "category"}, {ChannelCountRole, "channelCount"}, {ChannelDeltasRole, "channelDeltas"},
            {CorrectionSourceRole, "correctionSource"}, {SuggestedGenreRole, "suggestedGenre"}};
}

void RouteListModel::setRoutes(const QJsonArray& routes) {
    bool sameRows = routes.size() == rows_.size();
    for (int i = 0; sameRows && i < routes.size(); ++i)
        sameRows = routes[i].toObject().value("id") == rows_[i].route.value("id");
    if (!sameRows) {
        beginResetModel();
        rows_.clear();
        for (const auto& r : routes) {
            const QJsonObject route = r.toObject();
            rows_.push_back({route.value("id").toString(), route, meterPosition(route.value("inputPeak").toDouble()),
                             meterPosition(route.value("outputPeak").toDouble())});
        }
        endResetModel();
        emit countChanged();
        ++revision_;
        emit revisionChanged();
        return;
    }
    bool changed = false;
    for (int i = 0; i < routes.size(); ++i) {
        const QJsonObject route = routes[i].toObject();
        if (route == rows_[i].route) continue;
        rows_[i].route = route;
        changed = true;
        emit dataChanged(index(i), index(i));
    }
    if (changed) {
        ++revision_;
        emit revisionChanged();
    }
}

void RouteListModel::setMeters(const QJsonArray& meters) {
    for (const auto& m : meters) {
        const QJsonObject meter = m.toObject();
        const int row = indexOf(meter.value("id").toString());
        if (row < 0) continue;
        const double in = meterPosition(meter.value("inputPeak").toDouble());
        const double out = meterPosition(meter.value("outputPeak").toDouble());
        if (in == rows_[row].inputLevel && out == rows_[row].outputLevel) continue;
        rows_[row].inputLevel = in;
        rows_[row].outputLevel = out;
        emit dataChanged(index(row), index(row), {InputLevelRole, OutputLevelRole});
    }
}

int RouteListModel::indexOf(const QString& id) const {
    for (int i = 0; i < rows_.size(); ++i)
        if (rows_[i].id == id) return i;
    return -1;
}

QVariantMap RouteListModel::get(int row) const {
    QVariantMap out;
    if (row < 0 || row >= rows_.size()) return out;
    const auto names = roleNames();
    for (auto it = names.begin(); it != names.end(); ++it) out.insert(QString::fromUtf8(it.value()), data(index(row), it.key()));
    return out;
}

} // namespace tarn::ui

#pragma once

#include <QAbstractListModel>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QVariantList>
#include <QVector>

namespace tarn::ui {

// The routes as the desk window shows them, one row each, fed with what the desk service
// publishes: the Routes property (JSON) whenever it changes, and the meters up to 20 times a
// second. A meter update touches only the two level roles of the rows it names, so the view
// redraws two small items per route and nothing else.
class RouteListModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ rowCount NOTIFY countChanged)
    // Grows whenever a route's values change (not its meters): views that copy a row follow it.
    Q_PROPERTY(int revision READ revision NOTIFY revisionChanged)

public:
    enum Role {
        IdRole = Qt::UserRole + 1,
        DisplayNameRole,
        BundleIDRole,
        ModeRole,
        HealthRole,
        MessageRole,
        DeviceRole,
        GainRole,
        TrimRole,
        MutedRole,
        LiveRole,
        BandsRole,
        GenreRole,
        AITuneRole,
        InputLevelRole,
        OutputLevelRole,
        EQBypassedRole,
        CorrectionBypassedRole,
        CorrectionRole,
        CategoryRole,
        ChannelCountRole,
        ChannelDeltasRole,
        CorrectionSourceRole,
        SuggestedGenreRole,
    };

    // Meters show −60 … 0 dBFS.
    static constexpr double meterFloorDb = -60.0;

    explicit RouteListModel(QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    // The Routes property's JSON array. Rows keep their place when only their values change.
    void setRoutes(const QJsonArray& routes);
    // The Meters signal's JSON array of {id, inputPeak, outputPeak}.
    void setMeters(const QJsonArray& meters);

    int revision() const { return revision_; }
    Q_INVOKABLE int indexOf(const QString& id) const;
    Q_INVOKABLE QVariantMap get(int row) const;

    // A linear peak as a 0 … 1 meter position on the dBFS scale.
    static double meterPosition(double linearPeak);

signals:
    void countChanged();
    void revisionChanged();

private:
    struct Row {
        QString id; // looked up for every meter update: kept out of the JSON
        QJsonObject route;
        double inputLevel = 0.0;
        double outputLevel = 0.0;
    };
    QVector<Row> rows_;
    int revision_ = 0;
};

} // namespace tarn::ui

// The desk window's route rows, fed the way the desk service feeds them: rows keep their place
// when only their values change, and a meter update touches only the levels of the rows it names.

#include <cmath>

#include <QJsonArray>
#include <QJsonDocument>
#include <gtest/gtest.h>

#include "ui/RouteListModel.hpp"

namespace tarn::test {
namespace {

using ui::RouteListModel;

QJsonArray routes(const char* json) { return QJsonDocument::fromJson(json).array(); }

constexpr const char* twoRoutes = R"([
  {"id": "A", "displayName": "Music", "health": "verified", "activationMode": "on", "isLive": true,
   "customEQBands": [{"gainDb": 0}, {"gainDb": 3.5}, {"gainDb": -2}], "lastStartError": null},
  {"id": "B", "displayName": "Video", "health": "paused", "activationMode": "auto", "isLive": false,
   "customEQBands": [], "lastStartError": "source app stopped", "targetOutputDeviceID": "headphones"}])";

struct Recorder {
    int resets = 0, counts = 0, revisions = 0;
    std::vector<std::pair<int, QList<int>>> changes;
    explicit Recorder(RouteListModel& model) {
        QObject::connect(&model, &QAbstractItemModel::modelReset, [this] { ++resets; });
        QObject::connect(&model, &RouteListModel::countChanged, [this] { ++counts; });
        QObject::connect(&model, &RouteListModel::revisionChanged, [this] { ++revisions; });
        QObject::connect(&model, &QAbstractItemModel::dataChanged,
                         [this](const QModelIndex& from, const QModelIndex&, const QList<int>& roles) {
                             changes.push_back({from.row(), roles});
                         });
    }
};

TEST(RouteListModel, RowsCarryTheRoutesAndKeepTheirPlaceWhenOnlyValuesChange) {
    RouteListModel model;
    Recorder seen(model);
    model.setRoutes(routes(twoRoutes));
    ASSERT_EQ(model.rowCount(), 2);
    EXPECT_EQ(seen.resets, 1);
    const auto a = model.index(0), b = model.index(1);
    EXPECT_EQ(model.data(a, RouteListModel::DisplayNameRole).toString(), "Music");
    EXPECT_EQ(model.data(a, RouteListModel::BandsRole).toList(), (QVariantList{0.0, 3.5, -2.0}));
    EXPECT_EQ(model.data(a, RouteListModel::MessageRole).toString(), "");
    EXPECT_EQ(model.data(b, RouteListModel::MessageRole).toString(), "source app stopped");
    EXPECT_EQ(model.data(b, RouteListModel::DeviceRole).toString(), "headphones");
    // What the chain leaves out at its rate shows on the row unless a start failure says more.
    RouteListModel noticed;
    noticed.setRoutes(routes(R"([{"id": "A", "lastStartError": null, "chainNotice": "2 filter settings cannot run"},
                                 {"id": "B", "lastStartError": "app not running", "chainNotice": "2 filter settings"}])"));
    EXPECT_EQ(noticed.data(noticed.index(0), RouteListModel::MessageRole).toString(), "2 filter settings cannot run");
    EXPECT_EQ(noticed.data(noticed.index(1), RouteListModel::MessageRole).toString(), "app not running");
    EXPECT_EQ(model.data(b, RouteListModel::ModeRole).toString(), "auto");
    EXPECT_EQ(model.indexOf("B"), 1);
    EXPECT_EQ(model.indexOf("C"), -1);

    // The second route's health changes: that row only, no reset.
    model.setRoutes(routes(R"([
      {"id": "A", "displayName": "Music", "health": "verified", "activationMode": "on", "isLive": true,
       "customEQBands": [{"gainDb": 0}, {"gainDb": 3.5}, {"gainDb": -2}], "lastStartError": null},
      {"id": "B", "displayName": "Video", "health": "verified", "activationMode": "auto", "isLive": true,
       "customEQBands": [], "lastStartError": null, "targetOutputDeviceID": "headphones"}])"));
    EXPECT_EQ(seen.resets, 1);
    ASSERT_EQ(seen.changes.size(), 1u);
    EXPECT_EQ(seen.changes[0].first, 1);
    EXPECT_EQ(model.data(b, RouteListModel::HealthRole).toString(), "verified");
    EXPECT_EQ(seen.revisions, 2);

    // Reordered: the rows are rebuilt.
    model.setRoutes(routes(R"([{"id": "B"}, {"id": "A"}])"));
    EXPECT_EQ(seen.resets, 2);
    EXPECT_EQ(model.indexOf("A"), 1);
    EXPECT_EQ(model.get(0).value("routeId").toString(), "B");
}

TEST(RouteListModel, MetersMoveOnlyTheLevelsOfTheRoutesTheyName) {
    RouteListModel model;
    model.setRoutes(routes(twoRoutes));
    Recorder seen(model);
    // 0.1 is −20 dBFS: two thirds up a −60 … 0 dB scale.
    model.setMeters(routes(R"([{"id": "B", "inputPeak": 0.1, "outputPeak": 1.0}, {"id": "Z", "inputPeak": 1}])"));
    ASSERT_EQ(seen.changes.size(), 1u);
    EXPECT_EQ(seen.changes[0].first, 1);
    EXPECT_EQ(seen.changes[0].second, (QList<int>{RouteListModel::InputLevelRole, RouteListModel::OutputLevelRole}));
    EXPECT_NEAR(model.data(model.index(1), RouteListModel::InputLevelRole).toDouble(), 2.0 / 3.0, 1e-9);
    EXPECT_DOUBLE_EQ(model.data(model.index(1), RouteListModel::OutputLevelRole).toDouble(), 1.0);
    EXPECT_EQ(seen.revisions, 0) << "a meter update counted as a change of the route";

    // The same levels again: nothing to redraw.
    model.setMeters(routes(R"([{"id": "B", "inputPeak": 0.1, "outputPeak": 1.0}])"));
    EXPECT_EQ(seen.changes.size(), 1u);

    EXPECT_DOUBLE_EQ(RouteListModel::meterPosition(0.001), 0.0);
    EXPECT_DOUBLE_EQ(RouteListModel::meterPosition(4.0), 1.0);
    EXPECT_DOUBLE_EQ(RouteListModel::meterPosition(-0.5), 0.0);
    EXPECT_DOUBLE_EQ(RouteListModel::meterPosition(std::nan("")), 0.0);
}

} // namespace
} // namespace tarn::test

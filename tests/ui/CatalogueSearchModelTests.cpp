// The headphone picker's search, typed a letter at a time against the shipped catalogue.

#include <gtest/gtest.h>

#include "core/profiles/BundledProfileCatalog.hpp"
#include "ui/CatalogueSearchModel.hpp"

namespace tarn::test {
namespace {

using ui::CatalogueSearchModel;

QStringList names(const CatalogueSearchModel& model) {
    QStringList out;
    for (int i = 0; i < model.rowCount(); ++i) out << model.data(model.index(i), CatalogueSearchModel::ModelNameRole).toString();
    return out;
}

TEST(CatalogueSearch, FindsTheHD650AsAPersonTypesItWithItsSource) {
    CatalogueSearchModel model(BundledProfileCatalog::shared());
    // Before anything is typed: the featured models.
    ASSERT_GT(model.rowCount(), 0);
    for (int i = 0; i < model.rowCount(); ++i)
        EXPECT_TRUE(model.data(model.index(i), CatalogueSearchModel::FeaturedRole).toBool());

    int rowsBefore = model.rowCount();
    for (const char* typed : {"h", "hd", "hd ", "hd 6", "hd 65", "hd 650"}) {
        model.setQuery(typed);
        EXPECT_TRUE(model.problem().isEmpty()) << model.problem().toStdString();
        EXPECT_LE(model.rowCount(), int(CatalogueSearchModel::maxResults));
        if (QString(typed).size() >= 4) EXPECT_LE(model.rowCount(), rowsBefore) << typed << ": more letters, more results";
        rowsBefore = model.rowCount();
    }
    const QStringList found = names(model);
    ASSERT_FALSE(found.isEmpty());
    EXPECT_EQ(found.front(), "Sennheiser HD 650");
    EXPECT_EQ(model.data(model.index(0), CatalogueSearchModel::IdRole).toString(), "oratory1990.over-ear.sennheiser-hd-650");
    EXPECT_EQ(model.data(model.index(0), CatalogueSearchModel::SourceRole).toString(), "oratory1990");
    EXPECT_EQ(model.data(model.index(0), CatalogueSearchModel::BrandRole).toString(), "Sennheiser");
    for (const QString& name : found) EXPECT_TRUE(name.contains("650")) << name.toStdString();

    model.setQuery("no such headphone at all");
    EXPECT_EQ(model.rowCount(), 0);
}

} // namespace
} // namespace tarn::test

#pragma once

#include <vector>

#include <QAbstractListModel>
#include <QString>

namespace tarn {
class BundledProfileCatalog;
struct HeadphoneProfile;
}

namespace tarn::ui {

// The headphone catalogue as a person searches it while typing: best matches first, featured
// models before the rest, each with its measurement source. An empty query lists the featured
// models. Reads the catalogue shipped with Tarn, in this process.
class CatalogueSearchModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(QString query READ query WRITE setQuery NOTIFY queryChanged)
    Q_PROPERTY(QString problem READ problem NOTIFY queryChanged)

public:
    enum Role { IdRole = Qt::UserRole + 1, ModelNameRole, BrandRole, SourceRole, FeaturedRole };
    static constexpr std::size_t maxResults = 50;

    explicit CatalogueSearchModel(const BundledProfileCatalog& catalogue, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    const QString& query() const { return query_; }
    void setQuery(const QString& query);
    // Why the catalogue could not be searched, if it could not.
    const QString& problem() const { return problem_; }

signals:
    void queryChanged();

private:
    const BundledProfileCatalog& catalogue_;
    QString query_;
    QString problem_;
    std::vector<const HeadphoneProfile*> results_;
};

} // namespace tarn::ui

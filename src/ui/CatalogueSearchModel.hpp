#pragma once

#include <vector>

#include <QAbstractListModel>
#include <QString>
#include <QStringList>

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
    // "" for every brand; otherwise only that maker's models (all of them while nothing is typed).
    Q_PROPERTY(QString brand READ brand WRITE setBrand NOTIFY queryChanged)
    Q_PROPERTY(QStringList brands READ brands CONSTANT)

public:
    enum Role { IdRole = Qt::UserRole + 1, ModelNameRole, BrandRole, SourceRole, FeaturedRole };
    static constexpr std::size_t maxResults = 50;

    explicit CatalogueSearchModel(const BundledProfileCatalog& catalogue, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    const QString& query() const { return query_; }
    void setQuery(const QString& query);
    const QString& brand() const { return brand_; }
    void setBrand(const QString& brand);
    QStringList brands() const;
    // Why the catalogue could not be searched, if it could not.
    const QString& problem() const { return problem_; }

signals:
    void queryChanged();

private:
    const BundledProfileCatalog& catalogue_;
    void refresh();

    QString query_;
    QString brand_;
    QString problem_;
    std::vector<const HeadphoneProfile*> results_;
};

} // namespace tarn::ui

#include "ui/CatalogueSearchModel.hpp"

#include "core/profiles/BundledProfileCatalog.hpp"

namespace tarn::ui {

CatalogueSearchModel::CatalogueSearchModel(const BundledProfileCatalog& catalogue, QObject* parent)
    : QAbstractListModel(parent), catalogue_(catalogue) {
    setQuery(QString());
}

int CatalogueSearchModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : int(results_.size());
}

QVariant CatalogueSearchModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() < 0 || index.row() >= int(results_.size())) return {};
    const HeadphoneProfile& p = *results_[std::size_t(index.row())];
    switch (role) {
    case IdRole: return QString::fromStdString(p.id);
    case ModelNameRole: return QString::fromStdString(p.modelName);
    case BrandRole: return QString::fromUtf8(BundledProfileCatalog::brandOf(p.modelName).data(),
                                             qsizetype(BundledProfileCatalog::brandOf(p.modelName).size()));
    case SourceRole: return QString::fromStdString(p.measurementProvider.value_or(p.sourceProject));
    case FeaturedRole: return p.isFeatured;
    }
    return {};
}

QHash<int, QByteArray> CatalogueSearchModel::roleNames() const {
    return {{IdRole, "profileId"}, {ModelNameRole, "modelName"}, {BrandRole, "brand"}, {SourceRole, "source"},
            {FeaturedRole, "featured"}};
}

void CatalogueSearchModel::setQuery(const QString& query) {
    beginResetModel();
    query_ = query;
    problem_.clear();
    try {
        results_ = catalogue_.search(query.toStdString(), maxResults);
    } catch (const BundledProfileCatalog::LoadError& e) {
        results_.clear();
        problem_ = QString::fromStdString(e.what());
    }
    endResetModel();
    emit queryChanged();
}

} // namespace tarn::ui

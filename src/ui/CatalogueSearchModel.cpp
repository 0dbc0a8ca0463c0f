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
    query_ = query;
    refresh();
}

void CatalogueSearchModel::setBrand(const QString& brand) {
    brand_ = brand;
    refresh();
}

QStringList CatalogueSearchModel::brands() const {
    QStringList out;
    try {
        for (const auto& b : catalogue_.brands()) out << QString::fromStdString(b);
    } catch (const BundledProfileCatalog::LoadError&) {
        // The search says why; an empty brand list is all the picker can show.
    }
    return out;
}

void CatalogueSearchModel::refresh() {
    beginResetModel();
    problem_.clear();
    try {
        const std::string brand = brand_.toStdString();
        if (brand.empty()) {
            results_ = catalogue_.search(query_.toStdString(), maxResults);
        } else if (query_.trimmed().isEmpty()) {
            results_ = catalogue_.models(brand);
        } else {
            results_.clear();
            for (const HeadphoneProfile* p : catalogue_.search(query_.toStdString()))
                if (BundledProfileCatalog::brandOf(p->modelName) == brand) results_.push_back(p);
        }
        if (results_.size() > maxResults && !(query_.trimmed().isEmpty() && !brand.empty())) results_.resize(maxResults);
    } catch (const BundledProfileCatalog::LoadError& e) {
        results_.clear();
        problem_ = QString::fromStdString(e.what());
    }
    endResetModel();
    emit queryChanged();
}

} // namespace tarn::ui

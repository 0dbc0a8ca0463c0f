#include "ui/AppIconProvider.hpp"

#include <QFile>
#include <QIcon>
#include <QStandardPaths>

namespace tarn::ui {

namespace {

constexpr int defaultIconPixels = 32;

// The Icon key of a desktop entry's main group.
QString desktopEntryIcon(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) return {};
    bool inMainGroup = false;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (line.startsWith('[')) inMainGroup = line == QLatin1String("[Desktop Entry]");
        else if (inMainGroup && line.startsWith(QLatin1String("Icon="))) return line.mid(5).trimmed();
    }
    return {};
}

} // namespace

AppIconProvider::AppIconProvider() : QQuickImageProvider(QQuickImageProvider::Pixmap) {
    if (QIcon::themeName().isEmpty()) QIcon::setThemeName(QStringLiteral("hicolor"));
}

QStringList AppIconProvider::iconCandidates(const QString& identity) {
    QStringList names;
    if (identity.isEmpty() || identity.contains('/')) return names;
    const QString lower = identity.toLower();
    const QString lastPart = lower.section('.', -1);
    for (const QString& entry : {identity, lower, lastPart}) {
        const QString path =
            QStandardPaths::locate(QStandardPaths::GenericDataLocation, "applications/" + entry + ".desktop");
        if (path.isEmpty()) continue;
        const QString icon = desktopEntryIcon(path);
        if (!icon.isEmpty()) names << icon;
        break;
    }
    for (const QString& name : {identity, lower, lastPart})
        if (!names.contains(name)) names << name;
    return names;
}

QIcon AppIconProvider::iconFor(const QString& identity) {
    for (const QString& name : iconCandidates(identity)) {
        QIcon icon = name.startsWith('/') ? QIcon(name) : QIcon::fromTheme(name);
        if (!icon.isNull() && !icon.availableSizes().isEmpty()) return icon;
        if (!icon.isNull() && !icon.pixmap(defaultIconPixels).isNull()) return icon;
    }
    return {};
}

QPixmap AppIconProvider::requestPixmap(const QString& id, QSize* size, const QSize& requestedSize) {
    const QSize wanted = requestedSize.isValid() ? requestedSize : QSize(defaultIconPixels, defaultIconPixels);
    const QPixmap pixmap = iconFor(id).pixmap(wanted);
    if (size) *size = pixmap.size();
    return pixmap;
}

bool AppIcons::has(const QString& identity) {
    auto known = known_.find(identity);
    if (known == known_.end()) known = known_.insert(identity, !AppIconProvider::iconFor(identity).isNull());
    return *known;
}

} // namespace tarn::ui

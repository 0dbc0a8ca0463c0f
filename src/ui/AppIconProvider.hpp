#pragma once

#include <QHash>
#include <QIcon>
#include <QObject>
#include <QQuickImageProvider>

namespace tarn::ui {

// "image://appicon/<identity>": an application's icon, from its desktop entry and the icon
// theme. The identity is what the desk knows an application by (a Flatpak id, an
// `application.id`, an executable name). An application without one gives an empty image, and
// the row shows its category instead.
class AppIconProvider : public QQuickImageProvider {
public:
    AppIconProvider();
    QPixmap requestPixmap(const QString& id, QSize* size, const QSize& requestedSize) override;

    // The icon name or file an identity's desktop entry gives, else the names the icon theme is
    // likely to know it by; the first that the theme has wins.
    static QStringList iconCandidates(const QString& identity);
    // The theme's icon for the identity, or a null icon.
    static QIcon iconFor(const QString& identity);
};

// Lets the view ask before it loads, so an application without an icon shows its category glyph
// without a failed image request.
class AppIcons : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;
    Q_INVOKABLE bool has(const QString& identity);

private:
    QHash<QString, bool> known_;
};

} // namespace tarn::ui

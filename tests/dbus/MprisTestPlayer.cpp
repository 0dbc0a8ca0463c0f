#include "dbus/MprisTestPlayer.hpp"

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>

namespace tarn::test {

namespace {

const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
const QString notSupported = QStringLiteral("org.freedesktop.DBus.Error.NotSupported");

} // namespace

MprisTestPlayer::MprisTestPlayer(QDBusConnection bus, QString busName)
    : bus_(std::move(bus)), busName_(std::move(busName)) {
    properties_[rootInterface] = {{QStringLiteral("Identity"), QStringLiteral("Test Player")},
                                  {QStringLiteral("CanQuit"), false},
                                  {QStringLiteral("CanRaise"), false},
                                  {QStringLiteral("HasTrackList"), false}};
    properties_[playerInterface] = {{QStringLiteral("PlaybackStatus"), QStringLiteral("Stopped")},
                                    {QStringLiteral("Metadata"), QVariantMap()},
                                    {QStringLiteral("CanControl"), true},
                                    {QStringLiteral("CanPlay"), true},
                                    {QStringLiteral("CanPause"), true},
                                    {QStringLiteral("CanGoNext"), true},
                                    {QStringLiteral("CanGoPrevious"), true}};
}

MprisTestPlayer::~MprisTestPlayer() { unpublish(); }

bool MprisTestPlayer::publish() {
    if (isPublished_) return true;
    if (!bus_.registerVirtualObject(objectPath, this, QDBusConnection::SingleNode)) return false;
    if (!bus_.registerService(busName_)) {
        bus_.unregisterObject(objectPath);
        return false;
    }
    isPublished_ = true;
    return true;
}

void MprisTestPlayer::unpublish() {
    if (!isPublished_) return;
    isPublished_ = false;
    bus_.unregisterService(busName_);
    bus_.unregisterObject(objectPath);
}

void MprisTestPlayer::set(const QString& interfaceName, const QString& property, const QVariant& value, bool announce) {
    properties_[interfaceName][property] = value;
    if (announce) sendPropertiesChanged({interfaceName, QVariantMap{{property, value}}, QStringList()});
}

void MprisTestPlayer::invalidate(const QString& interfaceName, const QString& property) {
    sendPropertiesChanged({interfaceName, QVariantMap(), QStringList{property}});
}

void MprisTestPlayer::sendPropertiesChanged(const QVariantList& arguments) {
    auto signal = QDBusMessage::createSignal(objectPath, propertiesInterface, QStringLiteral("PropertiesChanged"));
    signal.setArguments(arguments);
    bus_.send(signal);
}

QVariantMap MprisTestPlayer::track(const QString& title, const QStringList& artists, const QString& album,
                                   const QStringList& genres, qlonglong lengthMicroseconds, const QString& trackID) {
    return {{QStringLiteral("mpris:trackid"), QVariant::fromValue(QDBusObjectPath(trackID))},
            {QStringLiteral("mpris:length"), lengthMicroseconds},
            {QStringLiteral("xesam:title"), title},
            {QStringLiteral("xesam:artist"), artists},
            {QStringLiteral("xesam:album"), album},
            {QStringLiteral("xesam:genre"), genres}};
}

QString MprisTestPlayer::introspect(const QString&) const {
    return QStringLiteral(
        "<interface name=\"org.mpris.MediaPlayer2\">"
        "<property name=\"Identity\" type=\"s\" access=\"read\"/>"
        "<property name=\"CanQuit\" type=\"b\" access=\"read\"/>"
        "<property name=\"CanRaise\" type=\"b\" access=\"read\"/>"
        "<property name=\"HasTrackList\" type=\"b\" access=\"read\"/>"
        "</interface>"
        "<interface name=\"org.mpris.MediaPlayer2.Player\">"
        "<method name=\"Play\"/><method name=\"Pause\"/><method name=\"PlayPause\"/>"
        "<method name=\"Stop\"/><method name=\"Next\"/><method name=\"Previous\"/>"
        "<property name=\"PlaybackStatus\" type=\"s\" access=\"read\"/>"
        "<property name=\"Metadata\" type=\"a{sv}\" access=\"read\"/>"
        "</interface>");
}

bool MprisTestPlayer::handleMessage(const QDBusMessage& message, const QDBusConnection& connection) {
    if (message.type() != QDBusMessage::MethodCallMessage) return false;
    const auto arguments = message.arguments();
    if (message.interface() == propertiesInterface) {
        const QString interfaceName = arguments.value(0).toString();
        if (message.member() == QLatin1String("GetAll") && properties_.contains(interfaceName)) {
            // Each value travels as a variant of whatever type it holds, as a careless player would send it.
            connection.send(message.createReply(QVariant(properties_.value(interfaceName))));
            return true;
        }
        const QString property = arguments.value(1).toString();
        if (message.member() == QLatin1String("Get") && properties_.value(interfaceName).contains(property)) {
            const QVariant value = properties_.value(interfaceName).value(property);
            connection.send(message.createReply(QVariant::fromValue(QDBusVariant(value))));
            return true;
        }
        connection.send(message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.UnknownProperty"),
                                                 QStringLiteral("no such property")));
        return true;
    }
    if (message.interface() == playerInterface && handleTransport(message.member())) {
        connection.send(isRefusing_ ? message.createErrorReply(notSupported, QStringLiteral("refused"))
                                    : message.createReply());
        return true;
    }
    connection.send(message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"),
                                             QStringLiteral("no such method")));
    return true;
}

bool MprisTestPlayer::handleTransport(const QString& method) {
    static const QStringList transport = {QStringLiteral("Play"), QStringLiteral("Pause"), QStringLiteral("PlayPause"),
                                          QStringLiteral("Stop"), QStringLiteral("Next"), QStringLiteral("Previous")};
    if (!transport.contains(method)) return false;
    calls_.append(method);
    if (isRefusing_) return true;
    const QString status = properties_[playerInterface].value(QStringLiteral("PlaybackStatus")).toString();
    QString next = status;
    if (method == QLatin1String("Play")) next = QStringLiteral("Playing");
    else if (method == QLatin1String("Pause")) next = QStringLiteral("Paused");
    else if (method == QLatin1String("Stop")) next = QStringLiteral("Stopped");
    else if (method == QLatin1String("PlayPause"))
        next = status == QLatin1String("Playing") ? QStringLiteral("Paused") : QStringLiteral("Playing");
    if (next != status) set(playerInterface, QStringLiteral("PlaybackStatus"), next);
    return true;
}

} // namespace tarn::test

import QtQuick
import QtQuick.Controls
import "Words.js" as Words

// An application's icon from its desktop entry and the icon theme; its category's glyph when it
// has none.
Item {
    id: icon
    property string identity: ""
    property string category: "other"
    property string name: ""
    implicitWidth: 24
    implicitHeight: 24

    Image {
        id: image
        anchors.fill: parent
        sourceSize: Qt.size(icon.width, icon.height)
        source: icon.identity !== "" && appIcons.has(icon.identity) ? "image://appicon/" + encodeURIComponent(icon.identity) : ""
        asynchronous: true
        cache: true
    }
    Rectangle {
        anchors.fill: parent
        visible: image.status !== Image.Ready
        radius: 6
        color: Qt.rgba(0.5, 0.5, 0.5, 0.25)
        Label { anchors.centerIn: parent; text: Words.categoryGlyph(icon.category); font.pixelSize: 13 }
    }
    Accessible.ignored: true
}

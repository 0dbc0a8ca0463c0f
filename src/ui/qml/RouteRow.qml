import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "Words.js" as Words

// One route: its application, health in words, where it plays, its mode, gain, mute and meters.
ItemDelegate {
    id: row
    objectName: "routeRow"
    property bool selected: false
    property int rowCount: 0
    readonly property string routeKey: routeId
    height: 118
    // A quiet mark for the selected route, so its meters stay readable.
    background: Rectangle {
        color: row.selected ? Qt.rgba(0.18, 0.62, 0.43, 0.14) : (row.hovered ? Qt.rgba(0.5, 0.5, 0.5, 0.08) : "transparent")
        Rectangle { width: 4; height: parent.height; color: "#2f9e6e"; visible: row.selected }
        Rectangle { width: parent.width; height: 1; anchors.bottom: parent.bottom; color: Qt.rgba(0.5, 0.5, 0.5, 0.2) }
    }
    Accessible.name: displayName + ", " + Words.category(category) + ", " + Words.health(health)

    contentItem: ColumnLayout {
        spacing: 4
        RowLayout {
            spacing: 8
            AppIcon { identity: bundleID; category: model.category; name: displayName }
            Label { text: displayName; font.bold: true; elide: Text.ElideRight; Layout.fillWidth: true }
            Label { text: Words.category(category); color: palette.placeholderText; font.pixelSize: 11 }
            Rectangle {
                radius: 8
                color: Words.healthColour(health)
                implicitWidth: badge.implicitWidth + 14
                implicitHeight: badge.implicitHeight + 4
                Label { id: badge; objectName: "healthBadge"; anchors.centerIn: parent; text: Words.health(health); color: "white"; font.pixelSize: 11 }
            }
            ToolButton {
                text: "⋯"
                implicitHeight: 26
                Accessible.name: qsTr("More for %1").arg(displayName)
                onClicked: rowMenu.open()
                Menu {
                    id: rowMenu
                    MenuItem { text: qsTr("Move up"); enabled: index > 0; onTriggered: desk.moveRoute(routeId, index - 1) }
                    MenuItem { text: qsTr("Move down"); enabled: index < row.rowCount - 1; onTriggered: desk.moveRoute(routeId, index + 1) }
                    MenuSeparator {}
                    MenuItem { text: qsTr("Remove route"); onTriggered: desk.removeRoute(routeId) }
                }
            }
        }
        Label {
            objectName: "routeMessage"
            visible: message !== ""
            text: message
            color: "#c0392b"
            font.pixelSize: 11
            elide: Text.ElideRight
            Layout.fillWidth: true
        }
        RowLayout {
            spacing: 6
            Segmented {
                options: [["off", qsTr("Off")], ["auto", qsTr("Auto")], ["on", qsTr("On")]]
                current: mode
                accessiblePrefix: qsTr("%1 mode").arg(displayName)
                onChosen: key => desk.setMode(routeId, key)
            }
            ComboBox {
                id: devicePicker
                Layout.fillWidth: true
                implicitHeight: 28
                Accessible.name: qsTr("Output device")
                // The default output first, then every device by its description.
                model: [qsTr("Default output")].concat(desk.devices.map(d => d.name))
                currentIndex: {
                    const i = desk.devices.findIndex(d => d.uid === device)
                    return i >= 0 ? i + 1 : 0
                }
                onActivated: index => desk.setDevice(routeId, index === 0 ? "" : desk.devices[index - 1].uid)
            }
        }
        RowLayout {
            spacing: 8
            Label { text: qsTr("Gain"); font.pixelSize: 11 }
            DeskSlider {
                id: gain
                from: -30; to: 12; stepSize: 0.5
                implicitWidth: 120
                deskValue: gainDb
                Accessible.name: qsTr("%1 gain, %2").arg(displayName).arg(Words.db(value))
                onEdited: value => desk.setGain(routeId, value)
            }
            CheckBox {
                text: qsTr("Mute")
                Accessible.name: qsTr("Mute %1").arg(displayName)
                checked: muted
                onToggled: desk.setMuted(routeId, checked)
            }
            ColumnLayout {
                spacing: 2
                Layout.fillWidth: true
                Meter { level: inputLevel; Layout.fillWidth: true; Accessible.name: qsTr("Input level") }
                Meter { level: outputLevel; Layout.fillWidth: true; Accessible.name: qsTr("Output level") }
            }
        }
    }
}

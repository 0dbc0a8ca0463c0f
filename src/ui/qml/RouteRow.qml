import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// One route: its application, health in words, where it plays, its mode, gain, mute and meters.
ItemDelegate {
    id: row
    property bool selected: false
    height: 112
    highlighted: selected
    Accessible.name: displayName + ", " + healthText(health)

    function healthText(h) {
        return { idle: qsTr("Idle"), active: qsTr("Active"), lost: qsTr("Lost"), verifying: qsTr("Verifying"),
                 verified: qsTr("Verified"), attention: qsTr("Attention"), paused: qsTr("Paused"),
                 blocked: qsTr("Blocked") }[h] || h
    }
    function healthColour(h) {
        return { verified: "#2f9e6e", active: "#3b82c4", verifying: "#3b82c4", paused: "#8a8a8a",
                 idle: "#8a8a8a", lost: "#c0392b", blocked: "#c0392b", attention: "#d68910" }[h] || "#8a8a8a"
    }

    contentItem: ColumnLayout {
        spacing: 4
        RowLayout {
            spacing: 8
            Label { text: displayName; font.bold: true; elide: Text.ElideRight; Layout.fillWidth: true }
            Rectangle {
                radius: 8
                color: row.healthColour(health)
                implicitWidth: badge.implicitWidth + 14
                implicitHeight: badge.implicitHeight + 4
                Label { id: badge; anchors.centerIn: parent; text: row.healthText(health); color: "white"; font.pixelSize: 11 }
            }
        }
        Label {
            visible: message !== ""
            text: message
            color: "#c0392b"
            font.pixelSize: 11
            elide: Text.ElideRight
            Layout.fillWidth: true
        }
        RowLayout {
            spacing: 6
            Repeater {
                model: [["off", qsTr("Off")], ["auto", qsTr("Auto")], ["on", qsTr("On")]]
                Button {
                    text: modelData[1]
                    checkable: true
                    checked: mode === modelData[0]
                    flat: !checked
                    implicitHeight: 26
                    Accessible.name: qsTr("Mode %1").arg(modelData[1])
                    onClicked: desk.setMode(routeId, modelData[0])
                }
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
            Slider {
                id: gain
                from: -30; to: 12; stepSize: 0.5
                implicitWidth: 120
                readonly property bool editing: pressed || gainEdit.running
                Timer { id: gainEdit; interval: 800 }
                Binding on value { value: gainDb; when: !gain.editing; restoreMode: Binding.RestoreNone }
                Accessible.name: qsTr("Gain, %1 dB").arg(value.toFixed(1))
                onMoved: {
                    gainEdit.restart()
                    desk.setGain(routeId, value)
                }
            }
            CheckBox {
                text: qsTr("Mute")
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

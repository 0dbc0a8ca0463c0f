import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "Words.js" as Words

// The desk window's settings. Each change is kept at once.
Dialog {
    id: dialog
    title: qsTr("Settings")
    modal: true
    Overlay.modal: Rectangle { color: Qt.rgba(0, 0, 0, 0.35) }
    standardButtons: Dialog.Close
    anchors.centerIn: parent
    signal introductionRequested()

    readonly property var meterRates: [5, 10, 20]

    GridLayout {
        columns: 2
        columnSpacing: 16
        rowSpacing: 10
        Label { text: qsTr("Start the desk at login") }
        Switch {
            checked: settings.startAtLogin
            Accessible.name: qsTr("Start the desk at login")
            onToggled: settings.startAtLogin = checked
        }
        Label { text: qsTr("Meters move") }
        ComboBox {
            implicitContentWidthPolicy: ComboBox.WidestText
            model: dialog.meterRates.map(r => qsTr("%1 times a second").arg(r))
            currentIndex: Math.max(0, dialog.meterRates.indexOf(settings.meterRateHz))
            Accessible.name: qsTr("Meter rate")
            onActivated: index => settings.meterRateHz = dialog.meterRates[index]
        }
        Label { text: qsTr("New routes start") }
        ComboBox {
            implicitContentWidthPolicy: ComboBox.WidestText
            readonly property var modes: ["off", "auto", "on"]
            model: modes.map(m => Words.mode(m))
            currentIndex: Math.max(0, modes.indexOf(settings.defaultMode))
            Accessible.name: qsTr("Mode of new routes")
            onActivated: index => settings.defaultMode = modes[index]
        }
        Label { text: qsTr("Introduction") }
        Button {
            text: qsTr("Show it again")
            onClicked: { dialog.close(); dialog.introductionRequested() }
        }
        Label {
            Layout.columnSpan: 2
            Layout.maximumWidth: 420
            visible: settings.problem !== ""
            text: settings.problem
            color: "#c0392b"
            wrapMode: Text.Wrap
        }
    }
}

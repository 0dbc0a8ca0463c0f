import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// The selected route's equaliser: ten bands from −12 to +12 dB in half-dB steps (double-click
// resets one), genre and AI Tune.
Pane {
    id: editor
    property var route: null
    readonly property var bandLabels: ["31", "62", "125", "250", "500", "1k", "2k", "4k", "8k", "16k"]

    ColumnLayout {
        anchors.fill: parent
        visible: editor.route !== null
        spacing: 12

        Label {
            text: editor.route ? editor.route.displayName + " → " + (editor.route.device !== "" ? editor.route.device : qsTr("Default output")) : ""
            font.pixelSize: 18
            font.bold: true
        }

        ResponseCurve {
            Layout.fillWidth: true
            Layout.preferredHeight: 170
            Layout.minimumHeight: 96
            route: editor.route
        }

        RowLayout {
            Layout.fillWidth: true
            Layout.preferredHeight: editor.route && editor.route.aiTune !== "off" ? 130 : 170
            Layout.minimumHeight: 64
            spacing: 10
            Repeater {
                model: 10
                ColumnLayout {
                    Layout.fillHeight: true
                    Layout.fillWidth: true
                    Layout.preferredWidth: 60
                    Label {
                        Layout.alignment: Qt.AlignHCenter
                        text: slider.value > 0 ? "+" + slider.value.toFixed(1) : slider.value.toFixed(1)
                        font.pixelSize: 11
                    }
                    Slider {
                        id: slider
                        objectName: "band" + index
                        Layout.fillHeight: true
                        Layout.alignment: Qt.AlignHCenter
                        orientation: Qt.Vertical
                        from: -12; to: 12; stepSize: 0.5
                        snapMode: Slider.SnapAlways
                        // While a person moves it, the desk's (slightly older) value must not pull it back.
                        readonly property bool editing: pressed || recentEdit.running
                        Timer { id: recentEdit; interval: 800 }
                        Binding on value {
                            value: editor.route ? editor.route.bands[index] : 0
                            when: !slider.editing
                            restoreMode: Binding.RestoreNone
                        }
                        Accessible.name: qsTr("Band %1 Hz, %2 dB").arg(editor.bandLabels[index]).arg(value.toFixed(1))
                        onMoved: {
                            recentEdit.restart()
                            desk.setBand(editor.route.routeId, index, value)
                        }
                        TapHandler {
                            acceptedButtons: Qt.LeftButton
                            onDoubleTapped: desk.setBand(editor.route.routeId, index, 0)
                        }
                    }
                    Label { Layout.alignment: Qt.AlignHCenter; text: editor.bandLabels[index]; font.pixelSize: 11 }
                }
            }
        }

        RowLayout {
            spacing: 12
            Label { text: qsTr("Genre") }
            ComboBox {
                model: ["flat", "reference", "edm", "hipHop", "rock", "pop", "vocal", "acoustic", "classical", "trap"]
                currentIndex: editor.route ? model.indexOf(editor.route.genre) : 0
                onActivated: desk.setGenre(editor.route.routeId, currentText)
                Accessible.name: qsTr("Genre preset")
            }
            Label { text: qsTr("AI Tune") }
            Repeater {
                model: [["off", qsTr("Off")], ["song", qsTr("Song")], ["taste", qsTr("Taste")]]
                Button {
                    text: modelData[1]
                    checkable: true
                    checked: editor.route && editor.route.aiTune === modelData[0]
                    flat: !checked
                    onClicked: desk.setAITune(editor.route.routeId, modelData[0])
                }
            }
        }
        RowLayout {
            spacing: 12
            Switch {
                text: qsTr("Equaliser")
                checked: editor.route && !editor.route.eqBypassed
                onToggled: desk.setEQBypassed(editor.route.routeId, !checked)
            }
            Switch {
                text: qsTr("Headphone correction")
                enabled: editor.route && editor.route.correction !== ""
                checked: editor.route && !editor.route.correctionBypassed
                onToggled: desk.setCorrectionBypassed(editor.route.routeId, !checked)
            }
            Label {
                text: editor.route && editor.route.correction !== "" ? editor.route.correction : qsTr("no headphone correction")
                color: palette.placeholderText
            }
            Item { Layout.fillWidth: true }
            Label { text: qsTr("Trim") }
            Slider {
                id: trim
                from: -12; to: 6; stepSize: 0.5
                readonly property bool editing: pressed || trimEdit.running
                Timer { id: trimEdit; interval: 800 }
                Binding on value {
                    value: editor.route ? editor.route.trimDb : 0
                    when: !trim.editing
                    restoreMode: Binding.RestoreNone
                }
                Accessible.name: qsTr("Output trim, %1 dB").arg(value.toFixed(1))
                onMoved: {
                    trimEdit.restart()
                    desk.setTrim(editor.route.routeId, value)
                }
            }
            Label { text: (trim.value > 0 ? "+" : "") + trim.value.toFixed(1) + " dB" }
        }
        CorrectionPicker {
            Layout.fillWidth: true
            route: editor.route
        }
        AITunePanel {
            Layout.fillWidth: true
            visible: editor.route !== null && editor.route.aiTune !== "off"
            route: visible ? editor.route : null
        }
        Label {
            visible: desk.lastError !== ""
            text: desk.lastError
            color: "#c0392b"
        }
        Item { Layout.fillHeight: true }
    }

    Label {
        anchors.centerIn: parent
        visible: editor.route === null
        text: qsTr("Select a route to shape it.")
    }
}

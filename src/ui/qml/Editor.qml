import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "Words.js" as Words

// The selected route's equaliser: ten bands from −12 to +12 dB in half-dB steps (double-click
// resets one), genre and AI Tune.
Pane {
    id: editor
    property var route: null
    readonly property var bandLabels: ["31", "62", "125", "250", "500", "1k", "2k", "4k", "8k", "16k"]
    readonly property var bandNames: ["31 Hz", "62 Hz", "125 Hz", "250 Hz", "500 Hz", "1 kHz", "2 kHz", "4 kHz", "8 kHz", "16 kHz"]
    readonly property var genreKeys: ["flat", "reference", "edm", "hipHop", "rock", "pop", "vocal", "acoustic", "classical", "trap"]
    readonly property var genreNames: [qsTr("Flat"), qsTr("Reference"), qsTr("EDM"), qsTr("Hip-hop"), qsTr("Rock"), qsTr("Pop"), qsTr("Vocal"), qsTr("Acoustic"), qsTr("Classical"), qsTr("Trap")]
    // Page Up / Page Down move a band this far; arrows move it one step.
    readonly property real pageStepDb: 3
    readonly property string deviceName: {
        if (!route || route.device === "") return qsTr("Default output")
        const d = desk.devices.find(d => d.uid === route.device)
        return d ? d.name : route.device
    }

    // Scrolls when the window is too short for everything (1024×640 with AI Tune on).
    ScrollView {
        id: scroll
        anchors.fill: parent
        visible: editor.route !== null
        contentWidth: availableWidth
        clip: true

        ColumnLayout {
            width: scroll.availableWidth
            spacing: 12

            RowLayout {
                Layout.fillWidth: true
                Label {
                    Layout.fillWidth: true
                    text: editor.route ? editor.route.displayName + " → " + editor.deviceName : ""
                    font.pixelSize: 18
                    font.bold: true
                    elide: Text.ElideRight
                }
                PresetBar { route: editor.route }
            }

            ResponseCurve {
                objectName: "responseCurve"
                Layout.fillWidth: true
                Layout.preferredHeight: 170
                route: editor.route
                // The channel whose offsets are open, else the first.
                channel: offsets.visible ? offsets.channel : 0
            }

            RowLayout {
                Layout.fillWidth: true
                Layout.preferredHeight: editor.route && editor.route.aiTune !== "off" ? 170 : 210
                spacing: 10
                Repeater {
                    model: 10
                    ColumnLayout {
                        Layout.fillHeight: true
                        Layout.fillWidth: true
                        Layout.preferredWidth: 60
                        Layout.minimumWidth: 36
                        Label {
                            Layout.alignment: Qt.AlignHCenter
                            text: Words.db(slider.value).replace(" dB", "")
                            font.pixelSize: 11
                        }
                        DeskSlider {
                            id: slider
                            objectName: "band" + index
                            Layout.fillHeight: true
                            Layout.alignment: Qt.AlignHCenter
                            orientation: Qt.Vertical
                            from: -12; to: 12; stepSize: 0.5
                            snapMode: Slider.SnapAlways
                            pageStep: editor.pageStepDb
                            deskValue: editor.route ? editor.route.bands[index] : 0
                            Accessible.name: qsTr("Band %1, %2").arg(editor.bandNames[index]).arg(Words.db(value))
                            onEdited: value => desk.setBand(editor.route.routeId, index, value)
                        }
                        Label { Layout.alignment: Qt.AlignHCenter; text: editor.bandLabels[index]; font.pixelSize: 11 }
                    }
                }
            }

            // Wraps onto a second line in a narrow window rather than running off its edge.
            Flow {
                Layout.fillWidth: true
                spacing: 16
                Row {
                    spacing: 8
                    Label { text: qsTr("Genre"); anchors.verticalCenter: parent.verticalCenter }
                    ComboBox {
                        model: editor.genreNames
                        currentIndex: editor.route ? Math.max(0, editor.genreKeys.indexOf(editor.route.genre)) : 0
                        onActivated: index => desk.setGenre(editor.route.routeId, editor.genreKeys[index])
                        Accessible.name: qsTr("Genre preset")
                    }
                }
                Button {
                    readonly property int suggested: editor.route ? editor.genreKeys.indexOf(editor.route.suggestedGenre) : -1
                    visible: suggested >= 0 && editor.route.suggestedGenre !== editor.route.genre
                    text: visible ? qsTr("Your listening suggests %1").arg(editor.genreNames[suggested]) : ""
                    flat: true
                    ToolTip.visible: hovered
                    ToolTip.text: qsTr("From the genres of what you played; click to use that preset")
                    onClicked: desk.setGenre(editor.route.routeId, editor.route.suggestedGenre)
                }
                Row {
                    spacing: 8
                    Label { text: qsTr("AI Tune"); anchors.verticalCenter: parent.verticalCenter }
                    Segmented {
                        options: [["off", qsTr("Off")], ["song", qsTr("Song")], ["taste", qsTr("Taste")]]
                        current: editor.route ? editor.route.aiTune : "off"
                        accessiblePrefix: qsTr("AI Tune")
                        buttonHeight: 36
                        onChosen: key => desk.setAITune(editor.route.routeId, key)
                    }
                }
                Switch {
                    text: qsTr("Equaliser")
                    Accessible.name: qsTr("Equaliser on")
                    checked: editor.route && !editor.route.eqBypassed
                    onToggled: desk.setEQBypassed(editor.route.routeId, !checked)
                }
                Switch {
                    text: editor.route && editor.route.correction !== ""
                          ? editor.route.correction + (editor.route.correctionSource !== "" ? "  ·  " + editor.route.correctionSource : "")
                          : qsTr("No headphone correction")
                    Accessible.name: qsTr("Headphone correction on")
                    enabled: editor.route && editor.route.correction !== ""
                    checked: editor.route && !editor.route.correctionBypassed
                    onToggled: desk.setCorrectionBypassed(editor.route.routeId, !checked)
                }
                Row {
                    spacing: 8
                    Label { text: qsTr("Trim"); anchors.verticalCenter: parent.verticalCenter }
                    DeskSlider {
                        id: trim
                        width: 140
                        from: -12; to: 6; stepSize: 0.5
                        deskValue: editor.route ? editor.route.trimDb : 0
                        Accessible.name: qsTr("Output trim, %1").arg(Words.db(value))
                        onEdited: value => desk.setTrim(editor.route.routeId, value)
                    }
                    Label { text: Words.db(trim.value); anchors.verticalCenter: parent.verticalCenter; width: 64 }
                }
            }
            CorrectionPicker {
                Layout.fillWidth: true
                route: editor.route
            }
            // Less used: kept folded so the desk stays readable at 1024×640.
            Button {
                id: moreToggle
                text: (checked ? "▾ " : "▸ ") + qsTr("Per-channel offsets")
                flat: true
                checkable: true
                Accessible.name: qsTr("Show per-channel offsets")
            }
            ChannelOffsets {
                id: offsets
                Layout.fillWidth: true
                visible: moreToggle.checked
                route: editor.route
            }
            AITunePanel {
                Layout.fillWidth: true
                visible: editor.route !== null && editor.route.aiTune !== "off"
                route: visible ? editor.route : null
            }
        }
    }

    Label {
        anchors.centerIn: parent
        visible: editor.route === null
        text: qsTr("Select a route to shape it.")
    }
}

import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import QtQuick.Window

// AI Tune on the selected route: how prominent each band is in what plays, what AI Tune moves
// and why, and a lock per band. Read from the desk every second while shown.
ColumnLayout {
    id: panel
    property var route: null
    property var state: ({})
    readonly property var bandLabels: ["31", "62", "125", "250", "500", "1k", "2k", "4k", "8k", "16k"]
    spacing: 6

    function refresh() { state = route ? desk.aiTuneState(route.routeId) : ({}) }
    onRouteChanged: refresh()
    // Not while the window is minimised or hidden: nobody reads it then.
    Timer {
        interval: 1000
        repeat: true
        running: panel.visible && panel.route !== null && panel.Window.window !== null
                 && panel.Window.window.visibility !== Window.Minimized && panel.Window.window.visibility !== Window.Hidden
        onTriggered: panel.refresh()
    }

    Label {
        visible: (panel.state.song || "") !== ""
        text: qsTr("Now playing: %1").arg(panel.state.song)
        color: palette.placeholderText
    }
    Label {
        text: panel.state.isConfident ? qsTr("AI Tune — heard %1 s of this song").arg(Math.round(panel.state.analyzedSeconds || 0))
                                      : qsTr("AI Tune — listening (song analysis warming up)")
        font.bold: true
    }
    RowLayout {
        Layout.fillWidth: true
        spacing: 10
        Repeater {
            model: 10
            ColumnLayout {
                Layout.fillWidth: true
                Layout.preferredWidth: 60
                spacing: 2
                readonly property real prominence: panel.state.prominenceDb && panel.state.prominenceDb.length === 10 ? panel.state.prominenceDb[index] : 0
                readonly property real tweak: panel.state.tweaksDb ? panel.state.tweaksDb[index] : 0
                // Prominence, −12 … +12 dB around the middle.
                Rectangle {
                    Layout.alignment: Qt.AlignHCenter
                    implicitWidth: 14; implicitHeight: 40
                    color: Qt.rgba(0.5, 0.5, 0.5, 0.2)
                    Rectangle {
                        width: parent.width
                        height: Math.min(Math.abs(parent.parent.prominence) / 12, 1) * parent.height / 2
                        y: parent.parent.prominence >= 0 ? parent.height / 2 - height : parent.height / 2
                        color: "#3b82c4"
                    }
                }
                Label {
                    Layout.alignment: Qt.AlignHCenter
                    text: (parent.tweak > 0 ? "+" : "") + parent.tweak.toFixed(0)
                    font.bold: parent.tweak !== 0
                    Accessible.name: qsTr("AI Tune %1 Hz, %2 dB").arg(panel.bandLabels[index]).arg(parent.tweak.toFixed(0))
                }
                CheckBox {
                    Layout.alignment: Qt.AlignHCenter
                    checked: panel.state.lockedBands ? panel.state.lockedBands[index] : false
                    ToolTip.visible: hovered
                    ToolTip.text: qsTr("Lock the %1 Hz band: AI Tune leaves it alone").arg(panel.bandLabels[index])
                    Accessible.name: qsTr("Lock band %1 Hz").arg(panel.bandLabels[index])
                    onToggled: desk.setBandAILocked(panel.route.routeId, index, checked)
                }
            }
        }
    }
    // The reasons of the bands AI Tune moves, as sentences.
    Repeater {
        model: 10
        Label {
            readonly property var reasons: panel.state.reasons ? panel.state.reasons[index] : []
            readonly property real tweak: panel.state.tweaksDb ? panel.state.tweaksDb[index] : 0
            visible: tweak !== 0 && reasons.length > 0
            text: panel.bandLabels[index] + " Hz: " + reasons.join("; ")
            wrapMode: Text.Wrap
            Layout.fillWidth: true
            font.pixelSize: 12
        }
    }
}

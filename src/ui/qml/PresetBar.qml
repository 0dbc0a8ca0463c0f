import QtQuick
import QtQuick.Controls
import QtQuick.Dialogs
import QtQuick.Layouts

// Saved presets (apply, save the route's sound as one, delete) and the import of a parametric EQ
// file, which becomes a preset named after the file.
RowLayout {
    id: bar
    property var route: null
    spacing: 8

    Button {
        id: presetButton
        text: qsTr("Preset ▾")
        Accessible.name: qsTr("Presets")
        enabled: bar.route !== null
        onClicked: presetMenu.open()
        Menu {
            id: presetMenu
            y: presetButton.height
            Repeater {
                model: desk.presets
                MenuItem { text: modelData.name; onTriggered: desk.applyPreset(bar.route.routeId, modelData.id) }
            }
            MenuItem { text: qsTr("No presets saved yet"); enabled: false; visible: desk.presets.length === 0; height: visible ? implicitHeight : 0 }
            MenuSeparator {}
            MenuItem { text: qsTr("Save this sound as a preset…"); onTriggered: saveDialog.open() }
            Menu {
                title: qsTr("Delete a preset")
                enabled: desk.presets.length > 0
                Repeater {
                    model: desk.presets
                    MenuItem { text: modelData.name; onTriggered: desk.deletePreset(modelData.id) }
                }
            }
        }
    }
    Button {
        text: qsTr("Import EQ file…")
        enabled: bar.route !== null
        onClicked: fileDialog.open()
        ToolTip.visible: hovered
        ToolTip.text: qsTr("A parametric EQ text file (\"Preamp: …\", \"Filter 1: ON PK Fc …\")")
    }

    FileDialog {
        id: fileDialog
        title: qsTr("Import a parametric EQ file")
        nameFilters: [qsTr("Parametric EQ (*.txt)"), qsTr("All files (*)")]
        onAccepted: desk.importEQFile(bar.route.routeId, selectedFile)
    }
    Dialog {
        id: saveDialog
        parent: Overlay.overlay
        anchors.centerIn: parent
        modal: true
        Overlay.modal: Rectangle { color: Qt.rgba(0, 0, 0, 0.35) }
        title: qsTr("Save this sound as a preset")
        standardButtons: Dialog.Save | Dialog.Cancel
        onOpened: { presetName.text = ""; presetName.forceActiveFocus() }
        onAccepted: if (presetName.text.trim() !== "") desk.savePreset(bar.route.routeId, presetName.text.trim())
        ColumnLayout {
            Label { text: qsTr("Bands, genre, headphone correction, imported EQ and trim are kept.") }
            TextField { id: presetName; Layout.fillWidth: true; placeholderText: qsTr("Evening jazz"); Accessible.name: qsTr("Preset name") }
        }
    }
}

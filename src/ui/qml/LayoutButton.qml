import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// Layouts: which routes exist and where each plays, saved under a name, applied by hand or when
// the device a layout is bound to appears.
Button {
    id: button
    readonly property var active: desk.layouts.find(l => l.id === desk.activeLayout)
    text: qsTr("Layout: %1 ▾").arg(active ? active.name : qsTr("none"))
    flat: true
    Accessible.name: qsTr("Layouts, %1 in use").arg(active ? active.name : qsTr("none"))
    onClicked: menu.open()

    function deviceName(uid) {
        const d = desk.devices.find(d => d.uid === uid)
        return d ? d.name : uid
    }

    Menu {
        id: menu
        y: button.height
        Repeater {
            model: desk.layouts
            MenuItem {
                text: modelData.name + (modelData.boundOutputDeviceUID ? "  (" + qsTr("with %1").arg(button.deviceName(modelData.boundOutputDeviceUID)) + ")" : "")
                checkable: true
                checked: modelData.id === desk.activeLayout
                onTriggered: desk.applyLayout(modelData.id)
            }
        }
        MenuItem { text: qsTr("No layouts saved yet"); enabled: false; visible: desk.layouts.length === 0; height: visible ? implicitHeight : 0 }
        MenuSeparator {}
        MenuItem { text: qsTr("Save the desk as a layout…"); onTriggered: saveDialog.open() }
        Menu {
            title: qsTr("Delete a layout")
            enabled: desk.layouts.length > 0
            Repeater {
                model: desk.layouts
                MenuItem { text: modelData.name; onTriggered: desk.deleteLayout(modelData.id) }
            }
        }
    }

    Dialog {
        id: saveDialog
        parent: Overlay.overlay
        anchors.centerIn: parent
        title: qsTr("Save the desk as a layout")
        modal: true
        Overlay.modal: Rectangle { color: Qt.rgba(0, 0, 0, 0.35) }
        standardButtons: Dialog.Save | Dialog.Cancel
        onOpened: { layoutName.text = ""; layoutName.forceActiveFocus() }
        onAccepted: if (layoutName.text.trim() !== "") desk.saveLayout(layoutName.text.trim(), device.currentIndex > 0 ? desk.devices[device.currentIndex - 1].uid : "")
        ColumnLayout {
            spacing: 8
            Label { text: qsTr("Name") }
            TextField { id: layoutName; Layout.preferredWidth: 320; placeholderText: qsTr("Headphones at the desk"); Accessible.name: qsTr("Layout name") }
            Label { text: qsTr("Apply it when this device appears") }
            ComboBox {
                id: device
                Layout.fillWidth: true
                Accessible.name: qsTr("Device the layout is bound to")
                model: [qsTr("No device (apply by hand)")].concat(desk.devices.map(d => d.name))
            }
        }
    }
}

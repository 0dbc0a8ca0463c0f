import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// Headphone correction: search the catalogue as you type (brand, model, source, wear style);
// the featured models show before anything is typed.
ColumnLayout {
    id: picker
    property var route: null
    spacing: 4

    TextField {
        id: field
        Layout.fillWidth: true
        placeholderText: qsTr("Search headphones, e.g. \"hd 650\"")
        Accessible.name: qsTr("Search the headphone catalogue")
        onTextEdited: catalogue.query = text
        onActiveFocusChanged: if (activeFocus) results.visible = true
    }
    ListView {
        id: results
        visible: false
        Layout.fillWidth: true
        Layout.preferredHeight: Math.min(contentHeight, 180)
        clip: true
        model: catalogue
        delegate: ItemDelegate {
            width: results.width
            text: modelName + "  ·  " + source + (featured ? "  ★" : "")
            Accessible.name: modelName + qsTr(", measured by ") + source
            onClicked: {
                desk.setProfile(picker.route.routeId, profileId)
                field.text = modelName
                results.visible = false
            }
        }
    }
    Button {
        visible: picker.route !== null && picker.route.correction !== ""
        text: qsTr("Remove the correction")
        flat: true
        onClicked: desk.setProfile(picker.route.routeId, "")
    }
}

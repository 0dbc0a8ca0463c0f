import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// Headphone correction: pick a brand or search the catalogue as you type (brand, model, source,
// wear style); the featured models show before anything is typed, each with who measured it.
ColumnLayout {
    id: picker
    property var route: null
    spacing: 4

    RowLayout {
        Layout.fillWidth: true
        spacing: 8
        ComboBox {
            id: brandPicker
            objectName: "catalogueBrand"
            Layout.preferredWidth: 180
            model: [qsTr("All brands")].concat(catalogue.brands)
            Accessible.name: qsTr("Headphone brand")
            onActivated: index => {
                catalogue.brand = index === 0 ? "" : catalogue.brands[index - 1]
                results.visible = true
            }
        }
        TextField {
            id: field
            objectName: "catalogueSearch"
            Layout.fillWidth: true
            placeholderText: qsTr("Search headphones, e.g. \"hd 650\"")
            Accessible.name: qsTr("Search the headphone catalogue")
            onTextEdited: {
                catalogue.query = text
                results.visible = true
            }
            onActiveFocusChanged: if (activeFocus) results.visible = true
            Keys.onDownPressed: { results.forceActiveFocus(); results.currentIndex = 0 }
            Keys.onEscapePressed: results.visible = false
        }
        Button {
            visible: picker.route !== null && picker.route.correction !== ""
            text: qsTr("Remove")
            Accessible.name: qsTr("Remove the headphone correction")
            onClicked: desk.setProfile(picker.route.routeId, "")
        }
    }
    ListView {
        id: results
        objectName: "catalogueResults"
        visible: false
        Layout.fillWidth: true
        Layout.preferredHeight: count === 0 ? 30 : Math.min(contentHeight, 180)
        clip: true
        model: catalogue
        keyNavigationEnabled: true
        ScrollBar.vertical: ScrollBar {}
        delegate: ItemDelegate {
            objectName: "catalogueResult"
            width: results.width
            highlighted: ListView.isCurrentItem && results.activeFocus
            text: modelName + "  ·  " + qsTr("measured by %1").arg(source) + (featured ? "  ★" : "")
            Accessible.name: modelName + ", " + qsTr("measured by %1").arg(source)
            function choose() {
                desk.setProfile(picker.route.routeId, profileId)
                field.text = ""
                results.visible = false
            }
            onClicked: choose()
            Keys.onReturnPressed: choose()
        }
        Label {
            visible: results.count === 0
            text: catalogue.problem !== "" ? catalogue.problem : qsTr("No headphones match \"%1\".").arg(catalogue.query)
            color: palette.placeholderText
            padding: 6
        }
    }
}

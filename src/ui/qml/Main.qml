import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// The desk: the routes on the left, the selected route's editor on the right.
ApplicationWindow {
    id: window
    width: 1280
    height: 800
    minimumWidth: 1024
    minimumHeight: 640
    visible: true
    title: qsTr("Tarn — sound desk")

    SystemPalette { id: palette; colorGroup: SystemPalette.Active }
    color: palette.window

    readonly property color accent: "#2f9e6e"
    readonly property int selectedRow: {
        const count = desk.routes.count // re-evaluated as routes come and go
        const row = desk.routes.indexOf(desk.selectedRoute)
        return row >= 0 ? row : (count > 0 ? 0 : -1)
    }
    readonly property var selected: {
        const revision = desk.routes.revision // and as the selected route's values change
        return selectedRow >= 0 ? desk.routes.get(selectedRow) : null
    }

    header: ToolBar {
        RowLayout {
            anchors.fill: parent
            anchors.leftMargin: 12
            anchors.rightMargin: 12
            spacing: 12
            Label { text: "Tarn"; font.bold: true; font.pixelSize: 18 }
            Button {
                id: addButton
                text: qsTr("+ Add application")
                Accessible.name: qsTr("Add application")
                onClicked: addMenu.open()
                Menu {
                    id: addMenu
                    y: addButton.height
                    Repeater {
                        model: desk.processes
                        MenuItem {
                            text: modelData.displayName + "  (" + modelData.bundleID + ")"
                            enabled: modelData.bundleID !== ""
                            onTriggered: desk.addRoute(modelData.bundleID, modelData.displayName)
                        }
                    }
                    MenuItem { text: qsTr("Nothing is playing right now"); enabled: false; visible: desk.processes.length === 0; height: visible ? implicitHeight : 0 }
                }
            }
            Item { Layout.fillWidth: true }
            Label {
                text: desk.reachable ? qsTr("%n route(s)", "", desk.routes.count) : ""
                color: palette.placeholderText
            }
        }
    }

    // The desk cannot be reached: say so, never block.
    Rectangle {
        id: banner
        visible: !desk.reachable
        anchors { left: parent.left; right: parent.right; top: parent.top }
        height: visible ? 40 : 0
        color: "#b3541e"
        Label {
            anchors.centerIn: parent
            color: "white"
            text: qsTr("The desk cannot be reached: %1").arg(desk.problem)
        }
    }

    RowLayout {
        anchors { left: parent.left; right: parent.right; top: banner.bottom; bottom: parent.bottom }
        spacing: 0

        ListView {
            id: routeList
            Layout.preferredWidth: 440
            Layout.fillHeight: true
            clip: true
            model: desk.routes
            currentIndex: window.selectedRow
            delegate: RouteRow {
                width: routeList.width
                selected: index === window.selectedRow
                onClicked: desk.selectRoute(routeId)
            }
            Label {
                anchors.centerIn: parent
                visible: desk.reachable && desk.routes.count === 0
                text: qsTr("No routes yet — add an application that plays sound.")
                color: palette.placeholderText
            }
        }

        Rectangle { Layout.fillHeight: true; width: 1; color: palette.mid }

        Editor {
            Layout.fillWidth: true
            Layout.fillHeight: true
            route: window.selected
        }
    }
}

import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "Words.js" as Words

// The applications that play sound right now, each with its category; the list follows the desk
// while the dialog is open.
Dialog {
    id: dialog
    title: qsTr("Add application")
    modal: true
    Overlay.modal: Rectangle { color: Qt.rgba(0, 0, 0, 0.35) }
    standardButtons: Dialog.Close
    width: Math.min(520, parent ? parent.width - 40 : 520)
    height: Math.min(460, parent ? parent.height - 40 : 460)
    anchors.centerIn: parent

    readonly property var routedIdentities: {
        const revision = desk.routes.revision
        const ids = []
        for (let i = 0; i < desk.routes.count; ++i) ids.push(desk.routes.get(i).bundleID)
        return ids
    }

    ColumnLayout {
        anchors.fill: parent
        spacing: 8
        Label {
            text: qsTr("New routes start in mode \"%1\" (Settings changes this).").arg(Words.mode(settings.defaultMode))
            color: palette.placeholderText
            wrapMode: Text.Wrap
            Layout.fillWidth: true
        }
        ListView {
            id: list
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            model: desk.processes
            keyNavigationEnabled: true
            focus: true
            delegate: ItemDelegate {
                objectName: "process"
                width: list.width
                readonly property bool routed: dialog.routedIdentities.indexOf(modelData.bundleID) >= 0
                enabled: modelData.bundleID !== "" && !routed
                Accessible.name: modelData.displayName + ", " + Words.category(modelData.category)
                contentItem: RowLayout {
                    spacing: 10
                    AppIcon { identity: modelData.bundleID; category: modelData.category; name: modelData.displayName }
                    ColumnLayout {
                        spacing: 0
                        Layout.fillWidth: true
                        Label { text: modelData.displayName; font.bold: true; elide: Text.ElideRight; Layout.fillWidth: true }
                        Label {
                            text: Words.category(modelData.category) + " · " + modelData.bundleID
                                  + (parent.parent.parent.routed ? "  · " + qsTr("already routed") : "")
                            color: palette.placeholderText
                            font.pixelSize: 11
                            elide: Text.ElideRight
                            Layout.fillWidth: true
                        }
                    }
                }
                onClicked: {
                    desk.addRoute(modelData.bundleID, modelData.displayName, settings.defaultMode)
                    dialog.close()
                }
            }
            Label {
                anchors.centerIn: parent
                width: parent.width - 40
                visible: list.count === 0
                horizontalAlignment: Text.AlignHCenter
                wrapMode: Text.Wrap
                text: qsTr("Nothing is playing sound right now. Start playback in an application; it appears here by itself.")
                color: palette.placeholderText
            }
        }
    }
}

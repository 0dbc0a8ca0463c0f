import QtQuick
import QtQuick.Controls
import QtQuick.Dialogs
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

    // The application's palette (light or dark, as the desktop prefers) handed to every control.
    SystemPalette { id: system; colorGroup: SystemPalette.Active }
    SystemPalette { id: systemDisabled; colorGroup: SystemPalette.Disabled }
    palette {
        window: system.window; windowText: system.windowText; base: system.base; alternateBase: system.alternateBase
        text: system.text; button: system.button; buttonText: system.buttonText; highlight: system.highlight
        highlightedText: system.highlightedText; placeholderText: system.placeholderText; light: system.light
        midlight: system.midlight; mid: system.mid; dark: system.dark; shadow: system.shadow
        toolTipBase: system.base; toolTipText: system.text
        disabled.text: systemDisabled.text; disabled.windowText: systemDisabled.windowText; disabled.buttonText: systemDisabled.buttonText
    }
    color: system.window

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

    Component.onCompleted: {
        if (openAtStart === "settings") settingsDialog.open()
        else if (openAtStart === "add") addDialog.open()
        else if (openAtStart === "intro" || (openAtStart === "" && !settings.onboarded)) onboarding.open()
    }

    Shortcut { sequence: StandardKey.New; onActivated: addDialog.open() }
    Shortcut { sequence: "Ctrl+N"; onActivated: addDialog.open() }
    Shortcut { sequence: StandardKey.Delete; enabled: window.selected !== null; onActivated: removeDialog.open() }
    Shortcut { sequence: "M"; enabled: window.selected !== null; onActivated: desk.setMuted(window.selected.routeId, !window.selected.muted) }
    Shortcut { sequence: "Ctrl+,"; onActivated: settingsDialog.open() }

    header: ToolBar {
        RowLayout {
            anchors.fill: parent
            anchors.leftMargin: 12
            anchors.rightMargin: 12
            spacing: 12
            Label { text: "Tarn"; font.bold: true; font.pixelSize: 18 }
            Button {
                text: qsTr("+ Add application")
                Accessible.name: qsTr("Add application")
                enabled: desk.reachable
                onClicked: addDialog.open()
                ToolTip.visible: hovered
                ToolTip.text: qsTr("Route an application that plays sound (Ctrl+N)")
            }
            LayoutButton { enabled: desk.reachable }
            Button {
                text: qsTr("♪ Play files…")
                flat: true
                enabled: desk.reachable
                Accessible.name: qsTr("Play files on the player deck")
                onClicked: deckFiles.open()
            }
            Item { Layout.fillWidth: true }
            Label {
                text: desk.reachable ? qsTr("%n route(s)", "", desk.routes.count) : ""
                color: palette.placeholderText
            }
            ToolButton {
                text: "⚙"
                font.pixelSize: 18
                Accessible.name: qsTr("Settings")
                onClicked: settingsDialog.open()
                ToolTip.visible: hovered
                ToolTip.text: qsTr("Settings")
            }
        }
    }

    // The desk's last refusal, until the next edit goes through or it is dismissed.
    footer: Rectangle {
        visible: desk.lastError !== ""
        height: visible ? 34 : 0
        color: Qt.rgba(0.75, 0.22, 0.17, 0.15)
        RowLayout {
            anchors.fill: parent
            anchors.leftMargin: 12
            anchors.rightMargin: 12
            Label { objectName: "lastError"; text: desk.lastError; color: "#c0392b"; elide: Text.ElideRight; Layout.fillWidth: true }
            ToolButton { text: "✕"; Accessible.name: qsTr("Dismiss"); onClicked: desk.clearLastError() }
        }
    }

    // The desk cannot be reached: say so, never block, and offer to start it.
    Rectangle {
        id: banner
        visible: !desk.reachable
        anchors { left: parent.left; right: parent.right; top: parent.top }
        height: visible ? 44 : 0
        color: "#b3541e"
        RowLayout {
            anchors.fill: parent
            anchors.leftMargin: 12
            anchors.rightMargin: 12
            Label {
                Layout.fillWidth: true
                color: "white"
                elide: Text.ElideRight
                text: qsTr("The desk cannot be reached: %1").arg(desk.problem)
            }
            Button { text: qsTr("Start the desk"); onClicked: desk.reconnect() }
        }
    }

    // Files dropped onto the desk go to the player deck's queue (and play when nothing did).
    DropArea {
        anchors.fill: parent
        keys: ["text/uri-list"]
        onDropped: drop => {
            if (!drop.hasUrls) return
            desk.deckOpen(drop.urls, (desk.deck.queue || []).length > 0)
            drop.acceptProposedAction()
        }
    }

    DeckBar {
        id: deckBar
        anchors { left: parent.left; right: parent.right; bottom: parent.bottom }
        height: visible ? implicitHeight : 0
    }

    RowLayout {
        anchors { left: parent.left; right: parent.right; top: banner.bottom; bottom: deckBar.top }
        spacing: 0

        ListView {
            id: routeList
            Layout.preferredWidth: Math.max(380, Math.min(460, window.width * 0.36))
            Layout.fillHeight: true
            clip: true
            model: desk.routes
            currentIndex: window.selectedRow
            keyNavigationEnabled: true
            activeFocusOnTab: true
            Accessible.name: qsTr("Routes")
            Keys.onUpPressed: if (currentIndex > 0) desk.selectRoute(desk.routes.get(currentIndex - 1).routeId)
            Keys.onDownPressed: if (currentIndex < count - 1) desk.selectRoute(desk.routes.get(currentIndex + 1).routeId)
            delegate: RouteRow {
                width: routeList.width
                rowCount: routeList.count
                selected: index === window.selectedRow
                onClicked: desk.selectRoute(routeId)
            }
            ColumnLayout {
                anchors.centerIn: parent
                visible: desk.reachable && desk.routes.count === 0
                spacing: 10
                Label { text: qsTr("No routes yet"); font.bold: true; Layout.alignment: Qt.AlignHCenter }
                Label { text: qsTr("Add an application that plays sound."); color: palette.placeholderText; Layout.alignment: Qt.AlignHCenter }
                Button { text: qsTr("+ Add application"); Layout.alignment: Qt.AlignHCenter; onClicked: addDialog.open() }
            }
        }

        Rectangle { Layout.fillHeight: true; width: 1; color: palette.mid }

        Editor {
            Layout.fillWidth: true
            Layout.minimumWidth: 560
            Layout.fillHeight: true
            route: window.selected
        }
    }

    FileDialog {
        id: deckFiles
        title: qsTr("Play files on the player deck")
        fileMode: FileDialog.OpenFiles
        nameFilters: [qsTr("Music (*.flac *.wav *.aif *.aiff *.mp3 *.m4a *.aac)"), qsTr("All files (*)")]
        onAccepted: desk.deckOpen(selectedFiles, false)
    }
    AddApplicationDialog { id: addDialog; objectName: "addDialog" }
    SettingsDialog { id: settingsDialog; objectName: "settingsDialog"; onIntroductionRequested: onboarding.open() }
    Onboarding { id: onboarding; objectName: "onboarding"; onAddRequested: addDialog.open() }
    Dialog {
        id: removeDialog
        objectName: "removeDialog"
        anchors.centerIn: parent
        modal: true
        Overlay.modal: Rectangle { color: Qt.rgba(0, 0, 0, 0.35) }
        title: qsTr("Remove the route?")
        standardButtons: Dialog.Ok | Dialog.Cancel
        Label {
            text: window.selected ? qsTr("%1 goes back to its normal output, and the route's settings are forgotten.").arg(window.selected.displayName) : ""
        }
        onAccepted: if (window.selected) desk.removeRoute(window.selected.routeId)
    }
}

import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// The first run: is the sound server there, does capture work, what a route is, and the first
// route. Each check follows the desk live, so fixing a problem turns its line green by itself.
Dialog {
    id: intro
    title: qsTr("Welcome to Tarn")
    modal: true
    Overlay.modal: Rectangle { color: Qt.rgba(0, 0, 0, 0.35) }
    anchors.centerIn: parent
    width: Math.min(560, parent ? parent.width - 40 : 560)
    closePolicy: Popup.CloseOnEscape
    signal addRequested()
    onClosed: settings.onboarded = true

    readonly property var verifiedRoute: {
        const revision = desk.routes.revision
        for (let i = 0; i < desk.routes.count; ++i) {
            const r = desk.routes.get(i)
            if (r.health === "verified") return r
        }
        return null
    }

    component Step: RowLayout {
        property bool done: false
        property string heading: ""
        property string detail: ""
        spacing: 12
        Layout.fillWidth: true
        Accessible.name: heading + ": " + detail
        Rectangle {
            Layout.alignment: Qt.AlignTop
            implicitWidth: 22; implicitHeight: 22; radius: 11
            color: parent.done ? "#2f9e6e" : Qt.rgba(0.5, 0.5, 0.5, 0.3)
            Label { anchors.centerIn: parent; text: parent.parent.done ? "✓" : "·"; color: "white" }
        }
        ColumnLayout {
            spacing: 2
            Layout.fillWidth: true
            Label { text: parent.parent.heading; font.bold: true }
            Label { text: parent.parent.detail; wrapMode: Text.Wrap; Layout.fillWidth: true; color: palette.placeholderText }
        }
    }

    ColumnLayout {
        width: parent.width
        spacing: 14
        Step {
            done: desk.reachable
            heading: qsTr("The sound server")
            detail: desk.reachable ? qsTr("Found: the desk is connected to PipeWire.")
                                   : qsTr("Not reachable yet: %1").arg(desk.problem)
        }
        Step {
            done: intro.verifiedRoute !== null
            heading: qsTr("Capture")
            detail: intro.verifiedRoute !== null
                    ? qsTr("Works: %1's sound is taken in and plays through its route.").arg(intro.verifiedRoute.displayName)
                    : desk.processes.length > 0
                      ? qsTr("%n application(s) playing sound can be routed; a route shows Verified once its sound comes through.", "", desk.processes.length)
                      : qsTr("Nothing plays sound right now. Start playback in an application and it shows up here.")
        }
        Step {
            done: true
            heading: qsTr("What a route is")
            detail: qsTr("A route takes one application's sound away from its normal output, runs it through its own equaliser, headphone correction and limiter, and plays it on the device you choose. Everything else keeps playing as before.")
        }
        Step {
            done: desk.routes.count > 0
            heading: qsTr("Your first route")
            detail: desk.routes.count > 0 ? qsTr("Done. Select a route to shape its sound.")
                                          : qsTr("Pick an application that is playing.")
        }
        RowLayout {
            Layout.fillWidth: true
            Item { Layout.fillWidth: true }
            Button {
                text: qsTr("Add application…")
                visible: desk.routes.count === 0
                enabled: desk.reachable
                onClicked: intro.addRequested()
            }
            Button {
                text: desk.routes.count > 0 ? qsTr("Start") : qsTr("Later")
                highlighted: desk.routes.count > 0
                onClicked: intro.close()
            }
        }
    }
}

import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import QtQuick.Window

// The player deck along the bottom of the desk: what plays (cover, title, artist), the
// transport, where in the track it is, the queue and the lyrics. Shown once something is queued.
Pane {
    id: bar
    readonly property var deck: desk.deck
    readonly property var queue: deck.queue || []
    readonly property bool playing: deck.state === "playing"
    readonly property real duration: deck.durationSeconds || 0
    property real position: 0
    visible: queue.length > 0
    padding: 6

    function clock(s) {
        if (!(s >= 0)) return "--:--"
        const m = Math.floor(s / 60), sec = Math.floor(s % 60)
        return m + ":" + (sec < 10 ? "0" : "") + sec
    }
    // The position is read while it moves and someone can see it; never while minimised.
    readonly property bool watching: playing && visible && Window.window !== null
                                     && Window.window.visibility !== Window.Minimized && Window.window.visibility !== Window.Hidden
    Timer { interval: 250; repeat: true; running: bar.watching; onTriggered: bar.position = desk.deckPosition() }
    onDeckChanged: position = deck.positionSeconds || 0

    RowLayout {
        anchors.fill: parent
        spacing: 10
        Item {
            implicitWidth: 44; implicitHeight: 44
            Image {
                id: art
                anchors.fill: parent
                source: bar.deck.artUrl || ""
                sourceSize: Qt.size(88, 88)
                fillMode: Image.PreserveAspectCrop
                asynchronous: true
            }
            Rectangle {
                anchors.fill: parent
                visible: art.status !== Image.Ready
                radius: 4
                color: Qt.rgba(0.5, 0.5, 0.5, 0.25)
                Label { anchors.centerIn: parent; text: "♪"; font.pixelSize: 20 }
            }
        }
        ColumnLayout {
            spacing: 0
            Layout.preferredWidth: 260
            Label {
                objectName: "deckTitle"
                text: bar.deck.title || (bar.queue.length > 0 ? qsTr("Player deck") : "")
                font.bold: true
                elide: Text.ElideRight
                Layout.fillWidth: true
            }
            Label {
                text: [bar.deck.artist, bar.deck.album].filter(s => s).join(" — ")
                color: palette.placeholderText
                elide: Text.ElideRight
                Layout.fillWidth: true
            }
        }
        ToolButton { text: "|◀"; Accessible.name: qsTr("Previous track"); onClicked: desk.deckPrevious() }
        ToolButton {
            text: bar.playing ? "❚❚" : "▶"
            font.pixelSize: 16
            Accessible.name: bar.playing ? qsTr("Pause") : qsTr("Play")
            onClicked: bar.playing ? desk.deckPause() : desk.deckPlay(-1)
        }
        ToolButton { text: "▶|"; Accessible.name: qsTr("Next track"); onClicked: desk.deckNext() }
        Label { text: bar.clock(seek.pressed ? seek.value : bar.position); font.pixelSize: 11 }
        Slider {
            id: seek
            objectName: "deckPosition"
            Layout.fillWidth: true
            from: 0
            to: Math.max(bar.duration, 1)
            enabled: bar.duration > 0
            // Follows the deck unless held; depends on `to` too, so a new track's length never
            // leaves the handle clamped where the old one ended.
            Binding on value {
                value: Math.min(bar.position, seek.to)
                when: !seek.pressed
                restoreMode: Binding.RestoreNone
            }
            Accessible.name: qsTr("Position, %1 of %2").arg(bar.clock(bar.position)).arg(bar.clock(bar.duration))
            onPressedChanged: if (!pressed) { desk.deckSeek(value); bar.position = value }
            Keys.onPressed: event => {
                if (event.key === Qt.Key_Left || event.key === Qt.Key_Right) {
                    const target = Math.max(0, bar.position + (event.key === Qt.Key_Left ? -5 : 5))
                    desk.deckSeek(target)
                    bar.position = target
                    event.accepted = true
                }
            }
        }
        Label { text: bar.clock(bar.duration); font.pixelSize: 11 }
        Button {
            text: qsTr("Lyrics")
            enabled: bar.deck.hasLyrics === true
            onClicked: lyrics.open()
        }
        Button {
            text: qsTr("Queue (%1)").arg(bar.queue.length)
            onClicked: queuePopup.open()
        }
    }

    Popup {
        id: queuePopup
        parent: Overlay.overlay
        x: parent ? parent.width - width - 12 : 0
        y: parent ? parent.height - height - bar.height - 12 : 0
        width: 420
        height: Math.min(420, queueList.contentHeight + 24)
        padding: 8
        ListView {
            id: queueList
            anchors.fill: parent
            clip: true
            model: bar.queue
            // Scrolled with its bar: a drag on the list reorders instead of flicking.
            interactive: false
            ScrollBar.vertical: ScrollBar { policy: ScrollBar.AsNeeded; interactive: true }
            delegate: ItemDelegate {
                id: entry
                objectName: "queueEntry"
                width: queueList.width
                highlighted: index === bar.deck.trackIndex
                leftPadding: 30
                text: (index + 1) + ".  " + modelData.name
                // Dragged by its handle: it follows the pointer and lands where it is let go.
                z: reorder.active ? 1 : 0
                transform: Translate { y: reorder.active ? reorder.translation.y : 0 }
                Label {
                    objectName: "queueHandle"
                    anchors.left: parent.left
                    anchors.leftMargin: 8
                    anchors.verticalCenter: parent.verticalCenter
                    text: "≡"
                    DragHandler {
                        id: reorder
                        target: null
                        yAxis.enabled: true
                        xAxis.enabled: false
                        // The handle's drag reorders; the list must not take it for a flick.
                        grabPermissions: PointerHandler.CanTakeOverFromAnything
                        onActiveChanged: {
                            if (active) return
                            const to = Math.max(0, Math.min(bar.queue.length - 1, index + Math.round(translation.y / entry.height)))
                            if (to !== index) desk.deckMove(index, to)
                        }
                    }
                }
                Accessible.name: qsTr("Play %1").arg(modelData.name)
                onClicked: desk.deckPlay(index)
                ToolButton {
                    anchors.right: down.left
                    anchors.verticalCenter: parent.verticalCenter
                    text: "▲"; enabled: index > 0
                    Accessible.name: qsTr("Move %1 up").arg(modelData.name)
                    onClicked: desk.deckMove(index, index - 1)
                }
                ToolButton {
                    id: down
                    anchors.right: parent.right
                    anchors.verticalCenter: parent.verticalCenter
                    text: "▼"; enabled: index < bar.queue.length - 1
                    Accessible.name: qsTr("Move %1 down").arg(modelData.name)
                    onClicked: desk.deckMove(index, index + 1)
                }
            }
        }
    }

    Popup {
        id: lyrics
        parent: Overlay.overlay
        anchors.centerIn: parent
        width: 480
        height: 420
        padding: 12
        property var text: ({})
        onOpened: text = desk.deckLyrics()
        Timer { interval: 500; repeat: true; running: lyrics.opened && bar.watching; onTriggered: lyrics.text = desk.deckLyrics() }
        ListView {
            id: lines
            anchors.fill: parent
            clip: true
            model: lyrics.text.lines || []
            currentIndex: lyrics.text.current === null || lyrics.text.current === undefined ? -1 : lyrics.text.current
            highlightFollowsCurrentItem: true
            onCurrentIndexChanged: if (currentIndex >= 0) positionViewAtIndex(currentIndex, ListView.Center)
            delegate: Label {
                width: lines.width
                wrapMode: Text.Wrap
                text: modelData.text === "" ? "♪" : modelData.text
                font.bold: index === lines.currentIndex
                color: index === lines.currentIndex ? "#2f9e6e" : palette.text
                padding: 2
            }
            Label {
                anchors.centerIn: parent
                visible: lines.count === 0
                text: qsTr("No lyrics for this track.")
            }
        }
    }
}

import QtQuick
import QtQuick.Controls

// A slider that shows the desk's value and sends a person's moves as edits. While someone moves
// it (and for a moment after), the desk's slightly older value must not pull it back: the edit
// is on its way and the desk's answer follows.
Slider {
    id: slider
    property real deskValue: 0
    // Page Up / Page Down move it this far; 0 and Home send it to `resetValue`.
    property real pageStep: 3
    property real resetValue: 0
    signal edited(real value)

    readonly property bool editing: pressed || recentlyEdited
    property bool recentlyEdited: false
    Timer { id: settle; interval: 800; onTriggered: slider.recentlyEdited = false }

    Binding on value {
        value: slider.deskValue
        when: !slider.editing
        restoreMode: Binding.RestoreNone
    }

    function setByHand(newValue) {
        value = Math.max(from, Math.min(to, newValue))
        moved()
    }
    onMoved: {
        // Set before the edit goes out and kept while the timer restarts, so the desk's value
        // never slips in between.
        recentlyEdited = true
        settle.restart()
        edited(value)
    }
    Keys.onPressed: event => {
        if (event.key === Qt.Key_PageUp) setByHand(value + pageStep)
        else if (event.key === Qt.Key_PageDown) setByHand(value - pageStep)
        else if (event.key === Qt.Key_0 || event.key === Qt.Key_Home) setByHand(resetValue)
        else return
        event.accepted = true
    }
    TapHandler {
        acceptedButtons: Qt.LeftButton
        onDoubleTapped: slider.setByHand(slider.resetValue)
    }
}

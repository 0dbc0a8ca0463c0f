import QtQuick

// A level on the −60 … 0 dBFS scale: one rectangle that changes width, nothing else redraws.
// Square ends: a rounded rectangle that changes size is redrawn as a new path each time by the
// software renderer (machines without a graphics card), a plain one is a single fill.
Rectangle {
    property real level: 0
    implicitHeight: 6
    color: Qt.rgba(0.5, 0.5, 0.5, 0.25)
    Rectangle {
        width: parent.width * Math.max(0, Math.min(1, parent.level))
        height: parent.height
        color: parent.level > 0.95 ? "#d35400" : "#2f9e6e"
    }
}

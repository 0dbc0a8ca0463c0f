import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// What the selected route's equalisers do, as the desk computes it from the route's own chain:
// the user's bands, AI Tune's layer, the headphone correction and the imported EQ as thin traces
// that can be hidden, and their sum, always drawn, in the accent colour. Asked for again only
// when the routes' values change (never with the meters) and drawn once per answer.
ColumnLayout {
    id: graph
    property var route: null
    property int channel: 0
    property var curve: ({})
    spacing: 2

    readonly property color accent: "#2f9e6e"
    readonly property real rangeDb: 12
    readonly property real fromHz: 20
    readonly property real toHz: 20000
    readonly property var bandFrequencies: [31, 62, 125, 250, 500, 1000, 2000, 4000, 8000, 16000]
    readonly property var bandLabels: ["31", "62", "125", "250", "500", "1k", "2k", "4k", "8k", "16k"]

    // The component traces, each with its legend text and colour.
    readonly property var traces: [
        { key: "userDb", text: qsTr("Your EQ"), color: "#3b82c4" },
        { key: "aiDb", text: qsTr("AI Tune"), color: "#a05fc8" },
        { key: "correctionDb", text: qsTr("Headphone"), color: "#d08a2e" },
        { key: "parametricDb", text: qsTr("Imported EQ"), color: "#b5487a" },
    ]
    // The traces the user has hidden through the legend.
    property var hidden: ({})

    SystemPalette { id: colours; colorGroup: SystemPalette.Active }

    // Whether a trace means anything on this route: AI Tune's while it is on, the correction's
    // while there is one, the imported EQ's when it does something.
    function isPresent(key) {
        if (key === "aiDb") return route !== null && route.aiTune !== "off"
        if (key === "correctionDb") return route !== null && route.correction !== ""
        if (key === "parametricDb") return hasTrace(key)
        return true
    }

    function hasTrace(key) {
        const values = curve[key]
        if (!values) return false
        for (let i = 0; i < values.length; ++i)
            if (Math.abs(values[i]) > 0.01) return true
        return false
    }

    function refresh() {
        curve = route ? desk.responseCurve(route.routeId, channel) : ({})
        plot.requestPaint()
    }

    // An edit arrives as a burst of changes (a slider drag): one question per burst.
    Timer { id: ask; interval: 30; onTriggered: graph.refresh() }
    Connections {
        target: desk.routes
        function onRevisionChanged() { ask.restart() }
    }
    readonly property string routeId: route ? route.routeId : ""
    onRouteIdChanged: ask.restart()
    onChannelChanged: ask.restart()

    RowLayout {
        Layout.fillWidth: true
        spacing: 10
        Repeater {
            model: graph.traces
            CheckBox {
                visible: graph.isPresent(modelData.key)
                checked: !graph.hidden[modelData.key]
                text: modelData.text
                font.pixelSize: 11
                padding: 0
                topPadding: 0
                bottomPadding: 0
                indicator.width: 14
                indicator.height: 14
                contentItem: Label {
                    leftPadding: 18
                    text: parent.text
                    font: parent.font
                    color: modelData.color
                    verticalAlignment: Text.AlignVCenter
                }
                Accessible.name: qsTr("Show the %1 curve").arg(modelData.text)
                onToggled: {
                    const h = Object.assign({}, graph.hidden)
                    h[modelData.key] = !checked
                    graph.hidden = h
                    plot.requestPaint()
                }
            }
        }
        Item { Layout.fillWidth: true }
        Rectangle { width: 14; height: 3; radius: 1; color: graph.accent }
        Label { text: qsTr("Sum"); font.pixelSize: 11; color: graph.accent; font.bold: true }
    }

    Canvas {
        id: plot
        Layout.fillWidth: true
        Layout.fillHeight: true
        Accessible.role: Accessible.Graphic
        Accessible.name: qsTr("Response curve, 20 Hz to 20 kHz, ±12 dB")
        onWidthChanged: requestPaint()
        onHeightChanged: requestPaint()

        readonly property real padLeft: 28
        readonly property real padRight: 6
        readonly property real padTop: 6
        readonly property real padBottom: 16

        function xOf(hz) {
            const span = Math.log(graph.toHz / graph.fromHz)
            return padLeft + Math.log(hz / graph.fromHz) / span * (width - padLeft - padRight)
        }
        function yOf(db) { return padTop + (graph.rangeDb - db) / (2 * graph.rangeDb) * (height - padTop - padBottom) }

        function trace(ctx, values, colour, lineWidth) {
            const hz = graph.curve.frequenciesHz
            if (!values || !hz || values.length !== hz.length) return
            ctx.beginPath()
            let drawing = false
            for (let i = 0; i < hz.length; ++i) {
                // A value the desk could not compute breaks the line rather than bending it.
                if (typeof values[i] !== "number" || !isFinite(values[i])) { drawing = false; continue }
                const x = xOf(hz[i]), y = yOf(values[i])
                if (drawing) ctx.lineTo(x, y)
                else ctx.moveTo(x, y)
                drawing = true
            }
            ctx.strokeStyle = "" + colour
            ctx.lineWidth = lineWidth
            ctx.stroke()
        }

        onPaint: {
            const ctx = getContext("2d")
            ctx.reset()
            const plotRight = width - padRight, plotBottom = height - padBottom
            ctx.font = "10px sans-serif"
            ctx.lineWidth = 1

            // Grid: every 6 dB (labelled every 12 when the graph is too short for more), and the
            // ten band centres.
            ctx.fillStyle = "" + colours.placeholderText
            ctx.textAlign = "right"
            ctx.textBaseline = "middle"
            const labelStepDb = yOf(0) - yOf(6) < 18 ? 12 : 6
            for (let db = -graph.rangeDb; db <= graph.rangeDb; db += 6) {
                const y = Math.round(yOf(db)) + 0.5
                ctx.strokeStyle = db === 0 ? "rgba(128, 128, 128, 0.6)" : "rgba(128, 128, 128, 0.22)"
                ctx.beginPath(); ctx.moveTo(padLeft, y); ctx.lineTo(plotRight, y); ctx.stroke()
                if (db % labelStepDb === 0) ctx.fillText((db > 0 ? "+" : "") + db, padLeft - 4, y)
            }
            ctx.textAlign = "center"
            ctx.textBaseline = "top"
            for (let b = 0; b < graph.bandFrequencies.length; ++b) {
                const x = Math.round(xOf(graph.bandFrequencies[b])) + 0.5
                ctx.strokeStyle = "rgba(128, 128, 128, 0.16)"
                ctx.beginPath(); ctx.moveTo(x, padTop); ctx.lineTo(x, plotBottom); ctx.stroke()
                ctx.fillText(graph.bandLabels[b], x, plotBottom + 3)
            }

            // The traces stay inside the ±12 dB window.
            ctx.save()
            ctx.beginPath()
            ctx.rect(padLeft, padTop, plotRight - padLeft, plotBottom - padTop)
            ctx.clip()
            for (let t = 0; t < graph.traces.length; ++t) {
                const layer = graph.traces[t]
                if (graph.isPresent(layer.key) && !graph.hidden[layer.key]) trace(ctx, graph.curve[layer.key], layer.color, 1.25)
            }
            trace(ctx, graph.curve.totalDb, graph.accent, 2.5)
            ctx.restore()
        }

        Label {
            anchors.centerIn: parent
            visible: graph.route !== null && !graph.curve.totalDb
            text: qsTr("The desk did not give this route's response.")
            color: colours.placeholderText
        }
    }
}

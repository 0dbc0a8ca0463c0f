import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import "Words.js" as Words

// Per-channel offsets: one channel's ten bands moved on top of the shared equaliser (a
// left-right imbalance in one's hearing or headphones).
ColumnLayout {
    id: offsets
    property var route: null
    readonly property var bandNames: ["31 Hz", "62 Hz", "125 Hz", "250 Hz", "500 Hz", "1 kHz", "2 kHz", "4 kHz", "8 kHz", "16 kHz"]
    readonly property var channelNames: [qsTr("Left"), qsTr("Right"), qsTr("Centre"), qsTr("LFE"), qsTr("Rear left"), qsTr("Rear right"), qsTr("Side left"), qsTr("Side right")]
    readonly property int channelCount: route ? route.channelCount : 2
    property int channel: 0
    spacing: 4

    function delta(band) {
        if (!route || !route.channelDeltas || channel >= route.channelDeltas.length) return 0
        const row = route.channelDeltas[channel]
        return row && band < row.length ? row[band] : 0
    }

    RowLayout {
        spacing: 8
        Label { text: qsTr("Channel") }
        ComboBox {
            id: channelPicker
            model: {
                const names = []
                for (let c = 0; c < offsets.channelCount; ++c) names.push(c < offsets.channelNames.length ? offsets.channelNames[c] : qsTr("Channel %1").arg(c + 1))
                return names
            }
            currentIndex: offsets.channel
            onActivated: index => offsets.channel = index
            Accessible.name: qsTr("Channel whose offsets are shown")
        }
        Button {
            text: qsTr("Reset channel")
            flat: true
            onClicked: {
                for (let b = 0; b < 10; ++b)
                    if (offsets.delta(b) !== 0) desk.setChannelDelta(offsets.route.routeId, offsets.channel, b, 0)
            }
        }
    }
    RowLayout {
        Layout.fillWidth: true
        spacing: 4
        Repeater {
            model: 10
            ColumnLayout {
                Layout.fillWidth: true
                spacing: 0
                SpinBox {
                    id: spin
                    Layout.fillWidth: true
                    from: -24; to: 24 // half-dB steps
                    editable: true
                    value: Math.round(offsets.delta(index) * 2)
                    textFromValue: v => (v / 2).toFixed(1)
                    valueFromText: t => Math.round(parseFloat(t.replace("−", "-")) * 2)
                    Accessible.name: qsTr("%1 offset, %2 channel, %3").arg(offsets.bandNames[index]).arg(channelPicker.currentText).arg(Words.db(value / 2))
                    onValueModified: desk.setChannelDelta(offsets.route.routeId, offsets.channel, index, value / 2)
                }
                Label { Layout.alignment: Qt.AlignHCenter; text: offsets.bandNames[index]; font.pixelSize: 10 }
            }
        }
    }
}

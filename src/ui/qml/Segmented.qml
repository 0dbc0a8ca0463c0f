import QtQuick
import QtQuick.Controls

// One choice out of a few, as joined buttons ("Off | Auto | On"). Each option is [key, label].
Row {
    id: segmented
    property var options: []
    property string current: ""
    property string accessiblePrefix: ""
    property int buttonHeight: 28
    signal chosen(string key)
    spacing: 0

    Repeater {
        model: segmented.options
        Button {
            text: modelData[1]
            checkable: true
            checked: segmented.current === modelData[0]
            highlighted: checked
            implicitHeight: segmented.buttonHeight
            leftPadding: 12
            rightPadding: 12
            Accessible.name: segmented.accessiblePrefix + " " + modelData[1]
            onClicked: {
                // The desk's value decides what shows checked, not the click.
                checked = Qt.binding(() => segmented.current === modelData[0])
                segmented.chosen(modelData[0])
            }
        }
    }
}

// A borderless button showing one icon of the identity screens. Its accessible
// name is the only text it has, so callers set Accessible.name.
import QtQuick
import QtQuick.Controls

ToolButton {
    id: button

    property url iconSource

    flat: true
    display: AbstractButton.IconOnly
    icon.source: button.iconSource
    icon.color: "transparent"
    icon.width: 22
    icon.height: 22
    text: button.Accessible.name
    ToolTip.text: button.Accessible.name
    ToolTip.visible: button.hovered && button.Accessible.name.length > 0
    ToolTip.delay: 600

    Keys.onReturnPressed: (event) => { if (enabled) clicked(); event.accepted = true }
    Keys.onEnterPressed: (event) => { if (enabled) clicked(); event.accepted = true }
}

// A one-pixel horizontal rule between rows; a mid grey that reads on light and dark
// palettes alike.
import QtQuick
import QtQuick.Layouts

Rectangle {
    implicitHeight: 1
    Layout.fillWidth: true
    color: Qt.rgba(0.5, 0.5, 0.5, 0.35)
}

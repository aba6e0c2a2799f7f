// A push button of the identity screens: Space activates it as on any button, and
// Return or Enter too, so that a keyboard user can act without reaching for Space.
import QtQuick
import QtQuick.Controls

Button {
    Keys.onReturnPressed: (event) => { if (enabled) clicked(); event.accepted = true }
    Keys.onEnterPressed: (event) => { if (enabled) clicked(); event.accepted = true }
}

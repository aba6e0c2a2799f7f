// The exact-key candidates of a correction controller as a stack of cards, each
// followed by a divider. Passive: it reads controller.candidates and forwards each
// answer to the controller without waiting; a card goes away only when the
// controller removes its candidate after the correction committed.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

ColumnLayout {
    id: list

    // The IdentityCorrectionController observed.
    property var controller: null
    // Source type -> provider name, handed to every card.
    property var providerDisplayName: null

    spacing: 0

    Repeater {
        model: list.controller ? list.controller.candidates : []

        delegate: ColumnLayout {
            id: entry

            required property var modelData

            spacing: 0
            Layout.fillWidth: true
            Layout.alignment: Qt.AlignHCenter

            IdentityCorrectionCard {
                candidate: entry.modelData
                providerDisplayName: list.providerDisplayName
                Layout.fillWidth: true
                onConfirmed: list.controller.confirm(entry.modelData)
                onRejected: list.controller.reject(entry.modelData)
            }
            IdentityDivider {}
        }
    }
}

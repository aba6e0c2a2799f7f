// The hosting screen of the candidate list: the suggested pairs of a correction
// controller, the controller's error, an empty state, and a bar that offers to undo
// the current confirmation. Loading is the host's business (controller.reload);
// while it sets busy, a spinner stands in for the empty state.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Orvik.Identity

Pane {
    id: pane

    // The IdentityCorrectionController observed.
    property var controller: null
    // Source type -> provider name.
    property var providerDisplayName: null
    // True while the host is loading candidates for the first time.
    property bool busy: false

    // The confirmation that the undo bar offers to undo, or null.
    readonly property var offer: pane.controller ? pane.controller.lastConfirmation : null

    function partyLabel(identity) {
        return IdentityHandlePresentation.partyLabel(identity.displayName, identity.handleNormalized,
                                                     identity.sourceType, pane.providerDisplayName);
    }

    padding: 0

    contentItem: ColumnLayout {
        spacing: 0

        Label {
            text: "Suggested matches"
            font.bold: true
            font.pointSize: Qt.application.font.pointSize * 1.15
            Layout.fillWidth: true
            Layout.margins: 16
            Layout.bottomMargin: 8
        }

        Label {
            objectName: "orvik.identity-corrections.error"
            visible: pane.controller !== null && pane.controller.lastError != null
            text: pane.controller && pane.controller.lastErrorCopy != null
                  ? pane.controller.lastErrorCopy
                  : "Couldn't complete that correction. Nothing was changed."
            color: "#c92a2a"
            wrapMode: Text.Wrap
            Layout.fillWidth: true
            Layout.leftMargin: 16
            Layout.rightMargin: 16
            Layout.bottomMargin: 8
        }

        Frame {
            objectName: "orvik.identity-corrections.undo-bar"
            visible: pane.offer != null
            Layout.fillWidth: true
            Layout.leftMargin: 16
            Layout.rightMargin: 16
            Layout.bottomMargin: 8

            RowLayout {
                anchors.fill: parent
                spacing: 12

                Label {
                    text: {
                        const offer = pane.offer;
                        if (!offer || !pane.providerDisplayName)
                            return "";
                        if (!offer.candidate)
                            return "Linked as one person.";
                        return pane.partyLabel(offer.candidate.sourceIdentityA) + " and "
                               + pane.partyLabel(offer.candidate.sourceIdentityB) + " are now one person.";
                    }
                    elide: Text.ElideRight
                    Layout.fillWidth: true
                }
                IdentityButton {
                    objectName: "orvik.identity-corrections.undo"
                    text: "Undo"
                    onClicked: pane.controller.undoLastConfirmation()
                }
            }
        }

        IdentityDivider {}

        ScrollView {
            id: scroller

            visible: pane.controller !== null && pane.controller.candidates.length > 0
            clip: true
            contentWidth: availableWidth
            Layout.fillWidth: true
            Layout.fillHeight: true

            IdentityCorrectionListView {
                width: scroller.availableWidth
                controller: pane.controller
                providerDisplayName: pane.providerDisplayName
            }
        }

        Item {
            visible: !scroller.visible
            Layout.fillWidth: true
            Layout.fillHeight: true

            BusyIndicator {
                anchors.centerIn: parent
                running: pane.busy
                visible: pane.busy
            }
            Label {
                objectName: "orvik.identity-corrections.empty"
                visible: !pane.busy
                text: "No suggested matches to review."
                opacity: 0.7
                horizontalAlignment: Text.AlignHCenter
                wrapMode: Text.Wrap
                anchors.left: parent.left
                anchors.right: parent.right
                anchors.top: parent.top
                anchors.margins: 16
            }
        }
    }
}

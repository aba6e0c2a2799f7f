// One suggested pair: the question whether the two identities are one person, why
// they were suggested, and the two answers. The card holds no state; its content is
// a function of candidate and providerDisplayName, and the answers are signals for
// the list to forward.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Orvik.Identity

Control {
    id: card

    // The IdentityCandidate shown, as its record object.
    property var candidate: null
    // Source type -> provider name, for the question.
    property var providerDisplayName: null

    // The pair as a question: "A = B?", or "Also A?" when both sides read the same.
    readonly property string question: {
        // Without providerDisplayName a label that needs a provider name uses the
        // source type.
        if (!card.candidate)
            return "";
        const a = card.candidate.sourceIdentityA;
        const b = card.candidate.sourceIdentityB;
        const labelA = IdentityHandlePresentation.partyLabel(a.displayName, a.handleNormalized,
                                                             a.sourceType, card.providerDisplayName);
        const labelB = IdentityHandlePresentation.partyLabel(b.displayName, b.handleNormalized,
                                                             b.sourceType, card.providerDisplayName);
        return labelA === labelB ? "Also " + labelA + "?" : labelA + " = " + labelB + "?";
    }

    signal confirmed()
    signal rejected()

    objectName: card.candidate ? "orvik.identity-corrections.card." + card.candidate.id : ""
    leftPadding: 12
    rightPadding: 12
    topPadding: 8
    bottomPadding: 8

    // 12 between items is also the flexible gap (at least 8) before the answers: the
    // text column takes all the width the buttons leave.
    contentItem: RowLayout {
        spacing: 12

        ColumnLayout {
            spacing: 2
            Layout.fillWidth: true
            Layout.alignment: Qt.AlignVCenter

            Label {
                objectName: card.candidate ? "orvik.identity-corrections.card.question." + card.candidate.id : ""
                text: card.question
                wrapMode: Text.Wrap
                Layout.fillWidth: true
            }
            Label {
                text: card.candidate ? card.candidate.because : ""
                font.pointSize: Qt.application.font.pointSize * 0.85
                opacity: 0.7
                wrapMode: Text.Wrap
                Layout.fillWidth: true
            }
        }

        IdentityIconButton {
            objectName: card.candidate ? "orvik.identity-corrections.card.reject." + card.candidate.id : ""
            iconSource: "icons/xmark-circle.svg"
            Accessible.name: "Different people"
            Layout.alignment: Qt.AlignVCenter
            onClicked: card.rejected()
        }
        IdentityIconButton {
            objectName: card.candidate ? "orvik.identity-corrections.card.confirm." + card.candidate.id : ""
            iconSource: "icons/checkmark-circle-fill.svg"
            Accessible.name: "Same person"
            Layout.alignment: Qt.AlignVCenter
            onClicked: card.confirmed()
        }
    }
}

import QtQuick
import QtTest
import Orvik.Identity

Item {
    id: root

    width: 640
    height: 480

    Component {
        id: paneComponent

        IdentityCorrectionsPane {
            anchors.fill: parent
        }
    }

    Component {
        id: cardComponent

        IdentityCorrectionCard {}
    }

    StoreHarness {
        id: t

        name: "CandidateList"
        when: windowShown
        stage: root

        readonly property string dana: "si-dana-mail|si-dana-msg"
        readonly property string ravi: "si-ravi-cal|si-ravi-mail"
        readonly property string kim: "si-kim-mail|si-kim-msg"

        function openPane(path) {
            const controller = correctionController(openStore(path));
            const pane = createTemporaryObject(paneComponent, root,
                                               {"controller": controller, "providerDisplayName": providerName});
            await_(controller.reload(50));
            return pane;
        }

        // The candidate ids of the cards shown, top to bottom.
        function shownCards(pane) {
            const ids = pane.controller.candidates.map(candidate => candidate.id);
            const cards = ids.map(id => ({"id": id, "card": findChild(pane, "orvik.identity-corrections.card." + id)}));
            cards.forEach(entry => verify(entry.card !== null, "no card for " + entry.id));
            cards.sort((a, b) => a.card.mapToItem(pane, 0, 0).y - b.card.mapToItem(pane, 0, 0).y);
            return cards.map(entry => entry.id);
        }

        // A card needs only its candidate to ask its question; the provider names
        // matter only to a label built from one.
        function test_aCardAsksWithOrWithoutProviderNames() {
            const identity = (id, sourceType, handle, displayName) => ({
                "id": id, "sourceType": sourceType, "handleNormalized": handle, "displayName": displayName,
                "firstSeenAt": "2026-01-01T00:00:00Z", "lastSeenAt": "2026-01-01T00:00:00Z",
                "createdAt": "2026-01-01T00:00:00Z"});
            const candidate = {
                "id": "a|b", "sourceIdentityA": identity("a", "gmail", "dana@example.com", "Dana Lee"),
                "sourceIdentityB": identity("b", "imessage", "dana@example.com", null),
                "existingPersonID": null, "score": 0.9, "because": "exact handle match"};
            const card = createTemporaryObject(cardComponent, root, {"candidate": candidate});
            compare(card.question, "Dana Lee = dana@example.com?");
            card.providerDisplayName = providerName;
            compare(card.question, "Dana Lee = dana@example.com?");
            card.candidate = null;
            compare(card.question, "");
        }

        function test_confirmedCardLeavesAndUndoPutsItBackLast() {
            const pane = openPane(fixtures.candidateStore());
            compare(shownCards(pane).slice().sort(), [t.dana, t.kim, t.ravi]);
            compare(findChild(pane, "orvik.identity-corrections.card." + t.ravi).question, "Also Ravi Anand?");
            compare(findChild(pane, "orvik.identity-corrections.card." + t.dana).question,
                    "Dana Lee = dana@example.com?");
            verify(!findChild(pane, "orvik.identity-corrections.empty").visible);
            const undoBar = findChild(pane, "orvik.identity-corrections.undo-bar");
            verify(!undoBar.visible);

            const confirm = findChild(pane, "orvik.identity-corrections.card.confirm." + t.dana);
            compare(confirm.Accessible.name, "Same person");
            compare(findChild(pane, "orvik.identity-corrections.card.reject." + t.dana).Accessible.name,
                    "Different people");
            // From the keyboard: Tab from the cross reaches the check mark, Space answers.
            findChild(pane, "orvik.identity-corrections.card.reject." + t.dana).forceActiveFocus();
            keyClick(Qt.Key_Tab);
            verify(confirm.activeFocus);
            keyClick(Qt.Key_Space);
            tryVerify(() => findChild(pane, "orvik.identity-corrections.card." + t.dana) === null, 20000);
            tryCompare(undoBar, "visible", true);
            verify(!findChild(pane, "orvik.identity-corrections.error").visible);

            click(findChild(pane, "orvik.identity-corrections.undo"));
            tryVerify(() => findChild(pane, "orvik.identity-corrections.card." + t.dana) !== null, 20000);
            compare(shownCards(pane)[2], t.dana);
            tryCompare(undoBar, "visible", false);
        }

        function test_failedConfirmationLeavesTheCardAndSaysWhy() {
            const path = fixtures.candidateStore();
            const pane = openPane(path);
            fixtures.markPersonsDifferent(path, "p-kim-mail", "p-kim-msg");

            click(findChild(pane, "orvik.identity-corrections.card.confirm." + t.kim));
            const error = findChild(pane, "orvik.identity-corrections.error");
            tryCompare(error, "visible", true, 20000);
            compare(error.text, "You marked these as different people. To combine them, use Link two people.");
            verify(findChild(pane, "orvik.identity-corrections.card." + t.kim) !== null);
            verify(!findChild(pane, "orvik.identity-corrections.undo-bar").visible);

            // Answering the other two empties the list; the error goes with a success.
            for (const id of [t.dana, t.ravi]) {
                click(findChild(pane, "orvik.identity-corrections.card.reject." + id));
                tryVerify(() => findChild(pane, "orvik.identity-corrections.card." + id) === null, 20000);
            }
            tryCompare(error, "visible", false);
            compare(shownCards(pane), [t.kim]);
        }
    }
}

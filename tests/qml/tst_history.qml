import QtQuick
import QtTest
import Orvik.Identity

Item {
    id: root

    width: 560
    height: 420

    Component {
        id: viewComponent

        IdentityHistoryView {
            anchors.fill: parent
        }
    }

    StoreHarness {
        id: t

        name: "History"
        when: windowShown
        stage: root

        function openView(path, personID) {
            const controller = historyController(openStore(path), personID);
            const view = createTemporaryObject(viewComponent, root, {
                "controller": controller, "personDisplayName": "Lee Chan", "providerDisplayName": providerName
            });
            await_(controller.reload());
            return view;
        }

        function test_undoTurnsARowUndoneAndASupersededUndoSaysWhy() {
            const fixture = fixtures.historyStore();
            const view = openView(fixture.path, fixture.personID);
            const entries = view.controller.entries;
            compare(entries.map(entry => entry.kind), ["linked", "separated"]);
            const [linked, separated] = entries.map(entry => entry.operationID);
            verify(findChild(view, "orvik.identity-history.list").visible);
            verify(!findChild(view, "orvik.identity-history.empty").visible);
            verify(findChild(view, "orvik.identity-history.entry." + linked) !== null);
            const error = findChild(view, "orvik.identity-history.error");
            verify(!error.visible);

            // The separation changed what the confirmation linked.
            click(findChild(view, "orvik.identity-history.undo." + linked));
            tryCompare(error, "visible", true, 20000);
            compare(error.text, "A newer correction changed this person. Undo the newer correction first.");
            verify(findChild(view, "orvik.identity-history.undone." + linked) === null);

            click(findChild(view, "orvik.identity-history.undo." + separated));
            tryVerify(() => findChild(view, "orvik.identity-history.undone." + separated) !== null, 20000);
            compare(findChild(view, "orvik.identity-history.undone." + separated).text, "Undone");
            verify(findChild(view, "orvik.identity-history.undo." + separated) === null);
            verify(!error.visible);
            verify(findChild(view, "orvik.identity-history.undo." + linked) !== null);
        }

        function test_aPersonWithoutHistory() {
            const fixture = fixtures.historyStore();
            const view = openView(fixture.path, "p-nobody");
            verify(findChild(view, "orvik.identity-history.empty").visible);
            compare(findChild(view, "orvik.identity-history.empty").text, "No identity history yet.");
            verify(!findChild(view, "orvik.identity-history.list").visible);
            compare(view.implicitWidth >= 380 && view.implicitHeight >= 220, true);

            let dismissed = 0;
            view.dismissed.connect(() => dismissed += 1);
            click(findChild(view, "orvik.identity-history.done"));
            compare(dismissed, 1);
        }
    }
}

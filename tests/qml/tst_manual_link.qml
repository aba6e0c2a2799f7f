import QtQuick
import QtTest
import Orvik.Identity

Item {
    id: root

    width: 640
    height: 760

    Component {
        id: viewComponent

        IdentityManualLinkView {
            anchors.fill: parent
        }
    }

    StoreHarness {
        id: t

        name: "ManualLink"
        when: windowShown
        stage: root

        // The screen over a fresh store, scoped to personID unless it is empty, with
        // the first search and its contexts finished.
        function openView(personID, displayName) {
            const controller = correctionController(openStore(fixtures.manualLinkStore()));
            const view = createTemporaryObject(viewComponent, root,
                                               {"controller": controller, "providerDisplayName": providerName});
            if (personID.length > 0)
                await_(controller.loadScopedToPerson(personID, displayName));
            await_(controller.manualSearch(""));
            // Rows are laid out on the next frame; a click before that lands on a stale position.
            waitForRendering(view, 300);
            return view;
        }

        function row(view, identityID) {
            const found = findChild(view, "orvik.identity-corrections.manual-row." + identityID);
            verify(found !== null, "no row for " + identityID);
            return found;
        }

        function personRow(view, displayName) {
            const index = view.controller.manualPersonResults.findIndex(person => person.displayName === displayName);
            verify(index >= 0, "no person row for " + displayName);
            return findChild(view, "orvik.identity-corrections.manual-person." + index);
        }

        function element(view, suffix) {
            return findChild(view, "orvik.identity-corrections." + suffix);
        }

        function test_unscopedNeedsTwoTargetsAndEvidence() {
            const view = openView("", null);
            const confirm = element(view, "manual-confirm");
            compare(confirm.Accessible.name, "Same person");
            compare(element(view, "different-people").Accessible.name, "Different people");
            verify(!element(view, "scoped-anchor").visible);
            verify(!confirm.enabled);
            verify(!element(view, "this-is-me").enabled);

            click(row(view, "si-zed-msg"));
            compare(view.selection.length, 1);
            verify(!confirm.enabled);
            verify(!element(view, "manual-preview").visible);
            verify(element(view, "this-is-me").enabled);
            verify(element(view, "different-people").enabled);

            // Unscoped, nothing relates the two: the warning stands until acknowledged.
            click(row(view, "si-other"));
            verify(element(view, "manual-preview").visible);
            verify(element(view, "manual-warning").visible);
            verify(!confirm.enabled);
            click(element(view, "manual-warning.acknowledge"));
            verify(view.acknowledgeUnsupportedSelection);
            verify(confirm.enabled);

            // Picking a row again drops it.
            click(row(view, "si-other"));
            compare(view.selection.length, 1);
            verify(!confirm.enabled);
        }

        function test_scopedOneSupportedIdentitySuffices() {
            const view = openView("p-zed", "Zed Park");
            const scope = element(view, "scoped-anchor");
            verify(scope.visible);
            compare(scope.text, "Add identities to Zed Park");

            click(row(view, "si-zed-msg"));
            verify(element(view, "manual-preview").visible);
            verify(!element(view, "manual-warning").visible);
            const confirm = element(view, "manual-confirm");
            verify(confirm.enabled);

            confirm.forceActiveFocus();
            keyClick(Qt.Key_Return);
            compare(view.selection, []);
            tryVerify(() => view.controller.lastConfirmation != null, 20000);
            compare(view.controller.lastError, null);
        }

        function test_aPickedPersonAlwaysNeedsAcknowledgement() {
            const view = openView("p-zed", "Zed Park");
            const confirm = element(view, "manual-confirm");
            const warning = element(view, "manual-warning");
            click(row(view, "si-zed-msg"));
            verify(confirm.enabled);

            click(personRow(view, "Robin Park"));
            verify(warning.visible);
            compare(warning.text, "No deterministic evidence supports one or more selected identities.");
            verify(!confirm.enabled);
            const acknowledge = element(view, "manual-warning.acknowledge");
            compare(acknowledge.text, "I understand");
            click(acknowledge);
            verify(confirm.enabled);

            click(personRow(view, "Robin Park"));
            verify(!warning.visible);
            verify(confirm.enabled);
        }

        // What a script or an accessibility client does: set the field's text, call
        // clicked() on the switch or set it.
        function test_elementsAnswerTheirOwnInterface() {
            const view = openView("p-zed", "Zed Park");
            const search = element(view, "search");
            const everyone = view.controller.manualSearchResults.length;
            search.text = "dana";
            compare(view.query, "dana");
            tryVerify(() => view.controller.manualSearchResults.length === 1, 20000);
            compare(view.controller.manualSearchResults[0].id, "si-dana-mail");
            view.query = "";
            compare(search.text, "");
            tryVerify(() => view.controller.manualSearchResults.length === everyone, 20000);

            click(row(view, "si-zed-msg"));
            click(personRow(view, "Robin Park"));
            const confirm = element(view, "manual-confirm");
            const acknowledge = element(view, "manual-warning.acknowledge");
            verify(!confirm.enabled);
            acknowledge.clicked();
            verify(acknowledge.checked);
            verify(confirm.enabled);
            acknowledge.clicked();
            verify(!view.acknowledgeUnsupportedSelection);
            acknowledge.checked = true;
            verify(confirm.enabled);
            // A real click after all that still flips it once.
            click(acknowledge);
            verify(!view.acknowledgeUnsupportedSelection);
            verify(!acknowledge.checked);

            // Clearing the selection drops the acknowledgement, also on the switch.
            acknowledge.toggle();
            verify(view.acknowledgeUnsupportedSelection);
            click(row(view, "si-zed-msg"));
            click(personRow(view, "Robin Park"));
            compare(view.selection, []);
            verify(!acknowledge.checked);
        }

        function test_previewNamesThePredictedSurvivor() {
            const view = openView("", null);
            const preview = element(view, "manual-preview");
            // Robin, picked first, has no identities: Dana's person survives the link.
            click(personRow(view, "Robin Park"));
            verify(!preview.visible);
            verify(!element(view, "this-is-me").enabled);
            verify(!element(view, "different-people").enabled);
            click(row(view, "si-dana-mail"));
            verify(preview.visible);
            compare(element(view, "manual-preview.caption").text, "Link 2 \u2192 Dana Lee");
        }
    }
}

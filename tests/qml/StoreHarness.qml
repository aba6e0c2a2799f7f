// Opens a fixture store the way the application does and builds the controllers
// over it; every object it makes is destroyed with the test function that made it.
import QtQuick
import QtTest
import Orvik.Identity

TestCase {
    id: harness

    // The item the screens are created in.
    property Item stage

    function providerName(sourceType) {
        return {"gmail": "Gmail", "imessage": "Messages", "outlook": "Outlook",
                "google_calendar": "Calendar"}[sourceType];
    }

    function openStore(path) {
        const store = createTemporaryObject(storeComponent, harness, {"path": path, "key": ""});
        store.open();
        tryVerify(() => store.ready || store.lastError != null, 20000);
        verify(store.ready, "store did not open: " + store.lastError);
        return store;
    }

    function correctionController(store) {
        return createTemporaryObject(correctionControllerComponent, harness, {
            "repository": store,
            "subjectID": "screen-tests",
            "undoOfferStore": createTemporaryObject(offerStoreComponent, harness)
        });
    }

    function historyController(store, personID) {
        return createTemporaryObject(historyControllerComponent, harness,
                                     {"repository": store, "personID": personID});
    }

    // Waits until a task returned by a controller has finished.
    function await_(task) {
        let done = false;
        task.then(function() { done = true; });
        tryVerify(() => done, 20000);
    }

    // Clicks an element once it is shown, enabled and laid out. A click before the
    // next frame lands where the element used to be, or on nothing.
    function click(item) {
        verify(item !== null, "nothing to click");
        tryVerify(() => item.visible && item.enabled && item.width > 0 && item.height > 0, 20000);
        waitForRendering(stage, 300);
        mouseClick(item);
    }

    function child(parentItem, name) {
        return findChild(parentItem, name);
    }

    Component { id: storeComponent; IdentityStore {} }
    Component { id: offerStoreComponent; IdentityCorrectionUndoOfferStore {} }
    Component { id: correctionControllerComponent; IdentityCorrectionController {} }
    Component { id: historyControllerComponent; IdentityHistoryController {} }
}

// One screen of a store, alone in a window, for --screenshot. It sets ready once
// the screen's controller has finished every load the screen starts, or failure
// with the reason it cannot.
import QtQuick
import QtQuick.Controls
import Orvik.Identity

ApplicationWindow {
    id: window

    required property string dbPath
    required property string dbKey
    // "candidates", "manual-link" or "history".
    required property string screen
    // The person to scope to (manual-link) or whose history to show; may be empty.
    required property string personID

    property bool ready: false
    property string failure: ""

    visible: true
    title: "Orvik identities"

    function markReady() {
        window.ready = true;
    }

    // The person's display name, once personNames has answered.
    property var personName: null

    function start() {
        if (window.screen === "candidates") {
            candidates.reload(50).then(window.markReady);
        } else if (window.personID.length > 0) {
            personNames.lookUp(window.personID);
        } else {
            candidates.manualSearch(screenLoader.item.query).then(window.markReady);
        }
    }

    function startWithName(name) {
        window.personName = name;
        if (window.screen === "manual-link") {
            candidates.loadScopedToPerson(window.personID, name).then(function() {
                candidates.manualSearch(screenLoader.item.query).then(window.markReady);
            });
        } else {
            screenLoader.item.controller.reload().then(window.markReady);
        }
    }

    Connections {
        target: personNames

        function onFound(personID, name) {
            if (personID === window.personID)
                window.startWithName(name);
        }
    }

    IdentityStore {
        id: store

        path: window.dbPath
        key: window.dbKey
        onLastErrorChanged: if (lastError != null) window.failure = "cannot open " + window.dbPath + ": " + lastError
        Component.onCompleted: open()
    }

    IdentityCorrectionController {
        id: candidates

        repository: store
        subjectID: "desktop-user"
        candidateProposer: LocalProposer {}
    }

    Loader {
        id: screenLoader

        anchors.fill: parent
        active: store.ready
        sourceComponent: window.screen === "candidates" ? candidatesScreen
                        : window.screen === "manual-link" ? manualLinkScreen : historyScreen
        onLoaded: window.start()
    }

    Component {
        id: candidatesScreen

        IdentityCorrectionsPane {
            controller: candidates
            providerDisplayName: providers.displayName
        }
    }

    Component {
        id: manualLinkScreen

        IdentityManualLinkView {
            controller: candidates
            providerDisplayName: providers.displayName
            distinguishingProviderName: providers.distinguishingName
        }
    }

    Component {
        id: historyScreen

        IdentityHistoryView {
            personDisplayName: window.personName != null ? window.personName : ""
            providerDisplayName: providers.displayName
            controller: IdentityHistoryController {
                repository: store
                personID: window.personID
            }
        }
    }
}

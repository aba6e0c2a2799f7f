// The main window: the suggested matches of the store on the left, the manual-link
// screen on the right, and, once a person is chosen, the manual-link screen scoped
// to that person and their identity history as a sheet.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Orvik.Identity

ApplicationWindow {
    id: window

    required property string dbPath
    required property string dbKey
    // A person to start with (--person), or empty for everyone.
    required property string initialPersonID

    // The person the screens are scoped to: {personID, displayName} or null.
    property var scope: window.initialPersonID.length > 0 ? {"personID": window.initialPersonID, "displayName": null} : null
    // The correction controller of the current session, or null while none is loaded.
    readonly property var controller: session.item ? session.item.controller : null
    readonly property bool scoped: window.controller !== null && window.controller.scopedPersonID != null
    // For --screenshot --screen window: the first loads have finished, or why not.
    readonly property bool ready: session.item !== null && session.item.loaded
    readonly property string failure: store.lastError != null ? "cannot open " + window.dbPath + ": " + store.lastError : ""

    function scopeTo(personID, displayName) {
        window.scope = {"personID": personID, "displayName": displayName};
        window.controller.loadScopedToPerson(personID, displayName);
    }

    // A controller keeps its scope for life; going back to everyone starts a new
    // session. The undo offer lives in the shared offer store and carries over.
    function showEveryone() {
        window.scope = null;
        session.active = false;
        session.active = true;
    }

    width: 1120
    height: 760
    minimumWidth: 820
    minimumHeight: 520
    visible: true
    title: window.scoped
           ? "Orvik identities \u2014 " + (window.controller.scopedPersonDisplayName != null
                                           ? window.controller.scopedPersonDisplayName : "one person")
           : "Orvik identities"

    // --person gives an identifier only; its name arrives from personNames.
    Connections {
        target: personNames

        function onFound(personID, name) {
            if (window.scope !== null && window.scope.personID === personID && name != null
                    && window.scope.displayName == null && window.controller !== null)
                window.scopeTo(personID, name);
        }
    }

    IdentityStore {
        id: store

        path: window.dbPath
        key: window.dbKey
        Component.onCompleted: open()
    }

    IdentityCorrectionUndoOfferStore {
        id: offers
    }

    header: ToolBar {
        enabled: store.ready

        RowLayout {
            anchors.fill: parent
            anchors.leftMargin: 8
            anchors.rightMargin: 8
            spacing: 8

            Label {
                text: window.scoped
                      ? "Correcting " + (window.controller.scopedPersonDisplayName != null
                                         ? window.controller.scopedPersonDisplayName : "one person")
                      : "Correcting everyone"
                font.bold: true
                elide: Text.ElideRight
                Layout.fillWidth: true
            }
            ToolButton {
                text: "Choose person\u2026"
                onClicked: personPicker.open()
            }
            ToolButton {
                text: "Everyone"
                enabled: window.scope !== null
                onClicked: window.showEveryone()
            }
            ToolButton {
                text: "History\u2026"
                enabled: window.scoped
                onClicked: historySheet.open()
            }
        }
    }

    Loader {
        id: session

        anchors.fill: parent
        active: store.ready
        sourceComponent: sessionComponent
    }

    Label {
        visible: store.lastError != null
        anchors.centerIn: parent
        width: Math.min(parent.width - 64, 560)
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.Wrap
        text: "Couldn't open the identity store at " + window.dbPath + ".\n" + store.lastError
    }

    BusyIndicator {
        anchors.centerIn: parent
        running: !store.ready && store.lastError == null
        visible: running
    }

    Component {
        id: sessionComponent

        Item {
            id: sessionRoot

            property alias controller: controller
            property bool loaded: false

            IdentityCorrectionController {
                id: controller

                repository: store
                subjectID: "desktop-user"
                undoOfferStore: offers
                candidateProposer: LocalProposer {}
            }

            SplitView {
                anchors.fill: parent

                IdentityCorrectionsPane {
                    controller: controller
                    providerDisplayName: providers.displayName
                    busy: !sessionRoot.loaded
                    SplitView.preferredWidth: 460
                    SplitView.minimumWidth: 320
                }

                Pane {
                    padding: 0
                    SplitView.fillWidth: true
                    SplitView.minimumWidth: 360

                    ColumnLayout {
                        anchors.fill: parent
                        spacing: 0

                        Label {
                            text: "Link by hand"
                            font.bold: true
                            font.pointSize: Qt.application.font.pointSize * 1.15
                            Layout.margins: 16
                            Layout.bottomMargin: 0
                        }
                        IdentityManualLinkView {
                            controller: controller
                            providerDisplayName: providers.displayName
                            distinguishingProviderName: providers.distinguishingName
                            Layout.fillWidth: true
                            Layout.fillHeight: true
                        }
                    }
                }
            }

            Component.onCompleted: {
                const scope = window.scope;
                controller.reload(100).then(function() {
                    if (scope === null) {
                        sessionRoot.loaded = true;
                        return;
                    }
                    controller.loadScopedToPerson(scope.personID, scope.displayName).then(function() {
                        sessionRoot.loaded = true;
                    });
                    if (scope.displayName == null)
                        personNames.lookUp(scope.personID);
                });
            }
        }
    }

    // Finds a person the user added, by name, and scopes the screens to them.
    Popup {
        id: personPicker

        anchors.centerIn: Overlay.overlay
        width: Math.min(window.width - 80, 420)
        height: Math.min(window.height - 80, 440)
        modal: true
        focus: true
        onOpened: {
            pickerQuery.text = "";
            pickerQuery.forceActiveFocus();
            picker.manualSearch("");
        }

        IdentityCorrectionController {
            id: picker

            repository: store
            subjectID: "desktop-user"
        }

        ColumnLayout {
            anchors.fill: parent
            spacing: 8

            Label {
                text: "Choose a person you added"
                font.bold: true
            }
            TextField {
                id: pickerQuery

                placeholderText: "Name"
                selectByMouse: true
                Layout.fillWidth: true
                onTextEdited: picker.manualSearch(text)
                Keys.onDownPressed: people.forceActiveFocus()
                onAccepted: if (people.count > 0) people.itemAtIndex(0).clicked()
            }
            ListView {
                id: people

                clip: true
                model: picker.manualPersonResults
                keyNavigationEnabled: true
                Layout.fillWidth: true
                Layout.fillHeight: true
                ScrollBar.vertical: ScrollBar {}

                delegate: ItemDelegate {
                    required property var modelData
                    required property int index

                    width: ListView.view.width
                    text: modelData.displayName
                    highlighted: ListView.isCurrentItem && people.activeFocus
                    focusPolicy: Qt.StrongFocus
                    onClicked: {
                        personPicker.close();
                        window.scopeTo(modelData.id, modelData.displayName);
                    }
                    Keys.onReturnPressed: clicked()
                    Keys.onEnterPressed: clicked()
                }
            }
            Label {
                visible: people.count === 0
                text: "No one by that name."
                opacity: 0.7
            }
        }
    }

    // The identity history of the person the screens are scoped to.
    Popup {
        id: historySheet

        anchors.centerIn: Overlay.overlay
        width: Math.min(window.width - 80, 640)
        height: Math.min(window.height - 80, 520)
        modal: true
        focus: true
        padding: 0

        Loader {
            anchors.fill: parent
            active: historySheet.visible

            sourceComponent: IdentityHistoryView {
                personDisplayName: window.controller && window.controller.scopedPersonDisplayName != null
                                   ? window.controller.scopedPersonDisplayName : ""
                providerDisplayName: providers.displayName
                controller: IdentityHistoryController {
                    repository: store
                    personID: window.controller.scopedPersonID
                }
                onDismissed: historySheet.close()
            }
        }
    }
}

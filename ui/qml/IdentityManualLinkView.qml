// The manual-link screen: the user searches identities and the people they added,
// builds a selection by hand and links it as one person, declares the selected
// handles their own, or marks them different from the scoped person. The screen
// owns only its input state (query, selection, pickedPersonNames,
// acknowledgeUnsupportedSelection); results, suggestions, scope and undo state live
// in the controller, and every action goes through it.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Orvik.Identity

Pane {
    id: view

    // The IdentityCorrectionController observed and acted on.
    property var controller: null
    // Source type -> provider name.
    property var providerDisplayName: null
    // Source type -> a more distinguishing provider name, used when two source types
    // on the screen would show the same name; null to use providerDisplayName alone.
    property var distinguishingProviderName: null

    // The search field's content; every change searches.
    property string query: ""
    // The picked ManualLinkTargets, in picking order.
    property var selection: []
    // Person id -> display name, for the persons picked.
    property var pickedPersonNames: ({})
    // The user switched on "I understand" below the evidence warning.
    property bool acknowledgeUnsupportedSelection: false
    // IANA time zone for the dates of person notes.
    property string timeZone: "UTC"

    // The targets the scope adds to every link.
    readonly property var scopedTargets: view.controller ? view.controller.scopedLinkTargets : []
    // Everything a "Same person" would link: the scope, then the selection.
    readonly property var linkTargets: view.scopedTargets.concat(view.selection)
    readonly property bool selectionNeedsAcknowledgement: {
        const contexts = view.controller ? view.controller.candidateContexts : {};
        for (const target of view.selection) {
            if (target.person != null)
                return true;
            const context = contexts[target.identity.id];
            if (context == null || (!context.exactHandleMatch && context.sharedThreadCount === 0))
                return true;
        }
        return false;
    }
    readonly property bool selectionHasIdentity: view.selection.some(target => target.identity != null)
    readonly property bool canConfirmSelection: view.selection.length > 0
                                                && view.linkTargets.length >= 2
                                                && (!view.selectionNeedsAcknowledgement
                                                    || view.acknowledgeUnsupportedSelection)
    // The targets predicted to survive the link, first one named by the preview.
    readonly property var previewSurvivorTargets: view.controller && view.linkTargets.length >= 2
                                                  ? view.controller.manualLinkPreviewSurvivorTargets(view.linkTargets)
                                                  : []
    // Source type -> the label rows show: collision-aware among the shown results
    // when a distinguishing name is given.
    readonly property var providerLabel: {
        if (!view.providerDisplayName || !view.distinguishingProviderName)
            return view.providerDisplayName;
        const types = [];
        const add = type => { if (types.indexOf(type) < 0) types.push(type); };
        if (view.controller) {
            view.controller.manualSearchResults.forEach(row => add(row.sourceType));
            view.controller.scopedPersonAnchor.forEach(row => add(row.sourceType));
        }
        view.selection.forEach(target => { if (target.identity != null) add(target.identity.sourceType); });
        return IdentityHandlePresentation.collisionAwareProviderLabel(types, view.providerDisplayName,
                                                                      view.distinguishingProviderName);
    }

    function pickerRowID(target) {
        return target.person != null ? "person." + target.person : "identity." + target.identity.id;
    }

    function isPicked(rowID) {
        return view.selection.some(target => view.pickerRowID(target) === rowID);
    }

    function partyLabel(row) {
        return IdentityHandlePresentation.partyLabel(row.displayName, row.handleNormalized, row.sourceType,
                                                     view.providerLabel);
    }

    function targetDisplayName(target) {
        if (target == null)
            return "";
        if (target.person != null) {
            const name = view.pickedPersonNames[target.person];
            return name != null ? name : "this person";
        }
        return view.partyLabel(target.identity);
    }

    function toggle(target) {
        const rowID = view.pickerRowID(target);
        if (view.isPicked(rowID))
            view.selection = view.selection.filter(t => view.pickerRowID(t) !== rowID);
        else
            view.selection = view.selection.concat([target]);
    }

    function togglePerson(row) {
        const names = Object.assign({}, view.pickedPersonNames);
        names[row.id] = row.displayName;
        view.pickedPersonNames = names;
        view.toggle({"person": row.id});
    }

    function clearSelection() {
        view.selection = [];
        view.pickedPersonNames = {};
    }

    function selectedIdentityRows() {
        return view.selection.filter(target => target.identity != null).map(target => target.identity);
    }

    // Keeps a row reached with Tab inside the visible part of the result list.
    function reveal(item) {
        const flick = results.contentItem;
        const top = item.mapToItem(resultColumn, 0, 0).y;
        if (top < flick.contentY)
            flick.contentY = top;
        else if (top + item.height > flick.contentY + flick.height)
            flick.contentY = top + item.height - flick.height;
    }

    onSelectionChanged: {
        if (view.selection.length === 0)
            view.acknowledgeUnsupportedSelection = false;
    }
    onQueryChanged: {
        if (view.controller)
            view.controller.manualSearch(view.query);
    }
    Component.onCompleted: {
        if (view.controller)
            view.controller.manualSearch(view.query);
    }

    padding: 16

    contentItem: ColumnLayout {
        spacing: 8

        Label {
            objectName: "orvik.identity-corrections.scoped-anchor"
            visible: view.scopedTargets.length > 0
            text: "Add identities to " + (view.controller && view.controller.scopedPersonDisplayName != null
                                          ? view.controller.scopedPersonDisplayName : "this person")
            font.pointSize: Qt.application.font.pointSize * 0.85
            opacity: 0.7
            Layout.fillWidth: true
        }

        TextField {
            id: searchField
            objectName: "orvik.identity-corrections.search"
            placeholderText: "Search"
            selectByMouse: true
            Layout.fillWidth: true
            // The field and the query follow each other by assignment rather than
            // by a binding, which a script setting the field's text would end:
            // typed, pasted or set from outside, the text is the query.
            Component.onCompleted: text = view.query
            onTextChanged: {
                if (text !== view.query)
                    view.query = text;
            }
            Connections {
                target: view
                function onQueryChanged() {
                    if (searchField.text !== view.query)
                        searchField.text = view.query;
                }
            }
        }

        RowLayout {
            spacing: 12
            visible: suggest.visible || unavailable.visible || noMatch.visible
            Layout.fillWidth: true

            IdentityButton {
                id: suggest

                objectName: "orvik.identity-corrections.suggest-candidates"
                text: "Suggest matches"
                visible: view.controller !== null && view.controller.canSuggestCandidates
                enabled: view.controller !== null && view.controller.manualSearchResults.length > 0
                onClicked: view.controller.suggestCandidates()
            }
            Label {
                id: unavailable

                objectName: "orvik.identity-corrections.suggest-candidates.unavailable"
                text: "Suggestions unavailable."
                visible: view.controller !== null && view.controller.candidateSuggestionsUnavailable
                opacity: 0.7
            }
            Label {
                id: noMatch

                objectName: "orvik.identity-corrections.suggest-candidates.no-match"
                text: "No suggestions."
                visible: view.controller !== null && view.controller.candidateSuggestionsNoMatch
                opacity: 0.7
            }
            Item { Layout.fillWidth: true }
        }

        Frame {
            padding: 1
            background: Rectangle {
                color: view.palette.base
                border.color: view.palette.mid
            }
            Layout.fillWidth: true
            Layout.fillHeight: true
            Layout.minimumHeight: 120

            ScrollView {
                id: results

                objectName: "orvik.identity-corrections.manual-list"
                anchors.fill: parent
                clip: true
                contentWidth: availableWidth

                ColumnLayout {
                    id: resultColumn

                    width: results.availableWidth
                    spacing: 0

                    Repeater {
                        model: view.controller ? view.controller.manualSearchResults : []

                        delegate: ItemDelegate {
                            id: identityRow

                            required property var modelData
                            readonly property string key: "orvik.identity-corrections.manual-row." + modelData.id
                            readonly property var context: {
                                const value = view.controller ? view.controller.candidateContexts[modelData.id] : null;
                                return value != null ? value : null;
                            }
                            readonly property var proposal: {
                                const value = view.controller ? view.controller.candidateProposals[modelData.id] : null;
                                return value != null ? value : null;
                            }
                            readonly property bool picked: view.isPicked("identity." + modelData.id)
                            readonly property string title: view.partyLabel(modelData)

                            objectName: key
                            focusPolicy: Qt.StrongFocus
                            Accessible.name: identityRow.title
                            Layout.fillWidth: true
                            onClicked: view.toggle({"identity": modelData})
                            onActiveFocusChanged: if (activeFocus) view.reveal(identityRow)
                            Keys.onReturnPressed: clicked()
                            Keys.onEnterPressed: clicked()

                            contentItem: RowLayout {
                                spacing: 12

                                ColumnLayout {
                                    spacing: 2
                                    Layout.fillWidth: true

                                    Label {
                                        text: identityRow.title
                                        elide: Text.ElideRight
                                        Layout.fillWidth: true
                                    }
                                    Label {
                                        objectName: identityRow.key + ".context"
                                        text: {
                                            const row = identityRow.modelData;
                                            const parts = [];
                                            if (identityRow.title !== row.handleNormalized
                                                && view.partyLabel({"displayName": null,
                                                                    "handleNormalized": row.handleNormalized,
                                                                    "sourceType": row.sourceType}) === row.handleNormalized)
                                                parts.push(row.handleNormalized);
                                            if (identityRow.context !== null)
                                                parts.push(IdentityCandidateContextSummary.line(
                                                    identityRow.context, new Date().toISOString(), view.providerLabel));
                                            else if (view.providerLabel)
                                                parts.push(view.providerLabel(row.sourceType));
                                            return parts.join(" \u00b7 ");
                                        }
                                        font.pointSize: Qt.application.font.pointSize * 0.85
                                        opacity: 0.7
                                        elide: Text.ElideRight
                                        Layout.fillWidth: true
                                    }
                                    Label {
                                        objectName: identityRow.key + ".suggested"
                                        visible: identityRow.proposal !== null
                                        text: identityRow.proposal !== null ? "Suggested: " + identityRow.proposal.support : ""
                                        font.pointSize: Qt.application.font.pointSize * 0.85
                                        color: "#1c6fd1"
                                        elide: Text.ElideRight
                                        Layout.fillWidth: true
                                    }
                                }
                                Image {
                                    objectName: identityRow.key + ".picked"
                                    source: "icons/checkmark-circle-fill.svg"
                                    sourceSize: Qt.size(20, 20)
                                    opacity: identityRow.picked ? 1 : 0
                                    Layout.alignment: Qt.AlignVCenter
                                }
                            }
                        }
                    }

                    Label {
                        objectName: "orvik.identity-corrections.manual-persons.header"
                        visible: view.controller !== null && view.controller.manualPersonResults.length > 0
                        text: "People you added"
                        font.bold: true
                        Layout.fillWidth: true
                        Layout.leftMargin: 12
                        Layout.topMargin: 12
                        Layout.bottomMargin: 4
                    }

                    Repeater {
                        model: view.controller ? view.controller.manualPersonResults : []

                        delegate: ItemDelegate {
                            id: personRow

                            required property var modelData
                            required property int index
                            readonly property string key: "orvik.identity-corrections.manual-person." + index
                            readonly property var noteContext: {
                                const value = view.controller ? view.controller.personNoteContexts[modelData.id] : null;
                                return value != null ? value : null;
                            }
                            readonly property bool picked: view.isPicked("person." + modelData.id)

                            objectName: key
                            focusPolicy: Qt.StrongFocus
                            Accessible.name: modelData.displayName
                            Layout.fillWidth: true
                            onClicked: view.togglePerson(modelData)
                            onActiveFocusChanged: if (activeFocus) view.reveal(personRow)
                            Keys.onReturnPressed: clicked()
                            Keys.onEnterPressed: clicked()

                            contentItem: RowLayout {
                                spacing: 12

                                ColumnLayout {
                                    spacing: 2
                                    Layout.fillWidth: true

                                    Label {
                                        text: personRow.modelData.displayName
                                        elide: Text.ElideRight
                                        Layout.fillWidth: true
                                    }
                                    Label {
                                        objectName: personRow.key + ".context"
                                        text: personRow.noteContext !== null
                                              ? PersonNoteContextSummary.line(personRow.noteContext, new Date().toISOString(),
                                                                              view.timeZone, Qt.locale().name.replace("_", "-"))
                                              : "You told Orvik about them"
                                        font.pointSize: Qt.application.font.pointSize * 0.85
                                        opacity: 0.7
                                        elide: Text.ElideRight
                                        Layout.fillWidth: true
                                    }
                                }
                                Image {
                                    objectName: personRow.key + ".picked"
                                    source: "icons/checkmark-circle-fill.svg"
                                    sourceSize: Qt.size(20, 20)
                                    opacity: personRow.picked ? 1 : 0
                                    Layout.alignment: Qt.AlignVCenter
                                }
                            }
                        }
                    }

                    Label {
                        visible: view.controller !== null && view.controller.manualSearchResults.length === 0
                                 && view.controller.manualPersonResults.length === 0
                        text: view.query.length > 0 ? "Nothing matches \u201c" + view.query + "\u201d." : "Nothing to show yet."
                        opacity: 0.7
                        Layout.fillWidth: true
                        Layout.margins: 12
                    }
                }
            }
        }

        ColumnLayout {
            objectName: "orvik.identity-corrections.manual-preview"
            visible: view.linkTargets.length >= 2
            spacing: 2
            Layout.fillWidth: true

            Label {
                objectName: "orvik.identity-corrections.manual-preview.caption"
                text: "Link " + view.linkTargets.length + " \u2192 "
                      + view.targetDisplayName(view.previewSurvivorTargets.length > 0 ? view.previewSurvivorTargets[0] : null)
                font.pointSize: Qt.application.font.pointSize * 0.85
                opacity: 0.7
                elide: Text.ElideRight
                Layout.fillWidth: true
            }
            Repeater {
                model: view.linkTargets.length >= 2 ? view.linkTargets : []

                delegate: Label {
                    required property var modelData

                    text: modelData.identity != null
                          ? IdentityHandlePresentation.mergePreviewRowLine(modelData.identity.displayName,
                                                                           modelData.identity.handleNormalized,
                                                                           modelData.identity.sourceType,
                                                                           view.providerLabel)
                          : view.targetDisplayName(modelData) + " \u00b7 a person you added"
                    font.pointSize: Qt.application.font.pointSize * 0.78
                    opacity: 0.7
                    elide: Text.ElideRight
                    Layout.fillWidth: true
                    Layout.leftMargin: 8
                }
            }
        }

        ColumnLayout {
            visible: view.selectionNeedsAcknowledgement
            spacing: 4
            Layout.fillWidth: true

            Label {
                objectName: "orvik.identity-corrections.manual-warning"
                text: "No deterministic evidence supports one or more selected identities."
                color: "#b35c00"
                wrapMode: Text.Wrap
                Layout.fillWidth: true
            }
            Switch {
                id: acknowledge

                // Set by the toggle that comes before a click's clicked(); a
                // clicked() on its own (from a script or an accessibility client)
                // flips the switch itself.
                property bool toggledByClick: false

                objectName: "orvik.identity-corrections.manual-warning.acknowledge"
                text: "I understand"
                // Followed by assignment, as the search field is, so that a
                // script may set checked as well.
                Component.onCompleted: checked = view.acknowledgeUnsupportedSelection
                onCheckedChanged: view.acknowledgeUnsupportedSelection = checked
                onToggled: toggledByClick = true
                onClicked: {
                    if (!toggledByClick)
                        checked = !checked;
                    toggledByClick = false;
                }
                Keys.onReturnPressed: toggle()
                Keys.onEnterPressed: toggle()
                Connections {
                    target: view
                    function onAcknowledgeUnsupportedSelectionChanged() {
                        acknowledge.checked = view.acknowledgeUnsupportedSelection;
                    }
                }
            }
        }

        RowLayout {
            spacing: 8
            Layout.fillWidth: true

            IdentityButton {
                objectName: "orvik.identity-corrections.manual-confirm"
                text: "Same person"
                Accessible.name: "Same person"
                enabled: view.canConfirmSelection
                highlighted: true
                onClicked: {
                    const targets = view.linkTargets;
                    view.clearSelection();
                    view.controller.confirmManualLink(targets);
                }
            }
            IdentityButton {
                objectName: "orvik.identity-corrections.this-is-me"
                text: "This is me"
                Accessible.name: "This is me"
                enabled: view.selectionHasIdentity
                onClicked: {
                    const controller = view.controller;
                    controller.batchDeclareOwnerAlias(view.selectedIdentityRows()).then(function() {
                        if (controller.lastError == null)
                            view.clearSelection();
                    });
                }
            }
            IdentityButton {
                objectName: "orvik.identity-corrections.different-people"
                text: "Different people"
                Accessible.name: "Different people"
                enabled: view.selectionHasIdentity
                onClicked: {
                    const controller = view.controller;
                    controller.markDifferentFromScope(view.selectedIdentityRows()).then(function() {
                        if (controller.lastError == null)
                            view.clearSelection();
                    });
                }
            }
            Item { Layout.fillWidth: true }
        }

        RowLayout {
            visible: view.controller !== null && view.controller.lastOwnerAliasDeclaration != null
            spacing: 12
            Layout.fillWidth: true

            Label {
                text: "Marked as you."
                Layout.fillWidth: true
            }
            IdentityButton {
                objectName: "orvik.identity-corrections.this-is-me.undo"
                text: "Undo"
                onClicked: view.controller.undoLastOwnerAliasDeclaration()
            }
        }
    }
}

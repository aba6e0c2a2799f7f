// The identity history of one person: one row per correction, oldest first, each
// with "Undo" until it is undone. A thin view over an IdentityHistoryController: it
// reloads when shown, forwards the undo of a row, and shows the controller's error.
// "Done" emits dismissed for the presenting screen to close it.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Orvik.Identity

Pane {
    id: view

    // The IdentityHistoryController observed.
    property var controller: null
    // The person's name, handed over by the presenting screen.
    property string personDisplayName: ""
    // Source type -> provider name, for the row lines.
    property var providerDisplayName: null

    signal dismissed()

    function entryKey(entry) {
        return entry.operationID != null ? entry.operationID : entry.mergeEventID;
    }

    padding: 0
    implicitWidth: Math.max(380, implicitContentWidth)
    implicitHeight: Math.max(220, implicitContentHeight)
    Layout.minimumWidth: 380
    Layout.minimumHeight: 220

    // Reloads whenever the screen becomes visible, including the first time.
    onVisibleChanged: if (visible && controller) controller.reload()
    Component.onCompleted: if (visible && controller) controller.reload()

    contentItem: ColumnLayout {
        spacing: 0

        RowLayout {
            spacing: 8
            Layout.fillWidth: true
            Layout.margins: 16

            Label {
                text: "Identity history"
                font.bold: true
                font.pointSize: Qt.application.font.pointSize * 1.15
                Accessible.role: Accessible.Heading
            }
            Item { Layout.fillWidth: true }
            IdentityButton {
                objectName: "orvik.identity-history.done"
                text: "Done"
                onClicked: view.dismissed()
            }
        }

        IdentityDivider {}

        Label {
            objectName: "orvik.identity-history.error"
            visible: view.controller !== null && view.controller.lastError != null
            text: view.controller && view.controller.lastErrorCopy != null
                  ? view.controller.lastErrorCopy : "Couldn't load or update identity history."
            font.pointSize: Qt.application.font.pointSize * 0.85
            opacity: 0.7
            wrapMode: Text.Wrap
            Layout.fillWidth: true
            Layout.leftMargin: 16
            Layout.rightMargin: 16
            Layout.topMargin: 8
        }

        Label {
            objectName: "orvik.identity-history.empty"
            visible: !list.visible
            text: "No identity history yet."
            opacity: 0.7
            Layout.fillWidth: true
            Layout.margins: 16
        }

        ScrollView {
            id: list

            objectName: "orvik.identity-history.list"
            visible: view.controller !== null && view.controller.entries.length > 0
            clip: true
            contentWidth: availableWidth
            Layout.fillWidth: true
            Layout.fillHeight: true

            ColumnLayout {
                width: list.availableWidth
                spacing: 0

                Repeater {
                    model: view.controller ? view.controller.entries : []

                    delegate: ColumnLayout {
                        id: entryItem

                        required property var modelData
                        readonly property string key: view.entryKey(modelData)

                        spacing: 0
                        Layout.fillWidth: true

                        RowLayout {
                            objectName: "orvik.identity-history.entry." + entryItem.key
                            spacing: 12
                            Layout.fillWidth: true
                            Layout.leftMargin: 16
                            Layout.rightMargin: 16
                            Layout.topMargin: 8
                            Layout.bottomMargin: 8

                            ColumnLayout {
                                spacing: 2
                                Layout.fillWidth: true

                                Label {
                                    text: view.providerDisplayName
                                          ? IdentityHistoryEntrySummary.line(entryItem.modelData, view.providerDisplayName)
                                          : ""
                                    wrapMode: Text.Wrap
                                    Layout.fillWidth: true
                                }
                                Label {
                                    text: entryItem.modelData.occurredAt
                                    font.pointSize: Qt.application.font.pointSize * 0.85
                                    opacity: 0.7
                                    Layout.fillWidth: true
                                }
                            }
                            // Exactly one of the two exists: "Undone" once the correction was
                            // reversed, the "Undo" button before.
                            Loader {
                                active: entryItem.modelData.reversedAt != null
                                visible: active
                                sourceComponent: Label {
                                    objectName: "orvik.identity-history.undone." + entryItem.key
                                    text: "Undone"
                                    font.pointSize: Qt.application.font.pointSize * 0.85
                                    opacity: 0.7
                                }
                            }
                            Loader {
                                active: entryItem.modelData.reversedAt == null
                                visible: active
                                sourceComponent: IdentityButton {
                                    objectName: "orvik.identity-history.undo." + entryItem.key
                                    text: "Undo"
                                    onClicked: view.controller.undo(entryItem.modelData)
                                }
                            }
                        }
                        IdentityDivider {}
                    }
                }
            }
        }

        // Keeps the header at the top when the list is not shown.
        Item {
            visible: !list.visible
            Layout.fillHeight: true
        }
    }
}

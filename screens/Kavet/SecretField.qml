// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Kavet 1.0

// A field for a password or PIN. Nothing here reads its text, which would copy it; "length" is enough.
ColumnLayout {
    id: secret

    property var attempt
    property string label
    readonly property Item field: field
    readonly property bool isEmpty: field.length === 0
    signal accepted

    spacing: field.font.pixelSize * 0.4
    onVisibleChanged: clear()
    onLabelChanged: clear()
    Component.onDestruction: clear()

    function clear() {
        if (attempt)
            attempt.clear(field)
        field.clear() // also what an input method composes
        reveal.checked = false
    }

    CapsLock {
        id: capsLock

        field: secret.field
    }

    TextField {
        id: field

        objectName: "secret"
        Layout.fillWidth: true
        focus: true
        placeholderText: secret.label
        echoMode: reveal.checked ? TextInput.Normal : TextInput.Password
        inputMethodHints: Qt.ImhSensitiveData | Qt.ImhHiddenText | Qt.ImhNoPredictiveText | Qt.ImhNoAutoUppercase
        leftPadding: Qt.application.layoutDirection === Qt.RightToLeft ? reveal.width : field.font.pixelSize * 0.8
        rightPadding: Qt.application.layoutDirection === Qt.RightToLeft ? field.font.pixelSize * 0.8 : reveal.width
        // As long as the longest text that the service accepts.
        maximumLength: 16384
        onAccepted: secret.accepted()
        // Undoing would bring back what was cleared.
        Keys.onPressed: event.accepted = event.matches(StandardKey.Undo) || event.matches(StandardKey.Redo)
        Accessible.name: secret.label
        Accessible.passwordEdit: true

        Button {
            id: reveal

            objectName: "reveal"
            anchors.right: parent.right
            anchors.verticalCenter: parent.verticalCenter
            flat: true
            checkable: true
            focusPolicy: Qt.TabFocus
            font.pixelSize: field.font.pixelSize * 0.85
            text: checked ? qsTr("Hide") : qsTr("Show")
            Accessible.name: checked ? qsTr("Hide what is entered") : qsTr("Show what is entered")
        }
    }
    Label {
        objectName: "capsLock"
        Layout.fillWidth: true
        visible: capsLock.isOn && !secret.isEmpty
        text: qsTr("Caps Lock is on.")
        horizontalAlignment: Text.AlignLeft
        wrapMode: Text.Wrap
        font.bold: true
        Accessible.role: Accessible.AlertMessage
    }
}

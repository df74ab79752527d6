// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Kavet 1.0

// The page before the user can enter something: why that must wait, and what helps.
ColumnLayout {
    id: page

    property var attempt
    /// Whether this page is to be shown in place of the one to authenticate on.
    readonly property bool wanted: phase !== ""

    readonly property var unreachable: [SettingsKavet.CannotStartClient, SettingsKavet.CannotConnectClient]
    readonly property string phase: {
        if (attempt.state === "locked")
            return "locked"
        if (attempt.isSubmitted)
            return ""
        if (attempt.state === "queued")
            return "queued"
        if (attempt.state === "pending" || attempt.details["restarted"] === true
                || (attempt.state === "idle" && Object.keys(attempt.outcome).length === 0))
            return "connecting"
        if (Login.isPartitionLocked)
            return "partition"
        if (unreachable.includes(Login.resultCode))
            return "unreachable"
        return Login.needsToken ? "token" : ""
    }
    readonly property var texts: ({
        "": ["", ""],
        "locked": [qsTr("This account is locked"), [lockReason(), lockEnd()].join("\n")],
        "queued": [qsTr("Please wait"), qsTr("Somebody else is signing in. It is your turn in a moment.")],
        "connecting": [qsTr("One moment …"), qsTr("Signing in is being prepared.")],
        "partition": Results.text(SettingsKavet.EncryptedPartitionLocked, false),
        "unreachable": Results.text(Login.resultCode, false),
        "token": [qsTr("Insert your token"), qsTr("The certificates on it appear by themselves.")]
    })
    readonly property real em: detail.font.pixelSize

    spacing: page.em
    Component.onCompleted: Login.begin(attempt)
    onPhaseChanged: {
        if (visible && button.visible)
            button.forceActiveFocus(Qt.TabFocusReason)
    }

    function lockReason() {
        const reason = attempt.details["reason"] || ""
        if (reason === "kavet-max-attempts")
            return qsTr("There were too many failed attempts.")
        return reason === "" ? "" : qsTr("The reason: %1").arg(reason)
    }

    function lockEnd() {
        const untilUnlocked = 4294967295
        const minute = 60
        const seconds = attempt.details["duration"]
        if (seconds === undefined || seconds === untilUnlocked)
            return qsTr("Ask your administrator to unlock it.")
        return seconds <= minute ? qsTr("Try again in a minute.")
                                 : qsTr("Minutes until you can try again: %1").arg(Math.ceil(seconds / minute))
    }

    BusyIndicator {
        Layout.alignment: Qt.AlignHCenter
        visible: running
        running: ["connecting", "queued", "token"].includes(page.phase)
        Accessible.ignored: true
    }
    Label {
        objectName: "title"
        Layout.fillWidth: true
        text: page.texts[page.phase][0]
        textFormat: Text.PlainText
        font.bold: true
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.Wrap
        Accessible.role: Accessible.AlertMessage
    }
    Label {
        id: detail

        objectName: "text"
        Layout.fillWidth: true
        text: page.texts[page.phase][1]
        textFormat: Text.PlainText
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.Wrap
    }
    Button {
        id: button

        objectName: "preButton"
        Layout.alignment: Qt.AlignHCenter
        Layout.maximumWidth: page.width
        visible: text !== ""
        focus: true
        highlighted: page.phase !== "token"
        text: page.phase === "token" ? qsTr("Use a password instead")
            : page.phase === "partition" || page.phase === "unreachable" ? qsTr("Try again")
            : page.phase === "queued" ? qsTr("Cancel") : ""
        onClicked: {
            if (page.phase === "token")
                Login.way = "password"
            else if (page.phase === "queued")
                page.attempt.cancel()
            else
                page.attempt.requestChallenge()
        }
    }
}

// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Kavet 1.0

// The page on which the user authenticates: with a certificate and its PIN, or with a password.
ColumnLayout {
    id: page

    property var attempt

    readonly property bool isBusy: attempt.state === "pending" || attempt.state === "queued"
    readonly property bool usesCertificate: Login.usesCertificate
    readonly property var failure: Login.resultCode === undefined ? undefined
        : Results.text(Login.resultCode, Login.way === "cert")
    readonly property real em: signInButton.font.pixelSize

    spacing: page.em
    Component.onCompleted: Login.begin(attempt)
    onIsBusyChanged: takeFocus()
    onVisibleChanged: takeFocus()

    function takeFocus() {
        if (visible)
            (isBusy ? cancelButton : secret.field).forceActiveFocus(Qt.TabFocusReason)
    }

    function signIn() {
        if (!signInButton.enabled)
            return
        if (usesCertificate) {
            Login.way = "cert"
            attempt.authenticate("pin", secret.field, {cert: Login.chosen})
        } else {
            Login.way = "password"
            attempt.authenticate("password", secret.field)
        }
    }

    function use(way) {
        Login.way = way
        secret.clear()
        secret.field.forceActiveFocus(Qt.TabFocusReason)
    }

    CertificateList {
        id: certificates

        Layout.fillWidth: true
        visible: page.usesCertificate
        enabled: !page.isBusy
        onAccepted: secret.field.forceActiveFocus(Qt.TabFocusReason)
    }

    Message {
        objectName: "failure"
        Layout.fillWidth: true
        visible: page.failure !== undefined
        title: page.failure ? page.failure[0] : ""
        text: {
            if (!page.failure)
                return ""
            const left = page.attempt.outcome.counted && Login.maxAttempts > 0
                ? qsTr("Attempts left: %1").arg(Login.attemptsLeft) : ""
            return [page.failure[1], left].filter(line => line !== "").join("\n")
        }
    }
    Message {
        objectName: "restarted"
        Layout.fillWidth: true
        visible: page.attempt.state === "challenge" && page.attempt.details["restarted"] === true
        title: qsTr("The check was restarted.")
        text: qsTr("Enter it again, or wait for the result.")
    }

    SecretField {
        id: secret

        Layout.fillWidth: true
        focus: true
        enabled: !page.isBusy
        attempt: page.attempt
        label: page.usesCertificate ? qsTr("PIN") : qsTr("Password")
        onAccepted: page.signIn()
    }

    Button {
        id: signInButton

        objectName: "signIn"
        Layout.fillWidth: true
        visible: !page.isBusy
        highlighted: true
        enabled: !page.isBusy && !secret.isEmpty && (!page.usesCertificate || Login.chosen !== "")
        text: qsTr("Sign in")
        onClicked: page.signIn()
    }

    RowLayout {
        Layout.alignment: Qt.AlignHCenter
        Layout.maximumWidth: page.width
        visible: page.isBusy
        spacing: page.em * 0.6

        BusyIndicator {
            implicitWidth: page.em * 2
            implicitHeight: implicitWidth
            running: page.isBusy
            Accessible.ignored: true
        }
        Label {
            objectName: "busy"
            Layout.fillWidth: true
            text: page.attempt.state === "queued" ? qsTr("Waiting for somebody else to finish …")
                : page.usesCertificate ? qsTr("Checking the PIN …") : qsTr("Checking the password …")
            horizontalAlignment: Text.AlignLeft
            wrapMode: Text.Wrap
            Accessible.role: Accessible.AlertMessage
        }
        Button {
            id: cancelButton

            objectName: "cancel"
            text: qsTr("Cancel")
            onClicked: page.attempt.cancel()
        }
    }

    Label {
        objectName: "updating"
        Layout.fillWidth: true
        visible: !page.isBusy && Login.isRefreshing && !page.usesCertificate
        text: qsTr("Looking for tokens …")
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.Wrap
        opacity: 0.8
    }
    Button {
        objectName: "otherWay"
        Layout.alignment: Qt.AlignHCenter
        Layout.maximumWidth: page.width
        flat: true
        visible: !page.isBusy && (page.usesCertificate || !Login.isRefreshing)
        text: page.usesCertificate ? qsTr("Use a password instead") : qsTr("Use a token instead")
        onClicked: page.use(page.usesCertificate ? "password" : "cert")
    }
}

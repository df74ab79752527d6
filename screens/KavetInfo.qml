// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Kavet 1.0

// The method's settings for a person.
ColumnLayout {
    id: page

    property var attempt

    readonly property real em: refreshButton.font.pixelSize

    spacing: page.em
    Component.onCompleted: Login.begin(attempt)

    Label {
        Layout.fillWidth: true
        text: qsTr("Signing in with a password or a token")
        font.bold: true
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.Wrap
    }
    GridLayout {
        Layout.alignment: Qt.AlignHCenter
        Layout.maximumWidth: page.width
        columns: 2
        columnSpacing: page.em
        rowSpacing: page.em * 0.4

        Label {
            Layout.fillWidth: true
            text: qsTr("Allowed attempts")
            horizontalAlignment: Text.AlignLeft
            wrapMode: Text.Wrap
        }
        Label {
            objectName: "limit"
            text: Login.maxAttempts > 0 ? Login.maxAttempts : qsTr("Unlimited")
            font.bold: true
        }
        Label {
            Layout.fillWidth: true
            text: qsTr("Your failed attempts")
            horizontalAlignment: Text.AlignLeft
            wrapMode: Text.Wrap
        }
        Label {
            objectName: "failed"
            text: Login.failedAttempts
            font.bold: true
        }
    }
    Label {
        objectName: "noCertificates"
        Layout.fillWidth: true
        visible: Login.certificates.length === 0
        text: Login.isRefreshing ? qsTr("Looking for certificates …") : qsTr("There are no certificates.")
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.Wrap
    }
    CertificateList {
        Layout.fillWidth: true
        visible: Login.certificates.length > 0
        canChoose: false
    }
    Button {
        id: refreshButton

        objectName: "refresh"
        Layout.alignment: Qt.AlignHCenter
        Layout.maximumWidth: page.width
        focus: true
        enabled: !Login.isRefreshing
        text: qsTr("Look for certificates")
        onClicked: Login.refresh()
    }
}

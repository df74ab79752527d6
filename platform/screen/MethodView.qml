// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15

// The pages of a method for one user: the page before authentication as long as that is wanted, else the page to
// authenticate on, or on request the page with information.
ColumnLayout {
    id: view

    property var attempt
    property var user
    property var method
    property var methods
    property bool canLeave
    property bool isInfoShown: false
    signal left
    signal methodChosen(string name)

    readonly property real em: noticeLabel.font.pixelSize
    readonly property var outcome: attempt ? attempt.outcome : {}
    readonly property Loader page: isInfoShown ? infoPage
                                 : prePage.item && prePage.item.wanted ? prePage : authPage

    spacing: em

    Keys.onEscapePressed: {
        if (isInfoShown)
            isInfoShown = false
        else if (attempt.isSubmitted)
            attempt.cancel()
        else
            left()
    }

    // What the service says about the attempt, as the method's pages speak only of the method.
    readonly property var reasons: ({
        "cancelled": qsTr("Cancelled."),
        "replaced": qsTr("Another program has taken over signing in. Try again when it has finished."),
        "timed-out": qsTr("There was no result in time. Try again."),
        "cut-short": qsTr("It took too long while others were waiting. Try again."),
        "session-stopped": qsTr("The session has ended. Try again.")
    })
    readonly property var errors: ({
        "qarv.AuthService.Error.Busy":
            qsTr("Another program is just signing this user in. Try again when it has finished."),
        "qarv.AuthService.Error.NoSuchUser": qsTr("This user cannot sign in here. Ask your administrator."),
        "org.freedesktop.DBus.Error.AccessDenied":
            qsTr("This screen may not sign this user in. Ask your administrator."),
        "org.freedesktop.DBus.Error.LimitsExceeded": qsTr("Too many tries at once. Wait a moment and try again.")
    })

    function notice() {
        if (outcome.reason !== undefined)
            return reasons[outcome.reason] || ""
        // The page shows a lock.
        if (outcome.error !== undefined && outcome.error !== "qarv.AuthService.Error.UserLocked")
            return errors[outcome.error] || qsTr("The authentication service has refused. Try again.")
        return ""
    }

    function loadPage(loader, address) {
        if (address !== "")
            loader.setSource(address, {attempt: view.attempt})
    }

    Component.onCompleted: {
        loadPage(prePage, method.prePage)
        loadPage(authPage, method.authPage)
    }
    onIsInfoShownChanged: {
        if (isInfoShown)
            loadPage(infoPage, method.infoPage)
        else
            infoPage.source = ""
    }
    onPageChanged: Qt.callLater(focusPage)

    function focusPage() {
        if (page.item)
            page.forceActiveFocus(Qt.TabFocusReason)
    }

    Avatar {
        Layout.alignment: Qt.AlignHCenter
        name: view.user ? view.user.name : ""
        size: view.em * 4
    }
    Label {
        id: nameLabel

        objectName: "user"
        Layout.fillWidth: true
        text: view.user ? view.user.name : ""
        textFormat: Text.PlainText
        font.pixelSize: view.em * 1.3
        font.bold: true
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.Wrap
    }
    Label {
        id: noticeLabel

        objectName: "notice"
        Layout.fillWidth: true
        visible: text !== ""
        text: view.notice()
        textFormat: Text.PlainText
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.Wrap
        Accessible.role: Accessible.AlertMessage
    }
    Label {
        objectName: "welcome"
        Layout.fillWidth: true
        visible: view.outcome.succeeded === true
        text: qsTr("You are signed in.")
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.Wrap
        Accessible.role: Accessible.AlertMessage
    }

    Loader {
        id: prePage

        Layout.fillWidth: true
        visible: view.page === prePage && view.outcome.succeeded !== true
    }
    Loader {
        id: authPage

        Layout.fillWidth: true
        visible: view.page === authPage && view.outcome.succeeded !== true
    }
    Loader {
        id: infoPage

        Layout.fillWidth: true
        visible: view.page === infoPage
    }

    Flow {
        Layout.alignment: Qt.AlignHCenter
        Layout.maximumWidth: parent.width
        Layout.topMargin: view.em
        visible: view.outcome.succeeded !== true
        spacing: view.em * 0.5

        Button {
            objectName: "leave"
            flat: true
            visible: view.canLeave
            text: qsTr("Other user")
            onClicked: view.left()
        }
        Repeater {
            model: view.methods.length > 1 ? view.methods.filter(other => other.name !== view.method.name) : []

            Button {
                required property var modelData

                objectName: "method-" + modelData.name
                flat: true
                text: modelData.description || modelData.name
                onClicked: view.methodChosen(modelData.name)
            }
        }
        Button {
            objectName: "info"
            flat: true
            visible: view.method !== undefined && view.method.infoPage !== ""
            text: view.isInfoShown ? qsTr("Back") : qsTr("Information")
            onClicked: view.isInfoShown = !view.isInfoShown
        }
    }
}

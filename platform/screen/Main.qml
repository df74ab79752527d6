// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15

ApplicationWindow {
    id: window

    property bool isDark: system.window.hslLightness < 0.5
    /// The user who has been chosen; undefined while there is none.
    property var user
    property string method
    readonly property var users: authScreen.users
    readonly property var methods: authScreen.methods
    readonly property real em: font.pixelSize

    // People read this from farther away than other windows.
    font.pixelSize: Qt.application.font.pixelSize * 1.25

    title: qsTr("Sign in")
    width: em * 40
    height: em * 44
    minimumWidth: 240
    minimumHeight: 240
    color: palette.window
    palette {
        window: isDark ? "#16191d" : "#f4f5f7"
        windowText: isDark ? "#eceff3" : "#1b1f24"
        base: isDark ? "#20242a" : "#ffffff"
        text: isDark ? "#eceff3" : "#1b1f24"
        mid: isDark ? "#5b6470" : "#9aa3ae"
        dark: isDark ? "#8fb8ff" : "#1d5bb8"
        button: isDark ? "#2d333b" : "#e3e6eb"
        buttonText: isDark ? "#eceff3" : "#1b1f24"
        highlight: isDark ? "#8fb8ff" : "#1d5bb8"
        highlightedText: isDark ? "#0d1a2d" : "#ffffff"
    }

    LayoutMirroring.enabled: Qt.application.layoutDirection === Qt.RightToLeft
    LayoutMirroring.childrenInherit: true

    SystemPalette { id: system }

    onUserChanged: begin()
    onMethodChanged: begin()

    Component.onCompleted: restart()

    // The only user and the first method need no choice.
    function restart() {
        method = methods.length > 0 ? methods[0].name : ""
        user = authScreen.isReady && !authScreen.isGreeter ? users[0] : undefined
    }

    function begin() {
        if (user && method !== "")
            authScreen.begin(user.uid, user.name, method)
        else
            authScreen.end()
    }

    function leave() {
        if (authScreen.isGreeter)
            user = undefined
    }

    Connections {
        target: authScreen

        function onChanged() {
            window.restart()
        }

        function onAuthenticated() {
            goodbye.start()
        }
    }

    // Time to read that it worked.
    Timer {
        id: goodbye

        interval: 1000
        onTriggered: Qt.exit(0)
    }
    onClosing: Qt.exit(goodbye.running ? 0 : 1)

    // A service that hangs stays on the bus.
    Timer {
        interval: 3000
        triggeredOnStart: true
        repeat: true
        running: authScreen.isServicePresent && (authScreen.attempt !== null || !authScreen.isReady)
        onTriggered: authScreen.probe()
    }

    footer: Label {
        objectName: "unanswered"
        visible: !authScreen.isAnswering
        padding: window.em * 0.8
        text: qsTr("The authentication service does not answer. This screen continues as soon as it does.")
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.Wrap
        Accessible.role: Accessible.AlertMessage
        background: Rectangle { color: window.palette.button }
    }

    Flickable {
        id: scroller

        anchors.fill: parent
        contentWidth: width
        contentHeight: column.height + 2 * column.margin
        boundsBehavior: Flickable.StopAtBounds
        ScrollBar.vertical: ScrollBar {
            policy: scroller.contentHeight > scroller.height ? ScrollBar.AlwaysOn : ScrollBar.AlwaysOff
        }

        onHeightChanged: Qt.callLater(showFocus)
        onContentHeightChanged: Qt.callLater(showFocus)

        // Keeps the control with the focus in sight.
        function showFocus() {
            for (let item = window.activeFocusItem; item; item = item.parent) {
                if (item === column)
                    return show(window.activeFocusItem)
            }
        }

        function show(item) {
            const top = item.mapToItem(contentItem, 0, 0).y
            if (top < contentY)
                contentY = Math.max(0, top - column.margin)
            else if (top + item.height > contentY + height)
                contentY = Math.min(contentHeight - height, top + item.height + column.margin - height)
        }

        ColumnLayout {
            id: column

            readonly property real margin: Math.min(window.em * 2, window.width * 0.06)

            x: (window.width - width) / 2
            // High enough that a message below does not move what is above.
            y: Math.max(margin, Math.min(window.height * 0.16, (window.height - height) / 2))
            width: Math.min(window.width - 2 * margin, window.em * 24)
            spacing: window.em

            Loader {
                id: content

                Layout.fillWidth: true
                sourceComponent: !authScreen.isServicePresent ? absent
                               : authScreen.attempt ? methodView
                               : !authScreen.isReady ? undefined
                               : authScreen.isGreeter && users.length > 0 && methods.length > 0 ? userList : nobody
            }
        }
    }

    onActiveFocusItemChanged: scroller.showFocus()

    Component {
        id: absent

        Notice {
            objectName: "absent"
            title: qsTr("You cannot sign in right now")
            text: qsTr("The authentication service is not running. This screen continues as soon as it is.")
            isBusy: true
        }
    }

    Component {
        id: nobody

        Notice {
            objectName: "nobody"
            title: window.methods.length === 0 ? qsTr("No way to sign in") : qsTr("No users")
            text: window.methods.length === 0
                ? qsTr("The authentication service offers no method that this screen can show.")
                : qsTr("The authentication service knows nobody who may sign in here.")
        }
    }

    Component {
        id: userList

        UserList {
            users: window.users
            onChosen: window.user = user
        }
    }

    Component {
        id: methodView

        MethodView {
            attempt: authScreen.attempt
            user: window.user
            method: window.methods.find(method => method.name === window.method)
            methods: window.methods
            canLeave: authScreen.isGreeter
            onLeft: window.leave()
            onMethodChosen: window.method = name
        }
    }
}

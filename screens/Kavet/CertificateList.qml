// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Kavet 1.0
import "certificates.js" as Certificates

// The certificates to choose from, or only to look at.
ColumnLayout {
    id: root

    property bool canChoose: true
    readonly property Item list: list
    signal accepted

    // From this number on, searching is quicker than scrolling.
    readonly property int many: 6

    spacing: search.font.pixelSize * 0.5

    TextField {
        id: search

        objectName: "search"
        Layout.fillWidth: true
        visible: Login.certificates.length >= root.many
        placeholderText: qsTr("Search certificates")
        Accessible.name: placeholderText
        Keys.onDownPressed: enterList()
        Keys.onReturnPressed: enterList()
        Keys.onEnterPressed: enterList()
        Keys.onEscapePressed: {
            event.accepted = length > 0
            clear()
        }

        function enterList() {
            if (list.activeFocusOnTab)
                list.forceActiveFocus(Qt.TabFocusReason)
        }
    }

    ListView {
        id: list

        objectName: "certificates"
        Layout.fillWidth: true
        Layout.preferredHeight: Math.min(Math.ceil(contentHeight), search.font.pixelSize * 18)
        clip: true
        spacing: search.font.pixelSize * 0.4
        boundsBehavior: Flickable.StopAtBounds
        activeFocusOnTab: root.canChoose && count > 0
        keyNavigationEnabled: root.canChoose
        ScrollBar.vertical: ScrollBar {
            id: bar

            policy: list.contentHeight > list.height ? ScrollBar.AlwaysOn : ScrollBar.AlwaysOff
        }
        Accessible.role: Accessible.List
        Accessible.name: qsTr("Certificates")

        model: Login.certificates.filter(certificate => Certificates.matches(certificate, search.text))
        onModelChanged: {
            currentIndex = model.findIndex(certificate => certificate.uri === Login.chosen)
            // A PIN is for a certificate in sight only.
            if (currentIndex < 0)
                choose(0)
        }
        Keys.onUpPressed: choose(Math.max(0, currentIndex - 1))
        Keys.onDownPressed: choose(Math.min(count - 1, currentIndex + 1))
        Keys.onReturnPressed: root.accepted()
        Keys.onEnterPressed: root.accepted()

        function choose(index) {
            if (!root.canChoose)
                return
            currentIndex = index < model.length ? index : -1
            Login.chosen = currentIndex < 0 ? "" : model[currentIndex].uri
        }

        delegate: ItemDelegate {
            id: row

            required property var modelData
            required property int index
            readonly property bool isChosen: root.canChoose && modelData.uri === Login.chosen

            objectName: "certificate-" + index
            width: ListView.view.width - (bar.visible ? bar.width : 0)
            padding: font.pixelSize * 0.7
            focusPolicy: Qt.NoFocus
            hoverEnabled: root.canChoose
            onClicked: {
                list.choose(index)
                list.forceActiveFocus(Qt.MouseFocusReason)
            }
            Accessible.role: root.canChoose ? Accessible.RadioButton : Accessible.ListItem
            Accessible.name: modelData.holder
            Accessible.description: lines.shown.join(", ")
            Accessible.checkable: root.canChoose
            Accessible.checked: isChosen

            contentItem: RowLayout {
                spacing: row.padding

                Rectangle {
                    readonly property real size: row.font.pixelSize

                    Layout.alignment: Qt.AlignTop
                    Layout.topMargin: size * 0.15
                    implicitWidth: size
                    implicitHeight: size
                    visible: root.canChoose
                    radius: size / 2
                    color: "transparent"
                    border.width: row.isChosen ? 2 : 1
                    border.color: row.isChosen ? row.palette.highlight : row.palette.mid

                    Rectangle {
                        anchors.fill: parent
                        anchors.margins: parent.size * 0.28
                        visible: row.isChosen
                        radius: width / 2
                        color: row.palette.highlight
                    }
                }
                ColumnLayout {
                    id: lines

                    readonly property string issued: row.modelData.issuer === "" ? ""
                        : qsTr("Issued by %1").arg(row.modelData.issuer)
                    readonly property string expiry: row.modelData.expiry === "" ? ""
                        : (row.modelData.hasExpired ? qsTr("Expired on %1") : qsTr("Valid until %1"))
                            .arg(root.dateText(row.modelData.expiry))
                    readonly property string token: row.modelData.token === "" ? ""
                        : qsTr("Token: %1").arg(row.modelData.token)
                    readonly property var shown: [issued, [expiry, token].filter(part => part !== "").join(" · ")]
                        .filter(line => line !== "")

                    spacing: row.font.pixelSize * 0.15

                    Label {
                        Layout.fillWidth: true
                        text: row.modelData.holder
                        textFormat: Text.PlainText
                        font.bold: true
                        horizontalAlignment: Text.AlignLeft
                        wrapMode: Text.Wrap
                    }
                    Repeater {
                        model: lines.shown

                        Label {
                            required property string modelData

                            Layout.fillWidth: true
                            text: modelData
                            textFormat: Text.PlainText
                            font.pixelSize: row.font.pixelSize * 0.85
                            horizontalAlignment: Text.AlignLeft
                            wrapMode: Text.Wrap
                            opacity: 0.8
                        }
                    }
                    Label {
                        objectName: "detail"
                        Layout.fillWidth: true
                        visible: details.checked && (row.isChosen || !root.canChoose)
                        text: row.modelData.detail
                        textFormat: Text.PlainText
                        font.pixelSize: row.font.pixelSize * 0.75
                        horizontalAlignment: Text.AlignLeft
                        wrapMode: Text.WrapAnywhere
                        opacity: 0.8
                    }
                }
            }
            background: Rectangle {
                radius: row.font.pixelSize * 0.4
                color: row.hovered || row.down ? row.palette.button : row.palette.base
                border.width: row.isChosen && list.activeFocus ? 2 : 1
                border.color: row.isChosen ? row.palette.highlight : row.palette.mid
            }
        }
    }

    Label {
        objectName: "noMatch"
        Layout.fillWidth: true
        visible: list.count === 0
        text: qsTr("No certificate matches.")
        horizontalAlignment: Text.AlignLeft
        wrapMode: Text.Wrap
    }

    RowLayout {
        Layout.fillWidth: true

        Label {
            objectName: "count"
            Layout.fillWidth: true
            text: search.visible && list.count > 0 ? qsTr("%n certificate(s)", "", list.count) : ""
            horizontalAlignment: Text.AlignLeft
            font.pixelSize: search.font.pixelSize * 0.85
            opacity: 0.8
        }
        Button {
            id: details

            objectName: "details"
            flat: true
            checkable: true
            font.pixelSize: search.font.pixelSize * 0.85
            text: checked ? qsTr("Hide details") : qsTr("Details")
        }
    }

    // A day as the person's locale writes it; anything else as it is.
    function dateText(text) {
        const date = Date.fromLocaleString(Qt.locale("C"), text, "yyyy-MM-dd")
        const withoutWeekday = Qt.locale().dateFormat(Locale.LongFormat).replace(/dddd[^A-Za-z]*/, "")
        return isNaN(date) ? text : date.toLocaleDateString(Qt.locale(), withoutWeekday)
    }
}

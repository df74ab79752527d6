// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15

// The users to choose from.
ColumnLayout {
    id: list

    property alias users: repeater.model
    signal chosen(var user)

    spacing: font.pixelSize * 0.5

    readonly property font font: title.font

    function go(index) {
        if (index >= 0 && index < repeater.count)
            repeater.itemAt(index).forceActiveFocus(Qt.TabFocusReason)
    }

    Label {
        id: title

        objectName: "title"
        Layout.fillWidth: true
        Layout.bottomMargin: list.font.pixelSize
        text: qsTr("Who is signing in?")
        font.bold: true
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.Wrap
    }

    Repeater {
        id: repeater

        delegate: ItemDelegate {
            id: row

            required property var modelData
            required property int index

            objectName: "user-" + modelData.login
            Layout.fillWidth: true
            padding: font.pixelSize * 0.7
            focus: index === 0
            focusPolicy: Qt.StrongFocus
            Component.onCompleted: if (index === 0) forceActiveFocus(Qt.TabFocusReason)
            Keys.onDownPressed: list.go(index + 1)
            Keys.onUpPressed: list.go(index - 1)
            Keys.onReturnPressed: clicked()
            Keys.onEnterPressed: clicked()
            onClicked: list.chosen(modelData)
            text: modelData.name
            Accessible.description: modelData.login

            contentItem: RowLayout {
                spacing: row.font.pixelSize * 0.8

                Avatar {
                    name: row.modelData.name
                    size: row.font.pixelSize * 2.4
                }
                ColumnLayout {
                    spacing: 0
                    Label {
                        Layout.fillWidth: true
                        text: row.modelData.name
                        textFormat: Text.PlainText
                        horizontalAlignment: Text.AlignLeft
                        wrapMode: Text.Wrap
                    }
                    Label {
                        Layout.fillWidth: true
                        visible: row.modelData.login !== row.modelData.name
                        text: row.modelData.login
                        textFormat: Text.PlainText
                        horizontalAlignment: Text.AlignLeft
                        wrapMode: Text.WrapAnywhere
                        font.pixelSize: row.font.pixelSize * 0.85
                        opacity: 0.75
                    }
                }
            }
            background: Rectangle {
                radius: row.font.pixelSize * 0.4
                color: row.hovered || row.down ? row.palette.button : row.palette.base
                border.width: row.visualFocus ? 2 : 1
                border.color: row.visualFocus ? row.palette.highlight : row.palette.mid
            }
        }
    }
}

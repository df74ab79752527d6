// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15

// What happened, and what to do next.
Control {
    id: message

    property string title
    property string text

    padding: font.pixelSize * 0.8
    Accessible.role: Accessible.AlertMessage
    Accessible.name: title
    Accessible.description: text

    background: Rectangle {
        radius: message.font.pixelSize * 0.4
        color: "#26d3382c"
        border.color: "#d3382c"
    }
    contentItem: ColumnLayout {
        spacing: message.font.pixelSize * 0.2

        Label {
            objectName: "messageTitle"
            Layout.fillWidth: true
            text: message.title
            textFormat: Text.PlainText
            font.bold: true
            horizontalAlignment: Text.AlignLeft
            wrapMode: Text.Wrap
        }
        Label {
            objectName: "messageText"
            Layout.fillWidth: true
            visible: text !== ""
            text: message.text
            textFormat: Text.PlainText
            horizontalAlignment: Text.AlignLeft
            wrapMode: Text.Wrap
        }
    }
}

// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15

// A page with a title and a text.
ColumnLayout {
    property alias title: titleLabel.text
    property alias text: textLabel.text
    property alias isBusy: indicator.running

    spacing: textLabel.font.pixelSize

    Label {
        id: titleLabel

        objectName: "title"
        Layout.fillWidth: true
        textFormat: Text.PlainText
        wrapMode: Text.Wrap
        horizontalAlignment: Text.AlignHCenter
        font.pixelSize: textLabel.font.pixelSize * 1.3
        font.bold: true
        Accessible.role: Accessible.AlertMessage
    }
    Label {
        id: textLabel

        objectName: "text"
        Layout.fillWidth: true
        textFormat: Text.PlainText
        wrapMode: Text.Wrap
        horizontalAlignment: Text.AlignHCenter
        opacity: 0.8
    }
    BusyIndicator {
        id: indicator

        Layout.alignment: Qt.AlignHCenter
        visible: running
        running: false
        Accessible.ignored: true
    }
}

// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
import QtQuick 2.15
import QtQuick.Controls 2.15

// The first letter of a name, in a circle.
Rectangle {
    property string name
    property real size

    implicitWidth: size
    implicitHeight: size
    radius: size / 2
    color: label.palette.highlight
    Accessible.ignored: true

    Label {
        id: label

        anchors.centerIn: parent
        // A letter outside the basic plane takes two places.
        text: Array.from(parent.name).slice(0, 1).join("").toUpperCase()
        textFormat: Text.PlainText
        color: palette.highlightedText
        font.pixelSize: parent.size * 0.45
        Accessible.ignored: true
    }
}

// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
import QtQuick 2.15
import QtQuick.Templates 2.15 as T

T.TextField {
    id: control

    implicitWidth: font.pixelSize * 12
    implicitHeight: contentHeight + topPadding + bottomPadding
    leftPadding: font.pixelSize * 0.8
    rightPadding: leftPadding
    topPadding: font.pixelSize * 0.7
    bottomPadding: topPadding
    color: palette.text
    placeholderTextColor: Qt.tint(palette.base, Qt.rgba(palette.text.r, palette.text.g, palette.text.b, 0.65))
    selectionColor: palette.highlight
    selectedTextColor: palette.highlightedText
    selectByMouse: true
    // Mirrored with the layout.
    horizontalAlignment: TextInput.AlignLeft
    verticalAlignment: TextInput.AlignVCenter
    opacity: enabled ? 1 : 0.6

    Text {
        x: control.leftPadding + 2 // beside the cursor
        width: control.width - control.leftPadding - control.rightPadding - 4
        height: control.height
        visible: control.length === 0 && control.preeditText === ""
        text: control.placeholderText
        textFormat: Text.PlainText
        font: control.font
        color: control.placeholderTextColor
        horizontalAlignment: Text.AlignLeft
        verticalAlignment: Text.AlignVCenter
        fontSizeMode: Text.HorizontalFit
        minimumPixelSize: 1
    }

    background: Rectangle {
        radius: control.font.pixelSize * 0.4
        color: control.palette.base
        border.width: control.activeFocus ? 2 : 1
        border.color: control.activeFocus ? control.palette.highlight : control.palette.mid
    }
}

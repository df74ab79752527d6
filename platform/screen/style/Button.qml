// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
import QtQuick 2.15
import QtQuick.Templates 2.15 as T

// Filled, filled with the accent if highlighted, or only text if flat.
T.Button {
    id: control

    readonly property color accent: control.palette.highlight
    readonly property bool isAccented: highlighted && enabled
    readonly property color fill: flat ? "transparent" : isAccented ? accent : palette.button

    // Rounded up, lest the text wraps for a fraction of a pixel. A Text that wraps reports too little itself.
    implicitWidth: Math.ceil(metrics.advanceWidth + leftPadding + rightPadding) + 1
    implicitHeight: implicitContentHeight + topPadding + bottomPadding
    horizontalPadding: font.pixelSize * (flat ? 0.6 : 1.2)
    verticalPadding: font.pixelSize * 0.7
    Keys.onReturnPressed: press()
    Keys.onEnterPressed: press()

    // What the space bar does, too.
    function press() {
        if (checkable)
            toggle()
        clicked()
    }

    TextMetrics {
        id: metrics

        font: control.font
        text: control.text
    }

    contentItem: Text {
        text: control.text
        textFormat: Text.PlainText
        font: control.font
        color: control.flat ? control.accent
             : control.isAccented ? control.palette.highlightedText : control.palette.buttonText
        opacity: control.enabled ? 1 : 0.6
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
        wrapMode: Text.Wrap
    }

    background: Rectangle {
        radius: control.font.pixelSize * 0.4
        color: control.down ? Qt.darker(control.fill, 1.15)
             : control.hovered && control.enabled ? Qt.lighter(control.fill, 1.06) : control.fill
        border.width: control.visualFocus ? 2 : 0
        border.color: control.highlighted ? control.palette.windowText : control.accent
    }
}

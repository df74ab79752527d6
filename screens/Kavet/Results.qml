// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
pragma Singleton
import QtQuick 2.15

// What each result code means for a person, and what to do next. The numbers are those of SettingsKavet.ResultCode, which
// cannot be named here: the module cannot import itself twice.
QtObject {
    readonly property var texts: ({
        // Success
        0: [qsTr("You are signed in."), ""],
        // BadPassword
        1: [qsTr("The password is wrong."),
            qsTr("Check Caps Lock and the keyboard layout, and enter it again.")],
        // EncryptedPartitionLocked
        2: [qsTr("The device's storage is locked."),
            qsTr("Unlock the storage, then try again.")],
        // CannotStartClient
        3: [qsTr("The check could not start."),
            qsTr("Try again. If that does not help, restart the device or ask your administrator.")],
        // CannotConnectClient
        4: [qsTr("The check cannot be reached right now."),
            qsTr("Wait a moment, then try again.")],
        // CannotCommunicateClient
        5: [qsTr("The check was interrupted."),
            qsTr("Nothing was counted. Try again.")],
        // UserLocked
        6: [qsTr("Your token or your account is locked."),
            qsTr("Further attempts will not help. Ask your administrator to unlock it.")],
        // TooManyAttempts
        7: [qsTr("That was the last attempt."),
            qsTr("Your data may be removed from this device. Ask your administrator.")],
        // TooManyAttemptsWithoutDeleted
        8: [qsTr("That was the last attempt."),
            qsTr("Your data are kept. Ask your administrator to unlock your account.")],
        // NoUsbDevice
        9: [qsTr("The token is not plugged in."),
            qsTr("Insert the token with this certificate, then try again.")],
        // ConnectionError
        10: [qsTr("The token does not respond."),
            qsTr("Take it out, insert it again, then try again.")],
        // AuthFailed
        11: [qsTr("The password is wrong."),
            qsTr("Check Caps Lock and the keyboard layout, and enter it again.")],
        // BadDefaultCert
        12: [qsTr("The default certificate cannot be used."),
            qsTr("Choose another certificate, or ask your administrator for a new one.")],
        // UserCannotUnlock
        13: [qsTr("You may not unlock this device."),
            qsTr("Only the person who locked it may do that.")],
        // ErrAuthType
        14: [qsTr("This way of signing in is not set up for you."),
            qsTr("Use the other way below, or ask your administrator.")]
    })
    // The same code after a certificate and a PIN: the client does not say which of them is wrong.
    readonly property var wrongPin: [qsTr("The PIN is wrong, or the certificate is not accepted."),
        qsTr("Check which certificate is chosen, and enter its PIN again.")]
    readonly property int authFailed: 11

    /// What happened, and what to do next.
    function text(code, usesCertificate) {
        if (code === authFailed && usesCertificate)
            return wrongPin
        return texts[code] || [qsTr("Signing in has failed."), qsTr("Try again.")]
    }
}

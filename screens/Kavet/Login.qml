// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
pragma Singleton
import QtQuick 2.15
import Kavet 1.0
import "certificates.js" as Certificates

// What the pages share: the method's settings, the certificates to choose from, and how the user wants to sign in.
QtObject {
    id: login

    /// The attempt that the pages show; see docs/screens.md.
    property var attempt: null
    /// "cert" or "password"; undefined until the user chooses or sends something.
    property var way
    /// The certificate that the user has chosen, or else the first one.
    property string chosen: ""
    /// Whether there have been certificates during this attempt.
    property bool hadCertificates: false
    /// Whether somebody waits for the list, other than for the regular look for tokens.
    property bool isRefreshing: true
    /// What Certificates.parsed() returns, one for each entry of the list.
    property var certificates: []

    readonly property bool usesCertificate: way === undefined ? certificates.length > 0 : way === "cert"
    readonly property int maxAttempts: settings.maxAttempts
    readonly property int failedAttempts: settings.currentAttempts
    readonly property int attemptsLeft: Math.max(0, maxAttempts - failedAttempts)
    /// The result code of the last attempt; undefined if that has not failed.
    readonly property var resultCode: attempt ? attempt.outcome.code : undefined
    readonly property bool isPartitionLocked: resultCode === SettingsKavet.EncryptedPartitionLocked
        || (attempt && attempt.state === "challenge"
            && attempt.details["input-request-type"] === SettingsKavet.EnterPasswordOrPinWithoutConnection)
    /// Whether the client can be asked.
    readonly property bool isConnected: attempt !== null && !isPartitionLocked
        && (attempt.state === "challenge" || (attempt.state === "idle" && attempt.outcome.reason !== undefined))
    readonly property bool needsToken: usesToken && certificates.length === 0 && !isRefreshing
    readonly property bool usesToken: way === "cert" || (way === undefined && hadCertificates)

    readonly property ScreenSettings settings: ScreenSettings {
        uid: login.attempt ? login.attempt.uid : 0
        onCertListChanged: {
            login.isRefreshing = false
            login.setCertificates(certList)
        }
    }

    // Nothing reports that a token is inserted or removed.
    readonly property Timer look: Timer {
        interval: 2000
        repeat: true
        running: login.isConnected && Qt.application.state === Qt.ApplicationActive
        onTriggered: login.settings.update()
    }

    onIsConnectedChanged: if (isConnected && isRefreshing) settings.update()

    function begin(newAttempt) {
        if (attempt === newAttempt)
            return
        attempt = newAttempt
        way = undefined
        chosen = ""
        certificates = []
        hadCertificates = false
        isRefreshing = true
        attempt.requestChallenge()
    }

    function refresh() {
        isRefreshing = true
        settings.update()
    }

    function setCertificates(uris) {
        if (JSON.stringify(uris) === JSON.stringify(certificates.map(certificate => certificate.uri)))
            return
        certificates = uris.map(Certificates.parsed)
        if (!uris.includes(chosen))
            chosen = uris.length > 0 ? uris[0] : ""
        if (uris.length > 0)
            hadCertificates = true
    }
}

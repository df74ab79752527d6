<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE">
<context>
    <name>CertificateList</name>
    <message>
        <source>Search certificates</source>
        <translation>Zertifikate durchsuchen</translation>
    </message>
    <message>
        <source>Certificates</source>
        <translation>Zertifikate</translation>
    </message>
    <message>
        <source>Issued by %1</source>
        <translation>Ausgestellt von %1</translation>
    </message>
    <message>
        <source>Valid until %1</source>
        <translation>Gültig bis %1</translation>
    </message>
    <message>
        <source>Token: %1</source>
        <translation>Token: %1</translation>
    </message>
    <message>
        <source>No certificate matches.</source>
        <translation>Kein Zertifikat passt.</translation>
    </message>
    <message>
        <source>Hide details</source>
        <translation>Details verbergen</translation>
    </message>
    <message>
        <source>Details</source>
        <translation>Details</translation>
    </message>
    <message>
        <source>Expired on %1</source>
        <translation>Abgelaufen am %1</translation>
    </message>
    <message numerus="yes">
        <source>%n certificate(s)</source>
        <translation>
            <numerusform>%n Zertifikat</numerusform>
            <numerusform>%n Zertifikate</numerusform>
        </translation>
    </message>
</context>
<context>
    <name>KavetInfo</name>
    <message>
        <source>Signing in with a password or a token</source>
        <translation>Anmeldung mit Passwort oder Token</translation>
    </message>
    <message>
        <source>Allowed attempts</source>
        <translation>Erlaubte Versuche</translation>
    </message>
    <message>
        <source>Unlimited</source>
        <translation>Unbegrenzt</translation>
    </message>
    <message>
        <source>Your failed attempts</source>
        <translation>Ihre Fehlversuche</translation>
    </message>
    <message>
        <source>Looking for certificates …</source>
        <translation>Zertifikate werden gesucht …</translation>
    </message>
    <message>
        <source>There are no certificates.</source>
        <translation>Es gibt keine Zertifikate.</translation>
    </message>
    <message>
        <source>Look for certificates</source>
        <translation>Zertifikate suchen</translation>
    </message>
</context>
<context>
    <name>MethodPageKavet</name>
    <message>
        <source>Attempts left: %1</source>
        <translation>Verbleibende Versuche: %1</translation>
    </message>
    <message>
        <source>Enter it again, or wait for the result.</source>
        <translation>Geben Sie es erneut ein, oder warten Sie auf das Ergebnis.</translation>
    </message>
    <message>
        <source>PIN</source>
        <translation>PIN</translation>
    </message>
    <message>
        <source>Password</source>
        <translation>Passwort</translation>
    </message>
    <message>
        <source>Sign in</source>
        <translation>Anmelden</translation>
    </message>
    <message>
        <source>Waiting for somebody else to finish …</source>
        <translation>Jemand anders ist noch an der Reihe …</translation>
    </message>
    <message>
        <source>Checking the PIN …</source>
        <translation>Die PIN wird geprüft …</translation>
    </message>
    <message>
        <source>Checking the password …</source>
        <translation>Das Passwort wird geprüft …</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Abbrechen</translation>
    </message>
    <message>
        <source>Looking for tokens …</source>
        <translation>Token werden gesucht …</translation>
    </message>
    <message>
        <source>Use a password instead</source>
        <translation>Stattdessen ein Passwort verwenden</translation>
    </message>
    <message>
        <source>Use a token instead</source>
        <translation>Stattdessen ein Token verwenden</translation>
    </message>
    <message>
        <source>The check was restarted.</source>
        <translation>Die Prüfung wurde neu gestartet.</translation>
    </message>
</context>
<context>
    <name>PreMethodPageKavet</name>
    <message>
        <source>This account is locked</source>
        <translation>Dieses Konto ist gesperrt</translation>
    </message>
    <message>
        <source>Please wait</source>
        <translation>Bitte warten</translation>
    </message>
    <message>
        <source>Somebody else is signing in. It is your turn in a moment.</source>
        <translation>Jemand anders meldet sich gerade an. Sie sind gleich an der Reihe.</translation>
    </message>
    <message>
        <source>One moment …</source>
        <translation>Einen Moment …</translation>
    </message>
    <message>
        <source>Signing in is being prepared.</source>
        <translation>Die Anmeldung wird vorbereitet.</translation>
    </message>
    <message>
        <source>Insert your token</source>
        <translation>Stecken Sie Ihr Token ein</translation>
    </message>
    <message>
        <source>The certificates on it appear by themselves.</source>
        <translation>Die Zertifikate darauf erscheinen von selbst.</translation>
    </message>
    <message>
        <source>There were too many failed attempts.</source>
        <translation>Es gab zu viele Fehlversuche.</translation>
    </message>
    <message>
        <source>The reason: %1</source>
        <translation>Der Grund: %1</translation>
    </message>
    <message>
        <source>Ask your administrator to unlock it.</source>
        <translation>Bitten Sie die Systemverwaltung, es zu entsperren.</translation>
    </message>
    <message>
        <source>Try again in a minute.</source>
        <translation>Versuchen Sie es in einer Minute erneut.</translation>
    </message>
    <message>
        <source>Minutes until you can try again: %1</source>
        <translation>Minuten bis zum nächsten Versuch: %1</translation>
    </message>
    <message>
        <source>Use a password instead</source>
        <translation>Stattdessen ein Passwort verwenden</translation>
    </message>
    <message>
        <source>Try again</source>
        <translation>Erneut versuchen</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Abbrechen</translation>
    </message>
</context>
<context>
    <name>Results</name>
    <message>
        <source>You are signed in.</source>
        <translation>Sie sind angemeldet.</translation>
    </message>
    <message>
        <source>The password is wrong.</source>
        <translation>Das Passwort ist falsch.</translation>
    </message>
    <message>
        <source>Check Caps Lock and the keyboard layout, and enter it again.</source>
        <translation>Prüfen Sie Feststelltaste und Tastaturbelegung, und geben Sie es erneut ein.</translation>
    </message>
    <message>
        <source>The device&apos;s storage is locked.</source>
        <translation>Der Speicher des Geräts ist gesperrt.</translation>
    </message>
    <message>
        <source>Unlock the storage, then try again.</source>
        <translation>Entsperren Sie den Speicher, und versuchen Sie es erneut.</translation>
    </message>
    <message>
        <source>Try again. If that does not help, restart the device or ask your administrator.</source>
        <translation>Versuchen Sie es erneut. Hilft das nicht, starten Sie das Gerät neu, oder fragen Sie die Systemverwaltung.</translation>
    </message>
    <message>
        <source>Wait a moment, then try again.</source>
        <translation>Warten Sie einen Moment, und versuchen Sie es erneut.</translation>
    </message>
    <message>
        <source>The check was interrupted.</source>
        <translation>Die Prüfung wurde unterbrochen.</translation>
    </message>
    <message>
        <source>Nothing was counted. Try again.</source>
        <translation>Es wurde nichts gezählt. Versuchen Sie es erneut.</translation>
    </message>
    <message>
        <source>Your token or your account is locked.</source>
        <translation>Ihr Token oder Ihr Konto ist gesperrt.</translation>
    </message>
    <message>
        <source>That was the last attempt.</source>
        <translation>Das war der letzte Versuch.</translation>
    </message>
    <message>
        <source>Your data may be removed from this device. Ask your administrator.</source>
        <translation>Ihre Daten werden vielleicht von diesem Gerät gelöscht. Fragen Sie die Systemverwaltung.</translation>
    </message>
    <message>
        <source>Your data are kept. Ask your administrator to unlock your account.</source>
        <translation>Ihre Daten bleiben erhalten. Bitten Sie die Systemverwaltung, Ihr Konto zu entsperren.</translation>
    </message>
    <message>
        <source>The token is not plugged in.</source>
        <translation>Das Token steckt nicht.</translation>
    </message>
    <message>
        <source>Insert the token with this certificate, then try again.</source>
        <translation>Stecken Sie das Token mit diesem Zertifikat ein, und versuchen Sie es erneut.</translation>
    </message>
    <message>
        <source>The token does not respond.</source>
        <translation>Das Token antwortet nicht.</translation>
    </message>
    <message>
        <source>Take it out, insert it again, then try again.</source>
        <translation>Ziehen Sie es ab, stecken Sie es wieder ein, und versuchen Sie es erneut.</translation>
    </message>
    <message>
        <source>The default certificate cannot be used.</source>
        <translation>Das Standardzertifikat ist nicht verwendbar.</translation>
    </message>
    <message>
        <source>Choose another certificate, or ask your administrator for a new one.</source>
        <translation>Wählen Sie ein anderes Zertifikat, oder bitten Sie die Systemverwaltung um ein neues.</translation>
    </message>
    <message>
        <source>You may not unlock this device.</source>
        <translation>Sie dürfen dieses Gerät nicht entsperren.</translation>
    </message>
    <message>
        <source>Only the person who locked it may do that.</source>
        <translation>Das darf nur die Person, die es gesperrt hat.</translation>
    </message>
    <message>
        <source>This way of signing in is not set up for you.</source>
        <translation>Diese Art der Anmeldung ist für Sie nicht eingerichtet.</translation>
    </message>
    <message>
        <source>Use the other way below, or ask your administrator.</source>
        <translation>Verwenden Sie die andere Art unten, oder fragen Sie die Systemverwaltung.</translation>
    </message>
    <message>
        <source>The PIN is wrong, or the certificate is not accepted.</source>
        <translation>Die PIN ist falsch, oder das Zertifikat wird nicht angenommen.</translation>
    </message>
    <message>
        <source>Check which certificate is chosen, and enter its PIN again.</source>
        <translation>Prüfen Sie, welches Zertifikat gewählt ist, und geben Sie die PIN erneut ein.</translation>
    </message>
    <message>
        <source>Signing in has failed.</source>
        <translation>Die Anmeldung ist fehlgeschlagen.</translation>
    </message>
    <message>
        <source>Try again.</source>
        <translation>Versuchen Sie es erneut.</translation>
    </message>
    <message>
        <source>The check could not start.</source>
        <translation>Die Prüfung konnte nicht starten.</translation>
    </message>
    <message>
        <source>The check cannot be reached right now.</source>
        <translation>Die Prüfung ist gerade nicht erreichbar.</translation>
    </message>
    <message>
        <source>Further attempts will not help. Ask your administrator to unlock it.</source>
        <translation>Weitere Versuche helfen nicht. Bitten Sie die Systemverwaltung um die Entsperrung.</translation>
    </message>
</context>
<context>
    <name>SecretField</name>
    <message>
        <source>Hide</source>
        <translation>Verbergen</translation>
    </message>
    <message>
        <source>Show</source>
        <translation>Zeigen</translation>
    </message>
    <message>
        <source>Hide what is entered</source>
        <translation>Eingabe verbergen</translation>
    </message>
    <message>
        <source>Show what is entered</source>
        <translation>Eingabe zeigen</translation>
    </message>
    <message>
        <source>Caps Lock is on.</source>
        <translation>Die Feststelltaste ist aktiv.</translation>
    </message>
</context>
</TS>

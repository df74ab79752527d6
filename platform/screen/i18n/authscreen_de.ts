<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE">
<context>
    <name>Main</name>
    <message>
        <source>Sign in</source>
        <translation>Anmelden</translation>
    </message>
    <message>
        <source>The authentication service is not running. This screen continues as soon as it is.</source>
        <translation>Der Anmeldedienst läuft nicht. Sobald er läuft, geht es hier weiter.</translation>
    </message>
    <message>
        <source>No way to sign in</source>
        <translation>Keine Anmeldung möglich</translation>
    </message>
    <message>
        <source>No users</source>
        <translation>Keine Personen</translation>
    </message>
    <message>
        <source>The authentication service offers no method that this screen can show.</source>
        <translation>Der Anmeldedienst bietet kein Verfahren, das hier gezeigt werden kann.</translation>
    </message>
    <message>
        <source>The authentication service knows nobody who may sign in here.</source>
        <translation>Der Anmeldedienst kennt niemanden, der sich hier anmelden darf.</translation>
    </message>
    <message>
        <source>The authentication service does not answer. This screen continues as soon as it does.</source>
        <translation>Der Anmeldedienst antwortet nicht. Sobald er antwortet, geht es hier weiter.</translation>
    </message>
    <message>
        <source>You cannot sign in right now</source>
        <translation>Anmeldung gerade nicht möglich</translation>
    </message>
</context>
<context>
    <name>MethodView</name>
    <message>
        <source>Cancelled.</source>
        <translation>Abgebrochen.</translation>
    </message>
    <message>
        <source>Another program has taken over signing in. Try again when it has finished.</source>
        <translation>Ein anderes Programm hat die Anmeldung übernommen. Versuchen Sie es danach erneut.</translation>
    </message>
    <message>
        <source>There was no result in time. Try again.</source>
        <translation>Es kam kein rechtzeitiges Ergebnis. Versuchen Sie es erneut.</translation>
    </message>
    <message>
        <source>It took too long while others were waiting. Try again.</source>
        <translation>Es hat zu lange gedauert, während andere warteten. Versuchen Sie es erneut.</translation>
    </message>
    <message>
        <source>The session has ended. Try again.</source>
        <translation>Die Sitzung ist beendet. Versuchen Sie es erneut.</translation>
    </message>
    <message>
        <source>Another program is just signing this user in. Try again when it has finished.</source>
        <translation>Ein anderes Programm meldet diese Person gerade an. Versuchen Sie es danach erneut.</translation>
    </message>
    <message>
        <source>This user cannot sign in here. Ask your administrator.</source>
        <translation>Diese Person kann sich hier nicht anmelden. Fragen Sie die Systemverwaltung.</translation>
    </message>
    <message>
        <source>This screen may not sign this user in. Ask your administrator.</source>
        <translation>Dieser Bildschirm darf diese Person nicht anmelden. Fragen Sie die Systemverwaltung.</translation>
    </message>
    <message>
        <source>Too many tries at once. Wait a moment and try again.</source>
        <translation>Zu viele Versuche auf einmal. Warten Sie einen Moment, und versuchen Sie es erneut.</translation>
    </message>
    <message>
        <source>The authentication service has refused. Try again.</source>
        <translation>Der Anmeldedienst hat abgelehnt. Versuchen Sie es erneut.</translation>
    </message>
    <message>
        <source>You are signed in.</source>
        <translation>Sie sind angemeldet.</translation>
    </message>
    <message>
        <source>Other user</source>
        <translation>Andere Person</translation>
    </message>
    <message>
        <source>Back</source>
        <translation>Zurück</translation>
    </message>
    <message>
        <source>Information</source>
        <translation>Informationen</translation>
    </message>
</context>
<context>
    <name>UserList</name>
    <message>
        <source>Who is signing in?</source>
        <translation>Wer meldet sich an?</translation>
    </message>
</context>
</TS>

<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE" sourcelanguage="en">
<context>
    <name>KsDeploy::Cache</name>
    <message>
        <source>Precache files</source>
        <translation>Dateien vorab zwischenspeichern</translation>
    </message>
    <message>
        <source>Cache resources</source>
        <translation>Ressourcen zwischenspeichern</translation>
    </message>
</context>
<context>
    <name>KsDeploy::Engine</name>
    <message>
        <source>Download</source>
        <translation>Herunterladen</translation>
    </message>
    <message>
        <source>Installation</source>
        <translation>Installation</translation>
    </message>
    <message>
        <source>Uninstallation</source>
        <translation>Deinstallation</translation>
    </message>
    <message>
        <source>Verification</source>
        <translation>Überprüfung</translation>
    </message>
    <message>
        <source>Rescan</source>
        <translation>Erneute Erfassung</translation>
    </message>
    <message>
        <source>Transaction Begin</source>
        <translation>Beginn der Transaktion</translation>
    </message>
    <message>
        <source>Transaction Commit</source>
        <translation>Abschluss der Transaktion</translation>
    </message>
    <message>
        <source>Transaction Rollback</source>
        <translation>Rücknahme der Transaktion</translation>
    </message>
</context>
<context>
    <name>KsDeploy::Generator</name>
    <message>
        <source>Generate from Directory</source>
        <translation>Aus Verzeichnis erzeugen</translation>
    </message>
    <message>
        <source>Generate from Registry Key</source>
        <translation>Aus Registrierungsschlüssel erzeugen</translation>
    </message>
</context>
<context>
    <name>KsDeploy::PluginKestraClient</name>
    <message>
        <source>Starting the update from %1</source>
        <translation>Starte die Aktualisierung aus %1</translation>
    </message>
    <message>
        <source>Programs in use</source>
        <translation>Programme in Benutzung</translation>
    </message>
    <message>
        <source>These programs use the client's folder. Close them, then choose Retry.</source>
        <translation>Diese Programme benutzen den Ordner des Clients. Schließen Sie sie und wählen Sie dann Wiederholen.</translation>
    </message>
    <message>
        <source>Starting %1</source>
        <translation>Starte %1</translation>
    </message>
    <message>
        <source>Configuration error.</source>
        <translation>Konfigurationsfehler.</translation>
    </message>
    <message>
        <source>The recommended client version is not supported by this server.
Please contact your system administrator.</source>
        <translation>Die empfohlene Client-Version wird von diesem Server nicht unterstützt.
Bitte wenden Sie sich an Ihren Systemadministrator.</translation>
    </message>
    <message>
        <source>The recommended client version is not supported by this server.</source>
        <translation>Die empfohlene Client-Version wird von diesem Server nicht unterstützt.</translation>
    </message>
    <message>
        <source>Please contact your system administrator.</source>
        <translation>Bitte wenden Sie sich an Ihren Systemadministrator.</translation>
    </message>
    <message>
        <source>%1 Auto-Update</source>
        <translation>Automatische Aktualisierung von %1</translation>
    </message>
    <message>
        <source>A new client version is available.</source>
        <translation>Eine neue Client-Version ist verfügbar.</translation>
    </message>
    <message>
        <source>%1 Client Version Mismatch</source>
        <translation>%1: Client-Version passt nicht</translation>
    </message>
    <message>
        <source>Your client version is not supported by this server.</source>
        <translation>Ihre Client-Version wird von diesem Server nicht unterstützt.</translation>
    </message>
    <message>
        <source>Current client version: %1</source>
        <translation>Installierte Client-Version: %1</translation>
    </message>
    <message>
        <source>Recommended client version: %1</source>
        <translation>Empfohlene Client-Version: %1</translation>
    </message>
    <message>
        <source>Protocol version of client: %1</source>
        <translation>Protokollversion des Clients: %1</translation>
    </message>
    <message>
        <source>Protocol version of server: %1</source>
        <translation>Protokollversion des Servers: %1</translation>
    </message>
    <message>
        <source>Do you want to update your client to version %1?</source>
        <translation>Möchten Sie Ihren Client auf Version %1 aktualisieren?</translation>
    </message>
</context>
<context>
    <name>QxDialog</name>
    <message>
        <source>Logo</source>
        <translation>Logo</translation>
    </message>
    <message>
        <source>The product logo</source>
        <translation>Das Logo des Produkts</translation>
    </message>
    <message>
        <source>Title</source>
        <translation>Titel</translation>
    </message>
    <message>
        <source>The title of this window</source>
        <translation>Der Titel dieses Fensters</translation>
    </message>
    <message>
        <source>Separator</source>
        <translation>Trennlinie</translation>
    </message>
    <message>
        <source>Separates the title from the content</source>
        <translation>Trennt den Titel vom Inhalt</translation>
    </message>
</context>
<context>
    <name>WidgetProgress</name>
    <message>
        <source>Kestra Imaging</source>
        <translation>Kestra Imaging</translation>
    </message>
    <message>
        <source>Show Details</source>
        <translation>Details anzeigen</translation>
    </message>
    <message>
        <source>Close</source>
        <translation>Schließen</translation>
    </message>
    <message>
        <source>Shows the progress of the current operation</source>
        <translation>Zeigt den Fortschritt des laufenden Vorgangs</translation>
    </message>
    <message>
        <source>Progress</source>
        <translation>Fortschritt</translation>
    </message>
    <message>
        <source>The current operation, its progress and its log</source>
        <translation>Der laufende Vorgang, sein Fortschritt und sein Protokoll</translation>
    </message>
    <message>
        <source>Current operation</source>
        <translation>Laufender Vorgang</translation>
    </message>
    <message>
        <source>The name of the operation that runs now</source>
        <translation>Der Name des Vorgangs, der gerade läuft</translation>
    </message>
    <message>
        <source>Progress of the current operation</source>
        <translation>Fortschritt des laufenden Vorgangs</translation>
    </message>
    <message>
        <source>How much of the current operation is done</source>
        <translation>Wie viel des laufenden Vorgangs erledigt ist</translation>
    </message>
    <message>
        <source>Shows or hides the log of everything done so far</source>
        <translation>Zeigt oder verbirgt das Protokoll aller bisherigen Schritte</translation>
    </message>
    <message>
        <source>Closes this window once the work is done</source>
        <translation>Schließt dieses Fenster, sobald die Arbeit erledigt ist</translation>
    </message>
    <message>
        <source>Log</source>
        <translation>Protokoll</translation>
    </message>
    <message>
        <source>Every line written so far</source>
        <translation>Jede bisher geschriebene Zeile</translation>
    </message>
    <message>
        <source>Automatic update has failed.
Please install manually.</source>
        <translation>Die automatische Aktualisierung ist fehlgeschlagen.
Bitte installieren Sie die neue Version von Hand.</translation>
    </message>
</context>
</TS>

<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en" sourcelanguage="en">
<context>
    <name>KsDeploy::Cache</name>
    <message>
        <source>Precache files</source>
        <translation>Precache files</translation>
    </message>
    <message>
        <source>Cache resources</source>
        <translation>Cache resources</translation>
    </message>
</context>
<context>
    <name>KsDeploy::Engine</name>
    <message>
        <source>Download</source>
        <translation>Download</translation>
    </message>
    <message>
        <source>Installation</source>
        <translation>Installation</translation>
    </message>
    <message>
        <source>Uninstallation</source>
        <translation>Uninstallation</translation>
    </message>
    <message>
        <source>Verification</source>
        <translation>Verification</translation>
    </message>
    <message>
        <source>Rescan</source>
        <translation>Rescan</translation>
    </message>
    <message>
        <source>Transaction Begin</source>
        <translation>Transaction Begin</translation>
    </message>
    <message>
        <source>Transaction Commit</source>
        <translation>Transaction Commit</translation>
    </message>
    <message>
        <source>Transaction Rollback</source>
        <translation>Transaction Rollback</translation>
    </message>
</context>
<context>
    <name>KsDeploy::Generator</name>
    <message>
        <source>Generate from Directory</source>
        <translation>Generate from Directory</translation>
    </message>
    <message>
        <source>Generate from Registry Key</source>
        <translation>Generate from Registry Key</translation>
    </message>
</context>
<context>
    <name>KsDeploy::PluginKestraClient</name>
    <message>
        <source>Starting the update from %1</source>
        <translation>Starting the update from %1</translation>
    </message>
    <message>
        <source>Programs in use</source>
        <translation>Programs in use</translation>
    </message>
    <message>
        <source>These programs use the client's folder. Close them, then choose Retry.</source>
        <translation>These programs use the client's folder. Close them, then choose Retry.</translation>
    </message>
    <message>
        <source>Starting %1</source>
        <translation>Starting %1</translation>
    </message>
    <message>
        <source>Configuration error.</source>
        <translation>Configuration error.</translation>
    </message>
    <message>
        <source>The recommended client version is not supported by this server.
Please contact your system administrator.</source>
        <translation>The recommended client version is not supported by this server.
Please contact your system administrator.</translation>
    </message>
    <message>
        <source>The recommended client version is not supported by this server.</source>
        <translation>The recommended client version is not supported by this server.</translation>
    </message>
    <message>
        <source>Please contact your system administrator.</source>
        <translation>Please contact your system administrator.</translation>
    </message>
    <message>
        <source>%1 Auto-Update</source>
        <translation>%1 Auto-Update</translation>
    </message>
    <message>
        <source>A new client version is available.</source>
        <translation>A new client version is available.</translation>
    </message>
    <message>
        <source>%1 Client Version Mismatch</source>
        <translation>%1 Client Version Mismatch</translation>
    </message>
    <message>
        <source>Your client version is not supported by this server.</source>
        <translation>Your client version is not supported by this server.</translation>
    </message>
    <message>
        <source>Current client version: %1</source>
        <translation>Current client version: %1</translation>
    </message>
    <message>
        <source>Recommended client version: %1</source>
        <translation>Recommended client version: %1</translation>
    </message>
    <message>
        <source>Protocol version of client: %1</source>
        <translation>Protocol version of client: %1</translation>
    </message>
    <message>
        <source>Protocol version of server: %1</source>
        <translation>Protocol version of server: %1</translation>
    </message>
    <message>
        <source>Do you want to update your client to version %1?</source>
        <translation>Do you want to update your client to version %1?</translation>
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
        <translation>The product logo</translation>
    </message>
    <message>
        <source>Title</source>
        <translation>Title</translation>
    </message>
    <message>
        <source>The title of this window</source>
        <translation>The title of this window</translation>
    </message>
    <message>
        <source>Separator</source>
        <translation>Separator</translation>
    </message>
    <message>
        <source>Separates the title from the content</source>
        <translation>Separates the title from the content</translation>
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
        <translation>Show Details</translation>
    </message>
    <message>
        <source>Close</source>
        <translation>Close</translation>
    </message>
    <message>
        <source>Shows the progress of the current operation</source>
        <translation>Shows the progress of the current operation</translation>
    </message>
    <message>
        <source>Progress</source>
        <translation>Progress</translation>
    </message>
    <message>
        <source>The current operation, its progress and its log</source>
        <translation>The current operation, its progress and its log</translation>
    </message>
    <message>
        <source>Current operation</source>
        <translation>Current operation</translation>
    </message>
    <message>
        <source>The name of the operation that runs now</source>
        <translation>The name of the operation that runs now</translation>
    </message>
    <message>
        <source>Progress of the current operation</source>
        <translation>Progress of the current operation</translation>
    </message>
    <message>
        <source>How much of the current operation is done</source>
        <translation>How much of the current operation is done</translation>
    </message>
    <message>
        <source>Shows or hides the log of everything done so far</source>
        <translation>Shows or hides the log of everything done so far</translation>
    </message>
    <message>
        <source>Closes this window once the work is done</source>
        <translation>Closes this window once the work is done</translation>
    </message>
    <message>
        <source>Log</source>
        <translation>Log</translation>
    </message>
    <message>
        <source>Every line written so far</source>
        <translation>Every line written so far</translation>
    </message>
    <message>
        <source>Automatic update has failed.
Please install manually.</source>
        <translation>Automatic update has failed.
Please install manually.</translation>
    </message>
</context>
</TS>

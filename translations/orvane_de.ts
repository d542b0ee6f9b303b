<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE">
<context>
    <name>Appcast</name>
    <message>
        <source>The update feed contains a document type declaration.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The update feed is not valid XML (line %1: %2).</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The update feed is empty.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The update feed is not an RSS document.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>FileDialogPanels</name>
    <message>
        <source>Images (%1)</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>All files (*)</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Open Images</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Save as New</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>MoreApps</name>
    <message>
        <source>%1 — %2</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>OpenProgressDialog</name>
    <message>
        <source>Opening Images</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>%1 of %2</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>orvane::ControlsView</name>
    <message>
        <source>Trim tolerance</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Open…</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Save as New…</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Save Over Original</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>All %1 images saved.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Saved %1 — next image ready.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Saved %1</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>orvane::CropModel</name>
    <message numerus="yes">
        <source>%n file couldn’t be opened.</source>
        <comment>skip message, one file</comment>
        <translation type="unfinished">
            <numerusform></numerusform>
            <numerusform></numerusform>
        </translation>
    </message>
    <message numerus="yes">
        <source>%n files couldn’t be opened.</source>
        <comment>skip message, several files</comment>
        <translation type="unfinished">
            <numerusform></numerusform>
            <numerusform></numerusform>
        </translation>
    </message>
    <message>
        <source>Nothing to save.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Couldn’t write to “%1”.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>No supported images found.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>orvane::DropZone</name>
    <message>
        <source>Drop images here</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Transparent and white edges get trimmed to the artwork. Drop several images — or a folder — to queue them up.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Choose Images…</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>orvane::HeaderView</name>
    <message>
        <source>%1 of %2</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>%1×%2</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>orvane::UpdateChecker</name>
    <message>
        <source>The update server didn’t answer in time.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The update server answered with status %1.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The update server answered with status %1 (%2).</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Couldn’t reach the update server: %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>This copy of Orvane has no valid key to verify updates.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The update feed is larger than %1.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Couldn’t create the folder “%1”.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Couldn’t save the download in “%1”: %2</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The download is larger than the update feed announced, so it was deleted.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The download was cancelled.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The download has %1 bytes instead of the %2 the update feed announced, so it was deleted.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The download’s signature doesn’t match the update’s, so it was deleted.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>orvane::UpdateDialog</name>
    <message>
        <source>Software Update</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Check for updates automatically</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Download</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Cancel Download</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Show in Folder</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Close</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Checking for updates…</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Updates come from your system.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>This copy of Orvane is kept up to date by your system’s package manager.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>You’re up to date.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Orvane %1 is the newest version available.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>A new version of Orvane is available.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Orvane %1 is available — you have %2. Download it now?</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Release Notes</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Couldn’t check for updates.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Downloading Orvane %1…</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>The update is ready.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Orvane %1 was downloaded and verified as “%2”. Orvane doesn’t install it itself: open it from its folder.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Couldn’t download the update.</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>orvane::UpdaterController</name>
    <message>
        <source>Check for Updates…</source>
        <translation type="unfinished"></translation>
    </message>
</context>
</TS>

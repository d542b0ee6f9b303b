<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE">
<context>
    <name>Appcast</name>
    <message>
        <source>The update feed contains a document type declaration.</source>
        <translation>Der Update-Feed enthält eine Dokumenttyp-Deklaration.</translation>
    </message>
    <message>
        <source>The update feed is not valid XML (line %1: %2).</source>
        <translation>Der Update-Feed ist kein gültiges XML (Zeile %1: %2).</translation>
    </message>
    <message>
        <source>The update feed is empty.</source>
        <translation>Der Update-Feed ist leer.</translation>
    </message>
    <message>
        <source>The update feed is not an RSS document.</source>
        <translation>Der Update-Feed ist kein RSS-Dokument.</translation>
    </message>
</context>
<context>
    <name>FileDialogPanels</name>
    <message>
        <source>Images (%1)</source>
        <translation>Bilder (%1)</translation>
    </message>
    <message>
        <source>All files (*)</source>
        <translation>Alle Dateien (*)</translation>
    </message>
    <message>
        <source>Open Images</source>
        <translation>Bilder öffnen</translation>
    </message>
    <message>
        <source>Save as New</source>
        <translation>Als neue Datei sichern</translation>
    </message>
</context>
<context>
    <name>MoreApps</name>
    <message>
        <source>%1 — %2</source>
        <translation>%1 — %2</translation>
    </message>
</context>
<context>
    <name>orvane::ControlsView</name>
    <message>
        <source>Trim tolerance</source>
        <translation>Beschnitt-Toleranz</translation>
    </message>
    <message>
        <source>Open…</source>
        <translation>Öffnen …</translation>
    </message>
    <message>
        <source>Save as New…</source>
        <translation>Als neue Datei sichern …</translation>
    </message>
    <message>
        <source>Save Over Original</source>
        <translation>Original überschreiben</translation>
    </message>
    <message>
        <source>All %1 images saved.</source>
        <translation>Alle %1 Bilder gesichert.</translation>
    </message>
    <message>
        <source>Saved %1 — next image ready.</source>
        <translation>%1 gesichert — das nächste Bild ist bereit.</translation>
    </message>
    <message>
        <source>Saved %1</source>
        <translation>%1 gesichert</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Abbrechen</translation>
    </message>
    <message>
        <source>Opening images…</source>
        <translation>Bilder werden geöffnet …</translation>
    </message>
    <message>
        <source>Opening %1 of %2 images…</source>
        <translation>Bild %1 von %2 wird geöffnet …</translation>
    </message>
    <message>
        <source>%1 — %2</source>
        <translation>%1 – %2</translation>
    </message>
    <message>
        <source>and %1 more</source>
        <translation>und %1 weitere</translation>
    </message>
</context>
<context>
    <name>orvane::CropModel</name>
    <message numerus="yes">
        <source>%n file couldn’t be opened.</source>
        <comment>skip message, one file</comment>
        <translation>
            <numerusform>%n Datei konnte nicht geöffnet werden.</numerusform>
            <numerusform>%n Dateien konnten nicht geöffnet werden.</numerusform>
        </translation>
    </message>
    <message numerus="yes">
        <source>%n files couldn’t be opened.</source>
        <comment>skip message, several files</comment>
        <translation>
            <numerusform>%n Datei konnte nicht geöffnet werden.</numerusform>
            <numerusform>%n Dateien konnten nicht geöffnet werden.</numerusform>
        </translation>
    </message>
    <message>
        <source>Nothing to save.</source>
        <translation>Nichts zu sichern.</translation>
    </message>
    <message>
        <source>Couldn’t write to “%1”.</source>
        <translation>„%1“ konnte nicht geschrieben werden.</translation>
    </message>
    <message>
        <source>No supported images found.</source>
        <translation>Keine unterstützten Bilder gefunden.</translation>
    </message>
    <message>
        <source>“%1” changed on disk and was reloaded.</source>
        <translation>„%1“ wurde auf dem Datenträger geändert und neu geladen.</translation>
    </message>
    <message>
        <source>“%1” is no longer there.</source>
        <translation>„%1“ ist nicht mehr vorhanden.</translation>
    </message>
    <message>
        <source>“%1” changed on disk and can’t be read any more.</source>
        <translation>„%1“ wurde auf dem Datenträger geändert und kann nicht mehr gelesen werden.</translation>
    </message>
</context>
<context>
    <name>orvane::DropZone</name>
    <message>
        <source>Drop images here</source>
        <translation>Bilder hierher ziehen</translation>
    </message>
    <message>
        <source>Transparent and white edges get trimmed to the artwork. Drop several images — or a folder — to queue them up.</source>
        <translation>Transparente und weiße Ränder werden bis zum Motiv abgeschnitten. Ziehen Sie mehrere Bilder — oder einen Ordner — hierher, um sie in die Warteschlange zu stellen.</translation>
    </message>
    <message>
        <source>Choose Images…</source>
        <translation>Bilder auswählen …</translation>
    </message>
</context>
<context>
    <name>orvane::HeaderView</name>
    <message>
        <source>%1 of %2</source>
        <translation>%1 von %2</translation>
    </message>
    <message>
        <source>%1×%2</source>
        <translation>%1 × %2</translation>
    </message>
</context>
<context>
    <name>orvane::MainWindow</name>
    <message>
        <source>Orvane</source>
        <translation>Orvane</translation>
    </message>
    <message>
        <source>&amp;File</source>
        <translation>&amp;Datei</translation>
    </message>
    <message>
        <source>Open…</source>
        <translation>Öffnen …</translation>
    </message>
    <message>
        <source>Quit</source>
        <translation>Beenden</translation>
    </message>
    <message>
        <source>&amp;Help</source>
        <translation>&amp;Hilfe</translation>
    </message>
    <message>
        <source>Orvane Help</source>
        <translation>Orvane-Hilfe</translation>
    </message>
    <message>
        <source>About Orvane</source>
        <translation>Über Orvane</translation>
    </message>
    <message>
        <source>&lt;p&gt;&lt;b&gt;Orvane&lt;/b&gt; %1&lt;/p&gt;&lt;p&gt;Trims the empty border off images.&lt;/p&gt;</source>
        <translation>&lt;p&gt;&lt;b&gt;Orvane&lt;/b&gt; %1&lt;/p&gt;&lt;p&gt;Schneidet den leeren Rand von Bildern ab.&lt;/p&gt;</translation>
    </message>
    <message>
        <source>&amp;More Apps</source>
        <translation>&amp;Weitere Apps</translation>
    </message>
</context>
<context>
    <name>orvane::QueueDrawer</name>
    <message>
        <source>Queue</source>
        <translation>Warteschlange</translation>
    </message>
    <message>
        <source>Add</source>
        <translation>Hinzufügen</translation>
    </message>
    <message>
        <source>Remove</source>
        <translation>Entfernen</translation>
    </message>
    <message>
        <source>Remove the selected image (Delete)</source>
        <translation>Ausgewähltes Bild entfernen (Entf)</translation>
    </message>
    <message>
        <source>%1/%2</source>
        <translation>%1/%2</translation>
    </message>
</context>
<context>
    <name>orvane::UpdateChecker</name>
    <message>
        <source>The update server didn’t answer in time.</source>
        <translation>Der Update-Server hat nicht rechtzeitig geantwortet.</translation>
    </message>
    <message>
        <source>The update server answered with status %1.</source>
        <translation>Der Update-Server hat mit Status %1 geantwortet.</translation>
    </message>
    <message>
        <source>The update server answered with status %1 (%2).</source>
        <translation>Der Update-Server hat mit Status %1 (%2) geantwortet.</translation>
    </message>
    <message>
        <source>This copy of Orvane has no valid key to verify updates.</source>
        <translation>Diese Orvane-Kopie hat keinen gültigen Schlüssel, um Updates zu prüfen.</translation>
    </message>
    <message>
        <source>The update feed is larger than %1.</source>
        <translation>Der Update-Feed ist größer als %1.</translation>
    </message>
    <message>
        <source>Couldn’t create the folder “%1”.</source>
        <translation>Der Ordner „%1“ konnte nicht angelegt werden.</translation>
    </message>
    <message>
        <source>The download is larger than the update feed announced, so it was deleted.</source>
        <translation>Der Download ist größer, als der Update-Feed angekündigt hat, und wurde deshalb gelöscht.</translation>
    </message>
    <message>
        <source>The download was cancelled.</source>
        <translation>Der Download wurde abgebrochen.</translation>
    </message>
    <message>
        <source>The download has %1 bytes instead of the %2 the update feed announced, so it was deleted.</source>
        <translation>Der Download hat %1 Bytes statt der %2, die der Update-Feed angekündigt hat, und wurde deshalb gelöscht.</translation>
    </message>
    <message>
        <source>The download’s signature doesn’t match the update’s, so it was deleted.</source>
        <translation>Die Signatur des Downloads passt nicht zum Update, deshalb wurde er gelöscht.</translation>
    </message>
    <message>
        <source>Couldn’t save the download in “%1”.</source>
        <translation>Der Download konnte nicht in „%1“ gesichert werden.</translation>
    </message>
    <message>
        <source>Couldn’t save the download in “%1” (%2).</source>
        <translation>Der Download konnte nicht in „%1“ gesichert werden (%2).</translation>
    </message>
    <message>
        <source>The update server sent Orvane on to “%1”, which isn’t an https address on the same server, so Orvane stopped.</source>
        <translation>Der Update-Server hat Orvane an „%1“ weitergeleitet. Das ist keine https-Adresse auf demselben Server, daher hat Orvane abgebrochen.</translation>
    </message>
    <message>
        <source>Couldn’t make a secure connection to the update server.</source>
        <translation>Es konnte keine sichere Verbindung zum Update-Server hergestellt werden.</translation>
    </message>
    <message>
        <source>Couldn’t make a secure connection to the update server (%1).</source>
        <translation>Es konnte keine sichere Verbindung zum Update-Server hergestellt werden (%1).</translation>
    </message>
    <message>
        <source>Couldn’t reach the update server.</source>
        <translation>Der Update-Server war nicht erreichbar.</translation>
    </message>
    <message>
        <source>Couldn’t reach the update server (%1).</source>
        <translation>Der Update-Server war nicht erreichbar (%1).</translation>
    </message>
    <message>
        <source>The update server’s answer couldn’t be read.</source>
        <translation>Die Antwort des Update-Servers konnte nicht gelesen werden.</translation>
    </message>
    <message>
        <source>The update server’s answer couldn’t be read (%1).</source>
        <translation>Die Antwort des Update-Servers konnte nicht gelesen werden (%1).</translation>
    </message>
    <message>
        <source>The update feed’s address “%1” isn’t an https address, so Orvane doesn’t use it.</source>
        <translation>Die Adresse des Update-Feeds „%1“ ist keine https-Adresse, daher verwendet Orvane sie nicht.</translation>
    </message>
    <message>
        <source>The update feed’s signature isn’t valid, so Orvane didn’t use the feed.</source>
        <translation>Die Signatur des Update-Feeds ist ungültig, daher hat Orvane den Feed nicht verwendet.</translation>
    </message>
    <message>
        <source>The update feed isn’t signed, so Orvane didn’t use it.</source>
        <translation>Der Update-Feed ist nicht signiert, daher hat Orvane ihn nicht verwendet.</translation>
    </message>
    <message>
        <source>The update’s address “%1” isn’t an https address, so Orvane didn’t download it.</source>
        <translation>Die Adresse des Updates „%1“ ist keine https-Adresse, daher hat Orvane es nicht geladen.</translation>
    </message>
    <message>
        <source>The update feed announces %1 for this update, more than the %2 Orvane accepts, so it wasn’t downloaded.</source>
        <translation>Der Update-Feed kündigt für dieses Update %1 an, mehr als die %2, die Orvane annimmt, daher wurde es nicht geladen.</translation>
    </message>
    <message>
        <source>There isn’t enough free space in “%1” for the update: it needs %2, and %3 are free.</source>
        <translation>In „%1“ ist nicht genug Platz für das Update: Es braucht %2, frei sind %3.</translation>
    </message>
</context>
<context>
    <name>orvane::UpdateDialog</name>
    <message>
        <source>Software Update</source>
        <translation>Softwareaktualisierung</translation>
    </message>
    <message>
        <source>Check for updates automatically</source>
        <translation>Automatisch nach Updates suchen</translation>
    </message>
    <message>
        <source>Download</source>
        <translation>Herunterladen</translation>
    </message>
    <message>
        <source>Cancel Download</source>
        <translation>Download abbrechen</translation>
    </message>
    <message>
        <source>Show in Folder</source>
        <translation>Im Ordner zeigen</translation>
    </message>
    <message>
        <source>Close</source>
        <translation>Schließen</translation>
    </message>
    <message>
        <source>Checking for updates…</source>
        <translation>Suche nach Updates …</translation>
    </message>
    <message>
        <source>Updates come from your system.</source>
        <translation>Updates kommen von Ihrem System.</translation>
    </message>
    <message>
        <source>This copy of Orvane is kept up to date by your system’s package manager.</source>
        <translation>Diese Orvane-Kopie wird von der Paketverwaltung Ihres Systems aktuell gehalten.</translation>
    </message>
    <message>
        <source>You’re up to date.</source>
        <translation>Orvane ist auf dem neuesten Stand.</translation>
    </message>
    <message>
        <source>Orvane %1 is the newest version available.</source>
        <translation>Orvane %1 ist die neueste verfügbare Version.</translation>
    </message>
    <message>
        <source>A new version of Orvane is available.</source>
        <translation>Eine neue Version von Orvane ist verfügbar.</translation>
    </message>
    <message>
        <source>Orvane %1 is available — you have %2. Download it now?</source>
        <translation>Orvane %1 ist verfügbar — Sie haben %2. Jetzt herunterladen?</translation>
    </message>
    <message>
        <source>Release Notes</source>
        <translation>Versionshinweise</translation>
    </message>
    <message>
        <source>Couldn’t check for updates.</source>
        <translation>Die Suche nach Updates ist fehlgeschlagen.</translation>
    </message>
    <message>
        <source>Downloading Orvane %1…</source>
        <translation>Orvane %1 wird heruntergeladen …</translation>
    </message>
    <message>
        <source>The update is ready.</source>
        <translation>Das Update ist bereit.</translation>
    </message>
    <message>
        <source>Orvane %1 was downloaded and verified as “%2”. Orvane doesn’t install it itself: open it from its folder.</source>
        <translation>Orvane %1 wurde als „%2“ heruntergeladen und geprüft. Orvane installiert es nicht selbst: Öffnen Sie es aus seinem Ordner.</translation>
    </message>
    <message>
        <source>Couldn’t download the update.</source>
        <translation>Das Update konnte nicht heruntergeladen werden.</translation>
    </message>
</context>
<context>
    <name>orvane::UpdaterController</name>
    <message>
        <source>Check for Updates…</source>
        <translation>Nach Updates suchen …</translation>
    </message>
</context>
</TS>

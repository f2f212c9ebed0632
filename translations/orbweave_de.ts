<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE">
<context>
    <name>orbweave::app::app_delegate</name>
    <message>
        <source>The stream did not start</source>
        <translation>Die Übertragung hat nicht begonnen</translation>
    </message>
    <message>
        <source>%1 is not streamed: %2</source>
        <translation>%1 wird nicht übertragen: %2</translation>
    </message>
</context>
<context>
    <name>orbweave::app::notification_prompter</name>
    <message>
        <source>Requesting Permission</source>
        <translation>Berechtigung angefragt</translation>
    </message>
    <message>
        <source>Allow</source>
        <translation>Erlauben</translation>
    </message>
    <message>
        <source>Deny</source>
        <translation>Verweigern</translation>
    </message>
    <message>
        <source>the screen “%1”</source>
        <translation>den Bildschirm „%1“</translation>
    </message>
    <message>
        <source>the window “%1”</source>
        <translation>das Fenster „%1“</translation>
    </message>
    <message>
        <source>the audio device “%1”</source>
        <translation>das Audiogerät „%1“</translation>
    </message>
    <message>
        <source>the camera “%1”</source>
        <translation>die Kamera „%1“</translation>
    </message>
    <message>
        <source>The service asks to stream %1.</source>
        <translation>Der Dienst möchte %1 live übertragen.</translation>
    </message>
    <message>
        <source>%1 asks to stream %2.</source>
        <translation>%1 möchte %2 live übertragen.</translation>
    </message>
    <message>
        <source>It will be streamed live until you stop it from the tray icon.</source>
        <translation>Die Übertragung läuft, bis Sie sie über das Symbol im Systembereich beenden.</translation>
    </message>
</context>
<context>
    <name>orbweave::app::sound_settings</name>
    <message>
        <source>No sound settings tool was found. Install pavucontrol (“PulseAudio Volume Control”), or open your desktop&apos;s sound settings, and choose “Orbweave Virtual Audio Driver” as the output device.</source>
        <translation>Es wurde kein Programm für die Toneinstellungen gefunden. Installieren Sie pavucontrol („PulseAudio-Lautstärkeregler“) oder öffnen Sie die Toneinstellungen Ihrer Arbeitsumgebung und wählen Sie „Orbweave Virtual Audio Driver“ als Ausgabegerät.</translation>
    </message>
</context>
<context>
    <name>orbweave::ui::activity_view</name>
    <message>
        <source>the screen “%1”</source>
        <translation>Bildschirm „%1“</translation>
    </message>
    <message>
        <source>a screen</source>
        <translation>ein Bildschirm</translation>
    </message>
    <message>
        <source>the window “%1”</source>
        <translation>Fenster „%1“</translation>
    </message>
    <message>
        <source>a window</source>
        <translation>ein Fenster</translation>
    </message>
    <message>
        <source>the audio device “%1”</source>
        <translation>Audiogerät „%1“</translation>
    </message>
    <message>
        <source>an audio device</source>
        <translation>ein Audiogerät</translation>
    </message>
    <message>
        <source>the camera “%1”</source>
        <translation>Kamera „%1“</translation>
    </message>
    <message>
        <source>a camera</source>
        <translation>eine Kamera</translation>
    </message>
    <message>
        <source>a source</source>
        <translation>eine Quelle</translation>
    </message>
    <message>
        <source>screens</source>
        <translation>Bildschirme</translation>
    </message>
    <message>
        <source>windows</source>
        <translation>Fenster</translation>
    </message>
    <message>
        <source>audio devices</source>
        <translation>Audiogeräte</translation>
    </message>
    <message>
        <source>cameras</source>
        <translation>Kameras</translation>
    </message>
    <message>
        <source>sources</source>
        <translation>Quellen</translation>
    </message>
    <message>
        <source>%1 s</source>
        <translation>%1 s</translation>
    </message>
    <message>
        <source>%1 min %2 s</source>
        <translation>%1 min %2 s</translation>
    </message>
    <message>
        <source>%1 h %2 min</source>
        <translation>%1 h %2 min</translation>
    </message>
    <message>
        <source>by your permission settings</source>
        <translation>nach Ihren Berechtigungen</translation>
    </message>
    <message>
        <source>by you</source>
        <translation>von Ihnen</translation>
    </message>
    <message>
        <source>%1, %2</source>
        <translation>%1, %2</translation>
    </message>
    <message>
        <source>Listing the %1 failed: %2</source>
        <translation>Auflisten fehlgeschlagen (%1): %2</translation>
    </message>
    <message>
        <source>The service listed the %1</source>
        <translation>Der Dienst hat %1 aufgelistet</translation>
    </message>
    <message>
        <source>%1 did not start: %2</source>
        <translation>%1: Übertragung nicht begonnen: %2</translation>
    </message>
    <message>
        <source>Streaming %1 to %2</source>
        <translation>%1 wird an %2 übertragen</translation>
    </message>
    <message>
        <source>Refused to list the %1</source>
        <translation>Auflisten abgelehnt: %1</translation>
    </message>
    <message>
        <source>Refused %1</source>
        <translation>Abgelehnt: %1</translation>
    </message>
    <message>
        <source>You stopped %1 after %2</source>
        <translation>Von Ihnen beendet nach %2: %1</translation>
    </message>
    <message>
        <source>The service stopped %1 after %2</source>
        <translation>Vom Dienst beendet nach %2: %1</translation>
    </message>
    <message>
        <source>%1 ended after %2: %3</source>
        <translation>%1 endete nach %2: %3</translation>
    </message>
    <message>
        <source>The service removed this computer from the account</source>
        <translation>Der Dienst hat diesen Computer vom Konto entfernt</translation>
    </message>
    <message>
        <source>You signed out</source>
        <translation>Sie haben sich abgemeldet</translation>
    </message>
    <message>
        <source>What the service used</source>
        <translation>Was der Dienst verwendet hat</translation>
    </message>
    <message>
        <source>Activity</source>
        <translation>Aktivität</translation>
    </message>
    <message>
        <source>Clear history</source>
        <translation>Verlauf löschen</translation>
    </message>
    <message>
        <source>Done</source>
        <translation>Fertig</translation>
    </message>
    <message>
        <source>Nothing yet.</source>
        <translation>Noch nichts.</translation>
    </message>
</context>
<context>
    <name>orbweave::ui::audio_alert</name>
    <message>
        <source>Audio output</source>
        <translation>Audioausgabe</translation>
    </message>
    <message>
        <source>Orbweave can&apos;t capture your computer&apos;s sound</source>
        <translation>Orbweave kann den Ton Ihres Computers nicht aufnehmen</translation>
    </message>
    <message>
        <source>Sound reaches the service only when the output device is “Orbweave Virtual Audio Driver”. Choose it as the output in the sound settings; you will still hear everything as before.</source>
        <translation>Ton erreicht den Dienst nur, wenn das Ausgabegerät „Orbweave Virtual Audio Driver“ ist. Wählen Sie es in den Toneinstellungen als Ausgabe; Sie hören weiterhin alles wie bisher.</translation>
    </message>
    <message>
        <source>Don&apos;t warn me when the output changes</source>
        <translation>Nicht warnen, wenn sich die Ausgabe ändert</translation>
    </message>
    <message>
        <source>Dismiss</source>
        <translation>Schließen</translation>
    </message>
    <message>
        <source>Open sound settings</source>
        <translation>Toneinstellungen öffnen</translation>
    </message>
    <message>
        <source>Audio Output (Not set!)</source>
        <translation>Audioausgabe (nicht eingestellt!)</translation>
    </message>
    <message>
        <source>Audio Output</source>
        <translation>Audioausgabe</translation>
    </message>
    <message>
        <source>Sound settings</source>
        <translation>Toneinstellungen</translation>
    </message>
</context>
<context>
    <name>orbweave::ui::check_window</name>
    <message>
        <source>Check this computer</source>
        <translation>Diesen Computer prüfen</translation>
    </message>
    <message>
        <source>Check results</source>
        <translation>Prüfergebnisse</translation>
    </message>
    <message>
        <source>Copy</source>
        <translation>Kopieren</translation>
    </message>
    <message>
        <source>Check again</source>
        <translation>Erneut prüfen</translation>
    </message>
    <message>
        <source>Close</source>
        <translation>Schließen</translation>
    </message>
    <message>
        <source>Checking this computer… (a few seconds)</source>
        <translation>Dieser Computer wird geprüft … (einige Sekunden)</translation>
    </message>
    <message>
        <source>A stream cannot work here (checks failed: %1). Each line marked &quot;fail&quot; says what to do.</source>
        <translation>Hier kann nicht gestreamt werden (fehlgeschlagene Prüfungen: %1). Jede mit „fail“ markierte Zeile sagt, was zu tun ist.</translation>
    </message>
    <message>
        <source>A stream can work here. Checks with a warning: %1; each says what to do.</source>
        <translation>Hier kann gestreamt werden. Prüfungen mit Warnung: %1; jede sagt, was zu tun ist.</translation>
    </message>
    <message>
        <source>A stream can work here. Everything was found.</source>
        <translation>Hier kann gestreamt werden. Alles wurde gefunden.</translation>
    </message>
    <message>
        <source>Check this computer…</source>
        <translation>Diesen Computer prüfen …</translation>
    </message>
</context>
<context>
    <name>orbweave::ui::main_window</name>
    <message>
        <source>Menu</source>
        <translation>Menü</translation>
    </message>
    <message>
        <source>Signing out…</source>
        <translation>Wird abgemeldet …</translation>
    </message>
    <message>
        <source>Stopping…</source>
        <translation>Wird beendet …</translation>
    </message>
    <message>
        <source>Connecting to the service…</source>
        <translation>Verbindung zum Dienst wird hergestellt …</translation>
    </message>
    <message>
        <source>Working</source>
        <translation>In Arbeit</translation>
    </message>
    <message>
        <source>You can close this window: Orbweave keeps trying in the background.</source>
        <translation>Sie können dieses Fenster schließen: Orbweave versucht es im Hintergrund weiter.</translation>
    </message>
    <message>
        <source>Enter this code on the service</source>
        <translation>Geben Sie diesen Code beim Dienst ein</translation>
    </message>
    <message>
        <source>It connects this computer to your account.</source>
        <translation>Er verbindet diesen Computer mit Ihrem Konto.</translation>
    </message>
    <message>
        <source>Pairing code</source>
        <translation>Kopplungscode</translation>
    </message>
    <message>
        <source>Copy code</source>
        <translation>Code kopieren</translation>
    </message>
    <message>
        <source>What may the service use on this computer?</source>
        <translation>Was darf der Dienst auf diesem Computer verwenden?</translation>
    </message>
    <message>
        <source>“Ask” shows a notification each time it is needed.</source>
        <translation>„Fragen“ zeigt jedes Mal eine Benachrichtigung, wenn es gebraucht wird.</translation>
    </message>
    <message>
        <source>Displays</source>
        <translation>Bildschirme</translation>
    </message>
    <message>
        <source>Display permission</source>
        <translation>Berechtigung für Bildschirme</translation>
    </message>
    <message>
        <source>Windows</source>
        <translation>Fenster</translation>
    </message>
    <message>
        <source>Window permission</source>
        <translation>Berechtigung für Fenster</translation>
    </message>
    <message>
        <source>Audio devices</source>
        <translation>Audiogeräte</translation>
    </message>
    <message>
        <source>Audio permission</source>
        <translation>Berechtigung für Audiogeräte</translation>
    </message>
    <message>
        <source>Cameras</source>
        <translation>Kameras</translation>
    </message>
    <message>
        <source>Camera permission</source>
        <translation>Berechtigung für Kameras</translation>
    </message>
    <message>
        <source>Ask</source>
        <translation>Fragen</translation>
    </message>
    <message>
        <source>Deny</source>
        <translation>Verweigern</translation>
    </message>
    <message>
        <source>Always allow</source>
        <translation>Immer erlauben</translation>
    </message>
    <message>
        <source>Done</source>
        <translation>Fertig</translation>
    </message>
    <message>
        <source>Continue</source>
        <translation>Weiter</translation>
    </message>
    <message>
        <source>Avatar</source>
        <translation>Profilbild</translation>
    </message>
    <message>
        <source>Username</source>
        <translation>Benutzername</translation>
    </message>
    <message>
        <source>Change what the service may use…</source>
        <translation>Ändern, was der Dienst verwenden darf …</translation>
    </message>
    <message>
        <source>This computer is connected to your account.</source>
        <translation>Dieser Computer ist mit Ihrem Konto verbunden.</translation>
    </message>
</context>
<context>
    <name>orbweave::ui::permission_dialog</name>
    <message>
        <source>Allow</source>
        <translation>Erlauben</translation>
    </message>
    <message>
        <source>Deny</source>
        <translation>Verweigern</translation>
    </message>
    <message>
        <source>Allow it?</source>
        <translation>Erlauben?</translation>
    </message>
</context>
<context>
    <name>orbweave::ui::status_menu</name>
    <message>
        <source>Connect your computer…</source>
        <translation>Computer verbinden …</translation>
    </message>
    <message>
        <source>Permissions…</source>
        <translation>Berechtigungen …</translation>
    </message>
    <message>
        <source>Quality</source>
        <translation>Qualität</translation>
    </message>
    <message>
        <source>Low</source>
        <translation>Niedrig</translation>
    </message>
    <message>
        <source>Medium</source>
        <translation>Mittel</translation>
    </message>
    <message>
        <source>High</source>
        <translation>Hoch</translation>
    </message>
    <message>
        <source>Extreme</source>
        <translation>Extrem</translation>
    </message>
    <message>
        <source>Launch at login</source>
        <translation>Bei der Anmeldung starten</translation>
    </message>
    <message>
        <source>Audio Output</source>
        <translation>Audioausgabe</translation>
    </message>
    <message>
        <source>Stop streaming</source>
        <translation>Übertragung beenden</translation>
    </message>
    <message>
        <source>Sign out</source>
        <translation>Abmelden</translation>
    </message>
    <message>
        <source>Quit</source>
        <translation>Beenden</translation>
    </message>
    <message>
        <source>Signing out…</source>
        <translation>Wird abgemeldet …</translation>
    </message>
    <message>
        <source>Stopping…</source>
        <translation>Wird beendet …</translation>
    </message>
    <message>
        <source>Orbweave</source>
        <translation>Orbweave</translation>
    </message>
    <message>
        <source>Waiting for pairing</source>
        <translation>Warte auf Kopplung</translation>
    </message>
    <message>
        <source>Connected</source>
        <translation>Verbunden</translation>
    </message>
    <message>
        <source>Offline</source>
        <translation>Offline</translation>
    </message>
    <message>
        <source>Streaming</source>
        <translation>Überträgt</translation>
    </message>
    <message>
        <source>Screen: %1</source>
        <translation>Bildschirm: %1</translation>
    </message>
    <message>
        <source>Window: %1</source>
        <translation>Fenster: %1</translation>
    </message>
    <message>
        <source>Audio: %1</source>
        <translation>Audio: %1</translation>
    </message>
    <message>
        <source>Camera: %1</source>
        <translation>Kamera: %1</translation>
    </message>
    <message>
        <source>Activity…</source>
        <translation>Aktivität …</translation>
    </message>
    <message>
        <source>Sign out?</source>
        <translation>Abmelden?</translation>
    </message>
    <message>
        <source>Signing out stops every stream now.</source>
        <translation>Das Abmelden beendet jetzt jede Übertragung.</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Abbrechen</translation>
    </message>
</context>
</TS>

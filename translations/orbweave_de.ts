<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE">
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
</context>
<context>
    <name>orbweave::app::sound_settings</name>
    <message>
        <source>No sound settings tool was found. Install pavucontrol (“PulseAudio Volume Control”), or open your desktop&apos;s sound settings, and choose “Orbweave Virtual Audio Driver” as the output device.</source>
        <translation>Es wurde kein Programm für die Toneinstellungen gefunden. Installieren Sie pavucontrol („PulseAudio-Lautstärkeregler“) oder öffnen Sie die Toneinstellungen Ihrer Arbeitsumgebung und wählen Sie „Orbweave Virtual Audio Driver“ als Ausgabegerät.</translation>
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
        <source>The service asks to capture this. Allow it?</source>
        <translation>Der Dienst möchte dies aufnehmen. Erlauben?</translation>
    </message>
    <message>
        <source>Allow</source>
        <translation>Erlauben</translation>
    </message>
    <message>
        <source>Deny</source>
        <translation>Verweigern</translation>
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
</context>
</TS>

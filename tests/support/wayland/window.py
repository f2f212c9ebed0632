#!/usr/bin/python3
"""A window for the Wayland tests: one colour to its edges, without decorations.

Its title and application id are TITLE. Once it is on the screen the file SHOWN is
made. SIGUSR1 gives it the size written in the file SIZE ("WIDTHxHEIGHT"), as a user
dragging its corner would. Exits on SIGTERM.

usage: window.py TITLE COLOUR WIDTH HEIGHT SHOWN SIZE
"""
import signal
import sys

import gi

gi.require_version("Gdk", "3.0")
gi.require_version("Gtk", "3.0")
from gi.repository import Gdk, GLib, Gtk  # noqa: E402


def main():
    title, colour, width, height, shown_file, size_file = sys.argv[1:7]
    GLib.set_prgname(title)
    if not Gdk.RGBA().parse(colour):
        sys.exit("not a colour: " + colour)

    window = Gtk.Window(title=title)
    window.set_decorated(False)
    window.set_default_size(int(width), int(height))
    # The theme's background, in the colour asked for (a style sheet: drawing it
    # ourselves would need cairo's Python binding).
    style = Gtk.CssProvider()
    style.load_from_data(("window { background: %s; }" % colour).encode())
    Gtk.StyleContext.add_provider_for_screen(Gdk.Screen.get_default(), style,
                                             Gtk.STYLE_PROVIDER_PRIORITY_APPLICATION)
    window.connect("destroy", Gtk.main_quit)

    def shown(*_):
        open(shown_file, "w").close()
        return False

    window.connect("map-event", shown)

    def resize():
        with open(size_file) as f:
            new_width, new_height = (int(n) for n in f.read().strip().split("x"))
        window.resize(new_width, new_height)
        return GLib.SOURCE_CONTINUE

    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGUSR1, resize)
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, lambda: Gtk.main_quit() or GLib.SOURCE_REMOVE)
    window.show_all()
    Gtk.main()


if __name__ == "__main__":
    main()

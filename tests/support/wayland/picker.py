#!/usr/bin/python3
"""The user at a GNOME or KDE desktop's screen-share picker, for the Wayland tests.

Watches the desktop's accessibility tree for the portal's picker and answers each one
as the file DIR/choice says: a name (the row whose name contains it is picked, else the
first row), nothing (Cancel), or "slow" (Cancel after 5 s). Every picker seen is counted
in DIR/chooser-calls ("called KIND ROWS": what it asks for, screen or window, and how
many it offers) and every answer in DIR/chooser-returns, as the sway fixture's chooser
script does. A picker offering nothing is cancelled. Exits after LIFETIME seconds, so a crashed test leaves nothing.

usage: picker.py DIR LIFETIME
"""
import os
import sys
import time

import pyatspi

POLL = 0.1  # seconds between looks at the tree; the tree announces nothing we can wait on

# Per desktop: the portal's application, the picker's window title and its buttons.
PICKERS = [
    ("xdg-desktop-portal-gnome", "Screen Share", "Share", "Cancel"),
    ("xdg-desktop-portal-kde", None, "Share", "Cancel"),
]


def find(node, predicate, depth=0):
    try:
        if predicate(node):
            return node
        if depth > 24:
            return None
        for child in node:
            if child is None:
                continue
            found = find(child, predicate, depth + 1)
            if found:
                return found
    except Exception:  # a node that went away while we looked
        return None
    return None


def picker():
    """The picker window on screen and its buttons' names, or None."""
    desktop = pyatspi.Registry.getDesktop(0)
    for app in desktop:
        if app is None:
            continue
        for name, title, share, cancel in PICKERS:
            if app.name != name:
                continue
            for window in app:
                if window is not None and (title is None or window.name == title):
                    if find(window, lambda n: n.getRole() == pyatspi.ROLE_PUSH_BUTTON and share in n.name):
                        return window, share, cancel
    return None


def press(window, label):
    button = find(window, lambda n: n.getRole() == pyatspi.ROLE_PUSH_BUTTON and label in n.name)
    action = button.queryAction()
    for i in range(action.nActions):
        if action.getName(i) in ("click", "Press", "press"):
            return action.doAction(i)
    return action.doAction(0)


def rows_of(window):
    return find(window, lambda n: n.getRole() in (pyatspi.ROLE_LIST, pyatspi.ROLE_LIST_BOX, pyatspi.ROLE_TABLE,
                                                  pyatspi.ROLE_TREE_TABLE) and n.childCount > 0)


def asks_for(window):
    """"window" or "screen", from the picker's prompt."""
    prompt = find(window, lambda n: n.getRole() == pyatspi.ROLE_LABEL and "to share" in (n.name or ""))
    return "window" if prompt is not None and "window" in prompt.name.lower() else "screen"


def select_row(window, choice):
    """Selects the row whose name contains choice, else the first row."""
    rows = rows_of(window)
    if rows is None:
        return False
    index = 0
    for i, row in enumerate(rows):
        if row is not None and choice in (row.name or ""):
            index = i
            break
    return rows.querySelection().selectChild(index)


def append(path, line):
    with open(path, "a") as out:
        out.write(line + "\n")


def main():
    folder, lifetime = sys.argv[1], float(sys.argv[2])
    until = time.monotonic() + lifetime
    while time.monotonic() < until:
        found = picker()
        if not found:
            time.sleep(POLL)
            continue
        window, share, cancel = found
        rows = rows_of(window)
        append(os.path.join(folder, "chooser-calls"),
               "called %s %d" % (asks_for(window), rows.childCount if rows is not None else 0))
        with open(os.path.join(folder, "choice")) as f:
            choice = f.read().strip()
        if choice == "slow":
            time.sleep(5)
            choice = ""
        try:
            if choice and select_row(window, choice):
                press(window, share)
            else:
                press(window, cancel)
        except Exception as error:  # the picker went away meanwhile (the request was cancelled)
            print("picker:", error, file=sys.stderr, flush=True)
        append(os.path.join(folder, "chooser-returns"), "returned")
        # The same window is not answered twice: wait for it to close.
        while picker() and time.monotonic() < until:
            time.sleep(POLL)


if __name__ == "__main__":
    main()

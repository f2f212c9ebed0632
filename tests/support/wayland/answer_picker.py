#!/usr/bin/python3
"""Answers a desktop's screen-share picker over AT-SPI, as a user would with the mouse.

Usage: answer_picker.py CHOICE_FILE RECORD_FILE

Watches the accessibility bus for dialogs with a "Share" button and answers each as
CHOICE_FILE says at that moment: "share" selects the first entry of its list of
screens or windows, ticks the box that keeps the choice where the dialog has one (so the
portal hands out a restore token) and presses "Share"; "cancel" presses "Cancel". Each
answer appends a line to RECORD_FILE. Runs until the test's fixture stops it.
"""

import sys
import time

import pyatspi

BUTTONS = {"share": "Share", "cancel": "Cancel"}
ROWS = (pyatspi.ROLE_LIST_ITEM, pyatspi.ROLE_TABLE_ROW, pyatspi.ROLE_TABLE_CELL, pyatspi.ROLE_TREE_ITEM)


def walk(node, depth=0):
    if node is None or depth > 40:
        return
    yield node
    try:
        count = node.childCount
    except Exception:
        return
    for index in range(count):
        try:
            child = node.getChildAtIndex(index)
        except Exception:
            continue
        yield from walk(child, depth + 1)


def press(node):
    action = node.queryAction()
    for index in range(action.nActions):
        if action.getName(index) in ("click", "press", "activate"):
            return action.doAction(index)
    return action.nActions > 0 and action.doAction(0)


def label_of(node):
    """A row's own name, or the text of the labels inside it (Qt Quick rows have none of their own)."""
    texts = [node.name] + [child.name for child in walk(node) if child.getRole() == pyatspi.ROLE_LABEL]
    return " ".join(text for text in texts if text)


def select_first_row(dialog):
    for node in walk(dialog):
        # KDE lists "New Virtual Output" first: a screen that does not exist yet.
        if node.getRole() in ROWS and "New Virtual Output" not in label_of(node):
            parent = node.parent
            try:
                parent.querySelection().selectChild(node.getIndexInParent())
            except Exception:
                pass
            try:
                press(node)
            except Exception:
                pass
            return True
    return False


def named(node, name):
    """GTK names a button by its mnemonic and its label ("_Share Share"), Qt by its text."""
    return name in node.name.replace("_", "").replace("&", "").split()


def find_button(dialog, name):
    for node in walk(dialog):
        if node.getRole() in (pyatspi.ROLE_PUSH_BUTTON, pyatspi.ROLE_TOGGLE_BUTTON) and named(node, name):
            return node
    return None


def remember(dialog):
    for node in walk(dialog):
        # GNOME: "Remember this selection"; KDE: "Allow restoring on future sessions".
        if node.getRole() == pyatspi.ROLE_CHECK_BOX and ("Remember" in node.name or "restoring" in node.name):
            if not node.getState().contains(pyatspi.STATE_CHECKED):
                press(node)
            return


def sensitive(node):
    return node.getState().contains(pyatspi.STATE_SENSITIVE)


def dialogs():
    desktop = pyatspi.Registry.getDesktop(0)
    for app in desktop:
        if app is None:
            continue
        for window in app:
            if window is not None and find_button(window, BUTTONS["share"]):
                yield window


def main():
    choice_file, record = sys.argv[1], sys.argv[2]
    answered = set()
    while True:
        try:
            for dialog in dialogs():
                with open(choice_file) as choice:
                    answer = choice.read().strip() or "share"
                key = hash(dialog)
                if key in answered:
                    continue
                button = find_button(dialog, BUTTONS[answer])
                if answer == "share":
                    select_first_row(dialog)
                    remember(dialog)
                    # "Share" turns sensitive once a row is selected: the next round presses it.
                    if not button or not sensitive(button):
                        continue
                if button and press(button):
                    answered.add(key)
                    with open(record, "a") as out:
                        out.write(answer + "\n")
        except Exception as error:  # the dialog went away while we looked
            print("answer_picker:", error, file=sys.stderr)
        time.sleep(0.1)  # polling the bus: no event tells us a dialog opened


if __name__ == "__main__":
    main()

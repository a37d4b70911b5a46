"""What a person sees: steps, messages and notes on a terminal or in a file."""

import json
import shutil
import sys
import textwrap


class Screen:
    COLOURS = {"title": "1", "note": "36", "good": "1;32", "bad": "1;31", "faint": "2"}

    def __init__(self):
        self.colours = sys.stdout.isatty()
        self.width = max(60, min(shutil.get_terminal_size((110, 25)).columns, 140))

    def paint(self, colour, text):
        return f"\033[{self.COLOURS[colour]}m{text}\033[0m" if self.colours else text

    def line(self, text="", colour=None):
        print(self.paint(colour, text) if colour else text, flush=True)

    def title(self, number, count, text):
        self.line()
        self.line(f"[{number}/{count}] {text}", "title")

    def note(self, text):
        for line in textwrap.wrap(text, self.width - 6):
            self.line("      " + line, "note")

    def heading(self, frame):
        arrow = "access point -> %s" if frame["direction"] == "rx" else "%s -> access point"
        peer = frame.get("server", "gateway").split(":")[0]  # the cloud has several
        how = frame.get("cipher") or ("encrypted" if frame["encrypted"] else "plain")
        self.line(f"      {frame['time']}  {arrow % peer}, {how}, {frame['length']} bytes", "faint")

    def message(self, frame):
        self.heading(frame)
        self.json(frame["message"])

    def json(self, value):
        for line in wrapped(value, self.width - 6):
            self.line("      " + line)


def wrapped(value, width, indent=0):
    """The lines of a JSON text: what fits is one line, what does not is broken up member by member."""
    flat = json.dumps(value, ensure_ascii=False)
    if len(flat) + indent <= width or not isinstance(value, (dict, list)) or not value:
        return [flat]
    if isinstance(value, dict):
        brackets = "{}"
        parts = [(json.dumps(name) + ": ", member) for name, member in value.items()]
    else:
        brackets = "[]"
        parts = [("", member) for member in value]
    lines = [brackets[0]]
    for number, (name, member) in enumerate(parts):
        inner = wrapped(member, width, indent + 2 + len(name))
        inner[0] = name + inner[0]
        if number < len(parts) - 1:
            inner[-1] += ","
        lines += ["  " + line for line in inner]
    return lines + [brackets[1]]


def filled(value, width):
    """The lines of a JSON text, filled; each entry of a list begins its own."""
    entries = [json.dumps(entry, ensure_ascii=False) for entry in value] if isinstance(value, list) else []
    if not any(len(entry) > 10 for entry in entries):
        entries = [json.dumps(value, ensure_ascii=False)]
    return [line for entry in entries for line in textwrap.wrap(
        entry, width, subsequent_indent="  ", break_long_words=False, break_on_hyphens=False)]
